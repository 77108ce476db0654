#include <string>
#include <vector>

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/int8/int8_resize.h"
#include "ops/kernels/resize_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ResizeNearestNeighborInt8Param : BaseParam {
  float wh_scale = 1.0f;
  std::string mode = "nearest";
  Int8ResizePlan plan;  // prepared
};

// Nearest-neighbour resize as the float operator does it; codes are copied,
// so nothing is rounded.
class Z40ResizeNearestNeighborInt8OpExecutor : public ParamOpExecutor<Z40ResizeNearestNeighborInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_float(node, "wh_scale", op_param_.wh_scale, missing_message("wh_scale", kName));
    read_string(node, "mode", op_param_.mode);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const ResizeGeometry g = int8_resize_geometry(inputs, op_param_.wh_scale, kName,
                                                  "Wrong input shape in Z40ResizeNearestNeighborInt8!!!");
    plan_resize(inputs[0], g, false, false, op_param_.plan, shape);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Int8ResizePlan& plan = op_param_.plan;
    const Tensor* input = prepared_input(inputs, plan.input_shape, output, plan.out_count, kName);
    resize_nearest_f32(input->data<float>(), output->mutable_data<float>(), plan.geometry, plan.rows.data(),
                       plan.cols.data());
    return true;
  }

 private:
  static constexpr const char* kName = "Z40ResizeNearestNeighborInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ResizeNearestNeighborInt8)
