// Integer dot products with vpdpbusd: each 32-bit lane accumulates four
// unsigned-byte x signed-byte products without saturation.
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

// 6 rows x 4 block(s) of 16 columns, accumulators in named registers.
void tile_6x64(const uint8_t* a, int depth_padded, const int8_t* b, long long block_stride,
               int32_t* c, int ldc) {
  __m512i c00 = _mm512_setzero_si512(), c01 = _mm512_setzero_si512(), c02 = _mm512_setzero_si512(), c03 = _mm512_setzero_si512();
  __m512i c10 = _mm512_setzero_si512(), c11 = _mm512_setzero_si512(), c12 = _mm512_setzero_si512(), c13 = _mm512_setzero_si512();
  __m512i c20 = _mm512_setzero_si512(), c21 = _mm512_setzero_si512(), c22 = _mm512_setzero_si512(), c23 = _mm512_setzero_si512();
  __m512i c30 = _mm512_setzero_si512(), c31 = _mm512_setzero_si512(), c32 = _mm512_setzero_si512(), c33 = _mm512_setzero_si512();
  __m512i c40 = _mm512_setzero_si512(), c41 = _mm512_setzero_si512(), c42 = _mm512_setzero_si512(), c43 = _mm512_setzero_si512();
  __m512i c50 = _mm512_setzero_si512(), c51 = _mm512_setzero_si512(), c52 = _mm512_setzero_si512(), c53 = _mm512_setzero_si512();
  const long long lda = depth_padded;
  const int quads = depth_padded / 4;
  for (int k = 0; k < quads; ++k) {
    const int8_t* bk = b + static_cast<long long>(k) * 64;
    const __m512i w0 = _mm512_loadu_si512(bk + 0 * block_stride);
    const __m512i w1 = _mm512_loadu_si512(bk + 1 * block_stride);
    const __m512i w2 = _mm512_loadu_si512(bk + 2 * block_stride);
    const __m512i w3 = _mm512_loadu_si512(bk + 3 * block_stride);
    const uint8_t* ak = a + 4 * k;
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 0 * lda));
      c00 = _mm512_dpbusd_epi32(c00, x, w0);
      c01 = _mm512_dpbusd_epi32(c01, x, w1);
      c02 = _mm512_dpbusd_epi32(c02, x, w2);
      c03 = _mm512_dpbusd_epi32(c03, x, w3);
    }
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 1 * lda));
      c10 = _mm512_dpbusd_epi32(c10, x, w0);
      c11 = _mm512_dpbusd_epi32(c11, x, w1);
      c12 = _mm512_dpbusd_epi32(c12, x, w2);
      c13 = _mm512_dpbusd_epi32(c13, x, w3);
    }
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 2 * lda));
      c20 = _mm512_dpbusd_epi32(c20, x, w0);
      c21 = _mm512_dpbusd_epi32(c21, x, w1);
      c22 = _mm512_dpbusd_epi32(c22, x, w2);
      c23 = _mm512_dpbusd_epi32(c23, x, w3);
    }
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 3 * lda));
      c30 = _mm512_dpbusd_epi32(c30, x, w0);
      c31 = _mm512_dpbusd_epi32(c31, x, w1);
      c32 = _mm512_dpbusd_epi32(c32, x, w2);
      c33 = _mm512_dpbusd_epi32(c33, x, w3);
    }
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 4 * lda));
      c40 = _mm512_dpbusd_epi32(c40, x, w0);
      c41 = _mm512_dpbusd_epi32(c41, x, w1);
      c42 = _mm512_dpbusd_epi32(c42, x, w2);
      c43 = _mm512_dpbusd_epi32(c43, x, w3);
    }
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 5 * lda));
      c50 = _mm512_dpbusd_epi32(c50, x, w0);
      c51 = _mm512_dpbusd_epi32(c51, x, w1);
      c52 = _mm512_dpbusd_epi32(c52, x, w2);
      c53 = _mm512_dpbusd_epi32(c53, x, w3);
    }
  }
  _mm512_storeu_si512(c + 0 * static_cast<long long>(ldc) + 0, c00);
  _mm512_storeu_si512(c + 0 * static_cast<long long>(ldc) + 16, c01);
  _mm512_storeu_si512(c + 0 * static_cast<long long>(ldc) + 32, c02);
  _mm512_storeu_si512(c + 0 * static_cast<long long>(ldc) + 48, c03);
  _mm512_storeu_si512(c + 1 * static_cast<long long>(ldc) + 0, c10);
  _mm512_storeu_si512(c + 1 * static_cast<long long>(ldc) + 16, c11);
  _mm512_storeu_si512(c + 1 * static_cast<long long>(ldc) + 32, c12);
  _mm512_storeu_si512(c + 1 * static_cast<long long>(ldc) + 48, c13);
  _mm512_storeu_si512(c + 2 * static_cast<long long>(ldc) + 0, c20);
  _mm512_storeu_si512(c + 2 * static_cast<long long>(ldc) + 16, c21);
  _mm512_storeu_si512(c + 2 * static_cast<long long>(ldc) + 32, c22);
  _mm512_storeu_si512(c + 2 * static_cast<long long>(ldc) + 48, c23);
  _mm512_storeu_si512(c + 3 * static_cast<long long>(ldc) + 0, c30);
  _mm512_storeu_si512(c + 3 * static_cast<long long>(ldc) + 16, c31);
  _mm512_storeu_si512(c + 3 * static_cast<long long>(ldc) + 32, c32);
  _mm512_storeu_si512(c + 3 * static_cast<long long>(ldc) + 48, c33);
  _mm512_storeu_si512(c + 4 * static_cast<long long>(ldc) + 0, c40);
  _mm512_storeu_si512(c + 4 * static_cast<long long>(ldc) + 16, c41);
  _mm512_storeu_si512(c + 4 * static_cast<long long>(ldc) + 32, c42);
  _mm512_storeu_si512(c + 4 * static_cast<long long>(ldc) + 48, c43);
  _mm512_storeu_si512(c + 5 * static_cast<long long>(ldc) + 0, c50);
  _mm512_storeu_si512(c + 5 * static_cast<long long>(ldc) + 16, c51);
  _mm512_storeu_si512(c + 5 * static_cast<long long>(ldc) + 32, c52);
  _mm512_storeu_si512(c + 5 * static_cast<long long>(ldc) + 48, c53);
}

