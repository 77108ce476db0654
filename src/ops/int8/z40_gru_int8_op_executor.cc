#include <string>
#include <vector>

#include "kvdl.h"
#include "op_attr.h"
#include "ops/int8/int8_common.h"
#include "ops/common/op_checks.h"
#include "ops/float/z40_gru_op_executor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40GRUInt8Param : BaseParam {
  std::vector<float> qscale;
  std::vector<float> deqscale;
  int offset = 0;
  int max_value = 127;
  int min_value = -128;
};

namespace {

const char* const kOp = "Z40GRUInt8";

// One scale for every channel, or one per channel.
float scale_of(const std::vector<float>& scales, long long i, int channels) {
  return scales.size() == 1 ? scales[0] : scales[i % channels];
}

void check_scales(const std::vector<float>& scales, int channels, const char* key) {
  KOVRA_ENSURE_MSG(scales.size() == 1 || static_cast<int>(scales.size()) >= channels,
                   "values.size() == 1 || values.size() >= channels",
                   std::string(kOp) + ": attribute " + key + " has " + std::to_string(scales.size()) +
                       " values, needs 1 or " + std::to_string(channels));
}

}  // namespace

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
    require_float_list(node, "QSCALE", p.qscale, missing_message("QSCALE", kOp));
    require_float_list(node, "DEQSCALE", p.deqscale, missing_message("DEQSCALE", kOp));
    require_int(node, "maxValue", p.max_value, missing_message("maxValue", kOp));
    require_int(node, "minValue", p.min_value, missing_message("minValue", kOp));
    read_int(node, "offset", p.offset);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const GruShape s = _plan(inputs);
    check_scales(quant_.deqscale, s.input_size, "DEQSCALE");
    check_scales(quant_.qscale, s.hidden, "QSCALE");
    const Tensor* x = inputs[0];
    std::vector<float> real(static_cast<size_t>(x->size()));
    const float* codes = x->data<float>();
    for (long long i = 0; i < x->size(); ++i) real[i] = codes[i] * scale_of(quant_.deqscale, i, s.input_size);
    _compute(inputs, real.data(), output);
    _requantize(output, s.hidden);
    for (Tensor* slave : output->get_mu_slave_tensors()) {
      if (slave != nullptr && slave->name() == output->name() + ":1") _requantize(slave, s.hidden);
    }
    return true;
  }

 private:
  void _requantize(Tensor* t, int hidden) const {
    float* y = t->mutable_data<float>();
    const float lo = static_cast<float>(quant_.min_value), hi = static_cast<float>(quant_.max_value);
    const float offset = static_cast<float>(quant_.offset);
    for (long long i = 0; i < t->size(); ++i) {
      const float q = kvdl::tensorflow_round_cpu(y[i] * scale_of(quant_.qscale, i, hidden));
      y[i] = clamp_then_offset(q, lo, hi, offset);
    }
  }

  Z40GRUInt8Param quant_;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40GRUInt8)
