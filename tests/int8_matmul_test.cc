#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "graph_executor.h"
#include "ops/kernels/avx_common.h"
#include "ops/kernels/int8_dot_path.h"
#include "support/int8_reference.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

namespace kx = kovra::trenkit::kovraexecutor;

struct MatMulCase {
  std::string name;
  int m = 5, k = 37, n = 19;
  bool rank4 = false;
  bool bias = true;
  int code_lo = -128, code_hi = 127;
  int weight_lo = -128, weight_hi = 127;
  std::string action = "None";
  bool bits32 = false;
};

GraphDef matmul_graph(const MatMulCase& c, const std::vector<float>& w, const std::vector<float>& b,
                      const Int8Stage& s) {
  GraphDef g;
  add_node(g, "input", "ZxxNOp");
  add_float_const(g, "w", {c.k, c.n}, w);
  std::vector<std::string> inputs = {"input", "w"};
  if (c.bias) {
    add_float_const(g, "b", {c.n}, b);
    inputs.push_back("b");
  }
  NodeDef* node = add_node(g, "mm", "Z40MatMulInt8", inputs);
  set_attr_s(node, "ActionType", s.action);
  set_attr_floats(node, "OUTPUTSCALE", s.output_scale);
  if (!s.sum_scale.empty()) {
    set_attr_floats(node, "SUMSCALE", s.sum_scale);
    set_attr_floats(node, "QSCALE", s.q_scale);
  }
  set_attr_i(node, "maxValue", s.hi);
  set_attr_i(node, "minValue", s.lo);
  set_attr_ints(node, "multify_factor", {s.m});
  set_attr_i(node, "output_bitwidth", s.bits32 ? 32 : 8);
  return g;
}

// The float kernels (integer path off) and each instruction set's integer
// kernels; paths the processor lacks are reported skipped.
struct PathRun {
  const char* name;
  bool integer;
  kx::KernelIsa isa;
};
const PathRun kPaths[] = {{"float", false, kx::KernelIsa::kAvx512Vnni},
                          {"portable", true, kx::KernelIsa::kPortable},
                          {"avx2", true, kx::KernelIsa::kAvx2},
                          {"avx512", true, kx::KernelIsa::kAvx512},
                          {"vnni", true, kx::KernelIsa::kAvx512Vnni}};

class Int8MatMulTest : public ::testing::TestWithParam<std::tuple<MatMulCase, PathRun>> {
 protected:
  void TearDown() override {
    kx::reset_isa();
    kx::set_int8_integer_path_enabled(true);
  }
};

TEST_P(Int8MatMulTest, MatchesReference) {
  const MatMulCase& c = std::get<0>(GetParam());
  const PathRun& run = std::get<1>(GetParam());
  if (!kx::force_isa(run.isa)) GTEST_SKIP() << "the processor lacks " << kx::isa_name(run.isa);
  kx::set_int8_integer_path_enabled(run.integer);
  std::mt19937 rng(99);
  std::uniform_int_distribution<int> code(c.code_lo, c.code_hi), wcode(c.weight_lo, c.weight_hi);
  std::vector<float> x(c.m * c.k), w(c.k * c.n), b(c.n, 0.0f);
  for (float& v : x) v = code(rng);
  for (float& v : w) v = wcode(rng);
  if (c.bias) {
    for (float& v : b) v = code(rng) * 1.5f;
  }
  Int8Stage s;
  s.action = c.action;
  s.bits32 = c.bits32;
  s.m = 1;
  const bool split = c.action == "LeakyRelu";
  for (int i = 0; i < (split ? 2 : 1) * c.n; ++i) s.output_scale.push_back(1.0f / (3000 + 17 * i));
  if (c.action == "Sigmoid") {
    for (int i = 0; i < c.n; ++i) {
      s.sum_scale.push_back(1.0f / (9000 + i));
      s.q_scale.push_back(100.0f);
    }
  }
  std::vector<float> expected(c.m * c.n);
  for (int r = 0; r < c.m; ++r)
    for (int j = 0; j < c.n; ++j) {
      float sum = 0.0f;
      for (int i = 0; i < c.k; ++i) sum += x[r * c.k + i] * w[i * c.n + j];
      expected[r * c.n + j] = ref_output(s, sum, b[j], j, c.n);
    }
  const GraphDef g = matmul_graph(c, w, b, s);
  const Tensor input = c.rank4 ? make_tensor({c.m, 1, 1, c.k}, x) : make_tensor({c.m, c.k}, x);
  std::vector<int> shape;
  EXPECT_EQ(run_single_op(g, input, "mm", &shape), expected);
  EXPECT_EQ(shape, (std::vector<int>{c.m, c.n}));
}

