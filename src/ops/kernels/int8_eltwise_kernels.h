#ifndef KOVRAEXECUTOR_OPS_INT8_ELTWISE_KERNELS_H_
#define KOVRAEXECUTOR_OPS_INT8_ELTWISE_KERNELS_H_

#include "ops/kernels/avx_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Per-channel element loops of the int8 family over `n` elements whose last
// dimension has `channels` entries (n is a multiple of channels). Parameter
// arrays hold one value per channel. The entry points call through the
// family's table; every variant gives the same bits.

// y = offset + clamp(round_half_even(scale[c] * x), lo, hi), upper bound first.
void quantize_f32(const float* x, float* y, int n, int channels, const float* scale, float lo,
                  float hi, float offset);
void quantize_f32_portable(const float* x, float* y, int n, int channels, const float* scale, float lo,
                           float hi, float offset);

// y = (offset + x) * scale[c].
void dequantize_f32(const float* x, float* y, int n, int channels, const float* scale,
                    float offset);
void dequantize_f32_portable(const float* x, float* y, int n, int channels, const float* scale, float offset);

// y = clamp(round_half_even(k[c] + (a[c] * x0 + b[c] * x1)), 0, hi): the direct
// two-input requantization; the lower bound is 0 on purpose.
void sum_requant_f32(const float* x0, const float* x1, float* y, int n, int channels,
                     const float* a, const float* b, const float* k, float hi);
void sum_requant_f32_portable(const float* x0, const float* x1, float* y, int n, int channels,
                              const float* a, const float* b, const float* k, float hi);

struct Int8EltwiseKernels {
  KernelIsa isa;
  const char* name;
  void (*quantize)(const float* x, float* y, int n, int channels, const float* scale, float lo, float hi,
                   float offset);
  void (*dequantize)(const float* x, float* y, int n, int channels, const float* scale, float offset);
  void (*sum_requant)(const float* x0, const float* x1, float* y, int n, int channels, const float* a,
                      const float* b, const float* k, float hi);
};
const KernelTable<Int8EltwiseKernels>& int8_eltwise_kernels();

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_ELTWISE_KERNELS_H_
