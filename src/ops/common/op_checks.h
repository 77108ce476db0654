#ifndef KOVRAEXECUTOR_OPS_OP_CHECKS_H_
#define KOVRAEXECUTOR_OPS_OP_CHECKS_H_

#include <string>
#include <vector>

#include "common.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Shared checks of the operators, in the form of KOVRA_ENSURE_MSG: each builds
// its message only when it fails. Operator names are string constants.

// "input_tensor->shape().size() > 0" with "The shape of input is 0 in <label>!!!"
// (label as the operator's messages spell it, e.g. "FloatZ40Relu").
void check_input_not_scalar(const Tensor* input, const char* label);

// A model that gives an operator fewer inputs (data and weights together) than
// it reads: "inputs.size() >= <n>" with "<op> needs <n> inputs but has <m>".
void check_input_count(const std::vector<const Tensor*>& inputs, size_t n, const char* op);

// Every element an operator reads is float: "tensor->data_type() == DT_FLOAT"
// with "<op> reads <tensor name> as float but it holds type <code>".
void check_float(const Tensor* tensor, const char* op);

// A tensor that must hold at least `count` elements (weights, scales, biases):
// "tensor->size() >= <count>" with "<op>: <tensor name> has <size> elements, needs <count>".
void check_min_size(const Tensor* tensor, long long count, const char* op);

// Vectors read per channel from attributes: "values.size() >= <count>" with
// "<op>: attribute <key> has <size> values, needs <count>".
void check_attr_size(size_t size, long long count, const char* key, const char* op);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_OP_CHECKS_H_
