#include <gtest/gtest.h>

#include "node.h"
#include "support/test_ops.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

// Infers the shape it is given, to reach the output-shape check.
class TestFixedShapeOpExecutor : public TestSumOpExecutor {
 public:
  void inference_shape(const std::vector<const Tensor*>&, std::vector<int>& shape) override { shape = shape_; }
  static std::vector<int> shape_;
};
std::vector<int> TestFixedShapeOpExecutor::shape_;
const bool kFixedShapeRegistered =
    (Holder::add_op_crreator("TestFixedShape", []() -> OpExecutor* { return new TestFixedShapeOpExecutor(); }),
     true);

struct BitwidthCase {
  std::string op;
  std::string attrs;
  int expected;
};

class NodeBitwidthTest : public ::testing::TestWithParam<BitwidthCase> {};

TEST_P(NodeBitwidthTest, SettlesFromAttributesOrOperatorKind) {
  const BitwidthCase& c = GetParam();
  // The kind comes from the model's op name, set here apart from the operator.
  NodeDef def = parse_text_node("name: \"n\" op: \"" + c.op + "\" " + c.attrs);
  Node probe;
  probe.set_name("n");
  probe.init_op(c.op);
  probe.parse_parameter(def);
  EXPECT_EQ(probe.output_bitwidth(), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, NodeBitwidthTest,
    ::testing::Values(BitwidthCase{"TestSum", "", 32},
                      BitwidthCase{"TestSum", "attr { key: \"output_bitwidth\" value { i: 8 } }", 8},
                      BitwidthCase{"TestInt8Op", "attr { key: \"output_bitwidth\" value { i: 16 } }", 16},
                      BitwidthCase{"TestInt8Op", "attr { key: \"output_bitwidth\" value { f: 8 } }", 0},
                      BitwidthCase{"NOp", "attr { key: \"op_target\" value { s: \"input\" } }", 8},
                      BitwidthCase{"NOp", "attr { key: \"op_target\" value { s: \"output\" } }", 32}));

TEST(NodeTest, BitwidthOnceSettledIsKeptButParametersAreReparsed) {
  Node node;
  node.set_name("n");
  node.init_op("TestSum");
  test_op_log().clear();
  node.parse_parameter(parse_text_node("attr { key: \"output_bitwidth\" value { i: 4 } }"));
  node.parse_parameter(parse_text_node("attr { key: \"output_bitwidth\" value { i: 16 } }"));
  EXPECT_EQ(node.output_bitwidth(), 4);
  EXPECT_EQ(test_op_log().parses["n"], 2);
}

TEST(NodeTest, InputsAndConsumersAreUniqueWeightsRefuseDuplicates) {
  Node node;
  node.add_input("a");
  node.add_input("b");
  node.add_input("a");
  EXPECT_EQ(node.inputs(), (std::vector<std::string>{"a", "b"}));
  node.add_consumer("c");
  node.add_consumer("c");
  EXPECT_EQ(node.output_num(), 1);
  Tensor* w = node.add_weight("w");
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(w->name(), "w");
  EXPECT_EQ(node.add_weight("w"), nullptr);
  EXPECT_EQ(node.weights().size(), 1u);
}

TEST(NodeTest, OutputIsReleasedOnlyAfterEveryConsumerTookIt) {
  Node node;
  node.set_name("p");
  node.init_op("TestSum");
  node.add_consumer("c1");
  node.add_consumer("c2");
  Tensor input = make_tensor({2}, {1, 2});
  node.inference_shape({&input});
  node.reset();
  node.run({&input});
  ASSERT_NE(node.consume_output_tensor(""), nullptr);
  node.check_release_otensor();
  EXPECT_NE(node.output_tensor(), nullptr);
  node.consume_output_tensor("");
  node.check_release_otensor();
  EXPECT_EQ(node.output_tensor(), nullptr);
}

TEST(NodeTest, SecondaryOutputsAreFoundByTheirFullName) {
  Node node;
  node.set_name("spl");
  node.init_op("TestSplit");
  Tensor input = make_tensor({2}, {1, 2});
  node.inference_shape({&input});
  node.run({&input});
  EXPECT_EQ(tensor_values(*node.consume_output_tensor("spl:1")), (std::vector<float>{100, 200}));
}

TEST(NodeTest, KnowsWhichInputsItInferredFrom) {
  Node node;
  node.set_name("n");
  node.init_op("TestSum");
  Tensor a = make_tensor({2, 3}, {1, 2, 3, 4, 5, 6});
  Tensor w = make_tensor({3}, {1, 2, 3});
  node.inference_shape({&a, &w});
  EXPECT_EQ(node.oshape(), (std::vector<int>{2, 3}));
  Tensor same_a = make_tensor({2, 3}, {0, 0, 0, 0, 0, 0});
  Tensor other_shape = make_tensor({3, 2}, {0, 0, 0, 0, 0, 0});
  Tensor other_rank = make_tensor({2, 3, 1}, {0, 0, 0, 0, 0, 0});
  Tensor ints({2, 3}, Tensor::DT_INT32, nullptr, "cpu");
  struct Case {
    std::vector<const Tensor*> inputs;
    bool same;
  };
  const Case cases[] = {
      {{&a, &w}, true},            {{&same_a, &w}, true},   // contents and identity do not matter
      {{&other_shape, &w}, false}, {{&other_rank, &w}, false}, {{&ints, &w}, false},
      {{&a}, false},               {{&a, &w, &w}, false},   {{&w, &a}, false}, {{}, false},
  };
  for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
    EXPECT_EQ(node.inferred_from(cases[i].inputs), cases[i].same) << "case " << i;
  }
  // An inference that fails midway (a caught failure) matches no inputs at all.
  EXPECT_THROW(node.inference_shape({}), std::out_of_range);
  EXPECT_FALSE(node.inferred_from({&a, &w}));
  EXPECT_FALSE(node.inferred_from({}));
}

