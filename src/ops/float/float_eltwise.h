#ifndef KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_H_
#define KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_H_

#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The rank rule "input_tensor->shape().size() == 4" with the operator's own message.
void check_rank4(const Tensor* input_tensor, const char* message);

// How a two-input operator pairs element i of a with an element of b.
enum class Pairing {
  kCyclic,        // b[i mod count(b)]: b needs one element
  kScalarOrSame,  // b[0] when b holds one element, else b[i]: b needs count(a)
  kSame,          // b[i]: b needs count(a)
};

// Validates b for `pairing` against n elements of a; fatal when too short.
void check_pairing(const Tensor* b, int n, Pairing pairing, const char* op);

// For a gradient pass: checks the incoming gradient against n elements and
// shapes each wanted input gradient (a non-null input_grads[k], k < count) like
// inputs[k]; grads[k] is its buffer, or null when it is not wanted.
void prepare_input_grads(const std::vector<const Tensor*>& inputs, const Tensor* output_grad, int n,
                         std::vector<Tensor*>& input_grads, size_t count, float** grads, const char* op);

// The sizes an element-wise operator's inference_shape checked and its
// execute expects again; count stays -1 until inference_shape has run.
struct EltwiseSizes {
  int count = -1;   // elements of the first input, all of which the output receives
  int b_count = 0;  // elements of the second operand
};

// One input, one output of the same size. `Op` (the operator class, deriving
// from this) supplies kName (the registered name, used by the input checks),
// kLabel (how its rank message names it, "FloatZ40Relu" ...) and
// `void compute(const float* in, float* out, int n) const`; it may hide
// check_inputs and check_output with its own. `Param` derives from EltwiseSizes.
// The kernel is called directly, not through a virtual function: these
// operators are chained by the thousand on tiny tensors.
template <typename Op, typename Param>
class FloatUnaryOpExecutor : public ParamOpExecutor<Param> {
 public:
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Op::check_inputs(inputs);
    this->op_param_.count = inputs[0]->size();
    shape = inputs[0]->shape();
  }

  int max_inputs() const override { return 1; }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const int n = this->op_param_.count;
    if (KOVRA_UNLIKELY(inputs.empty() || !is_float_of_size(inputs[0], n) ||
                       !is_float_of_size_at_least(output, n))) {
      _refuse(inputs, output);
    }
    if (n > 0) {
      static_cast<const Op*>(this)->compute(inputs[0]->template data<float>(),
                                            output->template mutable_data<float>(), n);
    }
    return true;
  }

  // The input's count, rank and element type, with the catalogue's messages.
  static void check_inputs(const std::vector<const Tensor*>& inputs) {
    check_input_count(inputs, 1, Op::kName);
    check_input_not_scalar(inputs[0], Op::kLabel);
    check_float(inputs[0], Op::kName);
  }
  // The output receives n floats.
  static void check_output(const Tensor* output, int n) {
    check_float_output(output, Op::kName);
    check_min_size(output, n, Op::kName);
  }

 private:
  // execute's cold path: the inputs are not those prepared.
  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    Op::check_inputs(inputs);
    Op::check_output(output, inputs[0]->size());
    fail_unprepared_size(inputs[0], this->op_param_.count, Op::kName);
  }
};

// Two inputs a and b, output shaped like a. `Op` supplies kName, kPairing,
// either kLabel (rank rule: anything but a scalar) or kRank4Message (rank
// rule: 4-D), and `void compute(const float* a, int n, const float* b, int nb,
// float* out) const`; it may hide check_inputs, check_operand_count and
// operand_count_ok. `Param` derives from EltwiseSizes.
template <typename Op, typename Param>
class FloatBinaryOpExecutor : public ParamOpExecutor<Param> {
 public:
  static constexpr const char* kRank4Message = nullptr;

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Op::check_inputs(inputs);
    this->op_param_.count = inputs[0]->size();
    this->op_param_.b_count = inputs[1]->size();
    shape = inputs[0]->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Param& p = this->op_param_;
    if (KOVRA_UNLIKELY(!Op::operand_count_ok(inputs.size()) || !is_float_of_size(inputs[0], p.count) ||
                       !is_float_of_size(inputs[1], p.b_count) ||
                       !is_float_of_size_at_least(output, p.count))) {
      _refuse(inputs, output);
    }
    if (p.count > 0) {
      static_cast<const Op*>(this)->compute(inputs[0]->template data<float>(), p.count,
                                            inputs[1]->template data<float>(), p.b_count,
                                            output->template mutable_data<float>());
    }
    return true;
  }

  // Everything the kernel assumes about a and b, in the order the operators
  // have always reported it.
  static void check_inputs(const std::vector<const Tensor*>& inputs) {
    check_input_count(inputs, 1, Op::kName);
    if constexpr (Op::kRank4Message != nullptr) {
      check_rank4(inputs[0], Op::kRank4Message);
    } else {
      check_input_not_scalar(inputs[0], Op::kLabel);
    }
    Op::check_operand_count(inputs);
    check_float(inputs[0], Op::kName);
    check_float(inputs[1], Op::kName);
    const int n = inputs[0]->size();
    if (n > 0) check_pairing(inputs[1], n, Op::kPairing, Op::kName);
  }
  static void check_operand_count(const std::vector<const Tensor*>& inputs) {
    check_input_count(inputs, 2, Op::kName);
  }
  static bool operand_count_ok(size_t count) { return count >= 2; }

 protected:
  // A gradient pass's view of the operands for n output elements.
  static void _check_operands(const std::vector<const Tensor*>& inputs, int n) {
    Op::check_inputs(inputs);
    check_min_size(inputs[0], n, Op::kName);
    if (n > 0) check_pairing(inputs[1], n, Op::kPairing, Op::kName);
  }

 private:
  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    Op::check_inputs(inputs);
    check_float_output(output, Op::kName);
    check_min_size(output, inputs[0]->size(), Op::kName);
    const Param& p = this->op_param_;
    if (p.count < 0 || inputs[0]->size() != p.count) fail_unprepared_size(inputs[0], p.count, Op::kName);
    fail_unprepared_size(inputs[1], p.b_count, Op::kName);
  }
};

// The base Z40BatchNormScale is written on: the record, the output shape (the
// first input's) and the rank and input checks, with the names passed in.
template <typename Param>
class FloatEltwiseOpExecutor : public ParamOpExecutor<Param> {
 public:
  // `name` is the registered name, used by the input checks; `label` is how
  // the operator names itself in its rank message ("FloatZ40Relu" ...).
  FloatEltwiseOpExecutor(const char* name, const char* label) : name_(name), label_(label) {}

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    check_input_count(inputs, 1, name_);
    const Tensor* input_tensor = inputs[0];
    _check_rank(input_tensor);
    shape = input_tensor->shape();
  }

 protected:
  // Rank rule of most members: anything but a scalar.
  virtual void _check_rank(const Tensor* input_tensor) const { check_input_not_scalar(input_tensor, label_); }
  // The first `count` inputs are present and hold floats.
  void _check_float_inputs(const std::vector<const Tensor*>& inputs, size_t count) const {
    check_input_count(inputs, count, name_);
    for (size_t i = 0; i < count; ++i) check_float(inputs[i], name_);
  }

  const char* const name_;
  const char* const label_;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_H_
