#ifndef KOVRAEXECUTOR_OPS_LAYOUT_KERNELS_H_
#define KOVRAEXECUTOR_OPS_LAYOUT_KERNELS_H_

#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Data-movement kernels over channels-last arrays. Callers validate shapes
// and parameters once; the kernels trust them and never check per element.

// [N, H, W, C] with C divisible by `groups`.
void channel_shuffle_f32(const float* in, float* out, const std::vector<int>& shape, int groups);

// [N, H, W, C] -> [N, H/2, W/2, 4C]; odd trailing rows and columns are dropped.
void focus_f32(const float* in, float* out, const std::vector<int>& shape);

// [N, H, W, C] -> [N, H/block, W/block, C*block*block].
void space_to_depth_f32(const float* in, float* out, const std::vector<int>& shape, int block);

// Joins arrays along `axis`; every input has the output's dimensions except on
// that axis, where input i contributes axis_sizes[i] entries.
void concat_f32(const std::vector<const float*>& ins, const std::vector<int>& axis_sizes,
                float* out, const std::vector<int>& out_shape, int axis);

// Strided window of an array: output index j on axis a reads input index
// starts[a] + j * steps[a]; out_shape gives the window's extent per axis.
struct SliceWindow {
  std::vector<int> starts;
  std::vector<int> steps;
  std::vector<int> out_shape;
};
void slice_f32(const float* in, const std::vector<int>& in_shape, const SliceWindow& window,
               float* out);

// Constant padding: before[a] entries of `value` precede the input on axis a;
// out_shape[a] - in_shape[a] - before[a] follow it. Rank 1 to kMaxPadRank;
// allocates nothing.
constexpr int kMaxPadRank = 8;
void pad_constant_f32(const float* in, const std::vector<int>& in_shape, const std::vector<int>& before,
                      float value, float* out, const std::vector<int>& out_shape);

// Channels-first <-> channels-last axis orders of rank r (identity below rank 3).
std::vector<int> to_channels_first_perm(int rank);
std::vector<int> to_channels_last_perm(int rank);

// A reshape written for channels-first data, applied to channels-last data:
// the input is viewed channels-first, its elements are taken in that order
// under `out_shape`, and the result is stored channels-last again.
// `scratch` holds at least as many floats as the input.
void onnx_reshape_reorder(const float* in, const std::vector<int>& in_shape, float* out,
                          const std::vector<int>& out_shape, float* scratch);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_LAYOUT_KERNELS_H_
