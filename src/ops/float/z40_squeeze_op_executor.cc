#include <cstring>
#include <memory>

#include "op_attr.h"
#include "op_executor.h"
#include "ops/float/float_shape_checks.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SqueezeParam : BaseParam {
  std::vector<int> output_shape;
};

class Z40SqueezeOpExecutor : public ParamOpExecutor<Z40SqueezeParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_int_list(node, "output_shape", op_param_.output_shape,
                     "Do not find the output_shape in FloatZ40squeeze!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    _check(inputs);
    shape = op_param_.output_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    _check(inputs);
    check_output_shape(output, op_param_.output_shape, "Z40Squeeze");
    if (inputs[0]->size() < 1) return true;
    std::memcpy(output->mutable_data<float>(), inputs[0]->data<float>(),
                sizeof(float) * inputs[0]->size());
    return true;
  }

 private:
  void _check(const std::vector<const Tensor*>& inputs) const {
    check_input_count(inputs, 1, "Z40Squeeze");
    check_input_not_scalar(inputs[0], "FloatZ40Squeeze");
    check_float(inputs[0], "Z40Squeeze");
    check_positive_dims(op_param_.output_shape, "output_shape", "Z40Squeeze");
    check_same_count(op_param_.output_shape, inputs[0], "Z40Squeeze");
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Squeeze)
