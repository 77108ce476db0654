#include "ops/int8/z40_depthwise_conv2d_native_int8_op_executor.h"

#include "op_attr.h"
#include "ops/kernels/dwconv2d_int8.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
const char kOp[] = "Z40DepthwiseConv2dNativeInt8";
}  // namespace

void Z40DepthwiseConv2dNativeInt8OpExecutor::parse_parameter(const NodeDef& node_def) {
  parse_int8_conv_param(node_def, kOp, &op_param_);
  read_bool(node_def, "is_conv1d", op_param_.is_conv1d);
  read_bool(node_def, "post_training_quantization", op_param_.post_training_quantization);
}

void Z40DepthwiseConv2dNativeInt8OpExecutor::inference_shape(
    const std::vector<const Tensor*>& inputs, std::vector<int>& shape) {
  check_input_count(inputs, 2, kOp);
  check_input_not_scalar(inputs[0], kOp);
  const std::vector<int>& ws = inputs[1]->shape();
  KOVRA_ENSURE_MSG(ws.size() == 4, "weight->shape().size() == 4",
                   "Wrong kernel shape in Z40DepthwiseConv2dNativeInt8!!!");
  const ConvGeometry s = int8_conv_shape(op_param_, inputs[0]->shape(), ws[0], ws[1], ws[2] * ws[3], kOp);
  op_param_.has_bias = inputs.size() >= 3;
  shape = {s.batch, s.out_h, s.out_w, s.out_c};
}

bool Z40DepthwiseConv2dNativeInt8OpExecutor::execute(const std::vector<const Tensor*>& inputs,
                                                     Tensor* output) {
  check_input_count(inputs, 2, kOp);
  KOVRA_ENSURE_MSG(inputs[1]->shape().size() == 4, "weight->shape().size() == 4",
                   "Wrong kernel shape in Z40DepthwiseConv2dNativeInt8!!!");
  const long long out_c = static_cast<long long>(inputs[1]->shape()[2]) * inputs[1]->shape()[3];
  const Int8KernelInputs args(inputs, op_param_.has_bias, out_c);
  dwconv2d_int8(args.get(), output, &op_param_);
  return true;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40DepthwiseConv2dNativeInt8)
