#include <string>
#include <vector>

#include "op_attr.h"
#include "ops/int8/int8_common.h"
#include "ops/int8/int8_resize.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/resize_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ResizeNearestNeighborInt8Param : BaseParam {
  float wh_scale = 1.0f;
  std::string mode = "nearest";
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
    const ResizeGeometry g = geometry(inputs);
    shape = {g.n, g.out_h, g.out_w, g.c};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const ResizeGeometry g = geometry(inputs);
    check_float(inputs[0], kName);
    check_min_size(output, static_cast<long long>(g.n) * g.out_h * g.out_w * g.c, kName);
    resize_nearest_f32(inputs[0]->data<float>(), output->mutable_data<float>(), g);
    return true;
  }

 private:
  ResizeGeometry geometry(const std::vector<const Tensor*>& inputs) const {
    return int8_resize_geometry(inputs, op_param_.wh_scale, kName,
                                "Wrong input shape in Z40ResizeNearestNeighborInt8!!!");
  }

  static constexpr const char* kName = "Z40ResizeNearestNeighborInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ResizeNearestNeighborInt8)
