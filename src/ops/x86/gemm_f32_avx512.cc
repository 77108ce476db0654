#include <immintrin.h>

#include "ops/gemm_f32.h"

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
template <int ROWS>
void kernel_rows(const float* a, int lda, const float* b, int ldb, float* c, int ldc, int kc,
                 bool accumulate, __mmask16 m0, __mmask16 m1) {
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
    const __m512 b0 = _mm512_maskz_loadu_ps(m0, b);
    const __m512 b1 = _mm512_maskz_loadu_ps(m1, b + 16);
    b += ldb;
#pragma GCC unroll 8
    for (int r = 0; r < ROWS; ++r) {
      const __m512 av = _mm512_set1_ps(a[r * lda + k]);
      acc0[r] = _mm512_fmadd_ps(av, b0, acc0[r]);
      acc1[r] = _mm512_fmadd_ps(av, b1, acc1[r]);
    }
  }
#pragma GCC unroll 8
  for (int r = 0; r < ROWS; ++r) {
    _mm512_mask_storeu_ps(c + r * ldc, m0, acc0[r]);
    _mm512_mask_storeu_ps(c + r * ldc + 16, m1, acc1[r]);
  }
}

}  // namespace

void gemm_f32_8x32_avx512(const float* a, int lda, const float* b, int ldb, float* c, int ldc,
                          int rows, int cols, int kc, bool accumulate) {
  const __mmask16 m0 = lanes(cols), m1 = lanes(cols - 16);
  switch (rows) {
    case 8: kernel_rows<8>(a, lda, b, ldb, c, ldc, kc, accumulate, m0, m1); break;
    case 7: kernel_rows<7>(a, lda, b, ldb, c, ldc, kc, accumulate, m0, m1); break;
    case 6: kernel_rows<6>(a, lda, b, ldb, c, ldc, kc, accumulate, m0, m1); break;
    case 5: kernel_rows<5>(a, lda, b, ldb, c, ldc, kc, accumulate, m0, m1); break;
    case 4: kernel_rows<4>(a, lda, b, ldb, c, ldc, kc, accumulate, m0, m1); break;
    case 3: kernel_rows<3>(a, lda, b, ldb, c, ldc, kc, accumulate, m0, m1); break;
    case 2: kernel_rows<2>(a, lda, b, ldb, c, ldc, kc, accumulate, m0, m1); break;
    case 1: kernel_rows<1>(a, lda, b, ldb, c, ldc, kc, accumulate, m0, m1); break;
    default: break;
  }
}

void gemv_f32_avx512(const float* a, const float* b, int ldb, float* c, int N, int K) {
  // The rows of B stream through in order, eight at a time, while the N sums
  // stay in c (first-level cache); each sum still takes k in order.
  for (int n0 = 0; n0 < N; n0 += 16) _mm512_mask_storeu_ps(c + n0, lanes(N - n0), _mm512_setzero_ps());
  int k = 0;
  for (; k + 8 <= K; k += 8) {
    __m512 av[8];
    const float* rows[8];
#pragma GCC unroll 8
    for (int j = 0; j < 8; ++j) {
      av[j] = _mm512_set1_ps(a[k + j]);
      rows[j] = b + static_cast<long long>(k + j) * ldb;
    }
    for (int n0 = 0; n0 < N; n0 += 16) {
      const __mmask16 m = lanes(N - n0);
      __m512 acc = _mm512_maskz_loadu_ps(m, c + n0);
#pragma GCC unroll 8
      for (int j = 0; j < 8; ++j) acc = _mm512_fmadd_ps(av[j], _mm512_maskz_loadu_ps(m, rows[j] + n0), acc);
      _mm512_mask_storeu_ps(c + n0, m, acc);
    }
  }
  for (; k < K; ++k) {
    const __m512 av = _mm512_set1_ps(a[k]);
    const float* row = b + static_cast<long long>(k) * ldb;
    for (int n0 = 0; n0 < N; n0 += 16) {
      const __mmask16 m = lanes(N - n0);
      _mm512_mask_storeu_ps(c + n0, m,
                            _mm512_fmadd_ps(av, _mm512_maskz_loadu_ps(m, row + n0), _mm512_maskz_loadu_ps(m, c + n0)));
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
