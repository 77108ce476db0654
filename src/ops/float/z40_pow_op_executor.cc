#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40PowParam : BaseParam, EltwiseSizes {};

// pow(a, b) with the C library's pow, b repeating cyclically (a single exponent applies to all).
class Z40PowOpExecutor : public FloatBinaryOpExecutor<Z40PowOpExecutor, Z40PowParam> {
 public:
  static constexpr const char* kName = "Z40Pow";
  static constexpr const char* kLabel = "FloatZ40Pow";
  static constexpr Pairing kPairing = Pairing::kCyclic;

  void compute(const float* a, int n, const float* b, int nb, float* out) const {
    pow_cyclic_f32(a, n, b, nb, out);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Pow)
