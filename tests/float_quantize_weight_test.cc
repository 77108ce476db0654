#include <cmath>

#include <gtest/gtest.h>

#include "support/single_op_runner.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::GraphExecutor;

std::string attrs(int bits, bool soft, bool depthwise = false, bool update = false) {
  return "attr { key: \"weight_bitwidth\" value { f: " + std::to_string(bits) + " } } " +
         "attr { key: \"soft_targets\" value { b: " + (soft ? "true" : "false") + " } } " +
         "attr { key: \"is_depthwise\" value { b: " + (depthwise ? "true" : "false") + " } } " +
         "attr { key: \"update_parameter\" value { b: " + (update ? "true" : "false") + " } }";
}

void expect_near(const std::vector<float>& actual, const std::vector<float>& expected, float tol) {
  ASSERT_EQ(actual.size(), expected.size());
  for (size_t i = 0; i < actual.size(); ++i) EXPECT_NEAR(actual[i], expected[i], tol) << "element " << i;
}

// Worked by hand. Steps are max|w| per channel / (2^(bits-1) - 1); codes are
// floor(w / step) + h(v) clamped to [-2^(bits-1), 2^(bits-1) - 1]; with the
// default gamma -0.1 and zeta 1.1, h(0) = 0.5 and h(+-5) rounds to 1 / 0.
struct RoundingCase {
  const char* label;
  std::string attrs;
  std::vector<int> shape;
  std::vector<float> weight;
  std::vector<float> rounding;
  std::vector<float> expected;
};

class AdaRoundTest : public ::testing::TestWithParam<RoundingCase> {};

TEST_P(AdaRoundTest, MatchesHandValues) {
  const RoundingCase& c = GetParam();
  Tensor w = make_tensor(c.shape, c.weight, "w");
  Tensor v = make_tensor(c.shape, c.rounding, "v");
  SingleOpRunner runner("Z40AdaRoundQuantizeWeight", node_with_attrs(c.attrs));
  std::vector<int> shape;
  expect_near(runner.run({&w, &v}, &shape), c.expected, 1e-6f);
  EXPECT_EQ(shape, c.shape);
}

INSTANTIATE_TEST_SUITE_P(
    Rounding, AdaRoundTest,
    ::testing::Values(
        // 3 bits: codes -4..3; channel 0 step 1, channel 1 step 0.5. 3 + 1 clamps to 3.
        RoundingCase{"hard", attrs(3, false), {2, 2}, {3.0f, -1.5f, -2.4f, 0.7f}, {5, 5, -5, -5}, {3, -1, -3, 0.5f}},
        RoundingCase{"soft_half", attrs(3, true), {2, 2}, {3.0f, -1.5f, -2.4f, 0.7f}, {0, 0, 0, 0}, {3, -1.25f, -2.5f, 0.75f}},
        // far negative v: the rectified sigmoid clamps to 0 even when soft
        RoundingCase{"soft_saturated", attrs(3, true), {2, 2}, {3.0f, -1.5f, -2.4f, 0.7f}, {-20, 20, -20, 20}, {3, -1, -3, 1}},
        // 2 bits: codes -2..1. Depthwise [1,1,C=2,M=2]: channels are element pairs (steps 1 and 4).
        RoundingCase{"depthwise_channels", attrs(2, false, true), {1, 1, 2, 2}, {1, -0.5f, 2, 4}, {-5, -5, -5, -5}, {1, -1, 0, 4}},
        // the same weights per output channel (steps 2 and 4)
        RoundingCase{"output_channels", attrs(2, false), {1, 1, 2, 2}, {1, -0.5f, 2, 4}, {-5, -5, -5, -5}, {0, -4, 2, 4}},
        // an all-zero channel has no step and stays 0; channel 1 (step 1) rounds up: 1 + 1 clamps to 1, -1 + 1 = 0
        RoundingCase{"zero_channel", attrs(2, false), {2, 2}, {0, 1, 0, -1}, {5, 5, 5, 5}, {0, 1, 0, 0}},
        // gamma 0, zeta 1: h(ln 3) = sigmoid(ln 3) = 0.75 (the defaults would give 0.8). One channel,
        // step 0.25: codes 3 + 0.75 (clamps to 3) and 1 + 0.75.
        RoundingCase{"custom_gamma_zeta",
                     attrs(3, true) + R"( attr { key: "gamma" value { f: 0 } } attr { key: "zeta" value { f: 1 } })",
                     {2, 1}, {0.75f, 0.25f}, {std::log(3.0f), std::log(3.0f)}, {0.75f, 0.4375f}}),
    [](const ::testing::TestParamInfo<RoundingCase>& info) { return std::string(info.param.label); });

