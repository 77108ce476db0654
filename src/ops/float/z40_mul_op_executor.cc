#include <algorithm>
#include <string>
#include <vector>

#include "common.h"
#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_eltwise_kernels.h"
#include "tensor_operators.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MulParam : BaseParam, EltwiseSizes {
  BroadcastPlan plan;
};

// a * b with the tensor product operator's broadcasting (pairing by flat
// position within the aligned block), computed straight into the output. The
// output keeps a's shape, so the broadcast result must hold exactly a's
// element count.
class Z40MulOpExecutor : public ParamOpExecutor<Z40MulParam> {
 public:
  static constexpr const char* kName = "Z40Mul";
  static constexpr const char* kLabel = "FloatZ40Mul";

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    check_input_count(inputs, 1, kName);
    op_param_.plan = _plan(inputs, inputs[0]->size());
    op_param_.count = inputs[0]->size();
    op_param_.b_count = inputs[1]->size();
    shape = inputs[0]->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Z40MulParam& p = op_param_;
    if (KOVRA_UNLIKELY(inputs.size() < 2 || !is_float_of_size(inputs[0], p.count) ||
                       !is_float_of_size(inputs[1], p.b_count) ||
                       !is_float_of_size_at_least(output, p.count))) {
      _refuse(inputs, output);
    }
    mul_broadcast_f32(inputs[0]->data<float>(), inputs[1]->data<float>(), output->mutable_data<float>(),
                      p.plan);
    return true;
  }

  // Each operand's gradient is the incoming gradient times the other operand,
  // element by element of the product (not summed over broadcast positions).
  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    check_input_count(inputs, 2, kName);
    check_float(inputs[0], kName);
    check_float(inputs[1], kName);
    const int n = output->size();
    float* grads[2];
    prepare_input_grads(inputs, output_grad, n, input_grads, 2, grads, kName);
    for (int k = 0; k < 2; ++k) {
      if (grads[k] == nullptr) continue;
      const Tensor grad = *output_grad * *inputs[1 - k];
      *input_grads[k] = grad;
    }
  }

 private:
  // Checks a and b for a product of `out_count` elements and plans it.
  static BroadcastPlan _plan(const std::vector<const Tensor*>& inputs, int out_count) {
    check_input_not_scalar(inputs[0], kLabel);
    check_input_count(inputs, 2, kName);
    check_float(inputs[0], kName);
    check_float(inputs[1], kName);
    BroadcastPlan plan;
    long long count = 0;
    if (!_broadcast(*inputs[0], *inputs[1], plan, count)) {
      // The tensor arithmetic refuses these operands; let it say why, as it always has.
      const Tensor product = *inputs[0] * *inputs[1];
      count = product.size();
      KOVRA_ENSURE_MSG(false, "broadcast_cpu refused a and b", std::string(kName) + ": cannot pair a with b");
    }
    KOVRA_ENSURE_MSG(count == out_count, "product.size() == output->size()",
                     std::string(kName) + ": the product has " + std::to_string(count) +
                         " elements but the output holds " + std::to_string(out_count));
    return plan;
  }

  // The tensor arithmetic's broadcast of a with b when it accepts them (same
  // host device, aligned dimensions equal or 1, every dimension positive, both
  // buffers holding their floats, a result that a tensor can hold); false
  // exactly when it would stop.
  static bool _broadcast(const Tensor& a, const Tensor& b, BroadcastPlan& plan, long long& count) {
    if (a.head() != 1 || b.head() != 1) return false;
    for (const Tensor* t : {&a, &b}) {
      for (int extent : t->shape()) {
        if (extent < 1) return false;
      }
      if (t->size() < 1 || t->get_ptr() == nullptr || t->byte_size() < 4LL * t->size()) return false;
    }
    const std::vector<int>& sa = a.shape();
    const std::vector<int>& sb = b.shape();
    const size_t ra = sa.size(), rb = sb.size();
    const size_t aligned = std::min(ra, rb);
    const std::vector<int>& longer = ra >= rb ? sa : sb;
    const size_t lead_dims = longer.size() - aligned;
    // Every factor is positive and each partial product stays below 2^31
    // before the next one, so nothing overflows.
    const long long kMaxCount = 0x7fffffffLL / 4;  // the result's bytes fit an int
    long long lead = 1, block = 1, block_a = 1, block_b = 1;
    for (size_t d = 0; d < lead_dims; ++d) {
      lead *= longer[d];
      if (lead > kMaxCount) return false;
    }
    for (size_t k = 1; k <= aligned; ++k) {
      const int ea = sa[ra - k], eb = sb[rb - k];
      if (ea != eb && ea != 1 && eb != 1) return false;
      block *= std::max(ea, eb);
      if (lead * block > kMaxCount) return false;
      block_a *= ea;
      block_b *= eb;
    }
    count = lead * block;
    plan.lead = static_cast<int>(lead);
    plan.block = static_cast<int>(block);
    plan.block_a = static_cast<int>(block_a);
    plan.block_b = static_cast<int>(block_b);
    plan.step_a = rb <= ra ? plan.block_a : 0;
    plan.step_b = rb <= ra ? 0 : plan.block_b;
    return true;
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    check_input_count(inputs, 1, kName);
    _plan(inputs, output->size());
    check_float_output(output, kName);
    if (op_param_.count < 0 || inputs[0]->size() != op_param_.count) {
      fail_unprepared_size(inputs[0], op_param_.count, kName);
    }
    fail_unprepared_size(inputs[1], op_param_.b_count, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Mul)
