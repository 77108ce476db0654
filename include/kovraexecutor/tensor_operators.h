#ifndef KOVRAEXECUTOR_TENSOR_OPERATORS_H_
#define KOVRAEXECUTOR_TENSOR_OPERATORS_H_

#include "basic_cal_function.h"
#include "export.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Element-wise algebra over tensors. Elements are read and written as 32-bit
// float whatever the tensor's data_type says, and every result is a new float
// tensor on the operand's device.

// r[i] = fn(t[i], s) for every element of t.
KOVRA_API Tensor tensor_Binocular_cal_cpu(const Tensor& t, float s, BinaryFn fn);

KOVRA_API Tensor tensor_sign_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_add_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_sub_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_mul_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_div_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_neg_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_abs_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_sigmoid_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_floor_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_log_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_exp_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_pow_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_clip_min_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_clip_max_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_less_than_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_greater_than_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_equal_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_less_equal_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_greater_equal_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_bool_not_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_bool_and_cpu(const Tensor& t, float s);
KOVRA_API Tensor tensor_bool_or_cpu(const Tensor& t, float s);

// The result of broadcasting a with b: shapes aligned at their last dimension,
// each aligned pair equal or one of them 1. Aborts with "unsupport broadcast".
KOVRA_API Tensor get_broadcast_tensor(const Tensor& a, const Tensor& b);

// Broadcasting pairs elements by flat position within a block of the aligned
// dimensions, not by coordinates: r[k*block_r + j] =
// fn(a[off_a + j % block_a], b[off_b + j % block_b]), where the operand with
// the extra leading dimensions advances its offset by one block per k. This is
// exact for the usual "[N, C] op [C]" and scalar-block cases; for others (e.g.
// [2,1] x [1,3]) the pairing is by design not the outer product.
KOVRA_API Tensor broadcast_cpu(const Tensor& a, const Tensor& b, BinaryFn fn);

KOVRA_API Tensor broadcast_add_cpu(const Tensor& a, const Tensor& b);
KOVRA_API Tensor broadcast_sub_cpu(const Tensor& a, const Tensor& b);
KOVRA_API Tensor broadcast_mul_cpu(const Tensor& a, const Tensor& b);
KOVRA_API Tensor broadcast_div_cpu(const Tensor& a, const Tensor& b);
KOVRA_API Tensor broadcast_less_than_cpu(const Tensor& a, const Tensor& b);
KOVRA_API Tensor broadcast_greater_than_cpu(const Tensor& a, const Tensor& b);
KOVRA_API Tensor broadcast_equal_cpu(const Tensor& a, const Tensor& b);
KOVRA_API Tensor broadcast_less_equal_cpu(const Tensor& a, const Tensor& b);
KOVRA_API Tensor broadcast_greater_equal_cpu(const Tensor& a, const Tensor& b);
KOVRA_API Tensor broadcast_bool_and_cpu(const Tensor& a, const Tensor& b);
KOVRA_API Tensor broadcast_bool_or_cpu(const Tensor& a, const Tensor& b);

// Writes v into every element of t, in place.
KOVRA_API void tensor_fill_cpu(Tensor& t, float v);

// Aborts with "tensor must at the same device" unless both heads agree.
KOVRA_API void check_same_device(const Tensor& a, const Tensor& b);

// Aborts unless t holds size() >= 1 float elements (its buffer is present and
// at least 4 * size() bytes), so that reading it as float stays in bounds.
KOVRA_API void check_float_elements(const Tensor& t);

// "cpu" for head 1, "gpu" for head 2; anything else aborts with
// "tensor must at cpu or gpu".
KOVRA_API const char* device_word(const Tensor& t);

// s / t and s - t: a tensor of t's shape filled with s, then divided by (or
// reduced by) t through the usual broadcast.
KOVRA_API Tensor operator/(float s, const Tensor& t);
KOVRA_API Tensor operator-(float s, const Tensor& t);

KOVRA_API Tensor operator+(const Tensor& a, const Tensor& b);
KOVRA_API Tensor operator-(const Tensor& a, const Tensor& b);
KOVRA_API Tensor operator*(const Tensor& a, const Tensor& b);
KOVRA_API Tensor operator/(const Tensor& a, const Tensor& b);
KOVRA_API Tensor operator<(const Tensor& a, const Tensor& b);
KOVRA_API Tensor operator<=(const Tensor& a, const Tensor& b);
KOVRA_API Tensor operator>(const Tensor& a, const Tensor& b);
KOVRA_API Tensor operator>=(const Tensor& a, const Tensor& b);
KOVRA_API Tensor operator==(const Tensor& a, const Tensor& b);
KOVRA_API Tensor operator&&(const Tensor& a, const Tensor& b);
KOVRA_API Tensor operator||(const Tensor& a, const Tensor& b);

KOVRA_API Tensor operator+(const Tensor& a, float s);
KOVRA_API Tensor operator-(const Tensor& a, float s);
KOVRA_API Tensor operator*(const Tensor& a, float s);
KOVRA_API Tensor operator/(const Tensor& a, float s);
KOVRA_API Tensor operator<(const Tensor& a, float s);
KOVRA_API Tensor operator<=(const Tensor& a, float s);
KOVRA_API Tensor operator>(const Tensor& a, float s);
KOVRA_API Tensor operator>=(const Tensor& a, float s);
KOVRA_API Tensor operator==(const Tensor& a, float s);
KOVRA_API Tensor operator&&(const Tensor& a, float s);
KOVRA_API Tensor operator||(const Tensor& a, float s);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_TENSOR_OPERATORS_H_
