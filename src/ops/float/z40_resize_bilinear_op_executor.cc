#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/float/float_resize_params.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/resize_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ResizeBilinearParam : BaseParam, PreparedShapes {
  bool align_corners = false;
  float wh_scale = 1.0f;
  ResizeGeometry geometry;
  std::vector<LinearTap> taps_y, taps_x;  // per output row and column
};

class Z40ResizeBilinearOpExecutor : public ParamOpExecutor<Z40ResizeBilinearParam> {
 public:
  static constexpr const char* kName = "Z40ResizeBilinear";

  void parse_parameter(const NodeDef& node) override {
    read_bool(node, "align_corners", op_param_.align_corners);
    require_float(node, "wh_scale", op_param_.wh_scale,
                  "Do not find the wh_scale in FloatZ40ResizeBilinear!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40ResizeBilinearParam& p = op_param_;
    const ResizeGeometry g = _plan(inputs);
    p.geometry = g;
    p.taps_y = bilinear_taps(g.h, g.out_h, p.align_corners);
    p.taps_x = bilinear_taps(g.w, g.out_w, p.align_corners);
    p.in_shape = inputs[0]->shape();
    p.out_shape = {g.n, g.out_h, g.out_w, g.c};
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Z40ResizeBilinearParam& p = op_param_;
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, p))) _refuse(inputs, output);
    resize_bilinear_f32(inputs[0]->data<float>(), output->mutable_data<float>(), p.geometry, p.taps_y.data(),
                        p.taps_x.data());
    return true;
  }

 private:
  ResizeGeometry _plan(const std::vector<const Tensor*>& inputs) const {
    return plan_resize(inputs, op_param_.wh_scale, op_param_.wh_scale, kName);
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    const ResizeGeometry g = _plan(inputs);
    refuse_unprepared(inputs, output, {g.n, g.out_h, g.out_w, g.c}, op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ResizeBilinear)
