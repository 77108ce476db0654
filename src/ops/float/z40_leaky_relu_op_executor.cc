#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40LeakyReluParam : BaseParam {
  float alpha = 0.0f;
};

// x > 0 ? x : x * alpha, with alpha required.
class Z40LeakyReluOpExecutor : public FloatUnaryOpExecutor<Z40LeakyReluParam> {
 public:
  Z40LeakyReluOpExecutor() : FloatUnaryOpExecutor("Z40LeakyRelu", "FloatZ40LeakyRelu") {}

  void parse_parameter(const NodeDef& node_def) override {
    require_float(node_def, "alpha", op_param_.alpha, "Do not find the alpha in FloatZ40LeakyRelu!!!");
  }

 protected:
  void _compute(const float* in, float* out, int n) const override {
    leaky_relu_f32(in, out, n, op_param_.alpha);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40LeakyRelu)
