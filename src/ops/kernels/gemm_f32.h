#ifndef KOVRAEXECUTOR_OPS_GEMM_F32_H_
#define KOVRAEXECUTOR_OPS_GEMM_F32_H_

#include <cstddef>

#include "ops/kernels/avx_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Working memory of the calling thread, kept between calls so that large
// kernels do not map, fault in and clear fresh pages on every call. `slot`
// tells independent buffers apart; contents are not preserved or cleared.
enum class ScratchSlot { kPatches = 0, kWeightPanel = 1 };
float* scratch_floats(ScratchSlot slot, size_t count);

// Up to 8 consecutive rows of A (stride lda) and the matching output rows
// (stride ldc). Blocks let a caller gather rows that are not adjacent in the
// output, such as the round-robin tiles of a convolution worker.
struct GemmRowBlock {
  const float* a;
  float* c;
  int rows;
};

// C = A x B for every block, where B is K x N with row stride ldb. Every
// output is one fused multiply-add chain over k = 0 .. K-1 starting from 0,
// whatever the blocking, so the AVX-512 and AVX2 kernels agree bit for bit
// and the split of rows between workers never matters. isa must not be
// kPortable (that path keeps the unfused reference order, see gemm_float).
// When bias is given, each finished sum then gets bias[n] added (a separate
// rounding, as in sum + bias).
void gemm_f32_blocks(const GemmRowBlock* blocks, int block_count, int lda, int ldc,
                     const float* B, int ldb, int N, int K, const float* bias, KernelIsa isa);

// Rows given through pointers instead of a gathered matrix: row r of a block
// reads, for kernel position t, the C values at taps[t * 8 + r] (a pixel of
// the image or a run of padding), so reduction index k = t * C + c, the order
// of a gathered patch. Same results as gemm_f32_blocks on the gathered rows.
struct IndirectRowBlock {
  const float* const* taps;
  float* c;
  int rows;
};
// AVX-512 only; the other instruction sets gather.
void gemm_f32_indirect(const IndirectRowBlock* blocks, int block_count, int tap_count, int C, int ldc,
                       const float* B, int N, const float* bias);
void gemm_f32_8x32_indirect_avx512(const float* const* taps, int tap_count, int C, const float* b, int ldb,
                                   float* c, int ldc, int rows, int cols, bool accumulate, const float* bias);

// The micro-kernels behind gemm_f32_blocks. Each computes rows x cols
// (rows <= 8, cols <= 32) outputs over kc reduction steps, starting from
// zero or, when accumulate is set, from the values already in c; a non-null
// bias (cols values) is added after the last step.
void gemm_f32_8x32_avx512(const float* a, int lda, const float* b, int ldb, float* c, int ldc,
                          int rows, int cols, int kc, bool accumulate, const float* bias);
void gemm_f32_8x32_avx2(const float* a, int lda, const float* b, int ldb, float* c, int ldc,
                        int rows, int cols, int kc, bool accumulate, const float* bias);
// One row: c[n] = sum over k of a[k] * b[k][n] (+ bias[n]), for n < N, in k order.
void gemv_f32_avx512(const float* a, const float* b, int ldb, float* c, int N, int K, const float* bias);
void gemv_f32_avx2(const float* a, const float* b, int ldb, float* c, int N, int K, const float* bias);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_GEMM_F32_H_
