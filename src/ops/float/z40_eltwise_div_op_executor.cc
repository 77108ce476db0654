#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseDivParam : BaseParam, EltwiseSizes {};

// a / b on 4-D tensors, with b a single value or one value per element of a.
class Z40EltwiseDivOpExecutor : public FloatBinaryOpExecutor<Z40EltwiseDivOpExecutor, Z40EltwiseDivParam> {
 public:
  static constexpr const char* kName = "Z40EltwiseDiv";
  static constexpr const char* kRank4Message = "Wrong input shape in FloatZ40EltwiseDiv.";
  static constexpr Pairing kPairing = Pairing::kScalarOrSame;

  void compute(const float* a, int n, const float* b, int nb, float* out) const {
    eltwise_div_f32(a, n, b, nb, out);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseDiv)
