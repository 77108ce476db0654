#ifndef KOVRAEXECUTOR_OPS_X86_DWCONV_ROW_IMPL_H_
#define KOVRAEXECUTOR_OPS_X86_DWCONV_ROW_IMPL_H_

// The depthwise row kernel, written once over a vector type. Included only by
// the instruction-set files, each with its own Vec (see dwconv_f32_*.cc), so
// every build of it sums the taps of an output in the same (ky, kx) order.

#include <cstddef>

#include "ops/kernels/conv2d_cpu.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {
namespace dwconv_detail {

// Block of kBlock consecutive outputs of one channel vector for a kernel 3
// wide with unit stride and dilation: the kBlock + 2 input pixels of a kernel
// row are loaded once and shared by the three taps that read them.
template <class Vec, bool kEdge>
inline void block_3wide(const float* image, const float* weight, const float* bias, float* dst, int count, int C,
                        int c0, typename Vec::M m, int in_h, int in_w, int iy0, int dilation_h, int kernel_h, int ix0,
                        typename Vec::V pad) {
  using V = typename Vec::V;
  constexpr int kBlock = Vec::kBlock;
  V acc[kBlock];
#pragma GCC unroll 16
  for (int p = 0; p < kBlock; ++p) acc[p] = Vec::zero();
  const size_t row_stride = static_cast<size_t>(in_w) * C;
  for (int ky = 0; ky < kernel_h; ++ky) {
    const int iy = iy0 + ky * dilation_h;
    const float* w = weight + static_cast<size_t>(ky * 3) * C + c0;
    const V w0 = Vec::load(m, w), w1 = Vec::load(m, w + C), w2 = Vec::load(m, w + 2 * C);
    if (iy >= 0 && iy < in_h) {
      const float* x = image + iy * row_stride + c0;
      V xs[kBlock + 2];
#pragma GCC unroll 16
      for (int p = 0; p < kBlock + 2; ++p) {
        const int ix = ix0 + p;
        xs[p] = !kEdge || (ix >= 0 && ix < in_w) ? Vec::load(m, x + static_cast<size_t>(ix) * C) : pad;
      }
#pragma GCC unroll 16
      for (int p = 0; p < kBlock; ++p) {
        acc[p] = Vec::fma(xs[p], w0, acc[p]);
        acc[p] = Vec::fma(xs[p + 1], w1, acc[p]);
        acc[p] = Vec::fma(xs[p + 2], w2, acc[p]);
      }
    } else {
#pragma GCC unroll 16
      for (int p = 0; p < kBlock; ++p) {
        acc[p] = Vec::fma(pad, w0, acc[p]);
        acc[p] = Vec::fma(pad, w1, acc[p]);
        acc[p] = Vec::fma(pad, w2, acc[p]);
      }
    }
  }
  const V bv = Vec::load(m, bias + c0);
#pragma GCC unroll 16
  for (int p = 0; p < kBlock; ++p) {
    if (!kEdge || p < count) Vec::store(m, dst + static_cast<size_t>(p) * C + c0, Vec::add(acc[p], bv));
  }
}

// Block of kBlock consecutive outputs for any kernel width and steps.
template <class Vec, bool kEdge>
inline void block_general(const float* image, const float* weight, const float* bias, float* dst, int count, int C,
                          int c0, typename Vec::M m, const ConvGeometry& g, int iy0, int ix0, typename Vec::V pad) {
  using V = typename Vec::V;
  constexpr int kBlock = Vec::kBlock;
  V acc[kBlock];
#pragma GCC unroll 16
  for (int p = 0; p < kBlock; ++p) acc[p] = Vec::zero();
  const size_t row_stride = static_cast<size_t>(g.in_w) * C;
  for (int ky = 0; ky < g.kernel_h; ++ky) {
    const int iy = iy0 + ky * g.dilation_h;
    const bool row_inside = iy >= 0 && iy < g.in_h;
    for (int kx = 0; kx < g.kernel_w; ++kx) {
      const V w = Vec::load(m, weight + static_cast<size_t>(ky * g.kernel_w + kx) * C + c0);
      if (row_inside) {
        const float* x = image + iy * row_stride + c0;
#pragma GCC unroll 16
        for (int p = 0; p < kBlock; ++p) {
          const int ix = ix0 + p * g.stride_w + kx * g.dilation_w;
          const V v = !kEdge || (ix >= 0 && ix < g.in_w) ? Vec::load(m, x + static_cast<size_t>(ix) * C) : pad;
          acc[p] = Vec::fma(v, w, acc[p]);
        }
      } else {
#pragma GCC unroll 16
        for (int p = 0; p < kBlock; ++p) acc[p] = Vec::fma(pad, w, acc[p]);
      }
    }
  }
  const V bv = Vec::load(m, bias + c0);
#pragma GCC unroll 16
  for (int p = 0; p < kBlock; ++p) {
    if (!kEdge || p < count) Vec::store(m, dst + static_cast<size_t>(p) * C + c0, Vec::add(acc[p], bv));
  }
}

template <class Vec>
void dwconv_row(const float* image, const float* weight, const float* bias, float* out, const ConvGeometry& g,
                int oy) {
  using M = typename Vec::M;
  constexpr int kWidth = Vec::kWidth;
  constexpr int kBlock = Vec::kBlock;
  const int C = g.in_c;
  const typename Vec::V pad = Vec::set1(g.pad_value);
  const int iy0 = oy * g.stride_h - g.pad_top;
  const bool three_wide = g.kernel_w == 3 && g.stride_w == 1 && g.dilation_w == 1;
  // Whole blocks along the row, the last one partly stored; taps outside the
  // image read pad_value like everywhere else.
  for (int ox = 0; ox < g.out_w; ox += kBlock) {
    const int count = g.out_w - ox < kBlock ? g.out_w - ox : kBlock;
    const int ix0 = ox * g.stride_w - g.pad_left;
    float* dst = out + static_cast<size_t>(ox) * C;
    // Blocks whose taps all lie inside the row skip the bounds tests.
    const bool edge = count < kBlock || ix0 < 0 ||
                      ix0 + (kBlock - 1) * g.stride_w + (g.kernel_w - 1) * g.dilation_w >= g.in_w;
    for (int c0 = 0; c0 < C; c0 += kWidth) {
      const M m = Vec::mask(C - c0);
      if (three_wide) {
        if (edge) {
          block_3wide<Vec, true>(image, weight, bias, dst, count, C, c0, m, g.in_h, g.in_w, iy0, g.dilation_h,
                                 g.kernel_h, ix0, pad);
        } else {
          block_3wide<Vec, false>(image, weight, bias, dst, count, C, c0, m, g.in_h, g.in_w, iy0, g.dilation_h,
                                  g.kernel_h, ix0, pad);
        }
      } else if (edge) {
        block_general<Vec, true>(image, weight, bias, dst, count, C, c0, m, g, iy0, ix0, pad);
      } else {
        block_general<Vec, false>(image, weight, bias, dst, count, C, c0, m, g, iy0, ix0, pad);
      }
    }
  }
}

}  // namespace dwconv_detail
}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_X86_DWCONV_ROW_IMPL_H_