TEST(AdaRoundTest, BackwardFollowsTheRectifiedSigmoid) {
  // Soft, v = 0: dh/dv = (zeta - gamma) * 0.25 = 0.3. Element 0 is clamped (3.5 > 3): no gradient.
  Tensor w = make_tensor({2, 2}, {3.0f, -1.5f, -2.4f, 0.7f}, "w");
  Tensor v = make_tensor({2, 2}, {0, 0, 0, 0}, "v");
  Tensor g = make_tensor({2, 2}, {1, 2, 3, 4}, "g");
  SingleOpRunner update("Z40AdaRoundQuantizeWeight", node_with_attrs(attrs(3, true, false, true)));
  Tensor wg, vg;
  std::vector<Tensor*> grads = {&wg, &vg};
  update.op()->backward({&w, &v}, nullptr, &g, grads);
  expect_near(tensor_values(wg), {0, 2, 3, 4}, 1e-6f);
  expect_near(tensor_values(vg), {0, 2 * 0.5f * 0.3f, 3 * 1.0f * 0.3f, 4 * 0.5f * 0.3f}, 1e-6f);
  SingleOpRunner frozen("Z40AdaRoundQuantizeWeight", node_with_attrs(attrs(3, true)));
  frozen.op()->backward({&w, &v}, nullptr, &g, grads);
  expect_near(tensor_values(vg), {0, 0, 0, 0}, 0.0f);
}

GraphDef rounded_weight_graph() {
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  add_float_const(graph, "w", {1, 1, 1, 2}, {3.0f, -1.5f});
  add_float_const(graph, "v", {1, 1, 1, 2}, {5, 5});
  NodeDef* q = add_node(graph, "qw", "Z40AdaRoundQuantizeWeight", {"w", "v"});
  set_attr_f(q, "weight_bitwidth", 3);
  set_attr_i(q, "output_bitwidth", 32);  // every quantizing node of a model states it
  add_node(graph, "cat", "Z40Concat", {"input", "qw"});
  return graph;
}

// steps 1 (channel 0) and 0.5 (channel 1): codes 3 + 1 -> 3 and -3 + 1 = -2, whether the
// reader is reached from the input or is itself the start node
TEST(AdaRoundGraphTest, RoundedWeightIsComputedForItsReader) {
  GraphDef graph = rounded_weight_graph();
  Tensor input = make_tensor({1, 1, 1, 1}, {7});
  std::vector<int> shape;
  EXPECT_EQ(run_single_op(graph, input, "cat", &shape), (std::vector<float>{7, 3, -1}));
  EXPECT_EQ(shape, (std::vector<int>{1, 1, 1, 3}));
  GraphExecutor executor(&graph, CPU);
  executor.set_input("input", &input);
  executor.work({"cat"}, "cat");
  EXPECT_EQ(tensor_values(*executor.get_output_tensor("cat")), (std::vector<float>{7, 3, -1}));
}

TEST(AdaRoundFatalTest, BackwardRefusesMismatchedGradient) {
  Tensor w = make_tensor({2}, {1, 2}, "w");
  Tensor v = make_tensor({2}, {0, 0}, "v");
  Tensor g = make_tensor({1}, {1}, "g");
  SingleOpRunner runner("Z40AdaRoundQuantizeWeight", node_with_attrs(attrs(8, true)));
  std::vector<Tensor*> grads;
  EXPECT_CHECK_FAILED(runner.op()->backward({&w, &v}, nullptr, &g, grads), "output_grad->size() == weight->size()",
                      "Z40QuantizeWeight: the output gradient does not match the weight [2]");
}

}  // namespace
}  // namespace kovra_test
