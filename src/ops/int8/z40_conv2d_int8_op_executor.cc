#include "ops/int8/z40_conv2d_int8_op_executor.h"

#include "op_attr.h"
#include "ops/kernels/conv2d_int8.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
const char kOp[] = "Z40Conv2DInt8";
}  // namespace

void Z40Conv2DInt8OpExecutor::parse_parameter(const NodeDef& node_def) {
  parse_int8_conv_param(node_def, kOp, &op_param_);
  op_param_.first_layer = read_float_list(node_def, "input_mean", op_param_.input_mean);
  read_float_list(node_def, "input_var", op_param_.input_var);
  read_int(node_def, "groups", op_param_.groups);
}

void Z40Conv2DInt8OpExecutor::inference_shape(const std::vector<const Tensor*>& inputs,
                                              std::vector<int>& shape) {
  check_input_count(inputs, 2, kOp);
  check_input_not_scalar(inputs[0], kOp);
  const std::vector<int>& ws = inputs[1]->shape();
  KOVRA_ENSURE_MSG(ws.size() == 4, "weight->shape().size() == 4", "Wrong kernel shape in Z40Conv2DInt8!!!");
  const ConvGeometry s = int8_conv_shape(op_param_, inputs[0]->shape(), ws[0], ws[1], ws[3], kOp);
  op_param_.has_bias = inputs.size() >= 3;
  shape = {s.batch, s.out_h, s.out_w, s.out_c};
}

bool Z40Conv2DInt8OpExecutor::execute(const std::vector<const Tensor*>& inputs, Tensor* output) {
  check_input_count(inputs, 2, kOp);
  check_input_not_scalar(inputs[0], kOp);
  KOVRA_ENSURE_MSG(inputs[1]->shape().size() == 4, "weight->shape().size() == 4",
                   "Wrong kernel shape in Z40Conv2DInt8!!!");
  const Int8KernelInputs args(inputs, op_param_.has_bias, inputs[1]->shape()[3]);
  if (inputs[0]->shape().back() > 2 && op_param_.groups == 1) {
    conv2d_avx_int8(args.get(), output, &op_param_);
  } else {
    conv2d_int8(args.get(), output, &op_param_);
  }
  return true;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Conv2DInt8)
