#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "support/int8_graph.h"

namespace kovra_test {
namespace {

const int kSeq = 3, kBatch = 2, kInput = 3, kHidden = 2;

std::vector<float> random_values(size_t n, unsigned seed, float scale) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-scale, scale);
  std::vector<float> v(n);
  for (float& x : v) x = dist(rng);
  return v;
}

// One GRU node over "input" with weights W, R, B; `op` picks the float or int8 operator.
GraphDef gru_model(const std::string& op, const std::string& direction, const std::vector<float>& deqscale,
                   const std::vector<float>& qscale, int offset) {
  const int d = direction == "bidirectional" ? 2 : 1;
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  add_float_const(graph, "W", {d, 3 * kHidden, kInput}, random_values(d * 3 * kHidden * kInput, 1, 0.8f));
  add_float_const(graph, "R", {d, 3 * kHidden, kHidden}, random_values(d * 3 * kHidden * kHidden, 2, 0.8f));
  add_float_const(graph, "B", {d, 6 * kHidden}, random_values(d * 6 * kHidden, 3, 0.5f));
  NodeDef* gru = add_node(graph, "gru", op, {"input", "W", "R", "B"});
  set_attr_s(gru, "direction", direction);
  if (op == "Z40GRU") {
    set_attr_f(gru, "hidden_size", kHidden);
    return graph;
  }
  set_attr_i(gru, "hidden_size", kHidden);
  set_attr_i(gru, "output_bitwidth", 8);
  set_attr_floats(gru, "DEQSCALE", deqscale);
  set_attr_floats(gru, "QSCALE", qscale);
  set_attr_i(gru, "offset", offset);
  set_attr_i(gru, "maxValue", 20);
  set_attr_i(gru, "minValue", -20);
  return graph;
}

TEST(Int8GruTest, DequantizesRunsTheRecurrenceAndRequantizesExactly) {
  const std::vector<float> deq = {0.05f, 0.1f, 0.02f};
  const std::vector<float> q = {40.0f, 25.0f};
  for (const std::string direction : {"forward", "reverse", "bidirectional"}) {
    std::vector<float> codes(kSeq * kBatch * kInput);
    for (size_t i = 0; i < codes.size(); ++i)
      codes[i] = static_cast<float>(static_cast<int>(i * 37 % 61) - 30);
    std::vector<float> real(codes.size());
    for (size_t i = 0; i < codes.size(); ++i) real[i] = codes[i] * deq[i % kInput];
    Tensor x_codes = make_tensor({kSeq, kBatch, kInput}, codes);
    Tensor x_real = make_tensor({kSeq, kBatch, kInput}, real);
    const std::vector<float> y = run_single_op(gru_model("Z40GRU", direction, {}, {}, 0), x_real, "gru");
    std::vector<int> shape;
    const std::vector<float> got =
        run_single_op(gru_model("Z40GRUInt8", direction, deq, q, 3), x_codes, "gru", &shape);
    ASSERT_EQ(got.size(), y.size());
    EXPECT_EQ(shape.back(), kHidden);
    int clamped = 0;
    for (size_t i = 0; i < y.size(); ++i) {
      float code = std::nearbyint(y[i] * q[i % kHidden]);  // half to even in the default mode
      if (code > 20) code = 20, ++clamped;
      if (code < -20) code = -20, ++clamped;
      EXPECT_EQ(got[i], code + 3) << direction << " element " << i;
    }
    EXPECT_GT(clamped, 0) << "the data should reach the clamp";
  }
}

TEST(Int8GruDeathTest, MessagesAndScaleLengths) {
  Tensor x = make_tensor({kSeq, kBatch, kInput}, std::vector<float>(kSeq * kBatch * kInput, 1.0f));
  GraphDef no_q = gru_model("Z40GRUInt8", "forward", {0.1f}, {1.0f}, 0);
  (*no_q.mutable_node(4)->mutable_attr()).erase("QSCALE");
  EXPECT_CHECK_FAILED(run_single_op(no_q, x, "gru"), "suc", "Do not find the QSCALE in Z40GRUInt8!!!");
  GraphDef no_max = gru_model("Z40GRUInt8", "forward", {0.1f}, {1.0f}, 0);
  (*no_max.mutable_node(4)->mutable_attr()).erase("maxValue");
  EXPECT_CHECK_FAILED(run_single_op(no_max, x, "gru"), "suc", "Do not find the maxValue in Z40GRUInt8!!!");
  EXPECT_CHECK_FAILED(run_single_op(gru_model("Z40GRUInt8", "forward", {0.1f, 0.2f}, {1.0f}, 0), x, "gru"),
                      "values.size() == 1 || values.size() >= channels",
                      "Z40GRUInt8: attribute DEQSCALE has 2 values, needs 1 or 3");
  Tensor scalar;
  EXPECT_CHECK_FAILED(run_single_op(gru_model("Z40GRUInt8", "forward", {0.1f}, {1.0f}, 0), scalar, "gru"),
                      "input_tensor->shape().size() > 0", "The shape of input is 0 in FloatZ40GRU!!!");
}

// Called directly, execute refuses an x other than the one shapes were inferred for.
TEST(Int8GruDeathTest, ExecuteOnAnotherXThanPrepared) {
  GraphDef graph = gru_model("Z40GRUInt8", "forward", {0.1f}, {1.0f}, 0);
  auto op = make_op("Z40GRUInt8");
  op->parse_parameter(graph.node(4));
  auto weight = [&](int k) {
    std::vector<int> shape;
    for (const auto& d : graph.node(k).attr().at("value").tensor().tensor_shape().dim())
      shape.push_back(d.size());
    int n = 1;
    for (int d : shape) n *= d;
    return make_tensor(shape, random_values(n, k, 0.5f));
  };
  Tensor w = weight(1), r = weight(2), b = weight(3);
  Tensor x = make_tensor({kSeq, kBatch, kInput}, std::vector<float>(kSeq * kBatch * kInput, 1.0f), "x");
  Tensor longer =
      make_tensor({kSeq + 1, kBatch, kInput}, std::vector<float>((kSeq + 1) * kBatch * kInput, 1.0f), "x");
  std::vector<int> shape;
  op->inference_shape({&x, &w, &r, &b}, shape);
  Tensor out = make_tensor(shape, std::vector<float>(shape[0] * shape[1] * shape[2] * shape[3], 0.0f), "gru");
  op->execute({&x, &w, &r, &b}, &out);
  EXPECT_CHECK_FAILED(op->execute({&longer, &w, &r, &b}, &out), "input->shape() == prepared",
                      "Z40GRUInt8: x has shape [4, 2, 3] but was prepared for [3, 2, 3]");
}

}  // namespace
}  // namespace kovra_test
