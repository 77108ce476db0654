#include <string>
#include <vector>

#include "kvdl.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/float/z40_gru_op_executor.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40GRUInt8Param : BaseParam {
  std::vector<float> qscale;
  std::vector<float> deqscale;
  int offset = 0;
  int max_value = 127;
  int min_value = -128;

  // Prepared: the shape of x, the scales spread to one per input feature and
  // one per hidden unit, and the buffer of dequantized x.
  std::vector<int> input_shape;
  std::vector<float> deq_per_feature, q_per_unit;
  std::vector<float> real;
};

// The accelerator runs the recurrence in float between a dequantizing and a
// quantizing stage: x = code * DEQSCALE[c] (c the input feature), the float
// GRU, then q = round_half_even(y * QSCALE[c]) clamped to [minValue, maxValue]
// plus "offset" (c the hidden unit), for Y and for the last state Y_h. The
// per-step intermediates stay float for inspection.
class Z40GRUInt8OpExecutor : public Z40GRUOpExecutor {
 public:
  void parse_parameter(const NodeDef& node) override {
    Z40GRUOpExecutor::parse_parameter(node);
    // Quantized models store the size as an integer.
    int hidden = 0;
    if (read_int(node, "hidden_size", hidden) && hidden > 0) op_param_.hidden_size = hidden;
    Z40GRUInt8Param& p = quant_;
    require_float_list(node, "QSCALE", p.qscale, missing_message("QSCALE", kName));
    require_float_list(node, "DEQSCALE", p.deqscale, missing_message("DEQSCALE", kName));
    require_int(node, "maxValue", p.max_value, missing_message("maxValue", kName));
    require_int(node, "minValue", p.min_value, missing_message("minValue", kName));
    read_int(node, "offset", p.offset);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40GRUOpExecutor::inference_shape(inputs, shape);
    const GruShape s = _plan(inputs);
    Z40GRUInt8Param& p = quant_;
    _spread(p.deqscale, s.input_size, "DEQSCALE", p.deq_per_feature);
    _spread(p.qscale, s.hidden, "QSCALE", p.q_per_unit);
    p.input_shape = inputs[0]->shape();
    p.real.resize(static_cast<size_t>(inputs[0]->size()));
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    Z40GRUInt8Param& p = quant_;
    check_input_count(inputs, 1, kName);
    const Tensor* x = inputs[0];
    check_input_not_scalar(x, "FloatZ40GRU");  // the catalogue's text for this operator
    check_prepared(x, p.input_shape, kName);
    check_float(x, kName);
    const int features = static_cast<int>(p.deq_per_feature.size());
    const float* codes = x->data<float>();
    float* real = p.real.data();
    const long long n = x->size();
    for (long long base = 0; base < n; base += features) {
      for (int c = 0; c < features; ++c) real[base + c] = codes[base + c] * p.deq_per_feature[c];
    }
    _compute(inputs, real, output);
    _requantize(output);
    const std::string& name = output->name();
    for (Tensor* slave : output->get_mu_slave_tensors()) {
      if (slave != nullptr && _is_state_of(slave->name(), name)) _requantize(slave);
    }
    return true;
  }

 private:
  // One scale for every channel, or one per channel; spread to one per channel.
  static void _spread(const std::vector<float>& scales, int channels, const char* key,
                      std::vector<float>& out) {
    KOVRA_ENSURE_MSG(scales.size() == 1 || static_cast<int>(scales.size()) >= channels,
                     "values.size() == 1 || values.size() >= channels",
                     std::string(kName) + ": attribute " + key + " has " + std::to_string(scales.size()) +
                         " values, needs 1 or " + std::to_string(channels));
    out.resize(channels);
    for (int c = 0; c < channels; ++c) out[c] = scales.size() == 1 ? scales[0] : scales[c];
  }

  // The last state Y_h is the secondary output "<output>:1".
  static bool _is_state_of(const std::string& slave, const std::string& output) {
    return slave.size() == output.size() + 2 && slave.compare(0, output.size(), output) == 0 &&
           slave.compare(output.size(), 2, ":1") == 0;
  }

  // Y and Y_h end in the hidden units (their counts are multiples of it), so
  // flat element i is unit i mod hidden.
  void _requantize(Tensor* t) const {
    const Z40GRUInt8Param& p = quant_;
    const int hidden = static_cast<int>(p.q_per_unit.size());
    float* y = t->mutable_data<float>();
    const float lo = static_cast<float>(p.min_value), hi = static_cast<float>(p.max_value);
    const float offset = static_cast<float>(p.offset);
    const long long n = t->size();
    for (long long base = 0; base < n; base += hidden) {
      for (int c = 0; c < hidden; ++c) {
        const float q = kvdl::tensorflow_round_cpu(y[base + c] * p.q_per_unit[c]);
        y[base + c] = clamp_then_offset(q, lo, hi, offset);
      }
    }
  }

  static constexpr const char* kName = "Z40GRUInt8";
  Z40GRUInt8Param quant_;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40GRUInt8)
