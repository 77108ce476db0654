#include <vector>

#include "kvdl.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40BatchNormScaleInt8Param : BaseParam {
  // Per-channel vectors: a float list or a float tensor, as converters write them.
  std::vector<float> scale, bias;
  int offset = 0;
  int max_value = 0;
};

// Per-channel affine step on codes: q = min(round(x * scale[c] + bias[c]),
// maxValue), then the zero point is added, as in the quantizer. The channel
// count is the input's last dimension, read in execute at no cost.
class Z40BatchNormScaleInt8OpExecutor : public ParamOpExecutor<Z40BatchNormScaleInt8Param> {
 public:
  static constexpr const char* kName = "Z40BatchNormScaleInt8";

  void parse_parameter(const NodeDef& node) override {
    require_float_list(node, "bias", op_param_.bias, missing_message("bias", kName));
    require_float_list(node, "scale", op_param_.scale, missing_message("scale", kName));
    require_int(node, "offset", op_param_.offset, missing_message("offset", kName));
    require_int(node, "maxValue", op_param_.max_value, missing_message("maxValue", kName));
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = first_input(inputs, kName);
    _check_rank(input);
    shape = input->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Tensor* input = first_input(inputs, kName);
    _check_rank(input);
    check_float(input, kName);
    const int n = input->size();
    check_min_size(output, n, kName);
    const int channels = channel_count(input);
    check_per_channel(op_param_.scale, channels, "scale", kName);
    check_per_channel(op_param_.bias, channels, "bias", kName);
    const float hi = static_cast<float>(op_param_.max_value);
    const float offset = static_cast<float>(op_param_.offset);
    const float* x = input->data<float>();
    float* y = output->mutable_data<float>();
    const float* scale = op_param_.scale.data();
    const float* bias = op_param_.bias.data();
    for (int base = 0; base < n; base += channels) {
      for (int c = 0; c < channels; ++c) {
        float q = kvdl::tensorflow_round_cpu(x[base + c] * scale[c] + bias[c]);
        if (q > hi) q = hi;
        y[base + c] = offset + q;
      }
    }
    return true;
  }

 private:
  // The message stays a literal here: execute builds no string unless it fails.
  static void _check_rank(const Tensor* input) {
    KOVRA_ENSURE_MSG(input->shape().size() == 4, "input_tensor->shape().size() == 4",
                     "Wrong input shape in z40 batch norm!!!");
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40BatchNormScaleInt8)
