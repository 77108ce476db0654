#include <vector>

#include "ops/common/op_checks.h"
#include "ops/int8/int8_binary_requant.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseSubInt8Param : Int8BinaryRequantParam {};

// Difference of two int8 tensors: the sum's arithmetic with the second term
// negated, without activations.
class Z40EltwiseSubInt8OpExecutor : public ParamOpExecutor<Z40EltwiseSubInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override { parse_binary_requant(node, kName, false, op_param_); }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    prepare_binary_requant(inputs, kName, true, true, op_param_);
    shape = inputs[0]->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    run_int8_sum(inputs, output, kName, op_param_, true);
    return true;
  }

 private:
  static constexpr const char* kName = "Z40EltwiseSubInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseSubInt8)
