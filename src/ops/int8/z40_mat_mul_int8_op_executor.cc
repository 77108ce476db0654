#include "ops/int8/z40_mat_mul_int8_op_executor.h"

#include "ops/kernels/matmul_int8.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
const char kOp[] = "Z40MatMulInt8";
}  // namespace

void Z40MatMulInt8OpExecutor::parse_parameter(const NodeDef& node_def) {
  // The missing-attribute messages of this operator carry two blanks.
  parse_int8_output_param(node_def, " Z40MatMulInt8", true, &op_param_);
}

void Z40MatMulInt8OpExecutor::inference_shape(const std::vector<const Tensor*>& inputs,
                                              std::vector<int>& shape) {
  check_input_count(inputs, 2, kOp);
  check_input_not_scalar(inputs[0], kOp);
  KOVRA_ENSURE_MSG(inputs[1]->shape().size() == 2, "weight->shape().size() == 2",
                   "Wrong weight shape in Z40MatMulInt8!!!");
  op_param_.has_bias = inputs.size() >= 3;
  shape = {inputs[0]->shape()[0], inputs[1]->shape()[1]};
}

bool Z40MatMulInt8OpExecutor::execute(const std::vector<const Tensor*>& inputs, Tensor* output) {
  check_input_count(inputs, 2, kOp);
  KOVRA_ENSURE_MSG(inputs[1]->shape().size() == 2, "weight->shape().size() == 2",
                   "Wrong weight shape in Z40MatMulInt8!!!");
  const Int8KernelInputs args(inputs, op_param_.has_bias, inputs[1]->shape()[1]);
  matmul_int8(args.get(), output, &op_param_);
  return true;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40MatMulInt8)
