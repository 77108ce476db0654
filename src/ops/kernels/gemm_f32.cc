#include "ops/kernels/gemm_f32.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
// Reduction steps per pass: a 32-column slice of B over this many rows
// (32 KiB) stays in the first-level cache while every row block streams by.
constexpr int kReductionBlock = 256;
constexpr int kPanelWidth = 32;
struct Scratch {
  float* data = nullptr;
  size_t capacity = 0;
  ~Scratch() { std::free(data); }
};

}  // namespace

float* scratch_floats(ScratchSlot slot, size_t count) {
  thread_local Scratch buffers[2];
  Scratch& s = buffers[static_cast<int>(slot)];
  if (count > s.capacity) {
    std::free(s.data);
    s.data = static_cast<float*>(std::malloc(sizeof(float) * count));
    if (s.data == nullptr) fatal("Out of memory for " + std::to_string(count) + " floats of kernel scratch.");
    s.capacity = count;
  }
  return s.data;
}

void gemm_f32_blocks(const GemmRowBlock* blocks, int block_count, int lda, int ldc,
                     const float* B, int ldb, int N, int K, const float* bias, KernelIsa isa) {
  if (block_count <= 0 || N <= 0) return;
  if (block_count == 1 && blocks[0].rows == 1) {
    if (isa == KernelIsa::kAvx512) {
      gemv_f32_avx512(blocks[0].a, B, ldb, blocks[0].c, N, K, bias);
    } else {
      gemv_f32_avx2(blocks[0].a, B, ldb, blocks[0].c, N, K, bias);
    }
    return;
  }
  auto micro = isa == KernelIsa::kAvx512 ? gemm_f32_8x32_avx512 : gemm_f32_8x32_avx2;
  if (K <= 0) {
    // An empty reduction is a zero sum.
    for (int i = 0; i < block_count; ++i)
      for (int r = 0; r < blocks[i].rows; ++r)
        for (int n = 0; n < N; ++n) blocks[i].c[static_cast<long long>(r) * ldc + n] = bias ? 0.0f + bias[n] : 0.0f;
    return;
  }
  // When several row blocks share a slice of B, the slice is first copied
  // into contiguous 32-column panels: rows of B far apart in memory would
  // otherwise collide in the same cache sets and be fetched again for every
  // block. B is read row after row, the order memory streams best.
  const bool pack = block_count > 1;
  const int panels = (N + kPanelWidth - 1) / kPanelWidth;
  float* packed = pack ? scratch_floats(ScratchSlot::kWeightPanel,
                                        static_cast<size_t>(kReductionBlock) * kPanelWidth * panels)
                       : nullptr;
  for (int k0 = 0; k0 < K; k0 += kReductionBlock) {
    const int kc = std::min(kReductionBlock, K - k0);
    const bool accumulate = k0 > 0;
    const bool last = k0 + kc == K;
    if (pack) {
      for (int k = 0; k < kc; ++k) {
        const float* row = B + static_cast<long long>(k0 + k) * ldb;
        for (int p = 0; p < panels; ++p) {
          const int cols = std::min(kPanelWidth, N - p * kPanelWidth);
          std::memcpy(packed + (static_cast<size_t>(p) * kc + k) * kPanelWidth, row + p * kPanelWidth,
                      sizeof(float) * cols);
        }
      }
    }
    for (int p = 0; p < panels; ++p) {
      const int n0 = p * kPanelWidth;
      const int cols = std::min(kPanelWidth, N - n0);
      const float* b = pack ? packed + static_cast<size_t>(p) * kc * kPanelWidth : B + static_cast<long long>(k0) * ldb + n0;
      const int b_ld = pack ? kPanelWidth : ldb;
      for (int i = 0; i < block_count; ++i) {
        micro(blocks[i].a + k0, lda, b, b_ld, blocks[i].c + n0, ldc, blocks[i].rows, cols, kc, accumulate,
              last && bias ? bias + n0 : nullptr);
      }
    }
  }
}

void gemm_f32_indirect(const IndirectRowBlock* blocks, int block_count, int tap_count, int C, int ldc,
                       const float* B, int N, const float* bias) {
  if (block_count <= 0 || N <= 0 || tap_count <= 0 || C <= 0) return;
  const int N_ld = N;
  const int panels = (N + kPanelWidth - 1) / kPanelWidth;
  // Whole kernel positions per pass, about kReductionBlock reduction steps.
  const int taps_per_pass = std::max(1, kReductionBlock / C);
  float* packed = scratch_floats(ScratchSlot::kWeightPanel,
                                 static_cast<size_t>(taps_per_pass) * C * kPanelWidth * panels);
  for (int t0 = 0; t0 < tap_count; t0 += taps_per_pass) {
    const int taps = std::min(taps_per_pass, tap_count - t0);
    const int k0 = t0 * C, kc = taps * C;
    const bool accumulate = t0 > 0;
    const bool last = t0 + taps == tap_count;
    for (int k = 0; k < kc; ++k) {
      const float* row = B + static_cast<long long>(k0 + k) * N_ld;
      for (int p = 0; p < panels; ++p) {
        const int cols = std::min(kPanelWidth, N - p * kPanelWidth);
        std::memcpy(packed + (static_cast<size_t>(p) * kc + k) * kPanelWidth, row + p * kPanelWidth,
                    sizeof(float) * cols);
      }
    }
    for (int p = 0; p < panels; ++p) {
      const int n0 = p * kPanelWidth;
      const int cols = std::min(kPanelWidth, N - n0);
      const float* b = packed + static_cast<size_t>(p) * kc * kPanelWidth;
      for (int i = 0; i < block_count; ++i) {
        gemm_f32_8x32_indirect_avx512(blocks[i].taps + static_cast<size_t>(t0) * 8, taps, C, b, kPanelWidth,
                                      blocks[i].c + n0, ldc, blocks[i].rows, cols, accumulate,
                                      last && bias ? bias + n0 : nullptr);
      }
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
