#include <algorithm>
#include <vector>

#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Despite the name, a clip: models pair it with Z40MatMul.
struct Z40LinearParam : BaseParam, EltwiseSizes {
  float clip_max_value = 6.0f;
  float clip_min_value = -6.0f;
};

class Z40LinearOpExecutor : public FloatUnaryOpExecutor<Z40LinearOpExecutor, Z40LinearParam> {
 public:
  static constexpr const char* kName = "Z40Linear";
  // Every message of this operator names it so.
  static constexpr const char* kLabel = "FloatZ40Linear";

  void parse_parameter(const NodeDef& node) override {
    read_float(node, "clip_max_value", op_param_.clip_max_value);
    read_float(node, "clip_min_value", op_param_.clip_min_value);
  }

  void compute(const float* x, float* y, int n) const {
    const float hi = op_param_.clip_max_value, lo = op_param_.clip_min_value;
    // The upper bound first: with lo > hi every output is lo.
    for (int i = 0; i < n; ++i) y[i] = std::max(lo, std::min(hi, x[i]));
  }

  static void check_inputs(const std::vector<const Tensor*>& inputs) {
    check_input_not_scalar(inputs.empty() ? nullptr : inputs[0], kLabel);
    check_float(inputs[0], kLabel);
  }
  static void check_output(const Tensor* output, int n) {
    check_min_size(output, n, kLabel);
    check_float_output(output, kLabel);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Linear)
