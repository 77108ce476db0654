#include "ops/float/z40_gru_op_executor.h"

#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/gru_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// The tensor of `output`'s secondary outputs called `name`, created on first
// use; `hint` is where it usually sits.
Tensor* slave_named(Tensor* output, const std::string& name, size_t hint) {
  std::vector<Tensor*>& slaves = output->get_mu_slave_tensors();
  if (hint < slaves.size() && slaves[hint] != nullptr && slaves[hint]->name() == name) return slaves[hint];
  for (Tensor* slave : slaves) {
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
  // The node's output tensor carries the node's name.
  _name_outputs(node.name());
}

void Z40GRUOpExecutor::inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) {
  Z40GRUParam& p = op_param_;
  const GruShape s = _plan(inputs);
  p.y_shape = _y_shape(s);
  p.y_h_shape = _y_h_shape(s);
  p.shape = s;
  p.x_shape = inputs[0]->shape();
  p.middle_shape = {s.seq_len, s.batch, s.hidden};
  p.lens.assign(s.batch, 0);
  p.scratch.assign(static_cast<size_t>(kGruScratchPerHidden) * s.hidden, 0.0f);
  shape = p.y_shape;
}

bool Z40GRUOpExecutor::execute(const std::vector<const Tensor*>& inputs, Tensor* output) {
  if (KOVRA_UNLIKELY(!_matches_prepared(inputs, output))) _refuse(inputs, output);
  _run(inputs, inputs[0]->data<float>(), output);
  return true;
}

void Z40GRUOpExecutor::_compute(const std::vector<const Tensor*>& inputs, const float* x, Tensor* output) {
  if (KOVRA_UNLIKELY(!_matches_prepared(inputs, output))) _refuse(inputs, output);
  _run(inputs, x, output);
}

void Z40GRUOpExecutor::_run(const std::vector<const Tensor*>& inputs, const float* x, Tensor* output) {
  Z40GRUParam& p = op_param_;
  const GruShape& s = p.shape;
  if (p.exist_sequence_lens) _read_sequence_lengths(inputs[4]);
  if (KOVRA_UNLIKELY(output->name() != p.names_for)) _name_outputs(output->name());
  Tensor* y_h = slave_named(output, p.y_h_name, 0);
  y_h->set_data(p.y_h_shape, Tensor::DT_FLOAT, nullptr);
  float* middle[2 * kGruMiddlePerDirection];
  for (int k = 0; k < 2 * kGruMiddlePerDirection; ++k) {
    Tensor* m = slave_named(output, p.middle_names[k], k + 1);
    if (k < s.directions * kGruMiddlePerDirection) m->set_data(p.middle_shape, Tensor::DT_FLOAT, nullptr);
    middle[k] = m->mutable_data<float>();
  }
  gru_f32(s, x, inputs[1]->data<float>(), inputs[2]->data<float>(), inputs[3]->data<float>(),
          p.exist_sequence_lens ? p.lens.data() : nullptr, output->mutable_data<float>(),
          y_h->mutable_data<float>(), middle, p.scratch.data());
}

GruShape Z40GRUOpExecutor::_plan(const std::vector<const Tensor*>& inputs) const {
  const Z40GRUParam& p = op_param_;
  check_input_count(inputs, p.exist_sequence_lens ? 5 : 4, kName);
  const Tensor* x = inputs[0];
  check_input_not_scalar(x, "FloatZ40GRU");
  KOVRA_ENSURE_MSG(
      x->dims() >= 3, "input->dims() >= 3",
      std::string(kName) + " needs x as [seq_len, batch, input_size] but got " + shape_text(x->shape()));
  for (int i = 0; i < 4; ++i) check_float(inputs[i], kName);
  KOVRA_ENSURE_MSG(p.direction == "forward" || p.direction == "reverse" || p.direction == "bidirectional",
                   "direction is forward, reverse or bidirectional",
                   std::string(kName) + ": unknown direction " + p.direction);
  GruShape s;
  const std::vector<int>& xs = x->shape();
  s.batch = xs[xs.size() - 2];
  s.input_size = xs.back();
  s.seq_len = static_cast<int>(shape_count(std::vector<int>(xs.begin(), xs.end() - 2)));
  s.hidden = p.hidden_size;
  s.directions = p.direction == "bidirectional" ? 2 : 1;
  s.reverse = p.direction == "reverse";
  s.linear_before_reset = p.linear_before_reset;
  check_positive_dims({s.seq_len, s.batch, s.input_size, s.hidden},
                      "[seq_len, batch, input_size, hidden_size]", kName);
  const long long gates = 3LL * s.directions * s.hidden;
  _check_weight(inputs[1], gates * s.input_size, "W");
  _check_weight(inputs[2], gates * s.hidden, "R");
  _check_weight(inputs[3], 2 * gates, "B");
  return s;
}

