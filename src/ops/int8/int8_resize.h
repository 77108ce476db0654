#ifndef KOVRAEXECUTOR_OPS_INT8_RESIZE_H_
#define KOVRAEXECUTOR_OPS_INT8_RESIZE_H_

#include <vector>

#include "ops/kernels/resize_kernels.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// What inference_shape prepares for the int8 resizes and the unpooling: the
// input shape, the geometry, the output count and the per-axis source
// tables of the kernel that runs (nearest indices or bilinear taps).
struct Int8ResizePlan {
  std::vector<int> input_shape;
  ResizeGeometry geometry;
  long long out_count = 0;
  std::vector<int> rows, cols;                // nearest
  std::vector<LinearTap> row_taps, col_taps;  // bilinear
};

// The geometry of resizing the first input by `scale` on H and W, each side
// rounded half to even as the float resizes do, after the checks every
// resize makes: a 4-D input ("input_tensor->shape().size() == 4" with
// `rank_message`) and output sides of at least one.
ResizeGeometry int8_resize_geometry(const std::vector<const Tensor*>& inputs, float scale, const char* op,
                                    const char* rank_message);

// Records `g` for `input` in `plan` with the tables of the nearest kernel
// (bilinear taps when `bilinear`); `shape` receives the output shape.
void plan_resize(const Tensor* input, const ResizeGeometry& g, bool bilinear, bool align_corners,
                 Int8ResizePlan& plan, std::vector<int>& shape);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_RESIZE_H_
