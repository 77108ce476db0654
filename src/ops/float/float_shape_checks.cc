#include "ops/float/float_shape_checks.h"

#include "checked_size.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void check_rank(const Tensor* input, int rank, const char* op) {
  KOVRA_ENSURE_MSG(input->dims() == rank, ("input->dims() == " + std::to_string(rank)).c_str(),
                   std::string(op) + " needs a " + std::to_string(rank) + "-D input but got " +
                       shape_text(input->shape()));
  check_float(input, op);
}

void check_same_count(const std::vector<int>& shape, const Tensor* input, const char* op) {
  KOVRA_ENSURE_MSG(shape_count(shape) == input->size(), "element_count(output_shape) == input->size()",
                   std::string(op) + ": output_shape " + shape_text(shape) + " does not hold the " +
                       std::to_string(input->size()) + " elements of input " + shape_text(input->shape()));
}

void check_positive_dims(const std::vector<int>& shape, const std::string& what, const char* op) {
  bool ok = !shape.empty();
  for (int d : shape) ok = ok && d > 0;
  KOVRA_ENSURE_MSG(ok, "all dimensions > 0",
                   std::string(op) + ": " + what + " " + shape_text(shape) + " has an empty dimension");
}

void check_output_shape(const Tensor* output, const std::vector<int>& shape, const char* op) {
  KOVRA_ENSURE_MSG(output->shape() == shape, "output->shape() == inferred shape",
                   std::string(op) + ": output tensor " + shape_text(output->shape()) +
                       " but the inputs give " + shape_text(shape));
}

void check_float_output(const Tensor* output, const char* op) {
  KOVRA_ENSURE_MSG(output->data_type() == Tensor::DT_FLOAT, "output->data_type() == DT_FLOAT",
                   std::string(op) + " writes " + output->name() + " as float but it holds type " +
                       std::to_string(static_cast<int>(output->data_type())));
}

namespace {

[[noreturn]] void fail_not_prepared(const char* op) {
  check_failed_quoted("inference_shape before execute",
                      std::string(op) + ": execute called before inference_shape");
}

}  // namespace

void fail_unprepared(const Tensor* input, const std::vector<int>& prepared, const char* op) {
  if (prepared.empty()) fail_not_prepared(op);
  check_failed_quoted("input->shape() == prepared shape",
                      std::string(op) + ": input " + input->name() + " is " + shape_text(input->shape()) +
                          " but inference_shape prepared " + shape_text(prepared));
}

void fail_unprepared_size(const Tensor* input, long long prepared, const char* op) {
  if (prepared < 0) fail_not_prepared(op);
  check_failed_quoted("input->size() == prepared size",
                      std::string(op) + ": input " + input->name() + " has " + std::to_string(input->size()) +
                          " elements but inference_shape prepared " + std::to_string(prepared));
}

void refuse_unprepared(const std::vector<const Tensor*>& inputs, const Tensor* output,
                       const std::vector<int>& expected, const PreparedShapes& prepared, const char* op) {
  check_output_shape(output, expected, op);
  check_float_output(output, op);
  fail_unprepared(inputs[0], prepared.in_shape, op);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
