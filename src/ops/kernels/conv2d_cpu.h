#ifndef KOVRAEXECUTOR_OPS_CONV2D_CPU_H_
#define KOVRAEXECUTOR_OPS_CONV2D_CPU_H_

#include <cstddef>
#include <vector>

#include "ops/kernels/activate.h"
#include "ops/kernels/avx_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Everything a float convolution kernel needs for one call: NHWC shapes, the
// steps, the top/left padding of the path that runs (the two paths pad
// differently, so the caller decides) and the fused activation.
struct ConvGeometry {
  int batch = 1, in_h = 0, in_w = 0, in_c = 0;
  int out_h = 0, out_w = 0, out_c = 0;
  int kernel_h = 1, kernel_w = 1;
  int stride_h = 1, stride_w = 1, dilation_h = 1, dilation_w = 1;
  int pad_top = 0, pad_left = 0;
  int groups = 1;
  // Stands for every input position outside the image.
  float pad_value = 0.0f;
  ActivationFn activate = activation_null;
  float alpha = 1.0f;
  // The depthwise "Linear" activation: a clamp to [clip_min, clip_max].
  bool clip = false;
  float clip_min = 0.0f, clip_max = 0.0f;
};

// floor(x / 2): the arithmetic shift the padding rules are written with.
inline int floor_half(int x) { return x >= 0 ? x / 2 : -((1 - x) / 2); }
// "SAME" top/left padding of the direct path (dilation included).
inline int same_pad_direct(int out, int stride, int kernel, int dilation, int in) {
  return floor_half((out - 1) * stride + (kernel - 1) * dilation + 1 - in);
}
// "SAME" top/left padding of the tiled path, which leaves dilation out.
inline int same_pad_tiled(int out, int stride, int kernel, int in) {
  return floor_half((out - 1) * stride + kernel - in);
}

// Direct convolution: groups, dilations, explicit padding and pad_value.
// Weights are [kernel_h, kernel_w, in_c / groups, out_c]; bias has out_c values.
void conv2d_cpu(const float* input, const float* weight, const float* bias, float* output,
                const ConvGeometry& g);

// The tiled path's preparation for one geometry, made once (inference_shape)
// so that a call allocates nothing: tile and worker counts, the tap offsets
// of a window inside the image and a run of in_c padding values.
struct ConvTilePlan {
  ConvGeometry g;
  int pixels = 0, tiles = 0, workers = 0;
  int K = 0;                 // reduction length, kernel_h * kernel_w * in_c
  int group = 1;             // tiles multiplied together while a weight slice is in cache
  bool direct_rows = false;  // 1x1, unit steps, no padding: patches are input rows
  // Whether the operator keeps the weights packed in panels. A map of few
  // pixels reads its weights once per call either way: it packs them into
  // scratch per call instead of holding a second copy of them.
  bool keep_panels = false;
  std::vector<ptrdiff_t> tap_offsets;
  std::vector<float> pad_run;
};
void prepare_conv_tiles(const ConvGeometry& g, ConvTilePlan* plan);

// Tiled convolution (groups 1): the output pixels of an image are cut into
// tiles of 8, and T = min(16, tiles) workers take tiles t, t + T, ... in turn.
// Each tile's patches are gathered (or pointed at, where the conv tile table
// has an indirect kernel) and multiplied with the weight matrix through the
// gemm table. `packed` holds the weight panels (pack_panels_f32) or is null.
void conv2d_avx_cpu(const ConvTilePlan& plan, const float* input, const float* weight, const float* packed,
                    const float* bias, float* output);
// The same, prepared for this call only.
void conv2d_avx_cpu(const float* input, const float* weight, const float* bias, float* output,
                    const ConvGeometry& g);

// The record conv2d_avx_cpu fills once per call and shares with its workers.
struct AVXBaseConvParam {
  ConvGeometry geometry;
};
struct AVXFloatConvParam : AVXBaseConvParam {
  const ConvTilePlan* plan = nullptr;
  const float* input = nullptr;
  const float* weight = nullptr;
  const float* packed = nullptr;
  const float* bias = nullptr;
  float* output = nullptr;
};
// Each worker's own record.
struct ConvThreadArg {
  int index = 0;
  int count = 1;
  const AVXFloatConvParam* shared = nullptr;
  // Output channels [n0, n1) of every tile, when a map of few tiles is
  // shared among threads by columns; n1 = 0 means all of them.
  int n0 = 0, n1 = 0;
};

// Worker entry of the tiled path; arg is a ConvThreadArg. Task `index` of
// `count` runs the logical workers index, index + count, ... below T.
void* computeConv_tiled(void* arg);

// The conv tile family: rows of a tile read, for kernel position t, the C
// values at taps[t * 8 + r] (a pixel of the image or a run of padding), so
// reduction index k = t * C + c, the order of a gathered patch, against B in
// 32-column panels. A variant without such a kernel gathers the patches and
// runs the gemm table; both give the bits of the gemm table's tiles.
typedef void (*ConvIndirectTileFn)(const float* const* taps, int tap_count, int C, const float* b, int ldb,
                                   float* c, int ldc, int rows, int cols, bool accumulate, const float* bias);
struct ConvF32TileKernels {
  KernelIsa isa;
  const char* name;
  ConvIndirectTileFn indirect;  // null: gather patches
};
const KernelTable<ConvF32TileKernels>& conv_f32_tile_kernels();

// The straightforward tile product, the order of the portable tiles: M rows
// of N outputs; row r reduces over outer * inner values of A (row-major,
// stride outer * inner) against the rows of B (N weights each, one row per
// reduction index). Each output is summed in reduction order, then
// multiplied by multiplier, biased and activated.
void gemm_float(float* C, const float* A, const float* B, const float* bias, int inner, int N, int M,
                int outer, ActivationFn activate, float alpha, int multiplier);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_CONV2D_CPU_H_
