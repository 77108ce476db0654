#include "ops/gemm_f32.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
// Reduction steps per pass: a 32-column slice of B over this many rows
// (32 KiB) stays in the first-level cache while every row block streams by.
constexpr int kReductionBlock = 256;
constexpr int kPanelWidth = 32;
}  // namespace

void gemm_f32_blocks(const GemmRowBlock* blocks, int block_count, int lda, int ldc,
                     const float* B, int ldb, int N, int K, KernelIsa isa) {
  if (block_count <= 0 || N <= 0) return;
  if (block_count == 1 && blocks[0].rows == 1) {
    if (isa == KernelIsa::kAvx512) {
      gemv_f32_avx512(blocks[0].a, B, ldb, blocks[0].c, N, K);
    } else {
      gemv_f32_avx2(blocks[0].a, B, ldb, blocks[0].c, N, K);
    }
    return;
  }
  auto micro = isa == KernelIsa::kAvx512 ? gemm_f32_8x32_avx512 : gemm_f32_8x32_avx2;
  if (K <= 0) {
    // An empty reduction is a zero sum.
    for (int i = 0; i < block_count; ++i)
      for (int r = 0; r < blocks[i].rows; ++r)
        std::fill(blocks[i].c + static_cast<long long>(r) * ldc, blocks[i].c + static_cast<long long>(r) * ldc + N, 0.0f);
    return;
  }
  // When several row blocks share a slice of B, the slice is first copied
  // into a contiguous panel: rows of B far apart in memory would otherwise
  // collide in the same cache sets and be fetched again for every block.
  const bool pack = block_count > 1 && ldb != kPanelWidth;
  std::vector<float> panel(pack ? static_cast<size_t>(kReductionBlock) * kPanelWidth : 0);
  for (int k0 = 0; k0 < K; k0 += kReductionBlock) {
    const int kc = std::min(kReductionBlock, K - k0);
    const bool accumulate = k0 > 0;
    for (int n0 = 0; n0 < N; n0 += kPanelWidth) {
      const int cols = std::min(kPanelWidth, N - n0);
      const float* b = B + static_cast<long long>(k0) * ldb + n0;
      int panel_ld = ldb;
      if (pack) {
        for (int k = 0; k < kc; ++k) {
          std::memcpy(panel.data() + static_cast<size_t>(k) * kPanelWidth, b + static_cast<long long>(k) * ldb,
                      sizeof(float) * cols);
        }
        b = panel.data();
        panel_ld = kPanelWidth;
      }
      for (int i = 0; i < block_count; ++i) {
        micro(blocks[i].a + k0, lda, b, panel_ld, blocks[i].c + n0, ldc, blocks[i].rows, cols, kc,
              accumulate);
      }
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
