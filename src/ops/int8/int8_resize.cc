#include "ops/int8/int8_resize.h"

#include "kvdl.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
// Sizes outside the int range either way (or NaN) would be undefined to
// convert; they become -1 and fail the caller's check.
int scaled_size(int size, float scale) {
  const float v = kvdl::tensorflow_round_cpu(static_cast<float>(size) * scale);
  return v > -2147483648.0f && v < 2147483647.0f ? static_cast<int>(v) : -1;
}
}  // namespace

ResizeGeometry int8_resize_geometry(const std::vector<const Tensor*>& inputs, float scale, const char* op,
                                    const char* rank_message) {
  const Tensor* input = first_input(inputs, op);
  check_rank_4(input, rank_message);
  const std::vector<int>& d = input->shape();
  ResizeGeometry g;
  g.n = d[0], g.h = d[1], g.w = d[2], g.c = d[3];
  g.out_h = scaled_size(d[1], scale);
  g.out_w = scaled_size(d[2], scale);
  KOVRA_ENSURE_MSG(g.out_h > 0 && g.out_w > 0, "out_h > 0 && out_w > 0",
                   std::string(op) + ": wh_scale " + std::to_string(scale) + " leaves no output");
  return g;
}

void plan_resize(const Tensor* input, const ResizeGeometry& g, bool bilinear, bool align_corners,
                 Int8ResizePlan& plan, std::vector<int>& shape) {
  plan.input_shape = input->shape();
  plan.geometry = g;
  plan.out_count = static_cast<long long>(g.n) * g.out_h * g.out_w * g.c;
  if (bilinear) {
    plan.row_taps = bilinear_taps(g.h, g.out_h, align_corners);
    plan.col_taps = bilinear_taps(g.w, g.out_w, align_corners);
  } else {
    plan.rows = nearest_source_indices(g.h, g.out_h);
    plan.cols = nearest_source_indices(g.w, g.out_w);
  }
  shape = {g.n, g.out_h, g.out_w, g.c};
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
