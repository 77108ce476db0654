#include "ops/float/float_eltwise.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void check_rank4(const Tensor* input_tensor, const char* message) {
  KOVRA_ENSURE_MSG(input_tensor->shape().size() == 4, "input_tensor->shape().size() == 4", message);
}

void check_pairing(const Tensor* b, int n, Pairing pairing, const char* op) {
  switch (pairing) {
    case Pairing::kCyclic:
      check_min_size(b, 1, op);
      break;
    case Pairing::kScalarOrSame:
      if (b->size() != 1) check_min_size(b, n, op);
      break;
    case Pairing::kSame:
      check_min_size(b, n, op);
      break;
  }
}

void prepare_input_grads(const std::vector<const Tensor*>& inputs, const Tensor* output_grad, int n,
                         std::vector<Tensor*>& input_grads, size_t count, float** grads, const char* op) {
  KOVRA_ENSURE_MSG(output_grad != nullptr, "output_grad != nullptr",
                   std::string(op) + " has no output gradient");
  check_float(output_grad, op);
  check_min_size(output_grad, n, op);
  for (size_t k = 0; k < count; ++k) {
    grads[k] = nullptr;
    if (k >= input_grads.size() || input_grads[k] == nullptr) continue;
    input_grads[k]->set_data(inputs[k]->shape(), Tensor::DT_FLOAT, nullptr);
    grads[k] = input_grads[k]->mutable_data<float>();
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