std::vector<MatMulCase> matmul_cases() {
  std::vector<MatMulCase> cases;
  MatMulCase base;
  { MatMulCase c = base; c.name = "signed"; cases.push_back(c); }
  { MatMulCase c = base; c.name = "unsigned_rank4_no_bias"; c.code_lo = 0; c.code_hi = 255;
    c.rank4 = true; c.bias = false; cases.push_back(c); }
  { MatMulCase c = base; c.name = "leaky_wide"; c.m = 13; c.k = 130; c.n = 70; c.action = "LeakyRelu";
    cases.push_back(c); }
  { MatMulCase c = base; c.name = "sigmoid"; c.action = "Sigmoid"; cases.push_back(c); }
  { MatMulCase c = base; c.name = "bits32_relu"; c.action = "Relu"; c.bits32 = true; cases.push_back(c); }
  // Large codes over a long row: beyond the exact bound, float order matters.
  { MatMulCase c = base; c.name = "beyond_bound"; c.k = 2000; c.code_lo = 100; c.code_hi = 255;
    c.weight_lo = 50; c.weight_hi = 127; cases.push_back(c); }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Cases, Int8MatMulTest,
                         ::testing::Combine(::testing::ValuesIn(matmul_cases()), ::testing::ValuesIn(kPaths)),
                         [](const auto& info) {
                           return std::get<0>(info.param).name + "_" + std::get<1>(info.param).name;
                         });

TEST(Int8MatMulDeathTest, MissingAttributesKeepTheirTwoBlanks) {
  MatMulCase c;
  Int8Stage s;
  s.output_scale.assign(c.n, 1.0f);
  GraphDef g = matmul_graph(c, std::vector<float>(c.k * c.n, 1.0f), std::vector<float>(c.n, 0.0f), s);
  const Tensor input = make_tensor({c.m, c.k}, std::vector<float>(c.m * c.k, 1.0f));
  for (const char* key : {"OUTPUTSCALE", "maxValue", "minValue"}) {
    GraphDef missing = g;
    missing.mutable_node(3)->mutable_attr()->erase(key);
    EXPECT_CHECK_FAILED(run_single_op(missing, input, "mm"), "suc",
                        std::string("Do not find the ") + key + " in  Z40MatMulInt8!!!");
  }
}

TEST(Int8MatMulDeathTest, ShapeErrors) {
  MatMulCase c;
  Int8Stage s;
  s.output_scale.assign(c.n - 1, 1.0f);
  const GraphDef g =
      matmul_graph(c, std::vector<float>(c.k * c.n, 1.0f), std::vector<float>(c.n, 0.0f), s);
  const Tensor input = make_tensor({c.m, c.k}, std::vector<float>(c.m * c.k, 1.0f));
  EXPECT_CHECK_FAILED(run_single_op(g, input, "mm"), "values.size() >= 19",
                      "Z40MatMulInt8: attribute OUTPUTSCALE has 18 values, needs 19");
  s.output_scale.assign(c.n, 1.0f);
  const GraphDef ok =
      matmul_graph(c, std::vector<float>(c.k * c.n, 1.0f), std::vector<float>(c.n, 0.0f), s);
  const Tensor short_rows = make_tensor({c.m, c.k - 1}, std::vector<float>(c.m * (c.k - 1), 1.0f));
  EXPECT_CHECK_FAILED(run_single_op(ok, short_rows, "mm"), "weight->shape()[0] == depth",
                      "Z40MatMulInt8: weights have 37 rows, the input has depth 36");
  const Tensor odd = make_tensor({c.m, 2, 1, c.k}, std::vector<float>(c.m * 2 * c.k, 1.0f));
  EXPECT_CHECK_FAILED(run_single_op(ok, odd, "mm"), "a->size() == rows * depth",
                      "Z40MatMulInt8: input of 370 values is not 5 rows of 37");
  GraphDef wrong_w = ok;
  wrong_w.mutable_node(1)->mutable_attr()->at("value").mutable_tensor()->mutable_tensor_shape()->add_dim()->set_size(1);
  EXPECT_CHECK_FAILED(run_single_op(wrong_w, input, "mm"), "weight->shape().size() == 2",
                      "Wrong weight shape in Z40MatMulInt8!!!");
}

}  // namespace
}  // namespace kovra_test
