#include <immintrin.h>

#include "ops/kernels/x86/x86_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

inline __mmask16 lanes(int count) {
  if (count <= 0) return 0;
  if (count >= 16) return 0xFFFF;
  return static_cast<__mmask16>((1u << count) - 1u);
}

// rows x 32 outputs in 2 * ROWS registers; masked lanes read and write nothing.
template <int ROWS, bool kFull>
void kernel_rows(const float* a, int lda, const float* b, int ldb, float* c, int ldc, int kc,
                 bool accumulate, const float* bias, __mmask16 m0, __mmask16 m1) {
  __m512 acc0[ROWS], acc1[ROWS];
#pragma GCC unroll 8
  for (int r = 0; r < ROWS; ++r) {
    if (accumulate) {
      acc0[r] = _mm512_maskz_loadu_ps(m0, c + r * ldc);
      acc1[r] = _mm512_maskz_loadu_ps(m1, c + r * ldc + 16);
    } else {
      acc0[r] = _mm512_setzero_ps();
      acc1[r] = _mm512_setzero_ps();
    }
  }
  for (int k = 0; k < kc; ++k) {
    // Whole panels load without masks.
    const __m512 b0 = kFull ? _mm512_loadu_ps(b) : _mm512_maskz_loadu_ps(m0, b);
    const __m512 b1 = kFull ? _mm512_loadu_ps(b + 16) : _mm512_maskz_loadu_ps(m1, b + 16);
    b += ldb;
#pragma GCC unroll 8
    for (int r = 0; r < ROWS; ++r) {
      const __m512 av = _mm512_set1_ps(a[r * lda + k]);
      acc0[r] = _mm512_fmadd_ps(av, b0, acc0[r]);
      acc1[r] = _mm512_fmadd_ps(av, b1, acc1[r]);
    }
  }
  if (bias != nullptr) {
    const __m512 bias0 = _mm512_maskz_loadu_ps(m0, bias), bias1 = _mm512_maskz_loadu_ps(m1, bias + 16);
#pragma GCC unroll 8
    for (int r = 0; r < ROWS; ++r) {
      acc0[r] = _mm512_add_ps(acc0[r], bias0);
      acc1[r] = _mm512_add_ps(acc1[r], bias1);
    }
  }
#pragma GCC unroll 8
  for (int r = 0; r < ROWS; ++r) {
    _mm512_mask_storeu_ps(c + r * ldc, m0, acc0[r]);
    _mm512_mask_storeu_ps(c + r * ldc + 16, m1, acc1[r]);
  }
}

// kC > 0 fixes the channel count at compile time (3 for image inputs).
template <int ROWS, bool kFull, int kC>
void indirect_rows(const float* const* taps, int tap_count, int C_runtime, const float* b, int ldb, float* c, int ldc,
                   bool accumulate, const float* bias, __mmask16 m0, __mmask16 m1) {
  __m512 acc0[ROWS], acc1[ROWS];
#pragma GCC unroll 8
  for (int r = 0; r < ROWS; ++r) {
    if (accumulate) {
      acc0[r] = _mm512_maskz_loadu_ps(m0, c + r * ldc);
      acc1[r] = _mm512_maskz_loadu_ps(m1, c + r * ldc + 16);
    } else {
      acc0[r] = _mm512_setzero_ps();
      acc1[r] = _mm512_setzero_ps();
    }
  }
  for (int t = 0; t < tap_count; ++t) {
    const float* p[ROWS];
#pragma GCC unroll 8
    for (int r = 0; r < ROWS; ++r) p[r] = taps[t * 8 + r];
    const int C = kC > 0 ? kC : C_runtime;
#pragma GCC unroll 4
    for (int ci = 0; ci < C; ++ci) {
      const __m512 b0 = kFull ? _mm512_loadu_ps(b) : _mm512_maskz_loadu_ps(m0, b);
      const __m512 b1 = kFull ? _mm512_loadu_ps(b + 16) : _mm512_maskz_loadu_ps(m1, b + 16);
      b += ldb;
#pragma GCC unroll 8
      for (int r = 0; r < ROWS; ++r) {
        const __m512 av = _mm512_set1_ps(p[r][ci]);
        acc0[r] = _mm512_fmadd_ps(av, b0, acc0[r]);
        acc1[r] = _mm512_fmadd_ps(av, b1, acc1[r]);
      }
    }
  }
  if (bias != nullptr) {
    const __m512 bias0 = _mm512_maskz_loadu_ps(m0, bias), bias1 = _mm512_maskz_loadu_ps(m1, bias + 16);
#pragma GCC unroll 8
    for (int r = 0; r < ROWS; ++r) {
      acc0[r] = _mm512_add_ps(acc0[r], bias0);
      acc1[r] = _mm512_add_ps(acc1[r], bias1);
    }
  }
#pragma GCC unroll 8
  for (int r = 0; r < ROWS; ++r) {
    _mm512_mask_storeu_ps(c + r * ldc, m0, acc0[r]);
    _mm512_mask_storeu_ps(c + r * ldc + 16, m1, acc1[r]);
  }
}

}  // namespace

