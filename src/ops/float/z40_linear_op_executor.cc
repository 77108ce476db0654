#include <algorithm>
#include <vector>

#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Despite the name, a clip: models pair it with Z40MatMul.
struct Z40LinearParam : BaseParam {
  float clip_max_value = 6.0f;
  float clip_min_value = -6.0f;
};

class Z40LinearOpExecutor : public ParamOpExecutor<Z40LinearParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    read_float(node, "clip_max_value", op_param_.clip_max_value);
    read_float(node, "clip_min_value", op_param_.clip_min_value);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    check_input_not_scalar(inputs.empty() ? nullptr : inputs[0], "FloatZ40Linear");
    shape = inputs[0]->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    check_input_not_scalar(inputs.empty() ? nullptr : inputs[0], "FloatZ40Linear");
    const Tensor* input = inputs[0];
    check_float(input, "FloatZ40Linear");
    check_min_size(output, input->size(), "FloatZ40Linear");
    const float* x = input->data<float>();
    float* y = output->mutable_data<float>();
    const float hi = op_param_.clip_max_value, lo = op_param_.clip_min_value;
    // The upper bound first: with lo > hi every output is lo.
    for (int i = 0; i < input->size(); ++i) y[i] = std::max(lo, std::min(hi, x[i]));
    return true;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Linear)
