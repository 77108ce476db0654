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

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_MATMUL_INT8_H_
