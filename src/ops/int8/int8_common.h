#ifndef KOVRAEXECUTOR_OPS_INT8_COMMON_H_
#define KOVRAEXECUTOR_OPS_INT8_COMMON_H_

#include <string>
#include <vector>

#include "checked_size.h"
#include "common.h"
#include "op_executor.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Quantized tensors are float tensors holding integer codes, channels last:
// flat element i belongs to channel i mod C, C the last dimension.
int channel_count(const Tensor* tensor);

// The first input of a one-input operator, present and of rank > 0
// ("The shape of input is 0 in <op>!!!").
const Tensor* first_input(const std::vector<const Tensor*>& inputs, const char* op);

// Quantize and dequantize take channels-last tensors of rank 3, 4 or 5 only.
void check_rank_3_to_5(const Tensor* input, const char* op);

// The rank check of operators that take 4-D activations only:
// "input_tensor->shape().size() == 4" with `message`.
void check_rank_4(const Tensor* input, const char* message);

// execute's guard against inputs that changed after inference_shape: the
// input has exactly the shape the record was prepared for, so the prepared
// factors and geometry still fit it. Fails with "input->shape() == prepared"
// and "<op>: <tensor> has shape [..] but was prepared for [..]" (for [] when
// execute comes before inference_shape).
[[noreturn]] void prepared_shape_failed(const Tensor* input, const std::vector<int>& prepared,
                                        const char* op);
inline void check_prepared(const Tensor* input, const std::vector<int>& prepared, const char* op) {
  if (KOVRA_UNLIKELY(input == nullptr || input->shape() != prepared))
    prepared_shape_failed(input, prepared, op);
}

// The common head of execute for one-input operators: the input is there,
// holds floats and has the prepared shape; the output holds `out_count` codes.
const Tensor* prepared_input(const std::vector<const Tensor*>& inputs, const std::vector<int>& prepared,
                             const Tensor* output, long long out_count, const char* op);

// A per-channel attribute must cover every channel before the loop reads it.
void check_per_channel(const std::vector<float>& values, int channels, const char* key, const char* op);

// Upper bound first, then lower bound, as the accelerator's output stage does.
inline float clamp_code(float q, float lo, float hi) {
  if (q > hi) q = hi;
  if (q < lo) q = lo;
  return q;
}

// Rounds float results to codes in place, half to even, and clamps them.
void round_and_clamp(float* y, long long count, float lo, float hi);

// Code to output: clamp the rounded code, then add the zero point.
inline float clamp_then_offset(float q, float lo, float hi, float offset) {
  return offset + clamp_code(q, lo, hi);
}

// Per-channel factors of the two-input requantization
//   q = round(off0 * (O*S0) + off1 * (O*S1) + offset + ((O*S0) * x0 + (O*S1) * x1)),
// hoisted out of the element loop without changing the grouping: a = O*S0,
// b = O*S1 and k = off0*a + off1*b + offset. A difference uses b negated,
// which is exact. Filled once per input shape, into the operator's record.
struct SumRequant {
  std::vector<float> a, b, k;
};
void make_sum_requant(const std::vector<float>& s0, const std::vector<float>& s1,
                      const std::vector<float>& out_scale, int off0, int off1, int offset, int channels,
                      bool difference, SumRequant& r);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_COMMON_H_
