#include "ops/int8/int8_common.h"

#include <algorithm>
#include <cstring>

#include "kvdl.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
// The int8 operators' messages space their shapes: "[1, 4, 4, 3]".
std::string spaced_shape_text(const std::vector<int>& shape) {
  std::string text = "[";
  for (size_t i = 0; i < shape.size(); ++i) text += (i ? ", " : "") + std::to_string(shape[i]);
  return text + "]";
}
}  // namespace

int channel_count(const Tensor* tensor) {
  const std::vector<int>& shape = tensor->shape();
  return shape.empty() || shape.back() < 1 ? 1 : shape.back();
}

const Tensor* first_input(const std::vector<const Tensor*>& inputs, const char* op) {
  check_input_count(inputs, 1, op);
  check_input_not_scalar(inputs[0], op);
  return inputs[0];
}

void check_rank_3_to_5(const Tensor* input, const char* op) {
  const size_t rank = input->shape().size();
  if (rank < 3 || rank > 5) {
    fatal("\"The shape of input only support 3D ,4D or 5D in " + std::string(op) + "!!!\"");
  }
}

void check_rank_4(const Tensor* input, const char* message) {
  KOVRA_ENSURE_MSG(input->shape().size() == 4, "input_tensor->shape().size() == 4", message);
}

void prepared_shape_failed(const Tensor* input, const std::vector<int>& prepared, const char* op) {
  if (input == nullptr) {
    check_failed_quoted("input->shape() == prepared", std::string(op) + ": an input is missing");
  }
  check_failed_quoted("input->shape() == prepared", std::string(op) + ": " + input->name() + " has shape " +
                                                        spaced_shape_text(input->shape()) +
                                                        " but was prepared for " + spaced_shape_text(prepared));
}

const Tensor* prepared_input(const std::vector<const Tensor*>& inputs, const std::vector<int>& prepared,
                             const Tensor* output, long long out_count, const char* op) {
  const Tensor* input = first_input(inputs, op);
  check_prepared(input, prepared, op);
  check_float(input, op);
  check_min_size(output, out_count, op);
  return input;
}

void round_and_clamp(float* y, long long count, float lo, float hi) {
  for (long long i = 0; i < count; ++i) y[i] = clamp_code(kvdl::tensorflow_round_cpu(y[i]), lo, hi);
}

void check_per_channel(const std::vector<float>& values, int channels, const char* key, const char* op) {
  check_attr_size(values.size(), channels, key, op);
}

void make_sum_requant(const std::vector<float>& s0, const std::vector<float>& s1,
                      const std::vector<float>& out_scale, int off0, int off1, int offset, int channels,
                      bool difference, SumRequant& r) {
  r.a.resize(channels);
  r.b.resize(channels);
  r.k.resize(channels);
  for (int c = 0; c < channels; ++c) {
    const float a = out_scale[c] * s0[c];
    const float b_sum = out_scale[c] * s1[c];
    const float b = difference ? -b_sum : b_sum;
    r.a[c] = a;
    r.b[c] = b;
    r.k[c] = static_cast<float>(off0) * a + static_cast<float>(off1) * b + static_cast<float>(offset);
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
