#include "ops/int8/z40_depthwise_conv2d_native_int8_op_executor.h"

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/dwconv2d_int8.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void Z40DepthwiseConv2dNativeInt8OpExecutor::parse_parameter(const NodeDef& node_def) {
  parse_int8_conv_param(node_def, kName, &op_param_);
  read_bool(node_def, "is_conv1d", op_param_.is_conv1d);
  read_bool(node_def, "post_training_quantization", op_param_.post_training_quantization);
}

void Z40DepthwiseConv2dNativeInt8OpExecutor::inference_shape(const std::vector<const Tensor*>& inputs,
                                                             std::vector<int>& shape) {
  // Inputs as before need no second preparation.
  if (inputs.size() < 2 || !int8_prepared_for(op_param_.prepared, inputs))
    prepare_dwconv2d_int8(inputs, &op_param_);
  shape = op_param_.prepared.output_shape;
}

bool Z40DepthwiseConv2dNativeInt8OpExecutor::execute(const std::vector<const Tensor*>& inputs,
                                                     Tensor* output) {
  check_input_count(inputs, 2, kName);
  if (!int8_prepared_for(op_param_.prepared, inputs)) prepare_dwconv2d_int8(inputs, &op_param_);
  if (op_param_.has_bias) check_float(inputs[2], kName);
  const float* bias = op_param_.has_bias ? inputs[2]->data<float>() : op_param_.prepared.zero_bias.data();
  run_dwconv2d_int8(inputs[0], inputs[1], bias, output, &op_param_);
  return true;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40DepthwiseConv2dNativeInt8)
