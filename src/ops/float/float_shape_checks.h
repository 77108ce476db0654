#ifndef KOVRAEXECUTOR_OPS_FLOAT_SHAPE_CHECKS_H_
#define KOVRAEXECUTOR_OPS_FLOAT_SHAPE_CHECKS_H_

#include <string>
#include <vector>

#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Shape checks shared by the float data-movement, pooling and resize operators.
// Each failure is a "Check failed" line naming the operator and the values.

long long element_count(const std::vector<int>& shape);
std::string shape_text(const std::vector<int>& shape);

// The operator's input (or weight) is a float tensor of exactly `rank` dimensions.
void check_rank(const Tensor* input, int rank, const char* op);

// A model-given shape must hold as many elements as the input.
void check_same_count(const std::vector<int>& shape, const Tensor* input, const char* op);

// Every dimension of a model-given shape is at least 1.
void check_positive_dims(const std::vector<int>& shape, const std::string& what, const char* op);

// The output tensor handed to execute has the shape the inputs give.
void check_output_shape(const Tensor* output, const std::vector<int>& shape, const char* op);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_SHAPE_CHECKS_H_
