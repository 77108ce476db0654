#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EluParam : BaseParam, EltwiseSizes {
  float alpha = 0.25f;
};

// x < 0 ? alpha * (exp(x) - 1) : x.
class Z40EluOpExecutor : public FloatUnaryOpExecutor<Z40EluOpExecutor, Z40EluParam> {
 public:
  static constexpr const char* kName = "Z40Elu";
  static constexpr const char* kLabel = "FloatZ40Elu";

  void parse_parameter(const NodeDef& node_def) override { read_float(node_def, "alpha", op_param_.alpha); }
  void compute(const float* in, float* out, int n) const { elu_f32(in, out, n, op_param_.alpha); }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Elu)
