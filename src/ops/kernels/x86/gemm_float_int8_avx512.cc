// The int8 convolution's float matrix kernel on 8 rows x 32 columns: every
// output still sums its reduction index in order, with a separate multiply
// and add per step (no fused multiply-add), so the results equal the plain
// loop's bit for bit.
// GCC 12 reports the intrinsics' internal "undefined" vectors as
// uninitialised (GCC bug 105593); nothing here reads an uninitialised value.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>

#include "ops/kernels/x86/x86_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

inline __mmask16 column_mask(int remaining) {
  return remaining >= 16 ? static_cast<__mmask16>(0xFFFF)
                         : remaining <= 0 ? static_cast<__mmask16>(0)
                                          : static_cast<__mmask16>((1u << remaining) - 1);
}

// Rows 0..7 of `in` (row stride `depth`) against the packed block of
// columns n0..n0+31.
void tile_8x32(float* out, const float* in, long long depth, const float* block, int n, int n0,
               int rows, float mult, const float* bias) {
  const __mmask16 m0 = column_mask(n - n0), m1 = column_mask(n - n0 - 16);
  __m512 c00 = _mm512_setzero_ps(), c01 = _mm512_setzero_ps();
  __m512 c10 = _mm512_setzero_ps(), c11 = _mm512_setzero_ps();
  __m512 c20 = _mm512_setzero_ps(), c21 = _mm512_setzero_ps();
  __m512 c30 = _mm512_setzero_ps(), c31 = _mm512_setzero_ps();
  __m512 c40 = _mm512_setzero_ps(), c41 = _mm512_setzero_ps();
  __m512 c50 = _mm512_setzero_ps(), c51 = _mm512_setzero_ps();
  __m512 c60 = _mm512_setzero_ps(), c61 = _mm512_setzero_ps();
  __m512 c70 = _mm512_setzero_ps(), c71 = _mm512_setzero_ps();
  const float* w = block;
  for (long long k = 0; k < depth; ++k, w += 32) {
    const __m512 w0 = _mm512_loadu_ps(w), w1 = _mm512_loadu_ps(w + 16);
    {
      const __m512 x = _mm512_set1_ps(in[0 * depth + k]);
      c00 = _mm512_add_ps(c00, _mm512_mul_ps(x, w0));
      c01 = _mm512_add_ps(c01, _mm512_mul_ps(x, w1));
    }
    {
      const __m512 x = _mm512_set1_ps(in[1 * depth + k]);
      c10 = _mm512_add_ps(c10, _mm512_mul_ps(x, w0));
      c11 = _mm512_add_ps(c11, _mm512_mul_ps(x, w1));
    }
    {
      const __m512 x = _mm512_set1_ps(in[2 * depth + k]);
      c20 = _mm512_add_ps(c20, _mm512_mul_ps(x, w0));
      c21 = _mm512_add_ps(c21, _mm512_mul_ps(x, w1));
    }
    {
      const __m512 x = _mm512_set1_ps(in[3 * depth + k]);
      c30 = _mm512_add_ps(c30, _mm512_mul_ps(x, w0));
      c31 = _mm512_add_ps(c31, _mm512_mul_ps(x, w1));
    }
    {
      const __m512 x = _mm512_set1_ps(in[4 * depth + k]);
      c40 = _mm512_add_ps(c40, _mm512_mul_ps(x, w0));
      c41 = _mm512_add_ps(c41, _mm512_mul_ps(x, w1));
    }
    {
      const __m512 x = _mm512_set1_ps(in[5 * depth + k]);
      c50 = _mm512_add_ps(c50, _mm512_mul_ps(x, w0));
      c51 = _mm512_add_ps(c51, _mm512_mul_ps(x, w1));
    }
    {
      const __m512 x = _mm512_set1_ps(in[6 * depth + k]);
      c60 = _mm512_add_ps(c60, _mm512_mul_ps(x, w0));
      c61 = _mm512_add_ps(c61, _mm512_mul_ps(x, w1));
    }
    {
      const __m512 x = _mm512_set1_ps(in[7 * depth + k]);
      c70 = _mm512_add_ps(c70, _mm512_mul_ps(x, w0));
      c71 = _mm512_add_ps(c71, _mm512_mul_ps(x, w1));
    }
  }
  const __m512 vm = _mm512_set1_ps(mult);
  const __m512 b0 = _mm512_maskz_loadu_ps(m0, bias + n0), b1 = _mm512_maskz_loadu_ps(m1, bias + n0 + 16);
  const __m512 results[8][2] = {
      {c00, c01},
      {c10, c11},
      {c20, c21},
      {c30, c31},
      {c40, c41},
      {c50, c51},
      {c60, c61},
      {c70, c71}
  };
  for (int r = 0; r < rows; ++r) {
    float* o = out + static_cast<long long>(r) * n + n0;
    _mm512_mask_storeu_ps(o, m0, _mm512_add_ps(_mm512_mul_ps(results[r][0], vm), b0));
    _mm512_mask_storeu_ps(o + 16, m1, _mm512_add_ps(_mm512_mul_ps(results[r][1], vm), b1));
  }
}

}  // namespace

void gemm_float_int8_8x32_avx512(float* out, const float* in, const float* packed,
                                 const float* bias, int in_channels, int out_channels, int rows,
                                 int kernel_positions, int multiplier) {
  const long long depth = static_cast<long long>(kernel_positions) * in_channels;
  const float mult = static_cast<float>(multiplier);
  for (int n0 = 0; n0 < out_channels; n0 += 32) {
    tile_8x32(out, in, depth, packed + depth * n0, out_channels, n0, rows, mult, bias);
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
