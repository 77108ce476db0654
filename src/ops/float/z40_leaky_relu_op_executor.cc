#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40LeakyReluParam : BaseParam, EltwiseSizes {
  float alpha = 0.0f;
};

// x > 0 ? x : x * alpha, with alpha required.
class Z40LeakyReluOpExecutor : public FloatUnaryOpExecutor<Z40LeakyReluOpExecutor, Z40LeakyReluParam> {
 public:
  static constexpr const char* kName = "Z40LeakyRelu";
  static constexpr const char* kLabel = "FloatZ40LeakyRelu";

  void parse_parameter(const NodeDef& node_def) override {
    require_float(node_def, "alpha", op_param_.alpha, "Do not find the alpha in FloatZ40LeakyRelu!!!");
  }
  void compute(const float* in, float* out, int n) const { leaky_relu_f32(in, out, n, op_param_.alpha); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40LeakyRelu)
