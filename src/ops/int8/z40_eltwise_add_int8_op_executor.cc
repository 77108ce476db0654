#include <vector>

#include "ops/common/op_checks.h"
#include "ops/int8/int8_binary_requant.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseAddInt8Param : Int8BinaryRequantParam {};

// Sum of two int8 tensors brought to the output scale, with an optional fused
// activation.
class Z40EltwiseAddInt8OpExecutor : public ParamOpExecutor<Z40EltwiseAddInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override { parse_binary_requant(node, kName, true, op_param_); }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    prepare_binary_requant(inputs, kName, false, true, op_param_);
    shape = inputs[0]->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    run_int8_sum(inputs, output, kName, op_param_, false);
    return true;
  }

 private:
  static constexpr const char* kName = "Z40EltwiseAddInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseAddInt8)
