#ifndef KOVRAEXECUTOR_OPS_POOL_KERNELS_H_
#define KOVRAEXECUTOR_OPS_POOL_KERNELS_H_

#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Window geometry of a 2-D pooling over [N, H, W, C] -> [N, OH, OW, C]. Output
// row y covers input rows y*stride_h - pad_top ... + kernel_h - 1, clipped to
// the input; padded cells never take part.
struct PoolGeometry {
  int n = 0, h = 0, w = 0, c = 0;
  int out_h = 0, out_w = 0;
  int kernel_h = 1, kernel_w = 1;
  int stride_h = 1, stride_w = 1;
  int pad_top = 0, pad_left = 0;
};

// TensorFlow "SAME" split: the odd pixel of padding goes to the bottom/right.
int same_pad_begin(int in, int out, int kernel, int stride);

// Mean of the in-bounds cells of each window (padding is not counted).
void avg_pool_f32(const float* in, float* out, const PoolGeometry& g);
// Maximum of the in-bounds cells of each window, starting from the lowest float.
void max_pool_f32(const float* in, float* out, const PoolGeometry& g);

// [N, S, C] (S spatial positions) -> [N, C] means, and its gradient: every
// position receives grad[n, c] * scale.
void global_avg_pool_f32(const float* in, float* out, int n, int spatial, int c);
void global_avg_pool_backward_f32(const float* grad, float* in_grad, int n, int spatial, int c,
                                  float scale);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_POOL_KERNELS_H_
