#include "ops/float/float_resize_params.h"

#include "kvdl.h"
#include "ops/float/float_shape_checks.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

int scaled_size(int size, float scale) {
  const float scaled = kvdl::tensorflow_round_cpu(static_cast<float>(size) * scale);
  // Saturate before converting: a huge or NaN scale must not be undefined behaviour.
  if (!(scaled >= 0.0f)) return 0;
  if (scaled >= 2147483647.0f) return 2147483647;
  return static_cast<int>(scaled);
}

}  // namespace

ResizeGeometry plan_resize(const std::vector<const Tensor*>& inputs, float scale_h, float scale_w,
                           const char* op) {
  check_input_count(inputs, 1, op);
  KOVRA_ENSURE_MSG(!inputs[0]->shape().empty(), "input_tensor->shape().size() > 0",
                   std::string("The shape of input is 0 in Float") + op + "!!!");
  check_rank(inputs[0], 4, op);
  const std::vector<int>& s = inputs[0]->shape();
  ResizeGeometry g;
  g.n = s[0], g.h = s[1], g.w = s[2], g.c = s[3];
  g.out_h = scaled_size(g.h, scale_h);
  g.out_w = scaled_size(g.w, scale_w);
  check_positive_dims({g.n, g.out_h, g.out_w, g.c}, "resized shape", op);
  // Before the interpolation tables are sized from it.
  checked_count({g.n, g.out_h, g.out_w, g.c}, op);
  return g;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
