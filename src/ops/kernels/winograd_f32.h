#ifndef KOVRAEXECUTOR_OPS_WINOGRAD_F32_H_
#define KOVRAEXECUTOR_OPS_WINOGRAD_F32_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ops/kernels/conv2d_cpu.h"
#include "ops/kernels/gemm_f32.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// 3x3 convolutions with unit steps as Winograd F(2x2, 3x3): each 2x2 block of
// outputs comes from a 4x4 patch of the input, transformed, multiplied per
// transform position (16 matrix products of tiles x in_c by in_c x out_c
// through the gemm table) and transformed back. 2.25 times fewer
// multiplications than the tiled path; the transforms use only 0, +-1 and
// +-1/2, so results differ from it by rounding alone.

// The transform family. Input: V = B^T d B for the C channels of one tile,
// d read through 16 tap pointers (C values each), position p of V written at
// v + p * stride. Output: Y = A^T m A + bias for K channels, m's position p
// read at m + p * stride, the 2x2 results written to the non-null out[i * 2
// + j]. Every variant does the same operations per value, so all give the
// same bits.
typedef void (*WinogradInputFn)(const float* const taps[16], int C, float* v, size_t stride);
typedef void (*WinogradOutputFn)(const float* m, size_t stride, int K, const float* bias,
                                 float* const out[4]);
struct WinogradF32Kernels {
  KernelIsa isa;
  const char* name;
  WinogradInputFn input;
  WinogradOutputFn output;
};
const KernelTable<WinogradF32Kernels>& winograd_f32_kernels();
void winograd_f23_input_f32_x4_portable(const float* const taps[16], int C, float* v, size_t stride);
void winograd_f23_output_f32_x4_portable(const float* m, size_t stride, int K, const float* bias,
                                         float* const out[4]);

// Whether `g` can and should take this path: 3x3, unit steps and dilations,
// one group, enough channels and output blocks for the products to pay.
bool winograd_f23_applies(const ConvGeometry& g);

// Made once per geometry (inference_shape).
struct WinogradPlan {
  ConvGeometry g;
  int tiles_h = 0, tiles_w = 0;
  int tiles = 0;               // per image
  int block = 8;               // tiles transformed and multiplied together (a multiple of 8)
  std::vector<float> pad_run;  // in_c padding values
};
void prepare_winograd_f23(const ConvGeometry& g, WinogradPlan* plan);

// The 16 transformed weight matrices (in_c x out_c each) in gemm panels,
// made again only when the weight tensor's version changes; the panels are
// the only copy kept.
struct WinogradWeights {
  uint64_t version = 0;
  std::array<PackedPanelsF32, 16> panels;
};
// Weights are [3, 3, in_c, out_c].
void transform_winograd_weights(const float* weight, int in_c, int out_c, uint64_t version,
                                WinogradWeights* cache);

// NHWC input and output; bias has out_c values; the plan's activation is
// applied. Output blocks are shared among the pool's threads; every output
// is computed the same way whatever the split.
void conv2d_winograd_f23(const WinogradPlan& plan, const float* input, const WinogradWeights& weights,
                         const float* bias, float* output);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_WINOGRAD_F32_H_
