#include <cstring>
#include <vector>

#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40LeakyReluInt8Param : BaseParam {
  // Prepared: the input's shape and element count.
  std::vector<int> input_shape;
  long long count = 0;
};

// The int8 leaky ReLU leaves its codes unchanged.
class Z40LeakyReluInt8OpExecutor : public ParamOpExecutor<Z40LeakyReluInt8Param> {
 public:
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = first_input(inputs, kName);
    op_param_.input_shape = input->shape();
    op_param_.count = input->size();
    shape = input->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Tensor* input = prepared_input(inputs, op_param_.input_shape, output, op_param_.count, kName);
    if (op_param_.count > 0) {
      std::memcpy(output->mutable_data<float>(), input->data<float>(), sizeof(float) * op_param_.count);
    }
    return true;
  }

 private:
  static constexpr const char* kName = "Z40LeakyReluInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40LeakyReluInt8)
