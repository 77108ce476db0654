#include <cstring>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SqueezeParam : BaseParam, PreparedShapes {
  std::vector<int> output_shape;
};

class Z40SqueezeOpExecutor : public ParamOpExecutor<Z40SqueezeParam> {
 public:
  static constexpr const char* kName = "Z40Squeeze";

  void parse_parameter(const NodeDef& node) override {
    require_int_list(node, "output_shape", op_param_.output_shape,
                     "Do not find the output_shape in FloatZ40squeeze!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    _check(inputs);
    op_param_.in_shape = inputs[0]->shape();
    op_param_.out_shape = op_param_.output_shape;
    shape = op_param_.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, op_param_))) _refuse(inputs, output);
    const int n = inputs[0]->size();
    if (n < 1) return true;
    std::memcpy(output->mutable_data<float>(), inputs[0]->data<float>(), sizeof(float) * n);
    return true;
  }

 private:
  void _check(const std::vector<const Tensor*>& inputs) const {
    check_input_count(inputs, 1, kName);
    check_input_not_scalar(inputs[0], "FloatZ40Squeeze");
    check_float(inputs[0], kName);
    check_positive_dims(op_param_.output_shape, "output_shape", kName);
    check_same_count(op_param_.output_shape, inputs[0], kName);
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    _check(inputs);
    refuse_unprepared(inputs, output, op_param_.output_shape, op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Squeeze)
