#include <memory>

#include "op_attr.h"
#include "op_executor.h"
#include "ops/float/float_resize_params.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/resize_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ResizeBilinearParam : BaseParam {
  bool align_corners = false;
  float wh_scale = 1.0f;
};

class Z40ResizeBilinearOpExecutor : public ParamOpExecutor<Z40ResizeBilinearParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    read_bool(node, "align_corners", op_param_.align_corners);
    require_float(node, "wh_scale", op_param_.wh_scale,
                  "Do not find the wh_scale in FloatZ40ResizeBilinear!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const ResizeGeometry g = _plan(inputs);
    shape = {g.n, g.out_h, g.out_w, g.c};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const ResizeGeometry g = _plan(inputs);
    check_output_shape(output, {g.n, g.out_h, g.out_w, g.c}, "Z40ResizeBilinear");
    resize_bilinear_f32(inputs[0]->data<float>(), output->mutable_data<float>(), g, op_param_.align_corners);
    return true;
  }

 private:
  ResizeGeometry _plan(const std::vector<const Tensor*>& inputs) const {
    return plan_resize(inputs, op_param_.wh_scale, op_param_.wh_scale, "Z40ResizeBilinear");
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ResizeBilinear)
