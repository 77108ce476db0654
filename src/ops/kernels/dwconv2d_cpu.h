#ifndef KOVRAEXECUTOR_OPS_DWCONV2D_CPU_H_
#define KOVRAEXECUTOR_OPS_DWCONV2D_CPU_H_

#include "ops/kernels/conv2d_cpu.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Depthwise convolution. Weights are [kernel_h, kernel_w, in_c, multiplier]
// (the TensorFlow depthwise layout); output channel c * multiplier + m reads
// input channel c, so g.out_c = g.in_c * multiplier. Each output is its taps
// summed in (ky, kx) order, plus bias, then the activation or the clip.
void dwconv2d_cpu(const float* input, const float* weight, const float* bias, float* output,
                  const ConvGeometry& g);

// The depthwise row family: output row oy of one image before the
// activation, each output its taps in (ky, kx) order, then plus bias. The
// portable row takes any multiplier and multiplies and adds separately; the
// vector rows (multiplier 1) use fused multiply-adds and agree bit for bit.
typedef void (*DwconvRowFn)(const float* image, const float* weight, const float* bias, float* out_row,
                            const ConvGeometry& g, int oy);
struct DwconvF32Kernels {
  KernelIsa isa;
  const char* name;
  DwconvRowFn row;
};
const KernelTable<DwconvF32Kernels>& dwconv_f32_row_kernels();
void dwconv_row_f32_portable(const float* image, const float* weight, const float* bias, float* out_row,
                             const ConvGeometry& g, int oy);

// The depthwise activation of a row: "Linear" clamps, the others as fused.
void dwconv_activate(float* row, int count, const ConvGeometry& g);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_DWCONV2D_CPU_H_
