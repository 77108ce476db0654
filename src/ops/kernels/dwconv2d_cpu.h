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

// Output row oy of one image before the activation (multiplier 1): the taps
// as fused multiply-adds in (ky, kx) order, then plus bias; both agree bit
// for bit.
void dwconv_row_f32_avx512(const float* image, const float* weight, const float* bias, float* out_row,
                           const ConvGeometry& g, int oy);
void dwconv_row_f32_avx2(const float* image, const float* weight, const float* bias, float* out_row,
                         const ConvGeometry& g, int oy);

// The depthwise activation of a row: "Linear" clamps, the others as fused.
void dwconv_activate(float* row, int count, const ConvGeometry& g);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_DWCONV2D_CPU_H_
