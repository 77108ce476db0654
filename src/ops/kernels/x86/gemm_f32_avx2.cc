#include <immintrin.h>

#include "ops/kernels/x86/x86_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// Lane mask for the first `count` of 8 floats.
inline __m256i lanes(int count) {
  const __m256i index = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
  return _mm256_cmpgt_epi32(_mm256_set1_epi32(count < 0 ? 0 : count), index);
}

// rows (<= 4) x 16 outputs: 8 accumulators, the most 16 registers allow
// beside the two B vectors and the broadcast.
template <int ROWS>
void kernel_4x16(const float* a, int lda, const float* b, int ldb, float* c, int ldc, int kc,
                 bool accumulate, const float* bias, __m256i m0, __m256i m1) {
  __m256 acc0[ROWS], acc1[ROWS];
#pragma GCC unroll 4
  for (int r = 0; r < ROWS; ++r) {
    if (accumulate) {
      acc0[r] = _mm256_maskload_ps(c + r * ldc, m0);
      acc1[r] = _mm256_maskload_ps(c + r * ldc + 8, m1);
    } else {
      acc0[r] = _mm256_setzero_ps();
      acc1[r] = _mm256_setzero_ps();
    }
  }
  for (int k = 0; k < kc; ++k) {
    const __m256 b0 = _mm256_maskload_ps(b, m0);
    const __m256 b1 = _mm256_maskload_ps(b + 8, m1);
    b += ldb;
#pragma GCC unroll 4
    for (int r = 0; r < ROWS; ++r) {
      const __m256 av = _mm256_broadcast_ss(a + r * lda + k);
      acc0[r] = _mm256_fmadd_ps(av, b0, acc0[r]);
      acc1[r] = _mm256_fmadd_ps(av, b1, acc1[r]);
    }
  }
  if (bias != nullptr) {
    const __m256 bias0 = _mm256_maskload_ps(bias, m0), bias1 = _mm256_maskload_ps(bias + 8, m1);
#pragma GCC unroll 4
    for (int r = 0; r < ROWS; ++r) {
      acc0[r] = _mm256_add_ps(acc0[r], bias0);
      acc1[r] = _mm256_add_ps(acc1[r], bias1);
    }
  }
#pragma GCC unroll 4
  for (int r = 0; r < ROWS; ++r) {
    _mm256_maskstore_ps(c + r * ldc, m0, acc0[r]);
    _mm256_maskstore_ps(c + r * ldc + 8, m1, acc1[r]);
  }
}

void kernel_rows_x16(const float* a, int lda, const float* b, int ldb, float* c, int ldc, int rows,
                     int cols, int kc, bool accumulate, const float* bias) {
  const __m256i m0 = lanes(cols), m1 = lanes(cols - 8);
  switch (rows) {
    case 4: kernel_4x16<4>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    case 3: kernel_4x16<3>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    case 2: kernel_4x16<2>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    case 1: kernel_4x16<1>(a, lda, b, ldb, c, ldc, kc, accumulate, bias, m0, m1); break;
    default: break;
  }
}

}  // namespace

void gemm_f32_4x16_avx2(const float* a, int lda, const float* b, int ldb, float* c, int ldc, int rows,
                        int cols, int kc, bool accumulate, const float* bias) {
  for (int r0 = 0; r0 < rows; r0 += 4) {
    const int rr = rows - r0 < 4 ? rows - r0 : 4;
    for (int c0 = 0; c0 < cols; c0 += 16) {
      kernel_rows_x16(a + r0 * lda, lda, b + c0, ldb, c + r0 * ldc + c0, ldc, rr, cols - c0, kc, accumulate,
                      bias ? bias + c0 : nullptr);
    }
  }
}

namespace {
// kVectors registers of 8 columns, each an independent fused multiply-add
// chain per column, so the count never changes a result.
template <int kVectors>
void gemv_columns(const float* a, const float* b, int ldb, float* c, int N, int K, const float* bias,
                  int n0) {
  __m256i mask[kVectors];
  __m256 acc[kVectors];
#pragma GCC unroll 8
  for (int v = 0; v < kVectors; ++v) {
    mask[v] = lanes(N - n0 - 8 * v);
    acc[v] = _mm256_setzero_ps();
  }
  const float* row = b + n0;
  for (int k = 0; k < K; ++k, row += ldb) {
    const __m256 av = _mm256_broadcast_ss(a + k);
#pragma GCC unroll 8
    for (int v = 0; v < kVectors; ++v) {
      acc[v] = _mm256_fmadd_ps(av, _mm256_maskload_ps(row + 8 * v, mask[v]), acc[v]);
    }
  }
#pragma GCC unroll 8
  for (int v = 0; v < kVectors; ++v) {
    if (bias != nullptr) acc[v] = _mm256_add_ps(acc[v], _mm256_maskload_ps(bias + n0 + 8 * v, mask[v]));
    _mm256_maskstore_ps(c + n0 + 8 * v, mask[v], acc[v]);
  }
}
using ColumnsFn = void (*)(const float*, const float*, int, float*, int, int, const float*, int);
const ColumnsFn kColumns[8] = {gemv_columns<1>, gemv_columns<2>, gemv_columns<3>, gemv_columns<4>,
                               gemv_columns<5>, gemv_columns<6>, gemv_columns<7>, gemv_columns<8>};
}  // namespace

void gemv_f32_1x64_avx2(const float* a, const float* b, int ldb, float* c, int N, int K, const float* bias) {
  // 64 columns in 8 independent chains; a narrow tail takes only the
  // registers it fills.
  for (int n0 = 0; n0 < N; n0 += 64) {
    const int columns = N - n0 < 64 ? N - n0 : 64;
    kColumns[(columns + 7) / 8 - 1](a, b, ldb, c, N, K, bias, n0);
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
