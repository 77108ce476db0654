#ifndef KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_H_
#define KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_H_

#include <memory>
#include <string>
#include <vector>

#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// What the float element-wise operators share: the parameter record they own,
// the output shape (the first input's), the rank check and the input checks.
// An operator file only adds its attributes and the kernel it calls.
template <typename Param>
class FloatEltwiseOpExecutor : public ParamOpExecutor<Param> {
 public:
  // `name` is the registered name, used by the input checks; `label` is how
  // the operator names itself in its rank message ("FloatZ40Relu" ...).
  FloatEltwiseOpExecutor(const char* name, const char* label) : name_(name), label_(label) {}

  void inference_shape(const std::vector<const Tensor*>& inputs,
                       std::vector<int>& shape) override {
    check_input_count(inputs, 1, name_);
    const Tensor* input_tensor = inputs[0];
    _check_rank(input_tensor);
    shape = input_tensor->shape();
  }

 protected:
  // Rank rule of most members: anything but a scalar.
  virtual void _check_rank(const Tensor* input_tensor) const {
    check_input_not_scalar(input_tensor, label_);
  }
  // The first `count` inputs are present and hold floats.
  void _check_float_inputs(const std::vector<const Tensor*>& inputs, size_t count) const {
    check_input_count(inputs, count, name_);
    for (size_t i = 0; i < count; ++i) check_float(inputs[i], name_);
  }

  const char* const name_;
  const char* const label_;
};

// The rank rule "input_tensor->shape().size() == 4" with the operator's own message.
void check_rank4(const Tensor* input_tensor, const char* message);

// One input, one output of the same size: the operator supplies `_compute`.
template <typename Param>
class FloatUnaryOpExecutor : public FloatEltwiseOpExecutor<Param> {
 public:
  using FloatEltwiseOpExecutor<Param>::FloatEltwiseOpExecutor;

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    this->_check_float_inputs(inputs, 1);
    const int n = output->size();
    check_min_size(inputs[0], n, this->name_);
    if (n < 1) return true;
    _compute(inputs[0]->template data<float>(), output->mutable_data<float>(), n);
    return true;
  }

 protected:
  virtual void _compute(const float* in, float* out, int n) const = 0;
};

// How a two-input operator pairs element i of a with an element of b.
enum class Pairing {
  kCyclic,          // b[i mod count(b)]: b needs one element
  kScalarOrSame,    // b[0] when b holds one element, else b[i]: b needs count(a)
  kSame,            // b[i]: b needs count(a)
};

// Validates b for `pairing` against n elements of a; fatal when too short.
void check_pairing(const Tensor* b, int n, Pairing pairing, const char* op);

// For a gradient pass: checks the incoming gradient against n elements and
// shapes each wanted input gradient (a non-null input_grads[k], k < count) like
// inputs[k]; grads[k] is its buffer, or null when it is not wanted.
void prepare_input_grads(const std::vector<const Tensor*>& inputs, const Tensor* output_grad, int n,
                         std::vector<Tensor*>& input_grads, size_t count, float** grads, const char* op);

// Two inputs a and b, output shaped like a: the operator supplies `_compute`.
template <typename Param>
class FloatBinaryOpExecutor : public FloatEltwiseOpExecutor<Param> {
 public:
  FloatBinaryOpExecutor(const char* name, const char* label, Pairing pairing)
      : FloatEltwiseOpExecutor<Param>(name, label), pairing_(pairing) {}

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const int n = output->size();
    _check_operands(inputs, n);
    if (n < 1) return true;
    _compute(inputs[0]->template data<float>(), n, inputs[1]->template data<float>(),
             inputs[1]->size(), output->mutable_data<float>());
    return true;
  }

 protected:
  virtual void _check_inputs(const std::vector<const Tensor*>& inputs) const {
    this->_check_float_inputs(inputs, 2);
  }
  // Everything the kernels assume about a and b for n output elements.
  void _check_operands(const std::vector<const Tensor*>& inputs, int n) const {
    _check_inputs(inputs);
    check_min_size(inputs[0], n, this->name_);
    if (n > 0) check_pairing(inputs[1], n, pairing_, this->name_);
  }
  virtual void _compute(const float* a, int n, const float* b, int nb, float* out) const = 0;

  const Pairing pairing_;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_H_
