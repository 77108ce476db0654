#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

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
  // Prepared: the input shape; for ONNX models the two gathers (to
  // channels-first, and from the reshaped channels-first data back to
  // channels-last) and the buffer between them.
  std::vector<int> input_shape;
  long long count = 0;
  bool onnx = false;
  bool onnx_back = false;
  GatherPlan to_first, to_last;
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
      // The input read channels-first; the flat buffer then holds the new
      // shape channels-first, [N, C, D1, ..., Dk] for out [N, D1, ..., Dk, C].
      plan_transpose(p.input_shape, to_channels_first_perm(input->dims()), p.to_first);
      const int out_rank = static_cast<int>(p.output_shape.size());
      p.onnx_back = out_rank >= 3;
      if (p.onnx_back) {
        const std::vector<int> to_first = to_channels_first_perm(out_rank);
        std::vector<int> first_shape(out_rank);
        for (int a = 0; a < out_rank; ++a) first_shape[a] = p.output_shape[to_first[a]];
        plan_transpose(first_shape, to_channels_last_perm(out_rank), p.to_last);
      }
      p.scratch.resize(p.onnx_back ? static_cast<size_t>(p.count) : 0);
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
    } else if (!p.onnx_back) {
      run_gather(x, y, p.to_first);
    } else {
      run_gather(x, p.scratch.data(), p.to_first);
      run_gather(p.scratch.data(), y, p.to_last);
    }
    return true;
  }

 private:
  const Tensor* checked_input(const std::vector<const Tensor*>& inputs) const {
    const Tensor* input = first_input(inputs, kName);
    long long count = 1;
    bool positive = true;
    for (int d : op_param_.output_shape) {
      positive = positive && d > 0;
      count = std::min(count * (positive ? d : 1), 1LL << 40);  // no overflow
    }
    KOVRA_ENSURE_MSG(positive && count == input->size(), "product(output_shape) == input->size()",
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
