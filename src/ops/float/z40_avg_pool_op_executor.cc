#include <memory>

#include "op_executor.h"
#include "ops/float/float_pool_params.h"
#include "ops/float/float_shape_checks.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/pool_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40AvgPoolParam : BaseParam, PoolAttributes {};

class Z40AvgPoolOpExecutor : public ParamOpExecutor<Z40AvgPoolParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    read_pool_attributes(node, op_param_, "Do not find the ksize in FloatZ40AvgPool!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const PoolGeometry g = _plan(inputs);
    shape = {g.n, g.out_h, g.out_w, g.c};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const PoolGeometry g = _plan(inputs);
    check_output_shape(output, {g.n, g.out_h, g.out_w, g.c}, "Z40AvgPool");
    if (inputs[0]->size() < 1) return true;
    avg_pool_f32(inputs[0]->data<float>(), output->mutable_data<float>(), g);
    return true;
  }

 private:
  PoolGeometry _plan(const std::vector<const Tensor*>& inputs) const {
    check_input_count(inputs, 1, "Z40AvgPool");
    const Tensor* input = inputs[0];
    KOVRA_ENSURE_MSG(input->dims() == 4, "input_tensor->shape().size() == 4",
                     "Wrong input shape in z40_avg_pool.");
    check_float(input, "Z40AvgPool");
    return plan_pool(input->shape(), op_param_, "Z40AvgPool");
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40AvgPool)
