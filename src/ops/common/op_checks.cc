#include "ops/common/op_checks.h"

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void check_input_not_scalar(const Tensor* input, const char* label) {
  KOVRA_ENSURE_MSG(input != nullptr && !input->shape().empty(), "input_tensor->shape().size() > 0",
                   std::string("The shape of input is 0 in ") + std::string(label) + "!!!");
}

void check_input_count(const std::vector<const Tensor*>& inputs, size_t n, const char* op) {
  if (inputs.size() >= n) return;
  check_failed_quoted(
      "inputs.size() >= " + std::to_string(n),
      std::string(op) + " needs " + std::to_string(n) + " inputs but has " + std::to_string(inputs.size()));
}

void check_float(const Tensor* tensor, const char* op) {
  if (tensor->data_type() == Tensor::DT_FLOAT) return;
  check_failed_quoted("tensor->data_type() == DT_FLOAT",
                      std::string(op) + " reads " + tensor->name() + " as float but it holds type " +
                          std::to_string(static_cast<int>(tensor->data_type())));
}

void check_min_size(const Tensor* tensor, long long count, const char* op) {
  if (tensor->size() >= count) return;
  check_failed_quoted("tensor->size() >= " + std::to_string(count),
                      std::string(op) + ": " + tensor->name() + " has " + std::to_string(tensor->size()) +
                          " elements, needs " + std::to_string(count));
}

void check_attr_size(size_t size, long long count, const char* key, const char* op) {
  if (static_cast<long long>(size) >= count) return;
  check_failed_quoted("values.size() >= " + std::to_string(count),
                      std::string(op) + ": attribute " + key + " has " + std::to_string(size) +
                          " values, needs " + std::to_string(count));
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
