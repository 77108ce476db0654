#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "op_executor.h"
#include "ops/kernels/avx_common.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::force_isa;
using kovra::trenkit::kovraexecutor::Holder;
using kovra::trenkit::kovraexecutor::isa_name;
using kovra::trenkit::kovraexecutor::KernelIsa;
using kovra::trenkit::kovraexecutor::OpExecutor;
using kovra::trenkit::kovraexecutor::reset_isa;

std::vector<float> random_values(size_t n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<float> v(n);
  for (float& x : v) x = dist(rng);
  return v;
}

struct MatMulCase {
  std::string label;
  std::vector<int> a_shape;
  int K, N;
  std::string action;
  std::vector<std::pair<std::string, float>> float_attrs;
  bool bias = true;
};

// The activation table of the product, with its integer clamp bounds.
double act(double y, const MatMulCase& m) {
  double alpha = 1.0, hi = 1.0, lo = 0.0;
  for (const auto& kv : m.float_attrs) {
    if (kv.first == "alpha") alpha = kv.second;
    if (kv.first == "clip_max_value") hi = std::trunc(kv.second);
    if (kv.first == "clip_min_value") lo = std::trunc(kv.second);
  }
  if (m.action == "Relu") return y > 0 ? y : 0;
  if (m.action == "Relu6") return y > 0 ? std::min(y, 6.0) : 0;
  if (m.action == "LeakyRelu") return std::max(y, y * alpha);
  if (m.action == "Hsigmoid" || m.action == "Linear") return std::min(hi, std::max(lo, y));
  return y;
}

GraphDef matmul_graph(const MatMulCase& m, const std::vector<float>& b, const std::vector<float>& bias) {
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  add_float_const(graph, "w", {m.K, m.N}, b);
  std::vector<std::string> inputs = {"input", "w"};
  if (m.bias) {
    add_float_const(graph, "b", {m.N}, bias);
    inputs.push_back("b");
  }
  NodeDef* node = add_node(graph, "mm", "Z40MatMul", inputs);
  if (!m.action.empty()) set_attr_s(node, "ActionType", m.action);
  for (const auto& kv : m.float_attrs) set_attr_f(node, kv.first, kv.second);
  return graph;
}

class MatMulTest : public ::testing::TestWithParam<std::tuple<MatMulCase, KernelIsa>> {
 protected:
  void TearDown() override { reset_isa(); }
};

