#include <vector>

#include "kvdl.h"
#include "ops/int8/int8_common.h"
#include "ops/int8/int8_unary_activation.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SigmoidInt8Param : Int8UnaryActivationParam {};

namespace {
// Logistic function of the real value, with the firmware's e^x.
double sigmoid_of(double y) { return 1.0 / (kvdl::Exp(-y) + 1.0); }
}  // namespace

class Z40SigmoidInt8OpExecutor : public ParamOpExecutor<Z40SigmoidInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override { parse_unary_activation(node, kName, op_param_); }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    shape = prepare_unary_activation(inputs, kName, op_param_);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    run_unary_activation(inputs, output, kName, op_param_, sigmoid_of);
    return true;
  }

 private:
  static constexpr const char* kName = "Z40SigmoidInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40SigmoidInt8)
