#include "ops/int8/int8_resize.h"

#include "kvdl.h"
#include "ops/int8/int8_common.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
// Sizes past the int range (or NaN) would be undefined to convert; they
// become -1 and fail the caller's check.
int scaled_size(int size, float scale) {
  const float v = kvdl::tensorflow_round_cpu(static_cast<float>(size) * scale);
  return v >= 2147483647.0f || !(v == v) ? -1 : static_cast<int>(v);
}
}  // namespace

ResizeGeometry int8_resize_geometry(const std::vector<const Tensor*>& inputs, float scale, const char* op,
                                    const std::string& rank_message) {
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

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