// 6 rows x 1 block(s) of 16 columns, accumulators in named registers.
void tile_6x16(const uint8_t* a, int depth_padded, const int8_t* b, long long block_stride,
               int32_t* c, int ldc) {
  __m512i c00 = _mm512_setzero_si512();
  __m512i c10 = _mm512_setzero_si512();
  __m512i c20 = _mm512_setzero_si512();
  __m512i c30 = _mm512_setzero_si512();
  __m512i c40 = _mm512_setzero_si512();
  __m512i c50 = _mm512_setzero_si512();
  const long long lda = depth_padded;
  const int quads = depth_padded / 4;
  for (int k = 0; k < quads; ++k) {
    const int8_t* bk = b + static_cast<long long>(k) * 64;
    const __m512i w0 = _mm512_loadu_si512(bk + 0 * block_stride);
    const uint8_t* ak = a + 4 * k;
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 0 * lda));
      c00 = _mm512_dpbusd_epi32(c00, x, w0);
    }
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 1 * lda));
      c10 = _mm512_dpbusd_epi32(c10, x, w0);
    }
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 2 * lda));
      c20 = _mm512_dpbusd_epi32(c20, x, w0);
    }
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 3 * lda));
      c30 = _mm512_dpbusd_epi32(c30, x, w0);
    }
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 4 * lda));
      c40 = _mm512_dpbusd_epi32(c40, x, w0);
    }
    {
      const __m512i x = _mm512_set1_epi32(load4(ak + 5 * lda));
      c50 = _mm512_dpbusd_epi32(c50, x, w0);
    }
  }
  _mm512_storeu_si512(c + 0 * static_cast<long long>(ldc) + 0, c00);
  _mm512_storeu_si512(c + 1 * static_cast<long long>(ldc) + 0, c10);
  _mm512_storeu_si512(c + 2 * static_cast<long long>(ldc) + 0, c20);
  _mm512_storeu_si512(c + 3 * static_cast<long long>(ldc) + 0, c30);
  _mm512_storeu_si512(c + 4 * static_cast<long long>(ldc) + 0, c40);
  _mm512_storeu_si512(c + 5 * static_cast<long long>(ldc) + 0, c50);
}

}  // namespace

void dot_u8s8_s32_6x64_avx512vnni(const uint8_t* a, int depth_padded, const int8_t* b,
                                   int out_padded, int rows, int32_t* c) {
  const long long block_stride = static_cast<long long>(depth_padded) * 16;
  const int blocks = out_padded / 16;
  int j = 0;
  for (; j + 4 <= blocks; j += 4) {
    for (int r = 0; r < rows; r += 6) {
      tile_6x64(a + static_cast<long long>(r) * depth_padded, depth_padded, b + j * block_stride,
                block_stride, c + static_cast<long long>(r) * out_padded + 16 * j, out_padded);
    }
  }
  for (; j < blocks; ++j) {
    for (int r = 0; r < rows; r += 6) {
      tile_6x16(a + static_cast<long long>(r) * depth_padded, depth_padded, b + j * block_stride,
                block_stride, c + static_cast<long long>(r) * out_padded + 16 * j, out_padded);
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
