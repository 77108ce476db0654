#include "ops/kernels/pool_kernels.h"

#include <algorithm>
#include <limits>

#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

int same_pad_begin(int in, int out, int kernel, int stride) {
  const long long total = static_cast<long long>(out - 1) * stride + kernel - in;
  return total > 0 ? static_cast<int>(total >> 1) : 0;
}

namespace {

struct Window {
  int begin, end;
};

// Input range of output index o, clipped to [0, size).
inline Window window_of(int o, int stride, int pad, int kernel, int size) {
  const long long start = static_cast<long long>(o) * stride - pad;
  const long long stop = start + kernel;
  return {static_cast<int>(std::max<long long>(start, 0)),
          static_cast<int>(std::min<long long>(stop, size))};
}

// Rows of output are independent tasks; each writes only its own row.
template <typename RowFn>
void for_each_output_row(const PoolGeometry& g, RowFn row_fn) {
  const int rows = g.n * g.out_h;
  // The output fits an int; a window near INT_MAX square does not, so the
  // estimate of the work saturates rather than overflow.
  const long long outputs = static_cast<long long>(rows) * g.out_w * g.c;
  const long long window = static_cast<long long>(g.kernel_h) * g.kernel_w;
  const long long cap = 1LL << 62;
  parallel_for(rows, outputs > 0 && window > cap / outputs ? cap : outputs * window, row_fn);
}

}  // namespace

void avg_pool_f32(const float* in, float* out, const PoolGeometry& g) {
  const int c = g.c;
  for_each_output_row(g, [&](int row) {
    const int b = row / g.out_h, y = row % g.out_h;
    const Window wy = window_of(y, g.stride_h, g.pad_top, g.kernel_h, g.h);
    for (int x = 0; x < g.out_w; ++x) {
      const Window wx = window_of(x, g.stride_w, g.pad_left, g.kernel_w, g.w);
      float* __restrict dst = out + ((static_cast<long long>(b) * g.out_h + y) * g.out_w + x) * c;
      std::fill(dst, dst + c, 0.0f);
      for (int iy = wy.begin; iy < wy.end; ++iy) {
        for (int ix = wx.begin; ix < wx.end; ++ix) {
          const float* __restrict src = in + ((static_cast<long long>(b) * g.h + iy) * g.w + ix) * c;
          for (int k = 0; k < c; ++k) dst[k] += src[k];
        }
      }
      const int cells = (wy.end - wy.begin) * (wx.end - wx.begin);
      const float inv = cells > 0 ? 1.0f / static_cast<float>(cells) : 0.0f;
      for (int k = 0; k < c; ++k) dst[k] *= inv;
    }
  });
}

void max_pool_f32(const float* in, float* out, const PoolGeometry& g) {
  const int c = g.c;
  const float lowest = std::numeric_limits<float>::lowest();
  for_each_output_row(g, [&](int row) {
    const int b = row / g.out_h, y = row % g.out_h;
    const Window wy = window_of(y, g.stride_h, g.pad_top, g.kernel_h, g.h);
    for (int x = 0; x < g.out_w; ++x) {
      const Window wx = window_of(x, g.stride_w, g.pad_left, g.kernel_w, g.w);
      float* __restrict dst = out + ((static_cast<long long>(b) * g.out_h + y) * g.out_w + x) * c;
      std::fill(dst, dst + c, lowest);
      for (int iy = wy.begin; iy < wy.end; ++iy) {
        for (int ix = wx.begin; ix < wx.end; ++ix) {
          const float* __restrict src = in + ((static_cast<long long>(b) * g.h + iy) * g.w + ix) * c;
          for (int k = 0; k < c; ++k) dst[k] = src[k] > dst[k] ? src[k] : dst[k];
        }
      }
    }
  });
}

void global_avg_pool_f32(const float* in, float* out, int n, int spatial, int c) {
  const float inv = spatial > 0 ? 1.0f / static_cast<float>(spatial) : 0.0f;
  for (int b = 0; b < n; ++b) {
    float* __restrict dst = out + static_cast<long long>(b) * c;
    std::fill(dst, dst + c, 0.0f);
    for (int s = 0; s < spatial; ++s) {
      const float* __restrict src = in + (static_cast<long long>(b) * spatial + s) * c;
      for (int k = 0; k < c; ++k) dst[k] += src[k];
    }
    for (int k = 0; k < c; ++k) dst[k] *= inv;
  }
}

void global_avg_pool_backward_f32(const float* grad, float* in_grad, int n, int spatial, int c,
                                  float scale) {
  for (int b = 0; b < n; ++b) {
    const float* __restrict g = grad + static_cast<long long>(b) * c;
    for (int s = 0; s < spatial; ++s) {
      float* __restrict dst = in_grad + (static_cast<long long>(b) * spatial + s) * c;
      for (int k = 0; k < c; ++k) dst[k] = g[k] * scale;
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
