#include "ops/kernels/int8_eltwise_kernels.h"

#include "kvdl.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/x86/x86_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void quantize_f32_portable(const float* x, float* y, int n, int channels, const float* scale,
                           float lo, float hi, float offset) {
  for (int p = 0; p < n; p += channels) {
    for (int c = 0; c < channels; ++c) {
      float q = kvdl::tensorflow_round_cpu(scale[c] * x[p + c]);
      q = hi < q ? hi : q;
      q = q < lo ? lo : q;
      y[p + c] = offset + q;
    }
  }
}

void dequantize_f32_portable(const float* x, float* y, int n, int channels, const float* scale,
                             float offset) {
  for (int p = 0; p < n; p += channels) {
    for (int c = 0; c < channels; ++c) y[p + c] = (offset + x[p + c]) * scale[c];
  }
}

void sum_requant_f32_portable(const float* x0, const float* x1, float* y, int n, int channels,
                              const float* a, const float* b, const float* k, float hi) {
  for (int p = 0; p < n; p += channels) {
    for (int c = 0; c < channels; ++c) {
      const float v = k[c] + (a[c] * x0[p + c] + b[c] * x1[p + c]);
      float q = kvdl::tensorflow_round_cpu(v);
      if (q > hi) q = hi;
      if (q < 0.0f) q = 0.0f;
      y[p + c] = q;
    }
  }
}

namespace {
const Int8EltwiseKernels kVariants[] = {
    {KernelIsa::kPortable, "int8_eltwise_f32_portable", quantize_f32_portable, dequantize_f32_portable,
     sum_requant_f32_portable},
    {KernelIsa::kAvx512, "int8_eltwise_f32_1x16_avx512", quantize_f32_1x16_avx512, dequantize_f32_1x16_avx512,
     sum_requant_f32_1x16_avx512},
};
}  // namespace

const KernelTable<Int8EltwiseKernels>& int8_eltwise_kernels() {
  static const KernelTable<Int8EltwiseKernels> table(kVariants);
  return table;
}

void quantize_f32(const float* x, float* y, int n, int channels, const float* scale, float lo,
                  float hi, float offset) {
  int8_eltwise_kernels()->quantize(x, y, n, channels, scale, lo, hi, offset);
}

void dequantize_f32(const float* x, float* y, int n, int channels, const float* scale,
                    float offset) {
  int8_eltwise_kernels()->dequantize(x, y, n, channels, scale, offset);
}

void sum_requant_f32(const float* x0, const float* x1, float* y, int n, int channels,
                     const float* a, const float* b, const float* k, float hi) {
  int8_eltwise_kernels()->sum_requant(x0, x1, y, n, channels, a, b, k, hi);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
