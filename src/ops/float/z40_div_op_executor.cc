#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40DivParam : BaseParam, EltwiseSizes {};

// a / b on 4-D tensors, b repeating cyclically (one value per channel, or one in all).
class Z40DivOpExecutor : public FloatBinaryOpExecutor<Z40DivOpExecutor, Z40DivParam> {
 public:
  static constexpr const char* kName = "Z40Div";
  static constexpr const char* kRank4Message = "Wrong input shape in FloatZ40Div.";
  static constexpr Pairing kPairing = Pairing::kCyclic;

  void compute(const float* a, int n, const float* b, int nb, float* out) const {
    div_cyclic_f32(a, n, b, nb, out);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Div)
