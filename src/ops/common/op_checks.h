#ifndef KOVRAEXECUTOR_OPS_OP_CHECKS_H_
#define KOVRAEXECUTOR_OPS_OP_CHECKS_H_

#include <string>
#include <vector>

#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Shared fatal checks of the operators. Each prints
// `Error: Check failed: <condition>==>"<message>"` and aborts when it fails.

// The generic form: `condition` is the text users see, `ok` its value.
void op_check(bool ok, const char* condition, const std::string& message);

// "input_tensor->shape().size() > 0" with "The shape of input is 0 in <label>!!!"
// (label as the operator's messages spell it, e.g. "FloatZ40Relu").
void check_input_not_scalar(const Tensor* input, const std::string& label);

// A model that gives an operator fewer inputs (data and weights together) than
// it reads: "inputs.size() >= <n>" with "<op> needs <n> inputs but has <m>".
void check_input_count(const std::vector<const Tensor*>& inputs, size_t n, const std::string& op);

// Every element an operator reads is float: "tensor->data_type() == DT_FLOAT"
// with "<op> reads <tensor name> as float but it holds type <code>".
void check_float(const Tensor* tensor, const std::string& op);

// A tensor that must hold at least `count` elements (weights, scales, biases):
// "tensor->size() >= <count>" with "<op>: <tensor name> has <size> elements, needs <count>".
void check_min_size(const Tensor* tensor, long long count, const std::string& op);

// Vectors read per channel from attributes: "values.size() >= <count>" with
// "<op>: attribute <key> has <size> values, needs <count>".
void check_attr_size(size_t size, long long count, const std::string& key, const std::string& op);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_OP_CHECKS_H_
