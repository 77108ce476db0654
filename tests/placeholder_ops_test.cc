#include <gtest/gtest.h>

#include "op_executor.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::Holder;
using kovra::trenkit::kovraexecutor::OpExecutor;

const char* const kPlaceholders[] = {
    "Z40QuantizeAdd", "Z40QuantizeConv2D", "Z40QuantizeDepthwiseConv2dNative",
    "Z40QuantizeMatMul", "Z40QuantizeUnpool2D", "ZxxConcat", "ZxxConst", "ZxxFlatten",
    "ZxxMaxPool", "ZxxNOp", "ZxxQuantizeAdd", "ZxxQuantizeConv2D",
    "ZxxQuantizeDepthwiseConv2dNative", "ZxxQuantizeMatMul", "ZxxUnpool2D"};

class PlaceholderOpTest : public ::testing::TestWithParam<const char*> {};

TEST_P(PlaceholderOpTest, DoesNothingAtAll) {
  auto creator = Holder::new_op_creator().at(GetParam());
  ASSERT_NE(creator, nullptr);
  std::unique_ptr<OpExecutor> op(creator());
  // Malformed attributes are not even looked at.
  NodeDef node = parse_text_node(R"(name: "p" attr { key: "strides" value { s: "junk" } })");
  op->parse_parameter(node);
  Tensor input = make_tensor({1, 2}, {1.5f, -2.0f});
  std::vector<int> shape = {7, 7};
  op->inference_shape({&input}, shape);
  EXPECT_EQ(shape, (std::vector<int>{7, 7}));
  Tensor output = make_tensor({2}, {3.0f, 4.0f});
  op->execute({&input}, &output);
  EXPECT_EQ(tensor_values(output), (std::vector<float>{3.0f, 4.0f}));
}

INSTANTIATE_TEST_SUITE_P(AllPlaceholders, PlaceholderOpTest, ::testing::ValuesIn(kPlaceholders));

TEST(PlaceholderGraphTest, QuantizationAwareGraphLoadsAndRuns) {
  GraphDef graph = parse_text_graph(R"(
    node { name: "input" op: "ZxxNOp" }
    node { name: "w" op: "Const" attr { key: "value" value { tensor {
      dtype: DT_FLOAT tensor_shape { dim { size: 1 } } tensor_content: "\000\000\200?" } } } }
    node { name: "qconv" op: "Z40QuantizeConv2D" input: "input" input: "w"
           attr { key: "padding" value { i: 3 } } attr { key: "output_bitwidth" value { i: 8 } } }
    node { name: "konst" op: "ZxxConst" input: "qconv" }
  )");
  Tensor input = make_tensor({1, 1, 1, 1}, {2.0f});
  kovra::trenkit::kovraexecutor::GraphExecutor executor(&graph, kovra::trenkit::kovraexecutor::CPU);
  executor.set_input("input", &input);
  executor.work({}, "");
  EXPECT_EQ(executor.get_output_names(), std::vector<std::string>{"konst"});
  // The placeholder never shaped or wrote its output.
  EXPECT_TRUE(executor.get_output_tensor("konst")->shape().empty());
  EXPECT_EQ(executor.get_output_tensor("konst")->get_ptr(), nullptr);
}

}  // namespace
}  // namespace kovra_test
