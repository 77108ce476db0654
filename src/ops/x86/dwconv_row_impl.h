#ifndef KOVRAEXECUTOR_OPS_X86_DWCONV_ROW_IMPL_H_
#define KOVRAEXECUTOR_OPS_X86_DWCONV_ROW_IMPL_H_

// The depthwise row kernel, written once over a vector type. Included only by
// the instruction-set files, each with its own Vec (see dwconv_f32_*.cc), so
// every build of it sums the taps of an output in the same (ky, kx) order.

#include <cstddef>

#include "ops/conv2d_cpu.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {
namespace dwconv_detail {

template <class Vec>
void dwconv_row(const float* image, const float* weight, float* out, const ConvGeometry& g, int oy) {
  using V = typename Vec::V;
  using M = typename Vec::M;
  constexpr int kWidth = Vec::kWidth;
  constexpr int kBlock = 8;
  const int C = g.in_c;
  const V pad = Vec::set1(g.pad_value);
  const size_t row_stride = static_cast<size_t>(g.in_w) * C;
  // Output columns whose taps all lie inside the image horizontally.
  int x_lo = 0;
  if (g.pad_left > 0) x_lo = (g.pad_left + g.stride_w - 1) / g.stride_w;
  const int right = g.in_w - 1 + g.pad_left - (g.kernel_w - 1) * g.dilation_w;
  int x_hi = right < 0 ? 0 : right / g.stride_w + 1;
  if (x_lo > g.out_w) x_lo = g.out_w;
  if (x_hi > g.out_w) x_hi = g.out_w;
  if (x_hi < x_lo) x_hi = x_lo;

  auto one_pixel = [&](int ox) {
    float* dst = out + static_cast<size_t>(ox) * C;
    for (int c0 = 0; c0 < C; c0 += kWidth) {
      const M m = Vec::mask(C - c0);
      V acc = Vec::zero();
      for (int ky = 0; ky < g.kernel_h; ++ky) {
        const int iy = oy * g.stride_h + ky * g.dilation_h - g.pad_top;
        const bool row_inside = iy >= 0 && iy < g.in_h;
        for (int kx = 0; kx < g.kernel_w; ++kx) {
          const int ix = ox * g.stride_w + kx * g.dilation_w - g.pad_left;
          const V w = Vec::load(m, weight + static_cast<size_t>(ky * g.kernel_w + kx) * C + c0);
          const V x = row_inside && ix >= 0 && ix < g.in_w
                          ? Vec::load(m, image + iy * row_stride + static_cast<size_t>(ix) * C + c0)
                          : pad;
          acc = Vec::fma(x, w, acc);
        }
      }
      Vec::store(m, dst + c0, acc);
    }
  };

  int ox = 0;
  for (; ox < x_lo; ++ox) one_pixel(ox);
  for (; ox + kBlock <= x_hi; ox += kBlock) {
    for (int c0 = 0; c0 < C; c0 += kWidth) {
      const M m = Vec::mask(C - c0);
      V acc[kBlock];
#pragma GCC unroll 8
      for (int p = 0; p < kBlock; ++p) acc[p] = Vec::zero();
      for (int ky = 0; ky < g.kernel_h; ++ky) {
        const int iy = oy * g.stride_h + ky * g.dilation_h - g.pad_top;
        const bool row_inside = iy >= 0 && iy < g.in_h;
        const float* row = image + (row_inside ? iy * row_stride : 0) + c0;
        for (int kx = 0; kx < g.kernel_w; ++kx) {
          const V w = Vec::load(m, weight + static_cast<size_t>(ky * g.kernel_w + kx) * C + c0);
          if (row_inside) {
            const float* x = row + static_cast<size_t>(ox * g.stride_w + kx * g.dilation_w - g.pad_left) * C;
            const size_t step = static_cast<size_t>(g.stride_w) * C;
#pragma GCC unroll 8
            for (int p = 0; p < kBlock; ++p) acc[p] = Vec::fma(Vec::load(m, x + p * step), w, acc[p]);
          } else {
#pragma GCC unroll 8
            for (int p = 0; p < kBlock; ++p) acc[p] = Vec::fma(pad, w, acc[p]);
          }
        }
      }
      float* dst = out + static_cast<size_t>(ox) * C + c0;
#pragma GCC unroll 8
      for (int p = 0; p < kBlock; ++p) Vec::store(m, dst + static_cast<size_t>(p) * C, acc[p]);
    }
  }
  for (; ox < g.out_w; ++ox) one_pixel(ox);
}

}  // namespace dwconv_detail
}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_X86_DWCONV_ROW_IMPL_H_
