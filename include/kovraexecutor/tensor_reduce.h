#ifndef KOVRAEXECUTOR_TENSOR_REDUCE_H_
#define KOVRAEXECUTOR_TENSOR_REDUCE_H_

#include "export.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// A reduction kernel: input element (o, a, i) is in[(o * axis_len + a) * inner + i]
// and output element (o, i) is out[o * inner + i].
using ReduceFn = void (*)(float* in, float* out, int outer, int axis_len, int inner);

// Reduces t along `axis` (negative counts from the end) with kernel fn.
KOVRA_API Tensor reduce_cpu(const Tensor& t, int axis, bool keep_dims, ReduceFn fn);

// The result tensor: t's shape with extent 1 at `axis` (keep_dims) or without
// it. A rank-1 tensor reduced without keep_dims gives shape [1], because a
// rank-0 tensor cannot hold a buffer. Aborts with "reduce axis error".
KOVRA_API Tensor get_reduce_tensor(const Tensor& t, int axis, bool keep_dims);

// Each output is accumulated in float, in axis order.
KOVRA_API void reduce_min_func(float* in, float* out, int outer, int axis_len, int inner);
KOVRA_API void reduce_max_func(float* in, float* out, int outer, int axis_len, int inner);
KOVRA_API void reduce_sum_func(float* in, float* out, int outer, int axis_len, int inner);
KOVRA_API void reduce_mean_func(float* in, float* out, int outer, int axis_len, int inner);
// Population standard deviation: powf(mean of squared deviations, 0.5).
KOVRA_API void reduce_std_func(float* in, float* out, int outer, int axis_len, int inner);

KOVRA_API Tensor tensor_reduce_min_cpu(const Tensor& t, int axis, bool keep_dims);
KOVRA_API Tensor tensor_reduce_max_cpu(const Tensor& t, int axis, bool keep_dims);
KOVRA_API Tensor tensor_reduce_sum_cpu(const Tensor& t, int axis, bool keep_dims);
KOVRA_API Tensor tensor_reduce_mean_cpu(const Tensor& t, int axis, bool keep_dims);
KOVRA_API Tensor tensor_reduce_std_cpu(const Tensor& t, int axis, bool keep_dims);

// Over every element. min/max/sum/mean go through the kernels above on the
// flattened tensor; std accumulates its mean and squares in double.
KOVRA_API float tensor_reduce_min_cpu(const Tensor& t);
KOVRA_API float tensor_reduce_max_cpu(const Tensor& t);
KOVRA_API float tensor_reduce_sum_cpu(const Tensor& t);
KOVRA_API float tensor_reduce_mean_cpu(const Tensor& t);
KOVRA_API float tensor_reduce_std_cpu(const Tensor& t);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_TENSOR_REDUCE_H_
