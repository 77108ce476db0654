#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "checked_size.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/layout_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ReshapeInt8Param : BaseParam {
  std::vector<int> output_shape;
  std::string src_framework;
  // Prepared: the input shape; for ONNX models the reorder through
  // channels-first order and the buffer between its two gathers.
  std::vector<int> input_shape;
  long long count = 0;
  bool onnx = false;
  OnnxReshapePlan plan;
  std::vector<float> scratch;
};

// Reshape of the codes to "output_shape"; a model converted from ONNX
// ("src_framework") reshapes in channels-first order, so the data are
// reordered through that layout as the float reshape does.
class Z40ReshapeInt8OpExecutor : public ParamOpExecutor<Z40ReshapeInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    // The text names "strides" although the key is "output_shape"; users know it so.
    require_int_list(node, "output_shape", op_param_.output_shape,
                     "Do not find the strides in Z40ReshapeInt8!!!");
    read_string(node, "src_framework", op_param_.src_framework);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40ReshapeInt8Param& p = op_param_;
    const Tensor* input = checked_input(inputs);
    p.input_shape = input->shape();
    p.count = input->size();
    p.onnx = p.src_framework == "ONNX";
    if (p.onnx) {
      plan_onnx_reshape(p.input_shape, p.output_shape, p.plan);
      p.scratch.resize(p.plan.flat ? 0 : static_cast<size_t>(p.count));
    }
    shape = p.output_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    Z40ReshapeInt8Param& p = op_param_;
    const Tensor* input = prepared_input(inputs, p.input_shape, output, p.count, kName);
    const float* x = input->data<float>();
    float* y = output->mutable_data<float>();
    if (!p.onnx) {
      if (p.count > 0) std::memcpy(y, x, sizeof(float) * p.count);
    } else {
      onnx_reshape_reorder(x, y, p.plan, p.scratch.data());
    }
    return true;
  }

 private:
  const Tensor* checked_input(const std::vector<const Tensor*>& inputs) const {
    const Tensor* input = first_input(inputs, kName);
    bool positive = true;
    for (int d : op_param_.output_shape) positive = positive && d > 0;
    KOVRA_ENSURE_MSG(positive && shape_count(op_param_.output_shape) == input->size(),
                     "product(output_shape) == input->size()",
                     std::string(kName) + ": output_shape does not hold the input's " +
                         std::to_string(input->size()) + " elements");
    return input;
  }

  static constexpr const char* kName = "Z40ReshapeInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ReshapeInt8)