TEST(NodeTest, OutputBufferIsKeptWhileTheShapeIsUnchanged) {
  Node node;
  node.set_name("n");
  node.init_op("TestSum");
  Tensor a = make_tensor({4}, {1, 2, 3, 4});
  node.inference_shape({&a});
  node.run({&a});
  Tensor* output = node.output_tensor();
  const void* buffer = output->get_ptr();
  node.reset();
  node.run({&a});
  EXPECT_EQ(node.output_tensor(), output);
  EXPECT_EQ(output->get_ptr(), buffer);
  Tensor longer = make_tensor({9}, {1, 1, 1, 1, 1, 1, 1, 1, 1});
  node.inference_shape({&longer});
  node.run({&longer});
  EXPECT_EQ(output->shape(), std::vector<int>{9});
  EXPECT_EQ(tensor_values(*output), std::vector<float>(9, 1.0f));
}

TEST(NodeDeathTest, FatalPaths) {
  Node node;
  node.set_name("n");
  EXPECT_FATAL(node.init_op("Z40Nonexistent"), "Op: Z40Nonexistent has not been supported!");
  node.init_op("TestSum");
  EXPECT_ERROR(node.output_tensor(), "The node:n have not been run.");
  Node nop;
  nop.set_name("x");
  nop.init_op("NOp");
  EXPECT_ERROR(nop.parse_parameter(parse_text_node("")), "Op: x have no optarget!");
  EXPECT_ERROR(nop.parse_parameter(parse_text_node("attr { key: \"op_target\" value { s: \"side\" } }")),
               "Op: x have an unsupport op target:side!");
  for (const char* op : {"TestInt8Op", "TestQuantizeOp"}) {
    Node q;
    q.set_name("q");
    q.init_op(op);
    EXPECT_ERROR(q.parse_parameter(parse_text_node("")), "Op: q have no output bitwidth!");
  }
  Node split;
  split.set_name("spl");
  split.init_op("TestSplit");
  Tensor input = make_tensor({2}, {1, 2});
  split.inference_shape({&input});
  split.run({&input});
  EXPECT_ERROR(split.consume_output_tensor("spl:7"), "The node:spl do not found output:spl:7");
  Node bad;
  bad.set_name("bad");
  bad.init_op("TestFixedShape");
  TestFixedShapeOpExecutor::shape_ = {2, 3};
  bad.inference_shape({&input});
  bad.run({&input});
  // Each new inference is checked again, also after good runs.
  // The last product once overflowed a long long and came out in range.
  const std::pair<std::vector<int>, std::string> invalid[] = {
      {{-1, 2}, "-1,2"},
      {{65536, 32768}, "65536,32768"},
      {{2147483647, 2147483647, 3}, "2147483647,2147483647,3"},
      {{2147483647, 2147483647, 2147483647, 2147483647}, "2147483647,2147483647,2147483647,2147483647"}};
  for (const auto& row : invalid) {
    TestFixedShapeOpExecutor::shape_ = row.first;
    bad.inference_shape({&input});
    EXPECT_ERROR(bad.run({&input}), "The node:bad inferred an invalid output shape [" + row.second + "]");
  }
}

}  // namespace
}  // namespace kovra_test
