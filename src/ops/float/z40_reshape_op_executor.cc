#include <cstring>
#include <memory>
#include <string>

#include "op_attr.h"
#include "op_executor.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/layout_kernels.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ReshapeParam : BaseParam {
  std::vector<int> output_shape;
  std::string src_framework;
};

// A second input (a shape tensor) may be present; output_shape decides.
class Z40ReshapeOpExecutor : public ParamOpExecutor<Z40ReshapeParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_int_list(node, "output_shape", op_param_.output_shape,
                     "Do not find the strides in FloatZ40Reshape!!!");
    read_string(node, "src_framework", op_param_.src_framework);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    _check(inputs);
    shape = op_param_.output_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    _check(inputs);
    check_output_shape(output, op_param_.output_shape, "Z40Reshape");
    const Tensor* input = inputs[0];
    if (input->size() < 1) return true;
    if (op_param_.src_framework == "ONNX") {
      std::vector<float> scratch(input->size());
      onnx_reshape_reorder(input->data<float>(), input->shape(), output->mutable_data<float>(),
                           op_param_.output_shape, scratch.data());
    } else {
      std::memcpy(output->mutable_data<float>(), input->data<float>(), sizeof(float) * input->size());
    }
    return true;
  }

 private:
  void _check(const std::vector<const Tensor*>& inputs) const {
    check_input_count(inputs, 1, "Z40Reshape");
    check_input_not_scalar(inputs[0], "FloatZ40Reshape");
    check_float(inputs[0], "Z40Reshape");
    check_positive_dims(op_param_.output_shape, "output_shape", "Z40Reshape");
    check_same_count(op_param_.output_shape, inputs[0], "Z40Reshape");
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Reshape)
