#include <string>

#include "common.h"
#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseMulParam : BaseParam, EltwiseSizes {};

// a * b, b repeating cyclically, so a per-channel b of C values scales each channel.
class Z40EltwiseMulOpExecutor : public FloatBinaryOpExecutor<Z40EltwiseMulOpExecutor, Z40EltwiseMulParam> {
 public:
  static constexpr const char* kName = "Z40EltwiseMul";
  static constexpr const char* kLabel = "FloatZ40EltwiseMul";
  static constexpr Pairing kPairing = Pairing::kCyclic;

  // Exactly two inputs; the message names the int8 operator it was copied from.
  static void check_operand_count(const std::vector<const Tensor*>& inputs) {
    if (inputs.size() != 2)
      fatal("Unspport input size :" + std::to_string(inputs.size()) + "in Z40EltwiseMulInt8.");
  }
  static bool operand_count_ok(size_t count) { return count == 2; }

  void compute(const float* a, int n, const float* b, int nb, float* out) const {
    mul_cyclic_f32(a, n, b, nb, out);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseMul)
