#ifndef KOVRAEXECUTOR_OPS_Z40_DEPTHWISE_CONV2D_NATIVE_INT8_OP_EXECUTOR_H_
#define KOVRAEXECUTOR_OPS_Z40_DEPTHWISE_CONV2D_NATIVE_INT8_OP_EXECUTOR_H_

#include <vector>

#include "ops/int8/int8_conv_param.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Weights are [kernel_h, kernel_w, channels, multiplier]; output channel
// c * multiplier + j filters input channel c.
struct Z40DepthwiseConv2dNativeInt8Param : Int8ConvBaseParam {
  bool is_conv1d = false;
  bool post_training_quantization = false;
};

class Z40DepthwiseConv2dNativeInt8OpExecutor : public ParamOpExecutor<Z40DepthwiseConv2dNativeInt8Param> {
 public:
  static constexpr const char* kName = "Z40DepthwiseConv2dNativeInt8";
  void parse_parameter(const NodeDef& node_def) override;
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override;
  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_Z40_DEPTHWISE_CONV2D_NATIVE_INT8_OP_EXECUTOR_H_
