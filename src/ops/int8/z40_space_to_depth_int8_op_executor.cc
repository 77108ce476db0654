#include <string>
#include <vector>

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/layout_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40SpaceToDepthInt8Param : BaseParam {
  std::vector<int> output_shape;
  // Prepared: the input shape and the block.
  std::vector<int> input_shape;
  int block = 1;
};

// Space-to-depth of [N, H, W, C] codes as the float operator lays it out; the
// block is H / OH of "output_shape" ([N, OH, OW, OC]).
class Z40SpaceToDepthInt8OpExecutor : public ParamOpExecutor<Z40SpaceToDepthInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_int_list(node, "output_shape", op_param_.output_shape, missing_message("output_shape", kName));
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = first_input(inputs, kName);
    const int block = block_size(input);
    const std::vector<int>& s = input->shape();
    op_param_.input_shape = s;
    op_param_.block = block;
    shape = {s[0], s[1] / block, s[2] / block, s[3] * block * block};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const std::vector<int>& shape = op_param_.input_shape;
    const Tensor* input = prepared_input(inputs, shape, output, shape_count(shape), kName);
    space_to_depth_f32(input->data<float>(), output->mutable_data<float>(), shape, op_param_.block);
    return true;
  }

 private:
  int block_size(const Tensor* input) const {
    check_rank_4(input, "Wrong input shape in Z40SpaceToDepthInt8!!!");
    const std::vector<int>& s = input->shape();
    const std::vector<int>& o = op_param_.output_shape;
    const bool fits = o.size() == 4 && o[1] > 0 && s[1] % o[1] == 0 &&
                      static_cast<long long>(o[2]) * (s[1] / o[1]) == s[2] &&
                      static_cast<long long>(s[3]) * (s[1] / o[1]) * (s[1] / o[1]) == o[3];
    KOVRA_ENSURE_MSG(fits, "output_shape == space_to_depth(input_shape)",
                     std::string(kName) + ": output_shape does not fit the input by a square block");
    return s[1] / o[1];
  }

  static constexpr const char* kName = "Z40SpaceToDepthInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40SpaceToDepthInt8)