void Z40GRUOpExecutor::_check_weight(const Tensor* t, long long count, const char* what) {
  KOVRA_ENSURE_MSG(t->size() == count, "weight->size() == expected",
                   std::string(kName) + ": " + what + " (" + t->name() + ") holds " +
                       std::to_string(t->size()) + " values, the attributes need " + std::to_string(count));
}

void Z40GRUOpExecutor::_read_sequence_lengths(const Tensor* t) {
  Z40GRUParam& p = op_param_;
  const GruShape& s = p.shape;
  KOVRA_ENSURE_MSG(t->size() == s.batch, "sequence_lens->size() == batch",
                   std::string(kName) + ": " + std::to_string(t->size()) +
                       " sequence lengths for a batch of " + std::to_string(s.batch));
  KOVRA_ENSURE_MSG(
      t->data_type() == Tensor::DT_INT32 || t->data_type() == Tensor::DT_FLOAT,
      "sequence_lens is int32 or float",
      std::string(kName) + ": sequence lengths of type " + std::to_string(static_cast<int>(t->data_type())));
  for (int b = 0; b < s.batch; ++b) {
    const double v = t->data_type() == Tensor::DT_INT32 ? t->data<int>()[b] : t->data<float>()[b];
    KOVRA_ENSURE_MSG(v >= 0 && v <= s.seq_len, "0 <= sequence_len <= seq_len",
                     std::string(kName) + ": sequence length " + std::to_string(v) + " outside 0.." +
                         std::to_string(s.seq_len));
    p.lens[b] = static_cast<int>(v);
  }
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
  bool ok = shape_count(shape) == count;
  for (int d : shape) ok = ok && d > 0;
  KOVRA_ENSURE_MSG(ok, "element_count(shape) == expected",
                   std::string(kName) + ": " + key + " " + shape_text(shape) + " does not hold " +
                       std::to_string(count) + " values");
}

void Z40GRUOpExecutor::_name_outputs(const std::string& name) {
  Z40GRUParam& p = op_param_;
  p.names_for = name;
  p.y_h_name = name + ":1";
  p.middle_names.resize(2 * kGruMiddlePerDirection);
  for (int k = 0; k < 2 * kGruMiddlePerDirection; ++k)
    p.middle_names[k] = name + "_middle_" + std::to_string(k);
}

bool Z40GRUOpExecutor::_matches_prepared(const std::vector<const Tensor*>& inputs,
                                         const Tensor* output) const {
  const Z40GRUParam& p = op_param_;
  const GruShape& s = p.shape;
  if (p.x_shape.empty() || inputs.size() < (p.exist_sequence_lens ? 5u : 4u)) return false;
  const long long gates = 3LL * s.directions * s.hidden;
  auto holds = [](const Tensor* t, long long count) {
    return t->size() == count && t->data_type() == Tensor::DT_FLOAT;
  };
  return inputs[0]->shape() == p.x_shape && inputs[0]->data_type() == Tensor::DT_FLOAT &&
         holds(inputs[1], gates * s.input_size) && holds(inputs[2], gates * s.hidden) &&
         holds(inputs[3], 2 * gates) && output->shape() == p.y_shape &&
         output->data_type() == Tensor::DT_FLOAT;
}

void Z40GRUOpExecutor::_refuse(const std::vector<const Tensor*>& inputs, const Tensor* output) const {
  const GruShape s = _plan(inputs);
  check_output_shape(output, _y_shape(s), kName);
  check_float_output(output, kName);
  fail_unprepared(inputs[0], op_param_.x_shape, kName);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40GRU)
