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
// Four rows of B at a time over every column: c (N floats) stays in the
// first-level cache while B streams through in storage order, and each
// column's chain is the same fused multiply-adds in k order as one register
// would give, since a stored float reloads exactly.
template <bool kFirst>
inline void gemv_rows4(const float* a, const float* b, int ldb, float* c, int N) {
  const __m512 a0 = _mm512_set1_ps(a[0]), a1 = _mm512_set1_ps(a[1]);
  const __m512 a2 = _mm512_set1_ps(a[2]), a3 = _mm512_set1_ps(a[3]);
  const size_t ld = static_cast<size_t>(ldb);
  const float *r0 = b, *r1 = b + ld, *r2 = b + 2 * ld, *r3 = b + 3 * ld;
  for (int n = 0; n < N; n += 16) {
    const __mmask16 m = lanes(N - n);
    __m512 acc = kFirst ? _mm512_setzero_ps() : _mm512_maskz_loadu_ps(m, c + n);
    acc = _mm512_fmadd_ps(a0, _mm512_maskz_loadu_ps(m, r0 + n), acc);
    acc = _mm512_fmadd_ps(a1, _mm512_maskz_loadu_ps(m, r1 + n), acc);
    acc = _mm512_fmadd_ps(a2, _mm512_maskz_loadu_ps(m, r2 + n), acc);
    acc = _mm512_fmadd_ps(a3, _mm512_maskz_loadu_ps(m, r3 + n), acc);
    _mm512_mask_storeu_ps(c + n, m, acc);
  }
}
}  // namespace

void gemv_f32_4x16_avx512(const float* a, const float* b, int ldb, float* c, int N, int K,
                          const float* bias) {
  int k = 0;
  if (K >= 4) {
    gemv_rows4<true>(a, b, ldb, c, N);
    for (k = 4; k + 4 <= K; k += 4) gemv_rows4<false>(a + k, b + static_cast<size_t>(k) * ldb, ldb, c, N);
  } else {
    for (int n = 0; n < N; n += 16) _mm512_mask_storeu_ps(c + n, lanes(N - n), _mm512_setzero_ps());
  }
  for (; k < K; ++k) {
    const __m512 av = _mm512_set1_ps(a[k]);
    const float* row = b + static_cast<size_t>(k) * ldb;
    for (int n = 0; n < N; n += 16) {
      const __mmask16 m = lanes(N - n);
      const __m512 sum = _mm512_fmadd_ps(av, _mm512_maskz_loadu_ps(m, row + n), _mm512_maskz_loadu_ps(m, c + n));
      _mm512_mask_storeu_ps(c + n, m, sum);
    }
  }
  if (bias == nullptr) return;
  for (int n = 0; n < N; n += 16) {
    const __mmask16 m = lanes(N - n);
    const __m512 sum = _mm512_add_ps(_mm512_maskz_loadu_ps(m, c + n), _mm512_maskz_loadu_ps(m, bias + n));
    _mm512_mask_storeu_ps(c + n, m, sum);
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