TEST_P(MatMulTest, MatchesPlainLoop) {
  const MatMulCase& m = std::get<0>(GetParam());
  const KernelIsa isa = std::get<1>(GetParam());
  if (!force_isa(isa)) GTEST_SKIP() << "the processor lacks " << isa_name(isa);
  const int M = m.a_shape[0];
  size_t a_count = 1;
  for (int d : m.a_shape) a_count *= d;
  const std::vector<float> a = random_values(a_count, 3), b = random_values(static_cast<size_t>(m.K) * m.N, 4),
                           bias = random_values(m.N, 5);
  const GraphDef graph = matmul_graph(m, b, bias);
  Tensor input = make_tensor(m.a_shape, a);
  std::vector<int> shape;
  const std::vector<float> got = run_single_op(graph, input, "mm", &shape);
  EXPECT_EQ(shape, (std::vector<int>{M, m.N}));
  ASSERT_EQ(got.size(), static_cast<size_t>(M) * m.N);
  for (int r = 0; r < M; ++r)
    for (int n = 0; n < m.N; ++n) {
      double sum = 0, mag = 0;
      for (int k = 0; k < m.K; ++k) {
        sum += static_cast<double>(a[static_cast<size_t>(r) * m.K + k]) * b[static_cast<size_t>(k) * m.N + n];
        mag += std::fabs(a[static_cast<size_t>(r) * m.K + k] * b[static_cast<size_t>(k) * m.N + n]);
      }
      const double want = act(sum + (m.bias ? bias[n] : 0.0), m);
      ASSERT_NEAR(got[static_cast<size_t>(r) * m.N + n], want, 2e-6 * (mag + 2.0)) << m.label << " " << r << "," << n;
    }
  // The two vector paths sum every output in the same order.
  if (isa == KernelIsa::kAvx2 && force_isa(KernelIsa::kAvx512)) {
    const std::vector<float> wide = run_single_op(graph, input, "mm");
    EXPECT_EQ(0, std::memcmp(got.data(), wide.data(), got.size() * sizeof(float))) << m.label;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MatMulTest,
    ::testing::Combine(::testing::Values(MatMulCase{"rank2", {5, 7}, 7, 3, "", {}},
                      MatMulCase{"rank4", {2, 1, 1, 8}, 8, 3, "", {}},
                      MatMulCase{"single_row_wide", {1, 300}, 300, 1000, "", {}},
                      MatMulCase{"blocks_and_tails", {19, 300}, 300, 70, "Relu", {}},
                      MatMulCase{"no_bias", {3, 9}, 9, 33, "", {}, false},
                      MatMulCase{"relu6", {9, 16}, 16, 17, "Relu6", {{"alpha", 0.5f}}},
                      MatMulCase{"leaky_max", {4, 5}, 5, 6, "LeakyRelu", {{"alpha", 2.0f}}},
                      MatMulCase{"leaky_small_alpha", {4, 5}, 5, 6, "LeakyRelu", {{"alpha", 0.1f}}},
                      MatMulCase{"hsigmoid_default_clamp", {4, 12}, 12, 6, "Hsigmoid", {}},
                      MatMulCase{"linear_truncated_bounds", {4, 12}, 12, 6, "Linear",
                                 {{"clip_max_value", 1.7f}, {"clip_min_value", -0.9f}}},
                      MatMulCase{"unknown_action", {2, 4}, 4, 5, "Swish", {}}),
                       ::testing::Values(KernelIsa::kPortable, KernelIsa::kAvx2, KernelIsa::kAvx512)),
    [](const auto& info) { return std::get<0>(info.param).label + "_" + isa_name(std::get<1>(info.param)); });

std::vector<float> run_matmul(const std::string& text_attrs, const std::vector<float>& a, std::vector<int> a_shape,
                              const std::vector<float>& b, int K, int N, const std::vector<float>* bias) {
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  add_float_const(graph, "w", {K, N}, b);
  std::vector<std::string> inputs = {"input", "w"};
  if (bias != nullptr) {
    add_float_const(graph, "b", {static_cast<int>(bias->size())}, *bias);
    inputs.push_back("b");
  }
  NodeDef* node = add_node(graph, "mm", "Z40MatMul", inputs);
  NodeDef attrs = parse_text_node(text_attrs);
  node->mutable_attr()->insert(attrs.attr().begin(), attrs.attr().end());
  Tensor input = make_tensor(a_shape, a);
  return run_single_op(graph, input, "mm");
}

TEST(MatMulHandTest, ActivationFormsOnHandWorkedValues) {
  // Identity weight: y = x + bias.
  const std::vector<float> x = {3, -3};
  const std::vector<float> eye = {1, 0, 0, 1};
  EXPECT_EQ(run_matmul(R"(attr { key: "ActionType" value { s: "LeakyRelu" } }
                          attr { key: "alpha" value { f: 2 } })", x, {1, 2}, eye, 2, 2, nullptr),
            (std::vector<float>{6, -3}));
  const std::vector<float> big = {7.5f, -0.5f};
  EXPECT_EQ(run_matmul(R"(attr { key: "ActionType" value { s: "Hsigmoid" } })", big, {1, 2}, eye, 2, 2, nullptr),
            (std::vector<float>{1, 0}));
  EXPECT_EQ(run_matmul(R"(attr { key: "ActionType" value { s: "Hsigmoid" } }
                          attr { key: "clip_max_value" value { f: 6.7 } })", big, {1, 2}, eye, 2, 2, nullptr),
            (std::vector<float>{6, 0}));
  // An explicit zero bias equals no bias.
  const std::vector<float> zero = {0, 0};
  const std::vector<float> a = {0.25f, 1.5f, -2.0f, 4.0f};
  const std::vector<float> w = {1.5f, -0.5f, 2.0f, 0.75f};
  EXPECT_EQ(run_matmul("", a, {2, 2}, w, 2, 2, &zero), run_matmul("", a, {2, 2}, w, 2, 2, nullptr));
  EXPECT_EQ(run_matmul("", a, {2, 2}, w, 2, 2, nullptr), (std::vector<float>{3.375f, 1.0f, 5.0f, 4.0f}));
}

TEST(MatMulGradientTest, MatchesNumericDifferences) {
  for (const char* action : {"", "Relu", "LeakyRelu"}) {
    const int M = 3, K = 4, N = 5;
    std::vector<float> a = random_values(M * K, 31), b = random_values(K * N, 32), bias = random_values(N, 33);
    const std::vector<float> seed = random_values(M * N, 34);
    std::unique_ptr<OpExecutor> op(Holder::new_op_creator().at("Z40MatMul")());
    NodeDef node;
    set_attr_s(&node, "ActionType", action);
    set_attr_f(&node, "alpha", 0.3f);
    op->parse_parameter(node);
    auto forward = [&](const std::vector<float>& x, const std::vector<float>& w, const std::vector<float>& c) {
      Tensor ta = make_tensor({M, K}, x), tb = make_tensor({K, N}, w), tc = make_tensor({N}, c);
      std::vector<int> shape;
      op->inference_shape({&ta, &tb, &tc}, shape);
      Tensor out = make_tensor(shape, std::vector<float>(M * N));
      op->execute({&ta, &tb, &tc}, &out);
      return tensor_values(out);
    };
    auto loss = [&](const std::vector<float>& x, const std::vector<float>& w, const std::vector<float>& c) {
      const std::vector<float> y = forward(x, w, c);
      double s = 0;
      for (size_t i = 0; i < y.size(); ++i) s += static_cast<double>(y[i]) * seed[i];
      return s;
    };
    Tensor ta = make_tensor({M, K}, a), tb = make_tensor({K, N}, b), tc = make_tensor({N}, bias);
    Tensor out = make_tensor({M, N}, forward(a, b, bias)), dy = make_tensor({M, N}, seed);
    Tensor da, db, dc;
    std::vector<Tensor*> grads = {&da, &db, &dc};
    op->backward({&ta, &tb, &tc}, &out, &dy, grads);
    const float h = 1e-2f;
    std::vector<std::vector<float>*> params = {&a, &b, &bias};
    std::vector<std::vector<float>> analytic = {tensor_values(da), tensor_values(db), tensor_values(dc)};
    for (int which = 0; which < 3; ++which) {
      std::vector<float>& v = *params[which];
      ASSERT_EQ(analytic[which].size(), v.size());
      for (size_t i = 0; i < v.size(); ++i) {
        const float keep = v[i];
        v[i] = keep + h;
        const double up = loss(a, b, bias);
        v[i] = keep - h;
        const double down = loss(a, b, bias);
        v[i] = keep;
        EXPECT_NEAR(analytic[which][i], (up - down) / (2 * h), 5e-3) << action << " param " << which << " " << i;
      }
    }
  }
}

TEST(LinearTest, ClipsWithUpperBoundFirst) {
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  add_node(graph, "lin", "Z40Linear", {"input"});
  Tensor input = make_tensor({1, 2, 2, 1}, {7.5f, -9.0f, 2.5f, -6.0f});
  std::vector<int> shape;
  EXPECT_EQ(run_single_op(graph, input, "lin", &shape), (std::vector<float>{6, -6, 2.5f, -6}));
  EXPECT_EQ(shape, (std::vector<int>{1, 2, 2, 1}));
  // Bounds crossed: the lower bound wins everywhere.
  set_attr_f(graph.mutable_node(1), "clip_min_value", 3.0f);
  set_attr_f(graph.mutable_node(1), "clip_max_value", 1.0f);
  EXPECT_EQ(run_single_op(graph, input, "lin"), (std::vector<float>{3, 3, 3, 3}));
}

// ---- failures ----

TEST(MatMulFailureTest, AbortsWithItsMessage) {
  auto ones = [](size_t n) { return std::vector<float>(n, 1.0f); };
  const std::vector<float> short_bias(2, 0.0f);
  EXPECT_CHECK_FAILED(run_matmul("", ones(8), {2, 4}, ones(6), 3, 2, nullptr), "weight_rows == input_features",
                      "FloatZ40MatMul: weight rows 3 != input features 4");
  EXPECT_CHECK_ERROR(run_matmul("", ones(16), {2, 2, 4}, ones(8), 4, 2, nullptr),
                     "input_tensor->shape().size() == 2 || == 4",
                     "FloatZ40MatMul: input must be [M, K] or [M, 1, 1, K]");
  EXPECT_CHECK_ERROR(run_matmul("", ones(8), {2, 4}, ones(12), 4, 3, &short_bias), "tensor->size() >= 3",
                     "FloatZ40MatMul: b has 2 elements, needs 3");

  std::unique_ptr<OpExecutor> op(Holder::new_op_creator().at("Z40MatMul")());
  Tensor scalar;
  Tensor a = make_tensor({2, 4}, std::vector<float>(8, 1.0f));
  Tensor w3 = make_tensor({4, 2, 1}, std::vector<float>(8, 1.0f));
  std::vector<int> shape;
  EXPECT_CHECK_ERROR(op->inference_shape({&scalar}, shape), "input_tensor->shape().size() > 0",
                     "The shape of input is 0 in FloatZ40MatMul!!!");
  EXPECT_CHECK_ERROR(op->inference_shape({&a}, shape), "inputs.size() >= 2",
                     "FloatZ40MatMul needs 2 inputs but has 1");
  EXPECT_CHECK_ERROR(op->inference_shape({&a, &w3}, shape), "weight->shape().size() == 2",
                     "FloatZ40MatMul: weight must be [K, N]");
  float buffer[4] = {};
  Tensor empty({0, 4}, Tensor::DT_FLOAT, buffer, "cpu");
  Tensor w = make_tensor({4, 2}, std::vector<float>(8, 1.0f));
  EXPECT_CHECK_ERROR(op->inference_shape({&empty, &w}, shape), "M > 0 && K > 0 && N > 0",
                     "FloatZ40MatMul: empty input or weight");
  // Borrowed buffers: only the shapes are looked at.
  Tensor tall({1 << 16, 1}, Tensor::DT_FLOAT, buffer, "cpu");
  Tensor wide({1, 1 << 16}, Tensor::DT_FLOAT, buffer, "cpu");
  EXPECT_CHECK_ERROR(op->inference_shape({&tall, &wide}, shape), "output_size <= INT_MAX",
                     "FloatZ40MatMul: output too large");
  Tensor hollow({2, 0, 1, 4}, Tensor::DT_FLOAT, buffer, "cpu");
  EXPECT_CHECK_ERROR(op->inference_shape({&hollow, &w}, shape), "tensor->size() >= 8",
                     "FloatZ40MatMul:  has 0 elements, needs 8");
  Tensor small = make_tensor({1, 3}, {0, 0, 0}, "y");
  EXPECT_CHECK_ERROR(op->execute({&a, &w}, &small), "tensor->size() >= 4",
                     "FloatZ40MatMul: y has 3 elements, needs 4");
  Tensor dw;
  std::vector<Tensor*> two = {nullptr, &dw};
  Tensor out = make_tensor({2, 2}, {0, 0, 0, 0}, "y");
  EXPECT_CHECK_ERROR(op->backward({&a, &w}, &out, &small, two), "tensor->size() >= 4",
                     "FloatZ40MatMul: y has 3 elements, needs 4");
  EXPECT_CHECK_ERROR(op->backward({&a, &w}, &small, &out, two), "tensor->size() >= 4",
                     "FloatZ40MatMul: y has 3 elements, needs 4");
  Tensor ints({2, 4}, Tensor::DT_INT32, buffer, "cpu");
  ints.set_name("q");
  std::unique_ptr<OpExecutor> fresh(Holder::new_op_creator().at("Z40MatMul")());
  EXPECT_CHECK_ERROR(fresh->inference_shape({&ints, &w}, shape), "tensor->data_type() == DT_FLOAT",
                     "FloatZ40MatMul reads q as float but it holds type 3");
  std::vector<Tensor*> grads = {nullptr};
  EXPECT_CHECK_ERROR(op->backward({}, nullptr, nullptr, grads), "weight_gradient != NULL",
                     "Please set matmul weight grad tesnor.");
}

TEST(LinearFailureTest, RankZeroInput) {
  std::unique_ptr<OpExecutor> op(Holder::new_op_creator().at("Z40Linear")());
  Tensor scalar;
  std::vector<int> shape;
  EXPECT_CHECK_ERROR(op->inference_shape({&scalar}, shape), "input_tensor->shape().size() > 0",
                     "The shape of input is 0 in FloatZ40Linear!!!");
  Tensor x = make_tensor({2, 2}, {1, 2, 3, 4}, "x");
  Tensor small = make_tensor({3}, {0, 0, 0}, "y");
  EXPECT_CHECK_ERROR(op->execute({&x}, &small), "tensor->size() >= 4",
                     "FloatZ40Linear: y has 3 elements, needs 4");
  int buffer[4] = {};
  Tensor ints({4}, Tensor::DT_INT32, buffer, "cpu");
  ints.set_name("q");
  EXPECT_CHECK_ERROR(op->execute({&ints}, &small), "tensor->data_type() == DT_FLOAT",
                     "FloatZ40Linear reads q as float but it holds type 3");
}

}  // namespace
}  // namespace kovra_test
