#include <vector>

#include "kvdl.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_binary_requant.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MaxInt8Param : Int8BinaryRequantParam {
  // Prepared per channel: off0 * (O*S0) and off1 * (O*S1).
  std::vector<float> k0, k1;
};

// Element-wise maximum: both inputs are brought to the output scale as in the
// sum (off_k * (O*S_k) + (O*S_k) * x_k), the larger plus the zero point is
// rounded and clamped to the offset-shifted bounds.
class Z40MaxInt8OpExecutor : public ParamOpExecutor<Z40MaxInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override { parse_binary_requant(node, kName, false, op_param_); }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    check_input_count(inputs, 2, kName);
    check_rank_4(inputs[0], "Wrong input shape in Z40MaxInt8.");
    Z40MaxInt8Param& p = op_param_;
    prepare_binary_requant(inputs, kName, false, false, p);
    p.k0.resize(p.channels);
    p.k1.resize(p.channels);
    for (int c = 0; c < p.channels; ++c) {
      p.k0[c] = static_cast<float>(p.input0_offset) * p.requant.a[c];
      p.k1[c] = static_cast<float>(p.input1_offset) * p.requant.b[c];
    }
    shape = inputs[0]->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Z40MaxInt8Param& p = op_param_;
    check_binary_prepared(inputs, output, kName, p);
    const int n = inputs[0]->size();
    const int channels = p.channels;
    const float offset = static_cast<float>(p.offset);
    const float lo = static_cast<float>(static_cast<long long>(p.min_value) + p.offset);
    const float hi = static_cast<float>(static_cast<long long>(p.max_value) + p.offset);
    const float* x0 = inputs[0]->data<float>();
    const float* x1 = inputs[1]->data<float>();
    const float* a = p.requant.a.data();
    const float* b = p.requant.b.data();
    const float* k0 = p.k0.data();
    const float* k1 = p.k1.data();
    float* y = output->mutable_data<float>();
    for (int base = 0; base < n; base += channels) {
      for (int c = 0; c < channels; ++c) {
        const int i = base + c;
        const float v0 = k0[c] + a[c] * x0[i];
        const float v1 = k1[c] + b[c] * x1[i];
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
