#include "ops/kernels/gemm_f32.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common.h"
#include "ops/kernels/x86/x86_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

struct Scratch {
  void* data = nullptr;
  size_t capacity = 0;
  ~Scratch() { std::free(data); }
};

// Copies rows [k0, k0 + kc) of B into panels laid out [panel][kc][32].
void pack_rows(const float* B, int ldb, int N, int k0, int kc, float* packed) {
  const int panels = (N + kGemmPanelWidth - 1) / kGemmPanelWidth;
  for (int k = 0; k < kc; ++k) {
    const float* row = B + static_cast<long long>(k0 + k) * ldb;
    for (int p = 0; p < panels; ++p) {
      const int cols = std::min(kGemmPanelWidth, N - p * kGemmPanelWidth);
      std::memcpy(packed + (static_cast<size_t>(p) * kc + k) * kGemmPanelWidth, row + p * kGemmPanelWidth,
                  sizeof(float) * cols);
    }
  }
}

const GemmF32Kernels kVariants[] = {
    {KernelIsa::kPortable, "gemm_f32_8x32_portable", gemm_f32_8x32_portable, gemv_f32_portable},
    {KernelIsa::kAvx2, "gemm_f32_4x16_avx2", gemm_f32_4x16_avx2, gemv_f32_1x64_avx2},
    {KernelIsa::kAvx512, "gemm_f32_8x32_avx512", gemm_f32_8x32_avx512, gemv_f32_4x16_avx512},
};

}  // namespace

void* scratch_bytes(ScratchSlot slot, size_t bytes) {
  thread_local Scratch buffers[static_cast<int>(ScratchSlot::kCount)];
  Scratch& s = buffers[static_cast<int>(slot)];
  if (bytes > s.capacity) {
    std::free(s.data);
    s.data = std::malloc(bytes);
    if (s.data == nullptr) fatal("Out of memory for " + std::to_string(bytes) + " bytes of kernel scratch.");
    s.capacity = bytes;
  }
  return s.data;
}

const KernelTable<GemmF32Kernels>& gemm_f32_kernels() {
  static const KernelTable<GemmF32Kernels> table(kVariants);
  return table;
}

void gemm_f32_8x32_portable(const float* a, int lda, const float* b, int ldb, float* c, int ldc, int rows,
                            int cols, int kc, bool accumulate, const float* bias) {
  for (int r = 0; r < rows; ++r) {
    const float* x = a + static_cast<long long>(r) * lda;
    float* out = c + static_cast<long long>(r) * ldc;
    float acc[kGemmPanelWidth];
    for (int n = 0; n < cols; ++n) acc[n] = accumulate ? out[n] : 0.0f;
    for (int k = 0; k < kc; ++k) {
      const float v = x[k];
      const float* w = b + static_cast<long long>(k) * ldb;
      for (int n = 0; n < cols; ++n) acc[n] += v * w[n];
    }
    for (int n = 0; n < cols; ++n) out[n] = bias != nullptr ? acc[n] + bias[n] : acc[n];
  }
}

void gemv_f32_portable(const float* a, const float* b, int ldb, float* c, int N, int K, const float* bias) {
  for (int n = 0; n < N; ++n) c[n] = 0.0f;
  for (int k = 0; k < K; ++k) {
    const float v = a[k];
    const float* w = b + static_cast<long long>(k) * ldb;
    for (int n = 0; n < N; ++n) c[n] += v * w[n];
  }
  if (bias != nullptr) {
    for (int n = 0; n < N; ++n) c[n] = c[n] + bias[n];
  }
}

const float* pack_panels_f32(const float* B, int K, int N, uint64_t version, PackedPanelsF32* cache) {
  if (cache->version == version && cache->K == K && cache->N == N && version != 0) return cache->data.data();
  const int panels = (N + kGemmPanelWidth - 1) / kGemmPanelWidth;
  cache->data.assign(static_cast<size_t>(panels) * K * kGemmPanelWidth, 0.0f);
  pack_rows(B, N, N, 0, K, cache->data.data());
  cache->version = version;
  cache->K = K;
  cache->N = N;
  return cache->data.data();
}

void gemm_f32_blocks(const GemmRowBlock* blocks, int block_count, int lda, int ldc, const float* B, int ldb,
                     int N, int K, const float* bias, const float* packed) {
  if (block_count <= 0 || N <= 0) return;
  const GemmF32Kernels& kernels = gemm_f32_kernels().get();
  // A lone row streams B as it is stored; with panels it runs the tiles.
  if (block_count == 1 && blocks[0].rows == 1 && packed == nullptr) {
    kernels.gemv(blocks[0].a, B, ldb, blocks[0].c, N, K, bias);
    return;
  }
  if (K <= 0) {
    // An empty reduction is a zero sum.
    for (int i = 0; i < block_count; ++i)
      for (int r = 0; r < blocks[i].rows; ++r)
        for (int n = 0; n < N; ++n) blocks[i].c[static_cast<long long>(r) * ldc + n] = bias ? 0.0f + bias[n] : 0.0f;
    return;
  }
  // When several row blocks share a slice of B, they read it from contiguous
  // 32-column panels: rows of B far apart in memory would otherwise collide
  // in the same cache sets and be fetched again for every block.
  const bool per_call = packed == nullptr && block_count > 1;
  const int panels = (N + kGemmPanelWidth - 1) / kGemmPanelWidth;
  float* scratch = per_call
                       ? scratch_floats(ScratchSlot::kWeightPanel,
                                        static_cast<size_t>(kGemmReductionBlock) * kGemmPanelWidth * panels)
                       : nullptr;
  for (int k0 = 0; k0 < K; k0 += kGemmReductionBlock) {
    const int kc = std::min(kGemmReductionBlock, K - k0);
    const bool accumulate = k0 > 0;
    const bool last = k0 + kc == K;
    if (per_call) pack_rows(B, ldb, N, k0, kc, scratch);
    for (int p = 0; p < panels; ++p) {
      const int n0 = p * kGemmPanelWidth;
      const int cols = std::min(kGemmPanelWidth, N - n0);
      const float* b;
      int b_ld = kGemmPanelWidth;
      if (packed != nullptr) {
        b = packed + (static_cast<size_t>(p) * K + k0) * kGemmPanelWidth;
      } else if (per_call) {
        b = scratch + static_cast<size_t>(p) * kc * kGemmPanelWidth;
      } else {
        b = B + static_cast<long long>(k0) * ldb + n0;
        b_ld = ldb;
      }
      for (int i = 0; i < block_count; ++i) {
        kernels.tile(blocks[i].a + k0, lda, b, b_ld, blocks[i].c + n0, ldc, blocks[i].rows, cols, kc,
                     accumulate, last && bias ? bias + n0 : nullptr);
      }
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
