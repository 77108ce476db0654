#include <memory>
#include <string>

#include "op_attr.h"
#include "op_executor.h"
#include "ops/float/float_resize_params.h"
#include "ops/float/float_shape_checks.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/resize_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ResizeNearestNeighborParam : BaseParam {
  float wh_scale = 1.0f;
  std::string mode = "nearest";
};

class Z40ResizeNearestNeighborOpExecutor : public ParamOpExecutor<Z40ResizeNearestNeighborParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_float(node, "wh_scale", op_param_.wh_scale,
                  "Do not find the wh_scale in FloatZ40ResizeNearestNeighbor!!!");
    read_string(node, "mode", op_param_.mode);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const ResizeGeometry g = _plan(inputs);
    shape = {g.n, g.out_h, g.out_w, g.c};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const ResizeGeometry g = _plan(inputs);
    check_output_shape(output, {g.n, g.out_h, g.out_w, g.c}, "Z40ResizeNearestNeighbor");
    resize_nearest_f32(inputs[0]->data<float>(), output->mutable_data<float>(), g);
    return true;
  }

 private:
  ResizeGeometry _plan(const std::vector<const Tensor*>& inputs) const {
    KOVRA_ENSURE_MSG(op_param_.mode == "nearest", "op_param_->mode == \"nearest\"",
                     "Z40ResizeNearestNeighbor only supports mode nearest, not " + op_param_.mode);
    return plan_resize(inputs, op_param_.wh_scale, op_param_.wh_scale, "Z40ResizeNearestNeighbor");
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ResizeNearestNeighbor)
