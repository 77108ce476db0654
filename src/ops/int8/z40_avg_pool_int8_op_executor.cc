#include <vector>

#include "ops/int8/int8_common.h"
#include "ops/int8/int8_pool.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/pool_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// This operator's record is named without the usual "Param" suffix.
struct Z40AvgPoolInt8 : BaseParam {
  Int8PoolAttrs attrs;
};

// Average pooling on codes: the float average (padding not counted), rounded
// half to even and clamped.
class Z40AvgPoolInt8OpExecutor : public OpExecutor {
 public:
  void parse_parameter(const NodeDef& node) override { parse_pool_attrs(node, kName, op_param_.attrs); }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const PoolGeometry g = geometry(inputs);
    shape = {g.n, g.out_h, g.out_w, g.c};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const PoolGeometry g = geometry(inputs);
    check_float(inputs[0], kName);
    const long long count = static_cast<long long>(g.n) * g.out_h * g.out_w * g.c;
    check_min_size(output, count, kName);
    float* y = output->mutable_data<float>();
    avg_pool_f32(inputs[0]->data<float>(), y, g);
    round_and_clamp(y, count, static_cast<float>(op_param_.attrs.min_value),
                    static_cast<float>(op_param_.attrs.max_value));
    return true;
  }

 private:
  PoolGeometry geometry(const std::vector<const Tensor*>& inputs) const {
    return int8_pool_geometry(inputs, op_param_.attrs, kName, "Wrong input shape in Z40AvgPoolInt8!!!");
  }

  static constexpr const char* kName = "Z40AvgPoolInt8";
  Z40AvgPoolInt8 op_param_;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40AvgPoolInt8)
