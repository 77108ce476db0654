#ifndef KOVRAEXECUTOR_OPS_GEMM_F32_H_
#define KOVRAEXECUTOR_OPS_GEMM_F32_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ops/kernels/avx_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Working memory of the calling thread, kept between calls so that kernels
// neither allocate nor fault in fresh pages on every call. `slot` tells
// independent buffers apart; contents are not preserved or cleared.
enum class ScratchSlot {
  kPatches = 0,
  kWeightPanel,
  kTaps,
  kRows,
  kSums,
  kCodes,
  kPadCodes,
  kInputCopy,
  kOutputCopy,
  kRecompute,
  kPixelStats,
  kTransformIn,
  kTransformOut,
  kCount
};
void* scratch_bytes(ScratchSlot slot, size_t bytes);
inline float* scratch_floats(ScratchSlot slot, size_t count) {
  return static_cast<float*>(scratch_bytes(slot, sizeof(float) * count));
}

// The float gemm family. A tile computes rows x cols outputs (rows <= 8,
// cols <= 32) over kc reduction steps, starting from zero or, when accumulate
// is set, from the values already in c; a non-null bias (cols values) is
// added after the last step. A row (gemv) computes c[n] = sum over k of a[k] *
// b[k][n] (+ bias[n]) for n < N. Every output is summed in k order.
typedef void (*GemmTileFn)(const float* a, int lda, const float* b, int ldb, float* c, int ldc, int rows,
                           int cols, int kc, bool accumulate, const float* bias);
typedef void (*GemvFn)(const float* a, const float* b, int ldb, float* c, int N, int K, const float* bias);

struct GemmF32Kernels {
  KernelIsa isa;
  const char* name;
  GemmTileFn tile;
  GemvFn gemv;
};
// Portable: a separate multiply and add per step (the order of gemm_float);
// AVX2 and AVX-512: one fused multiply-add chain, the same bits on both.
const KernelTable<GemmF32Kernels>& gemm_f32_kernels();

void gemm_f32_8x32_portable(const float* a, int lda, const float* b, int ldb, float* c, int ldc, int rows,
                            int cols, int kc, bool accumulate, const float* bias);
void gemv_f32_portable(const float* a, const float* b, int ldb, float* c, int N, int K, const float* bias);

// Up to 8 consecutive rows of A (stride lda) and the matching output rows
// (stride ldc). Blocks let a caller gather rows that are not adjacent in the
// output, such as the round-robin tiles of a convolution worker.
struct GemmRowBlock {
  const float* a;
  float* c;
  int rows;
};

// B (K x N, row stride N) cut into 32-column panels of K x 32 floats, the
// last one padded with zeros: the layout the tiles stream when several row
// blocks share B. Kept per operator and keyed by the weight tensor's version.
constexpr int kGemmPanelWidth = 32;
struct PackedPanelsF32 {
  uint64_t version = 0;  // 0: nothing packed yet
  int K = 0, N = 0;
  std::vector<float> data;
};
// The panels of B, packed unless `cache` already holds this version.
const float* pack_panels_f32(const float* B, int K, int N, uint64_t version, PackedPanelsF32* cache);

// C = A x B (+ bias) for every block, where B is K x N with row stride ldb,
// through the current table's tiles. `packed` holds B's panels
// (pack_panels_f32) or is null, and then B is packed into scratch per call
// when it pays. Packing moves values only, so the results are the same.
// With panels given, B is not read and may be null.
void gemm_f32_blocks(const GemmRowBlock* blocks, int block_count, int lda, int ldc, const float* B, int ldb,
                     int N, int K, const float* bias, const float* packed);

// Reduction steps per pass: a 32-column panel over this many rows (32 KiB)
// stays in the first-level cache while every row block streams by.
constexpr int kGemmReductionBlock = 256;

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_GEMM_F32_H_
