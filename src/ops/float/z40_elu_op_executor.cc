#include "ops/kernels/float_activation_kernels.h"
#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EluParam : BaseParam {
  float alpha = 0.25f;
};

// x < 0 ? alpha * (exp(x) - 1) : x.
class Z40EluOpExecutor : public FloatUnaryOpExecutor<Z40EluParam> {
 public:
  Z40EluOpExecutor() : FloatUnaryOpExecutor("Z40Elu", "FloatZ40Elu") {}

  void parse_parameter(const NodeDef& node_def) override { read_float(node_def, "alpha", op_param_.alpha); }

 protected:
  void _compute(const float* in, float* out, int n) const override { elu_f32(in, out, n, op_param_.alpha); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Elu)