void conv_f32_8x32_indirect_avx512(const float* const* taps, int tap_count, int C, const float* b, int ldb,
                                   float* c, int ldc, int rows, int cols, bool accumulate,
                                   const float* bias) {
  const __mmask16 m0 = lanes(cols), m1 = lanes(cols - 16);
  if (rows == 8 && cols == 32) {
    if (C == 3) {
      indirect_rows<8, true, 3>(taps, tap_count, C, b, ldb, c, ldc, accumulate, bias, m0, m1);
    } else {
      indirect_rows<8, true, 0>(taps, tap_count, C, b, ldb, c, ldc, accumulate, bias, m0, m1);
    }
    return;
  }
  switch (rows) {
    case 8: indirect_rows<8, false, 0>(taps, tap_count, C, b, ldb, c, ldc, accumulate, bias, m0, m1); break;
    case 7: indirect_rows<7, false, 0>(taps, tap_count, C, b, ldb, c, ldc, accumulate, bias, m0, m1); break;
    case 6: indirect_rows<6, false, 0>(taps, tap_count, C, b, ldb, c, ldc, accumulate, bias, m0, m1); break;
    case 5: indirect_rows<5, false, 0>(taps, tap_count, C, b, ldb, c, ldc, accumulate, bias, m0, m1); break;
    case 4: indirect_rows<4, false, 0>(taps, tap_count, C, b, ldb, c, ldc, accumulate, bias, m0, m1); break;
    case 3: indirect_rows<3, false, 0>(taps, tap_count, C, b, ldb, c, ldc, accumulate, bias, m0, m1); break;
    case 2: indirect_rows<2, false, 0>(taps, tap_count, C, b, ldb, c, ldc, accumulate, bias, m0, m1); break;
    case 1: indirect_rows<1, false, 0>(taps, tap_count, C, b, ldb, c, ldc, accumulate, bias, m0, m1); break;
    default: break;
  }
}

void gemm_f32_8x32_avx512(const float* a, int lda, const float* b, int ldb, float* c, int ldc,
                          int rows, int cols, int kc, bool accumulate, const float* bias) {
  const __mmask16 m0 = lanes(cols), m1 = lanes(cols - 16);
  if (rows == 8 && cols == 32) {
    kernel_rows<8, true>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1);
    return;
  }
  switch (rows) {
    case 8: kernel_rows<8, false>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    case 7: kernel_rows<7, false>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    case 6: kernel_rows<6, false>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    case 5: kernel_rows<5, false>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    case 4: kernel_rows<4, false>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    case 3: kernel_rows<3, false>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    case 2: kernel_rows<2, false>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    case 1: kernel_rows<1, false>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    default: break;
  }
}

namespace {
// kVectors registers of 16 columns, each an independent fused multiply-add
// chain per column, so the count never changes a result.
template <int kVectors>
void gemv_columns(const float* a, const float* b, int ldb, float* c, int N, int K, const float* bias,
                  int n0) {
  __mmask16 mask[kVectors];
  __m512 acc[kVectors];
#pragma GCC unroll 8
  for (int v = 0; v < kVectors; ++v) {
    mask[v] = lanes(N - n0 - 16 * v);
    acc[v] = _mm512_setzero_ps();
  }
  const float* row = b + n0;
  for (int k = 0; k < K; ++k, row += ldb) {
    const __m512 av = _mm512_set1_ps(a[k]);
#pragma GCC unroll 8
    for (int v = 0; v < kVectors; ++v) {
      acc[v] = _mm512_fmadd_ps(av, _mm512_maskz_loadu_ps(mask[v], row + 16 * v), acc[v]);
    }
  }
#pragma GCC unroll 8
  for (int v = 0; v < kVectors; ++v) {
    if (bias != nullptr) acc[v] = _mm512_add_ps(acc[v], _mm512_maskz_loadu_ps(mask[v], bias + n0 + 16 * v));
    _mm512_mask_storeu_ps(c + n0 + 16 * v, mask[v], acc[v]);
  }
}
using ColumnsFn = void (*)(const float*, const float*, int, float*, int, int, const float*, int);
const ColumnsFn kColumns[8] = {gemv_columns<1>, gemv_columns<2>, gemv_columns<3>, gemv_columns<4>,
                               gemv_columns<5>, gemv_columns<6>, gemv_columns<7>, gemv_columns<8>};
}  // namespace

void gemv_f32_1x128_avx512(const float* a, const float* b, int ldb, float* c, int N, int K,
                           const float* bias) {
  // 128 columns in 8 independent chains hide the multiply-add latency while
  // the rows of B stream through once; a narrow tail takes only the
  // registers it fills.
  for (int n0 = 0; n0 < N; n0 += 128) {
    const int columns = N - n0 < 128 ? N - n0 : 128;
    kColumns[(columns + 15) / 16 - 1](a, b, ldb, c, N, K, bias, n0);
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
