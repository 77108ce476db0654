#include "ops/int8/z40_conv2d_int8_op_executor.h"

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/conv2d_int8.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void Z40Conv2DInt8OpExecutor::parse_parameter(const NodeDef& node_def) {
  parse_int8_conv_param(node_def, kName, &op_param_);
  op_param_.first_layer = read_float_list(node_def, "input_mean", op_param_.input_mean);
  read_float_list(node_def, "input_var", op_param_.input_var);
  read_int(node_def, "groups", op_param_.groups);
}

void Z40Conv2DInt8OpExecutor::inference_shape(const std::vector<const Tensor*>& inputs,
                                              std::vector<int>& shape) {
  // Inputs as before need no second preparation.
  if (inputs.size() < 2 || !int8_prepared_for(op_param_.prepared, inputs))
    prepare_conv2d_int8(inputs, &op_param_);
  shape = op_param_.prepared.output_shape;
}

bool Z40Conv2DInt8OpExecutor::execute(const std::vector<const Tensor*>& inputs, Tensor* output) {
  check_input_count(inputs, 2, kName);
  if (!int8_prepared_for(op_param_.prepared, inputs)) prepare_conv2d_int8(inputs, &op_param_);
  const Int8Prepared& prep = op_param_.prepared;
  // A node without bias adds C_out zeros.
  if (op_param_.has_bias) check_float(inputs[2], kName);
  const float* bias = op_param_.has_bias ? inputs[2]->data<float>() : prep.zero_bias.data();
  run_conv2d_int8(inputs[0], inputs[1], bias, output, &op_param_, prep.tiled);
  return true;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Conv2DInt8)
