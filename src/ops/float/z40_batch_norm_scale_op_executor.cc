#include <string>
#include <vector>

#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40BatchNormScaleParam : BaseParam {
  std::string action_type;
  FusedRelu act = FusedRelu::kNone;  // from action_type, once
  // Per-channel vectors: a float list or a float tensor, as converters write them.
  std::vector<float> scale;
  std::vector<float> bias;
};

// x * scale[c] + bias[c] per channel of a 4-D tensor, then a fused
// "Relu6" or "Relu". The channel count is the input's last dimension, read
// in execute at no cost, so shape inference has nothing else to prepare.
class Z40BatchNormScaleOpExecutor : public FloatEltwiseOpExecutor<Z40BatchNormScaleParam> {
 public:
  static constexpr const char* kName = "Z40BatchNormScale";

  Z40BatchNormScaleOpExecutor() : FloatEltwiseOpExecutor(kName, "FloatZ40BatchNormScale") {}

  void parse_parameter(const NodeDef& node_def) override {
    read_string(node_def, "ActionType", op_param_.action_type);
    op_param_.act = fused_relu_kind(op_param_.action_type);
    require_float_list(node_def, "scale", op_param_.scale,
                       "Do not find the scale in FloatZ40BatchNormScaleOpExecutor!!!");
    require_float_list(node_def, "bias", op_param_.bias,
                       "Do not find the bias in FloatZ40BatchNormScaleOpExecutor!!!");
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    _check_float_inputs(inputs, 1);
    _check_rank(inputs[0]);
    const int n = output->size();
    check_min_size(inputs[0], n, kName);
    if (n < 1) return true;
    const int channels = inputs[0]->shape()[3];
    check_attr_size(op_param_.scale.size(), channels, "scale", kName);
    check_attr_size(op_param_.bias.size(), channels, "bias", kName);
    batch_norm_scale_f32(inputs[0]->data<float>(), n, op_param_.scale.data(), op_param_.bias.data(), channels,
                         output->mutable_data<float>(), op_param_.act);
    return true;
  }

 protected:
  void _check_rank(const Tensor* input_tensor) const override {
    check_rank4(input_tensor, "Wrong input shape in z40 batch norm!!!");
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40BatchNormScale)
