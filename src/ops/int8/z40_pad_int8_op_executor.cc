#include <string>
#include <vector>

#include "op_attr.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/layout_kernels.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40PadInt8Param : BaseParam {
  std::vector<int> output_shape;
  std::vector<int> pads;  // ONNX order: all leading amounts, then all trailing ones
  int pad_value = 0;
  std::string mode = "constant";
};

// Constant padding of 4-D or 5-D codes with "padValue".
class Z40PadInt8OpExecutor : public ParamOpExecutor<Z40PadInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    read_int_list(node, "output_shape", op_param_.output_shape);
    require_int_list(node, "pads", op_param_.pads, missing_message("pads", kName));
    read_int(node, "padValue", op_param_.pad_value);
    read_string(node, "mode", op_param_.mode);
    KOVRA_ENSURE_MSG(op_param_.mode == "constant", "op_param_->mode == \"constant\"",
                     "The mode only support constant in Z40PadInt8!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    shape = padded_shape(inputs);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const std::vector<int> out_shape = padded_shape(inputs);
    const Tensor* input = inputs[0];
    check_float(input, kName);
    long long count = 1;
    for (int d : out_shape) count *= d;
    check_min_size(output, count, kName);
    const int rank = input->dims();
    const std::vector<int> before(op_param_.pads.begin(), op_param_.pads.begin() + rank);
    pad_constant_f32(input->data<float>(), input->shape(), before, static_cast<float>(op_param_.pad_value),
                     output->mutable_data<float>(), out_shape);
    return true;
  }

 private:
  std::vector<int> padded_shape(const std::vector<const Tensor*>& inputs) const {
    const Tensor* input = first_input(inputs, kName);
    const int rank = input->dims();
    KOVRA_ENSURE_MSG(rank == 4 || rank == 5,
                     "input_tensor->shape().size() == 4 || input_tensor->shape().size() == 5",
                     "The shape of input only support 4D or 5D in Z40PadInt8!!!");
    // Only non-negative amounts, one leading and one trailing per axis, make a
    // constant pad; anything else (cropping, other layouts) the model cannot ask for.
    bool constant = static_cast<int>(op_param_.pads.size()) == 2 * rank;
    for (size_t i = 0; constant && i < op_param_.pads.size(); ++i) constant = op_param_.pads[i] >= 0;
    KOVRA_ENSURE_MSG(constant, "op_param_->pads.size() == 2 * rank",
                     "The model only support constant in Z40PadInt8!!!");
    std::vector<int> shape = input->shape();
    for (int d = 0; d < rank; ++d) {
      const long long size = static_cast<long long>(shape[d]) + op_param_.pads[d] + op_param_.pads[rank + d];
      KOVRA_ENSURE_MSG(size < (1LL << 31), "padded size < 2^31",
                       std::string(kName) + ": padded size too large");
      shape[d] = static_cast<int>(size);
    }
    return shape;
  }

  static constexpr const char* kName = "Z40PadInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40PadInt8)
