#ifndef KOVRAEXECUTOR_OPS_MATMUL_INT8_H_
#define KOVRAEXECUTOR_OPS_MATMUL_INT8_H_

#include <vector>

#include "ops/int8/z40_mat_mul_int8_op_executor.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Int8 matrix multiply: inputs a ([M, K] or [M, 1, 1, K]), b ([K, N]) and the
// bias (N values). Each output sums k = 0 .. K-1 in float, then takes the
// output stage of the int8 convolutions; integer codes run on the exact
// integer kernels.
void matmul_int8(const std::vector<const Tensor*>& inputs, Tensor* output, Z40MatMulInt8Param* param);

// Checks the inputs (a, b, optional bias) and prepares the product's shape
// (as a 1 x 1 convolution over an M x 1 image of K channels), multiplier and
// stand-in bias into param->prepared.
void prepare_matmul_int8(const std::vector<const Tensor*>& inputs, Z40MatMulInt8Param* param);
// The product once prepared: no allocation and no message unless a check
// fails. `bias` holds N values.
void run_matmul_int8(const Tensor* a, const Tensor* b, const float* bias, Tensor* output,
                     Z40MatMulInt8Param* param);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_MATMUL_INT8_H_
