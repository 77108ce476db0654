#include <vector>

#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/int8/int8_pool.h"
#include "ops/kernels/pool_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// This operator's record is named without the usual "Param" suffix.
struct Z40AvgPoolInt8 : Int8PoolParam {};

// Average pooling on codes: the float average (padding not counted), rounded
// half to even and clamped.
class Z40AvgPoolInt8OpExecutor : public ParamOpExecutor<Z40AvgPoolInt8> {
 public:
  void parse_parameter(const NodeDef& node) override { parse_pool_attrs(node, kName, op_param_.attrs); }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    prepare_pool(inputs, kName, "Wrong input shape in Z40AvgPoolInt8!!!", op_param_, shape);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Tensor* input = prepared_input(inputs, op_param_.input_shape, output, op_param_.out_count, kName);
    float* y = output->mutable_data<float>();
    avg_pool_f32(input->data<float>(), y, op_param_.geometry);
    round_and_clamp(y, op_param_.out_count, static_cast<float>(op_param_.attrs.min_value),
                    static_cast<float>(op_param_.attrs.max_value));
    return true;
  }

 private:
  static constexpr const char* kName = "Z40AvgPoolInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40AvgPoolInt8)
