#include "ops/common/op_checks.h"

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void op_check(bool ok, const char* condition, const std::string& message) {
  if (!ok) check_failed_quoted(condition, message);
}

void check_input_not_scalar(const Tensor* input, const std::string& label) {
  op_check(input != nullptr && !input->shape().empty(), "input_tensor->shape().size() > 0",
           "The shape of input is 0 in " + label + "!!!");
}

void check_input_count(const std::vector<const Tensor*>& inputs, size_t n, const std::string& op) {
  if (inputs.size() >= n) return;
  check_failed_quoted("inputs.size() >= " + std::to_string(n),
                      op + " needs " + std::to_string(n) + " inputs but has " +
                          std::to_string(inputs.size()));
}

void check_float(const Tensor* tensor, const std::string& op) {
  if (tensor->data_type() == Tensor::DT_FLOAT) return;
  check_failed_quoted("tensor->data_type() == DT_FLOAT",
                      op + " reads " + tensor->name() + " as float but it holds type " +
                          std::to_string(static_cast<int>(tensor->data_type())));
}

void check_min_size(const Tensor* tensor, long long count, const std::string& op) {
  if (tensor->size() >= count) return;
  check_failed_quoted("tensor->size() >= " + std::to_string(count),
                      op + ": " + tensor->name() + " has " + std::to_string(tensor->size()) +
                          " elements, needs " + std::to_string(count));
}

void check_attr_size(size_t size, long long count, const std::string& key, const std::string& op) {
  if (static_cast<long long>(size) >= count) return;
  check_failed_quoted("values.size() >= " + std::to_string(count),
                      op + ": attribute " + key + " has " + std::to_string(size) + " values, needs " +
                          std::to_string(count));
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
