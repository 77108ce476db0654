#include "ops/kernels/resize_kernels.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// TensorFlow's legacy nearest rule (no corner alignment, no half-pixel shift);
// done in integers so whole-number factors repeat each source exactly k times.
std::vector<int> nearest_source_indices(int in, int out) {
  std::vector<int> src(out);
  for (int o = 0; o < out; ++o) {
    const long long s = static_cast<long long>(o) * in / out;
    src[o] = static_cast<int>(std::min<long long>(s, in - 1));
  }
  return src;
}

// TensorFlow ResizeBilinear: align_corners maps corner to corner with scale
// (in-1)/(out-1); otherwise half-pixel centres, src = (o + 0.5) * in/out - 0.5,
// clamped below at 0. lo = floor(src), hi = min(lo + 1, in - 1).
std::vector<LinearTap> bilinear_taps(int in, int out, bool align_corners) {
  std::vector<LinearTap> taps(out);
  const float scale = align_corners
                          ? (out > 1 ? static_cast<float>(in - 1) / static_cast<float>(out - 1) : 0.0f)
                          : static_cast<float>(in) / static_cast<float>(out);
  for (int o = 0; o < out; ++o) {
    float src = align_corners ? static_cast<float>(o) * scale : (static_cast<float>(o) + 0.5f) * scale - 0.5f;
    src = std::max(src, 0.0f);
    const int lo = std::min(static_cast<int>(std::floor(src)), in - 1);
    taps[o] = {lo, std::min(lo + 1, in - 1), src - static_cast<float>(lo)};
  }
  return taps;
}


void resize_nearest_f32(const float* in, float* out, const ResizeGeometry& g) {
  const std::vector<int> sy = nearest_source_indices(g.h, g.out_h);
  const std::vector<int> sx = nearest_source_indices(g.w, g.out_w);
  resize_nearest_f32(in, out, g, sy.data(), sx.data());
}

void resize_nearest_f32(const float* in, float* out, const ResizeGeometry& g, const int* sy, const int* sx) {
  const int c = g.c;
  const int rows = g.n * g.out_h;
  parallel_for(rows, static_cast<long long>(rows) * g.out_w * c, [&](int row) {
    const int b = row / g.out_h, y = row % g.out_h;
    const float* src_row = in + (static_cast<long long>(b) * g.h + sy[y]) * g.w * c;
    float* dst = out + static_cast<long long>(row) * g.out_w * c;
    for (int x = 0; x < g.out_w; ++x) std::memcpy(dst + x * c, src_row + sx[x] * c, sizeof(float) * c);
  });
}

void resize_bilinear_f32(const float* in, float* out, const ResizeGeometry& g, bool align_corners) {
  const std::vector<LinearTap> ty = bilinear_taps(g.h, g.out_h, align_corners);
  const std::vector<LinearTap> tx = bilinear_taps(g.w, g.out_w, align_corners);
  resize_bilinear_f32(in, out, g, ty.data(), tx.data());
}

// Each output is top + (bottom - top) * y_frac with top/bottom interpolated
// along x first, as TensorFlow orders the lerps.
void resize_bilinear_f32(const float* in, float* out, const ResizeGeometry& g, const LinearTap* ty,
                         const LinearTap* tx) {
  const int c = g.c;
  const int rows = g.n * g.out_h;
  parallel_for(rows, static_cast<long long>(rows) * g.out_w * c * 4, [&](int row) {
    const int b = row / g.out_h, y = row % g.out_h;
    const float* top_row = in + (static_cast<long long>(b) * g.h + ty[y].lo) * g.w * c;
    const float* bottom_row = in + (static_cast<long long>(b) * g.h + ty[y].hi) * g.w * c;
    const float fy = ty[y].frac;
    float* out_row = out + static_cast<long long>(row) * g.out_w * c;
    for (int x = 0; x < g.out_w; ++x) {
      const float fx = tx[x].frac;
      const float* __restrict tl = top_row + tx[x].lo * c;
      const float* __restrict tr = top_row + tx[x].hi * c;
      const float* __restrict bl = bottom_row + tx[x].lo * c;
      const float* __restrict br = bottom_row + tx[x].hi * c;
      float* __restrict dst = out_row + x * c;
      for (int k = 0; k < c; ++k) {
        const float top = tl[k] + (tr[k] - tl[k]) * fx;
        const float bottom = bl[k] + (br[k] - bl[k]) * fx;
        dst[k] = top + (bottom - top) * fy;
      }
    }
  });
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
