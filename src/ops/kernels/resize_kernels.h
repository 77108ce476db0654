#ifndef KOVRAEXECUTOR_OPS_RESIZE_KERNELS_H_
#define KOVRAEXECUTOR_OPS_RESIZE_KERNELS_H_

#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Spatial resize of [N, H, W, C] to [N, out_h, out_w, C].
struct ResizeGeometry {
  int n = 0, h = 0, w = 0, c = 0;
  int out_h = 0, out_w = 0;
};

// Source index of each output index along one axis for nearest resizing:
// floor(o * in / out), clamped to in - 1.
std::vector<int> nearest_source_indices(int in, int out);

// Interpolation taps of one output index along one axis.
struct LinearTap {
  int lo, hi;
  float frac;
};
std::vector<LinearTap> bilinear_taps(int in, int out, bool align_corners);

// With the source indices (taps) of every output row and column worked out
// beforehand (nearest_source_indices / bilinear_taps); these allocate nothing.
void resize_nearest_f32(const float* in, float* out, const ResizeGeometry& g, const int* src_y,
                        const int* src_x);
void resize_bilinear_f32(const float* in, float* out, const ResizeGeometry& g, const LinearTap* taps_y,
                         const LinearTap* taps_x);
// Working the indices out on every call.
void resize_nearest_f32(const float* in, float* out, const ResizeGeometry& g);
void resize_bilinear_f32(const float* in, float* out, const ResizeGeometry& g, bool align_corners);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_RESIZE_KERNELS_H_
