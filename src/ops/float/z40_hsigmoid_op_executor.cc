#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40HsigmoidParam : BaseParam, EltwiseSizes {
  float alpha = 0.2f;
  float beta = 0.5f;
};

// clamp(x * alpha + beta, 0, 1): the stand-alone form keeps the affine step
// that the fused "Hsigmoid" leaves out.
class Z40HsigmoidOpExecutor : public FloatUnaryOpExecutor<Z40HsigmoidOpExecutor, Z40HsigmoidParam> {
 public:
  static constexpr const char* kName = "Z40Hsigmoid";
  static constexpr const char* kLabel = "FloatZ40Hsigmoid";

  void parse_parameter(const NodeDef& node_def) override {
    read_float(node_def, "alpha", op_param_.alpha);
    read_float(node_def, "beta", op_param_.beta);
  }
  void compute(const float* in, float* out, int n) const {
    hsigmoid_f32(in, out, n, op_param_.alpha, op_param_.beta);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Hsigmoid)
