#include <string>
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

struct Z40ResizeNearestNeighborParam : BaseParam, PreparedShapes {
  float wh_scale = 1.0f;
  std::string mode = "nearest";
  ResizeGeometry geometry;
  std::vector<int> src_y, src_x;  // source row of each output row, column of each column
};

class Z40ResizeNearestNeighborOpExecutor : public ParamOpExecutor<Z40ResizeNearestNeighborParam> {
 public:
  static constexpr const char* kName = "Z40ResizeNearestNeighbor";

  void parse_parameter(const NodeDef& node) override {
    require_float(node, "wh_scale", op_param_.wh_scale,
                  "Do not find the wh_scale in FloatZ40ResizeNearestNeighbor!!!");
    read_string(node, "mode", op_param_.mode);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40ResizeNearestNeighborParam& p = op_param_;
    const ResizeGeometry g = _plan(inputs);
    p.geometry = g;
    p.src_y = nearest_source_indices(g.h, g.out_h);
    p.src_x = nearest_source_indices(g.w, g.out_w);
    p.in_shape = inputs[0]->shape();
    p.out_shape = {g.n, g.out_h, g.out_w, g.c};
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Z40ResizeNearestNeighborParam& p = op_param_;
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, p))) _refuse(inputs, output);
    resize_nearest_f32(inputs[0]->data<float>(), output->mutable_data<float>(), p.geometry, p.src_y.data(),
                       p.src_x.data());
    return true;
  }

 private:
  ResizeGeometry _plan(const std::vector<const Tensor*>& inputs) const {
    KOVRA_ENSURE_MSG(op_param_.mode == "nearest", "op_param_->mode == \"nearest\"",
                     std::string(kName) + " only supports mode nearest, not " + op_param_.mode);
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

KOVRA_REGISTER_OP(Z40ResizeNearestNeighbor)
