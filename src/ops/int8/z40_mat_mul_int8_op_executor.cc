#include "ops/int8/z40_mat_mul_int8_op_executor.h"

#include "ops/common/op_checks.h"
#include "ops/kernels/matmul_int8.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void Z40MatMulInt8OpExecutor::parse_parameter(const NodeDef& node_def) {
  // The missing-attribute messages of this operator carry two blanks.
  parse_int8_output_param(node_def, " Z40MatMulInt8", true, &op_param_);
}

void Z40MatMulInt8OpExecutor::inference_shape(const std::vector<const Tensor*>& inputs,
                                              std::vector<int>& shape) {
  // Inputs as before need no second preparation.
  if (inputs.size() < 2 || !int8_prepared_for(op_param_.prepared, inputs))
    prepare_matmul_int8(inputs, &op_param_);
  shape = op_param_.prepared.output_shape;
}

bool Z40MatMulInt8OpExecutor::execute(const std::vector<const Tensor*>& inputs, Tensor* output) {
  check_input_count(inputs, 2, kName);
  if (!int8_prepared_for(op_param_.prepared, inputs)) prepare_matmul_int8(inputs, &op_param_);
  if (op_param_.has_bias) check_float(inputs[2], kName);
  const float* bias = op_param_.has_bias ? inputs[2]->data<float>() : op_param_.prepared.zero_bias.data();
  run_matmul_int8(inputs[0], inputs[1], bias, output, &op_param_);
  return true;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40MatMulInt8)
