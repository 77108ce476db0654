#include <vector>

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/int8/int8_resize.h"
#include "ops/kernels/resize_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ResizeBilinearInt8Param : BaseParam {
  bool align_corners = false;
  float wh_scale = 1.0f;
  int max_value = 0;
  int min_value = 0;
  int offset = 0;
  Int8ResizePlan plan;  // prepared
};

// The float bilinear resize of the codes, rounded half to even and clamped to
// the offset-shifted bounds [minValue + offset, maxValue + offset].
class Z40ResizeBilinearInt8OpExecutor : public ParamOpExecutor<Z40ResizeBilinearInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    read_bool(node, "align_corners", op_param_.align_corners);
    require_float(node, "wh_scale", op_param_.wh_scale, missing_message("wh_scale", kName));
    // The text names another operator; it is the one users know.
    require_int(node, "maxValue", op_param_.max_value, "Do not find the maxValue in Z40EltwiseMulInt8!!!");
    require_int(node, "minValue", op_param_.min_value, missing_message("minValue", kName));
    require_int(node, "offset", op_param_.offset, missing_message("offset", kName));
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const ResizeGeometry g = int8_resize_geometry(inputs, op_param_.wh_scale, kName,
                                                  "Wrong input shape in Z40ResizeBilinearInt8!!!");
    plan_resize(inputs[0], g, true, op_param_.align_corners, op_param_.plan, shape);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Int8ResizePlan& plan = op_param_.plan;
    const Tensor* input = prepared_input(inputs, plan.input_shape, output, plan.out_count, kName);
    float* y = output->mutable_data<float>();
    resize_bilinear_f32(input->data<float>(), y, plan.geometry, plan.row_taps.data(), plan.col_taps.data());
    const float lo = static_cast<float>(static_cast<long long>(op_param_.min_value) + op_param_.offset);
    const float hi = static_cast<float>(static_cast<long long>(op_param_.max_value) + op_param_.offset);
    round_and_clamp(y, plan.out_count, lo, hi);
    return true;
  }

 private:
  static constexpr const char* kName = "Z40ResizeBilinearInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ResizeBilinearInt8)
