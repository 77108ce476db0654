// Integer dot products with vpmaddwd on codes widened to 16 bits: each 32-bit
// lane gains the exact sum of two 16 x 16-bit products (no saturating step).
#include <immintrin.h>

#include <cstring>

#include "ops/kernels/x86/x86_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

inline int32_t load4(const void* p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

// 4 rows x 3 block(s) of 8 columns, accumulators in named registers.
void tile_4x24(const int16_t* a, int depth_padded, const int16_t* b, long long block_stride,
               int32_t* c, int ldc) {
  __m256i c00 = _mm256_setzero_si256(), c01 = _mm256_setzero_si256(), c02 = _mm256_setzero_si256();
  __m256i c10 = _mm256_setzero_si256(), c11 = _mm256_setzero_si256(), c12 = _mm256_setzero_si256();
  __m256i c20 = _mm256_setzero_si256(), c21 = _mm256_setzero_si256(), c22 = _mm256_setzero_si256();
  __m256i c30 = _mm256_setzero_si256(), c31 = _mm256_setzero_si256(), c32 = _mm256_setzero_si256();
  const long long lda = depth_padded;
  const int pairs = depth_padded / 2;
  for (int k = 0; k < pairs; ++k) {
    const int16_t* bk = b + static_cast<long long>(k) * 16;
    const __m256i w0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bk + 0 * block_stride));
    const __m256i w1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bk + 1 * block_stride));
    const __m256i w2 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bk + 2 * block_stride));
    const int16_t* ak = a + 2 * k;
    {
      const __m256i x = _mm256_set1_epi32(load4(ak + 0 * lda));
      c00 = _mm256_add_epi32(c00, _mm256_madd_epi16(x, w0));
      c01 = _mm256_add_epi32(c01, _mm256_madd_epi16(x, w1));
      c02 = _mm256_add_epi32(c02, _mm256_madd_epi16(x, w2));
    }
    {
      const __m256i x = _mm256_set1_epi32(load4(ak + 1 * lda));
      c10 = _mm256_add_epi32(c10, _mm256_madd_epi16(x, w0));
      c11 = _mm256_add_epi32(c11, _mm256_madd_epi16(x, w1));
      c12 = _mm256_add_epi32(c12, _mm256_madd_epi16(x, w2));
    }
    {
      const __m256i x = _mm256_set1_epi32(load4(ak + 2 * lda));
      c20 = _mm256_add_epi32(c20, _mm256_madd_epi16(x, w0));
      c21 = _mm256_add_epi32(c21, _mm256_madd_epi16(x, w1));
      c22 = _mm256_add_epi32(c22, _mm256_madd_epi16(x, w2));
    }
    {
      const __m256i x = _mm256_set1_epi32(load4(ak + 3 * lda));
      c30 = _mm256_add_epi32(c30, _mm256_madd_epi16(x, w0));
      c31 = _mm256_add_epi32(c31, _mm256_madd_epi16(x, w1));
      c32 = _mm256_add_epi32(c32, _mm256_madd_epi16(x, w2));
    }
  }
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 0 * static_cast<long long>(ldc) + 0), c00);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 0 * static_cast<long long>(ldc) + 8), c01);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 0 * static_cast<long long>(ldc) + 16), c02);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 1 * static_cast<long long>(ldc) + 0), c10);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 1 * static_cast<long long>(ldc) + 8), c11);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 1 * static_cast<long long>(ldc) + 16), c12);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 2 * static_cast<long long>(ldc) + 0), c20);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 2 * static_cast<long long>(ldc) + 8), c21);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 2 * static_cast<long long>(ldc) + 16), c22);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 3 * static_cast<long long>(ldc) + 0), c30);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 3 * static_cast<long long>(ldc) + 8), c31);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 3 * static_cast<long long>(ldc) + 16), c32);
}

// 4 rows x 1 block(s) of 8 columns, accumulators in named registers.
void tile_4x8(const int16_t* a, int depth_padded, const int16_t* b, long long block_stride,
               int32_t* c, int ldc) {
  __m256i c00 = _mm256_setzero_si256();
  __m256i c10 = _mm256_setzero_si256();
  __m256i c20 = _mm256_setzero_si256();
  __m256i c30 = _mm256_setzero_si256();
  const long long lda = depth_padded;
  const int pairs = depth_padded / 2;
  for (int k = 0; k < pairs; ++k) {
    const int16_t* bk = b + static_cast<long long>(k) * 16;
    const __m256i w0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bk + 0 * block_stride));
    const int16_t* ak = a + 2 * k;
    {
      const __m256i x = _mm256_set1_epi32(load4(ak + 0 * lda));
      c00 = _mm256_add_epi32(c00, _mm256_madd_epi16(x, w0));
    }
    {
      const __m256i x = _mm256_set1_epi32(load4(ak + 1 * lda));
      c10 = _mm256_add_epi32(c10, _mm256_madd_epi16(x, w0));
    }
    {
      const __m256i x = _mm256_set1_epi32(load4(ak + 2 * lda));
      c20 = _mm256_add_epi32(c20, _mm256_madd_epi16(x, w0));
    }
    {
      const __m256i x = _mm256_set1_epi32(load4(ak + 3 * lda));
      c30 = _mm256_add_epi32(c30, _mm256_madd_epi16(x, w0));
    }
  }
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 0 * static_cast<long long>(ldc) + 0), c00);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 1 * static_cast<long long>(ldc) + 0), c10);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 2 * static_cast<long long>(ldc) + 0), c20);
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(c + 3 * static_cast<long long>(ldc) + 0), c30);
}

}  // namespace

void dot_s16_s32_4x24_avx2(const int16_t* a, int depth_padded, const int16_t* b, int out_padded,
                            int rows, int32_t* c) {
  const long long block_stride = static_cast<long long>(depth_padded) * 8;
  const int blocks = out_padded / 8;
  int j = 0;
  for (; j + 3 <= blocks; j += 3) {
    for (int r = 0; r < rows; r += 4) {
      tile_4x24(a + static_cast<long long>(r) * depth_padded, depth_padded, b + j * block_stride,
                block_stride, c + static_cast<long long>(r) * out_padded + 8 * j, out_padded);
    }
  }
  for (; j < blocks; ++j) {
    for (int r = 0; r < rows; r += 4) {
      tile_4x8(a + static_cast<long long>(r) * depth_padded, depth_padded, b + j * block_stride,
               block_stride, c + static_cast<long long>(r) * out_padded + 8 * j, out_padded);
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
