#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40HardSwishParam : BaseParam, EltwiseSizes {
  int add_scalar_value = 0;
  // Read for completeness; the computation does not use it.
  float mul_scalar_value = 0.0f;
};

// x * clamp(x + add_scalar_value, 0, 6) / 6. The offset is stored as an
// integer, so a fractional model value is truncated.
class Z40HardSwishOpExecutor : public FloatUnaryOpExecutor<Z40HardSwishOpExecutor, Z40HardSwishParam> {
 public:
  static constexpr const char* kName = "Z40HardSwish";
  static constexpr const char* kLabel = "FloatZ40HardSwish";

  void parse_parameter(const NodeDef& node_def) override {
    // The message names the wrong key; it is what users find in their logs.
    require_float_as_int(node_def, "add_scalar_value", op_param_.add_scalar_value,
                         "Do not find the padding in FloatZ40HardSwish!!!");
    read_float(node_def, "mul_scalar_value", op_param_.mul_scalar_value);
  }
  void compute(const float* in, float* out, int n) const {
    hard_swish_f32(in, out, n, op_param_.add_scalar_value);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40HardSwish)
