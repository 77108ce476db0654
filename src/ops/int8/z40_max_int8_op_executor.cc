#include <vector>

#include "kvdl.h"
#include "ops/int8/int8_binary_requant.h"
#include "ops/int8/int8_common.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MaxInt8Param : Int8BinaryRequantParam {};

// Element-wise maximum: both inputs are brought to the output scale as in the
// sum (off_k * (O*S_k) + (O*S_k) * x_k), the larger plus the zero point is
// rounded and clamped to the offset-shifted bounds.
class Z40MaxInt8OpExecutor : public ParamOpExecutor<Z40MaxInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override { parse_binary_requant(node, kName, false, op_param_); }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    check_input_count(inputs, 2, kName);
    check_rank_4(inputs[0], "Wrong input shape in Z40MaxInt8.");
    shape = inputs[0]->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const int channels = check_binary_requant(inputs, kName, op_param_);
    check_rank_4(inputs[0], "Wrong input shape in Z40MaxInt8.");
    const int n = inputs[0]->size();
    check_min_size(inputs[1], n, kName);
    const Int8BinaryRequantParam& p = op_param_;
    const float off0 = static_cast<float>(p.input0_offset);
    const float off1 = static_cast<float>(p.input1_offset);
    const float offset = static_cast<float>(p.offset);
    const float lo = static_cast<float>(static_cast<long long>(p.min_value) + p.offset);
    const float hi = static_cast<float>(static_cast<long long>(p.max_value) + p.offset);
    const float* x0 = inputs[0]->data<float>();
    const float* x1 = inputs[1]->data<float>();
    float* y = output->mutable_data<float>();
    for (int base = 0; base < n; base += channels) {
      for (int c = 0; c < channels; ++c) {
        const int i = base + c;
        const float a = p.output_scale[c] * p.input0_scale[c];
        const float b = p.output_scale[c] * p.input1_scale[c];
        const float v0 = off0 * a + a * x0[i];
        const float v1 = off1 * b + b * x1[i];
        const float v = (v0 < v1 ? v1 : v0) + offset;
        y[i] = clamp_code(kvdl::tensorflow_round_cpu(v), lo, hi);
      }
    }
    return true;
  }

 private:
  static constexpr const char* kName = "Z40MaxInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40MaxInt8)
