#include <memory>
#include <string>

#include "op_attr.h"
#include "op_executor.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/gru_kernels.h"
#include "ops/common/op_checks.h"
#include "ops/float/z40_gru_op_executor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

const char* const kOp = "Z40GRU";

// The tensor of `output`'s secondary outputs called `name`, created on first use.
Tensor* slave_named(Tensor* output, const std::string& name) {
  for (Tensor* slave : output->get_mu_slave_tensors()) {
    if (slave != nullptr && slave->name() == name) return slave;
  }
  Tensor* slave = new Tensor();
  slave->set_name(name);
  output->set_slave_tensors(slave);
  return slave;
}

}  // namespace

void Z40GRUOpExecutor::parse_parameter(const NodeDef& node) {
  Z40GRUParam& p = op_param_;
  read_int_list(node, "output_shape", p.output_shape);
  read_int_list(node, "output_shape1", p.output_shape1);
  read_string(node, "direction", p.direction);
  read_bool(node, "exist_sequence_lens", p.exist_sequence_lens);
  require_float_as_int(node, "hidden_size", p.hidden_size, "Do not find the hidden_size in FloatZ40GRU!!!");
  read_bool(node, "linear_before_reset", p.linear_before_reset);
}

void Z40GRUOpExecutor::inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) {
  shape = _y_shape(_plan(inputs));
}

bool Z40GRUOpExecutor::execute(const std::vector<const Tensor*>& inputs, Tensor* output) {
  _plan(inputs);  // checks the inputs before x is read
  _compute(inputs, inputs[0]->data<float>(), output);
  return true;
}

void Z40GRUOpExecutor::_compute(const std::vector<const Tensor*>& inputs, const float* x, Tensor* output) {
  const GruShape s = _plan(inputs);
  check_output_shape(output, _y_shape(s), kOp);
  std::vector<int> lens;
  if (op_param_.exist_sequence_lens) lens = _sequence_lengths(inputs[4], s);
  const std::string& name = output->name();
  Tensor* y_h = slave_named(output, name + ":1");
  y_h->set_data(_y_h_shape(s), Tensor::DT_FLOAT, nullptr);
  float* middle[2 * kGruMiddlePerDirection];
  for (int k = 0; k < 2 * kGruMiddlePerDirection; ++k) {
    Tensor* m = slave_named(output, name + "_middle_" + std::to_string(k));
    if (k < s.directions * kGruMiddlePerDirection) m->set_data({s.seq_len, s.batch, s.hidden}, Tensor::DT_FLOAT, nullptr);
    middle[k] = m->mutable_data<float>();
  }
  gru_f32(s, x, inputs[1]->data<float>(), inputs[2]->data<float>(),
          inputs[3]->data<float>(), lens.empty() ? nullptr : lens.data(), output->mutable_data<float>(),
          y_h->mutable_data<float>(), middle);
}

GruShape Z40GRUOpExecutor::_plan(const std::vector<const Tensor*>& inputs) const {
  const Z40GRUParam& p = op_param_;
  check_input_count(inputs, p.exist_sequence_lens ? 5 : 4, kOp);
  const Tensor* x = inputs[0];
  check_input_not_scalar(x, "FloatZ40GRU");
  KOVRA_ENSURE_MSG(
      x->dims() >= 3, "input->dims() >= 3",
      std::string(kOp) + " needs x as [seq_len, batch, input_size] but got " + shape_text(x->shape()));
  for (int i = 0; i < 4; ++i) check_float(inputs[i], kOp);
  KOVRA_ENSURE_MSG(p.direction == "forward" || p.direction == "reverse" || p.direction == "bidirectional",
                   "direction is forward, reverse or bidirectional",
                   std::string(kOp) + ": unknown direction " + p.direction);
  GruShape s;
  const std::vector<int>& xs = x->shape();
  s.batch = xs[xs.size() - 2];
  s.input_size = xs.back();
  s.seq_len = static_cast<int>(element_count(std::vector<int>(xs.begin(), xs.end() - 2)));
  s.hidden = p.hidden_size;
  s.directions = p.direction == "bidirectional" ? 2 : 1;
  s.reverse = p.direction == "reverse";
  s.linear_before_reset = p.linear_before_reset;
  check_positive_dims({s.seq_len, s.batch, s.input_size, s.hidden}, "[seq_len, batch, input_size, hidden_size]", kOp);
  const long long gates = 3LL * s.directions * s.hidden;
  _check_weight(inputs[1], gates * s.input_size, "W");
  _check_weight(inputs[2], gates * s.hidden, "R");
  _check_weight(inputs[3], 2 * gates, "B");
  return s;
}

void Z40GRUOpExecutor::_check_weight(const Tensor* t, long long count, const char* what) {
  KOVRA_ENSURE_MSG(t->size() == count, "weight->size() == expected",
                   std::string(kOp) + ": " + what + " (" + t->name() + ") holds " +
                       std::to_string(t->size()) + " values, the attributes need " + std::to_string(count));
}

std::vector<int> Z40GRUOpExecutor::_sequence_lengths(const Tensor* t, const GruShape& s) const {
  KOVRA_ENSURE_MSG(t->size() == s.batch, "sequence_lens->size() == batch",
                   std::string(kOp) + ": " + std::to_string(t->size()) + " sequence lengths for a batch of " +
                       std::to_string(s.batch));
  KOVRA_ENSURE_MSG(
      t->data_type() == Tensor::DT_INT32 || t->data_type() == Tensor::DT_FLOAT,
      "sequence_lens is int32 or float",
      std::string(kOp) + ": sequence lengths of type " + std::to_string(static_cast<int>(t->data_type())));
  std::vector<int> lens(s.batch);
  for (int b = 0; b < s.batch; ++b) {
    const double v = t->data_type() == Tensor::DT_INT32 ? t->data<int>()[b] : t->data<float>()[b];
    KOVRA_ENSURE_MSG(v >= 0 && v <= s.seq_len, "0 <= sequence_len <= seq_len",
                     std::string(kOp) + ": sequence length " + std::to_string(v) + " outside 0.." +
                         std::to_string(s.seq_len));
    lens[b] = static_cast<int>(v);
  }
  return lens;
}

std::vector<int> Z40GRUOpExecutor::_y_shape(const GruShape& s) const {
  std::vector<int> shape = op_param_.output_shape;
  if (shape.empty()) shape = {s.seq_len, s.directions, s.batch, s.hidden};
  _check_count(shape, 1LL * s.seq_len * s.directions * s.batch * s.hidden, "output_shape");
  return shape;
}

std::vector<int> Z40GRUOpExecutor::_y_h_shape(const GruShape& s) const {
  std::vector<int> shape = op_param_.output_shape1;
  if (shape.empty()) shape = {s.directions, s.batch, s.hidden};
  _check_count(shape, 1LL * s.directions * s.batch * s.hidden, "output_shape1");
  return shape;
}

void Z40GRUOpExecutor::_check_count(const std::vector<int>& shape, long long count, const char* key) {
  bool ok = element_count(shape) == count;
  for (int d : shape) ok = ok && d > 0;
  KOVRA_ENSURE_MSG(ok, "element_count(shape) == expected",
                   std::string(kOp) + ": " + key + " " + shape_text(shape) + " does not hold " +
                       std::to_string(count) + " values");
}


}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40GRU)
