#include "ops/kernels/int8_eltwise_kernels.h"

#include <algorithm>

#include "kvdl.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/x86/x86_kernels.h"
#include "thread_pool.h"

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

namespace {

// Large arrays go to the pool in chunks of whole pixels (the per-channel
// factors start over at each chunk), each the same kernel on its own part:
// the codes never depend on the number of threads.
template <typename Fn>
void for_pixel_chunks(int n, int channels, Fn fn) {
  constexpr int kChunk = 1 << 15;
  // Below this, waking a worker costs about what it saves.
  if (n < 8 * kChunk || channels <= 0) {
    fn(0, n);
    return;
  }
  const int chunk = std::max(channels, kChunk / channels * channels);
  const int chunks = (n + chunk - 1) / chunk;
  parallel_for(chunks, n, [&](int i) { fn(i * chunk, std::min(chunk, n - i * chunk)); });
}

}  // namespace

void quantize_f32(const float* x, float* y, int n, int channels, const float* scale, float lo,
                  float hi, float offset) {
  const auto quantize = int8_eltwise_kernels()->quantize;
  for_pixel_chunks(n, channels, [&](int start, int len) {
    quantize(x + start, y + start, len, channels, scale, lo, hi, offset);
  });
}

void dequantize_f32(const float* x, float* y, int n, int channels, const float* scale,
                    float offset) {
  const auto dequantize = int8_eltwise_kernels()->dequantize;
  for_pixel_chunks(n, channels, [&](int start, int len) {
    dequantize(x + start, y + start, len, channels, scale, offset);
  });
}

void sum_requant_f32(const float* x0, const float* x1, float* y, int n, int channels,
                     const float* a, const float* b, const float* k, float hi) {
  const auto sum_requant = int8_eltwise_kernels()->sum_requant;
  for_pixel_chunks(n, channels, [&](int start, int len) {
    sum_requant(x0 + start, x1 + start, y + start, len, channels, a, b, k, hi);
  });
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
