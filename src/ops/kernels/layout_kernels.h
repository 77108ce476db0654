#ifndef KOVRAEXECUTOR_OPS_LAYOUT_KERNELS_H_
#define KOVRAEXECUTOR_OPS_LAYOUT_KERNELS_H_

#include <vector>

#include "ops/kernels/gather.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Data-movement kernels over channels-last arrays. Callers validate shapes
// and parameters once; the kernels trust them and never check per element.
// Kernels that walk an arbitrary rank are planned once per shape and run
// without allocating; slices and channel-order reshapes are gathers (gather.h).

// [N, H, W, C] with C divisible by `groups`.
void channel_shuffle_f32(const float* in, float* out, const std::vector<int>& shape, int groups);

// [N, H, W, C] -> [N, H/2, W/2, 4C]; odd trailing rows and columns are dropped.
void focus_f32(const float* in, float* out, const std::vector<int>& shape);

// [N, H, W, C] -> [N, H/block, W/block, C*block*block].
void space_to_depth_f32(const float* in, float* out, const std::vector<int>& shape, int block);

// Joins arrays along `axis`; every input has the output's dimensions except on
// that axis, where input i contributes axis_sizes[i] entries. The output is
// `outer` blocks, each made of chunks[i] values of input i in turn.
struct ConcatPlan {
  long long outer = 0;
  std::vector<long long> chunks;
};
ConcatPlan plan_concat(const std::vector<int>& axis_sizes, const std::vector<int>& out_shape, int axis);
// `ins` holds one pointer per chunk of the plan.
void concat_f32(const float* const* ins, const ConcatPlan& plan, float* out);
void concat_f32(const std::vector<const float*>& ins, const std::vector<int>& axis_sizes, float* out,
                const std::vector<int>& out_shape, int axis);

// Strided window of an array: output index j on axis a reads input index
// starts[a] + j * steps[a]; out_shape gives the window's extent per axis.
struct SliceWindow {
  std::vector<int> starts;
  std::vector<int> steps;
  std::vector<int> out_shape;
};
void plan_slice(const std::vector<int>& in_shape, const SliceWindow& window, GatherPlan& plan);

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
// `scratch` holds at least as many floats as the input unless the plan is flat.
struct OnnxReshapePlan {
  GatherPlan to_first;  // the input, viewed channels-first
  GatherPlan to_last;   // the reshaped channels-first data, stored channels-last
  bool flat = false;    // an output below rank 3: the channels-first order is the result
};
void plan_onnx_reshape(const std::vector<int>& in_shape, const std::vector<int>& out_shape,
                       OnnxReshapePlan& plan);
void onnx_reshape_reorder(const float* in, float* out, OnnxReshapePlan& plan, float* scratch);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_LAYOUT_KERNELS_H_
