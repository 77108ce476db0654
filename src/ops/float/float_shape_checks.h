#ifndef KOVRAEXECUTOR_OPS_FLOAT_SHAPE_CHECKS_H_
#define KOVRAEXECUTOR_OPS_FLOAT_SHAPE_CHECKS_H_

#include <string>
#include <vector>

#include "checked_size.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Shape checks shared by the float operators, and the allocation-free tests by
// which execute makes sure it runs on what inference_shape prepared. Each
// failure is a "Check failed" line naming the operator and the values.


// The operator's input (or weight) is a float tensor of exactly `rank` dimensions.
void check_rank(const Tensor* input, int rank, const char* op);

// A model-given shape must hold as many elements as the input.
void check_same_count(const std::vector<int>& shape, const Tensor* input, const char* op);

// Every dimension of a model-given shape is at least 1.
void check_positive_dims(const std::vector<int>& shape, const std::string& what, const char* op);

// The output tensor handed to execute has the shape the inputs give.
void check_output_shape(const Tensor* output, const std::vector<int>& shape, const char* op);

// The output tensor handed to execute holds floats:
// "output->data_type() == DT_FLOAT" with "<op> writes <name> as float but it holds type <code>".
void check_float_output(const Tensor* output, const char* op);

// execute's allocation-free test that `t` is a float tensor of exactly `count`
// elements (an input as inference_shape prepared it) ...
inline bool is_float_of_size(const Tensor* t, int count) {
  return t->size() == count && t->data_type() == Tensor::DT_FLOAT;
}
// ... or of at least `count` (an output that holds what execute writes).
inline bool is_float_of_size_at_least(const Tensor* t, int count) {
  return t->size() >= count && t->data_type() == Tensor::DT_FLOAT;
}

// The shapes inference_shape prepared an operator with one data input for;
// its execute runs on nothing else. in_shape stays empty until
// inference_shape has run.
struct PreparedShapes {
  std::vector<int> in_shape;
  std::vector<int> out_shape;
};

// execute's allocation-free test: inputs[0] and the output are float tensors
// of the prepared shapes.
inline bool matches_prepared(const std::vector<const Tensor*>& inputs, const Tensor* output,
                             const PreparedShapes& p) {
  return !inputs.empty() && !p.in_shape.empty() && inputs[0]->shape() == p.in_shape &&
         inputs[0]->data_type() == Tensor::DT_FLOAT && output->shape() == p.out_shape &&
         output->data_type() == Tensor::DT_FLOAT;
}

// The last word of execute's cold path. execute runs on what inference_shape
// prepared and only compares its inputs with it; when they differ, the
// operator reruns its own checks (so a malformed input is reported as it
// always was) and, when those pass, ends here: the input is valid but is not
// the one inference_shape prepared for, or inference_shape never ran (an
// empty `prepared` shape, a negative `prepared` size).
[[noreturn]] void fail_unprepared(const Tensor* input, const std::vector<int>& prepared, const char* op);
[[noreturn]] void fail_unprepared_size(const Tensor* input, long long prepared, const char* op);
// The cold path of an operator with one data input and PreparedShapes, once
// its checks have passed on `inputs` and given `expected` as their output
// shape: the output is checked against it, then fail_unprepared.
[[noreturn]] void refuse_unprepared(const std::vector<const Tensor*>& inputs, const Tensor* output,
                                    const std::vector<int>& expected, const PreparedShapes& prepared,
                                    const char* op);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_SHAPE_CHECKS_H_
