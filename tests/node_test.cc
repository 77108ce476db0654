#include <gtest/gtest.h>

#include "node.h"
#include "support/test_ops.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

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

TEST(NodeDeathTest, FatalPaths) {
  Node node;
  node.set_name("n");
  EXPECT_FATAL(node.init_op("Z40Nonexistent"), "Op: Z40Nonexistent has not been supported!");
  node.init_op("TestSum");
  EXPECT_FATAL(node.output_tensor(), "The node:n have not been run.");
  Node nop;
  nop.set_name("x");
  nop.init_op("NOp");
  EXPECT_FATAL(nop.parse_parameter(parse_text_node("")), "Op: x have no optarget!");
  EXPECT_FATAL(nop.parse_parameter(parse_text_node("attr { key: \"op_target\" value { s: \"side\" } }")),
               "Op: x have an unsupport op target:side!");
  for (const char* op : {"TestInt8Op", "TestQuantizeOp"}) {
    Node q;
    q.set_name("q");
    q.init_op(op);
    EXPECT_FATAL(q.parse_parameter(parse_text_node("")), "Op: q have no output bitwidth!");
  }
  Node split;
  split.set_name("spl");
  split.init_op("TestSplit");
  Tensor input = make_tensor({2}, {1, 2});
  split.inference_shape({&input});
  split.run({&input});
  EXPECT_FATAL(split.consume_output_tensor("spl:7"), "The node:spl do not found output:spl:7");
}

}  // namespace
}  // namespace kovra_test
