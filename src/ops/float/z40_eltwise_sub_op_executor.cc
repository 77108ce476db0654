#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseSubParam : BaseParam, EltwiseSizes {};

// a - b, with b a single value or one value per element of a.
// Its rank message names the int8 operator, as it always has.
class Z40EltwiseSubOpExecutor : public FloatBinaryOpExecutor<Z40EltwiseSubOpExecutor, Z40EltwiseSubParam> {
 public:
  static constexpr const char* kName = "Z40EltwiseSub";
  static constexpr const char* kLabel = "Z40EltwiseSubInt8";
  static constexpr Pairing kPairing = Pairing::kScalarOrSame;

  void compute(const float* a, int n, const float* b, int nb, float* out) const {
    eltwise_sub_f32(a, n, b, nb, out);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseSub)
