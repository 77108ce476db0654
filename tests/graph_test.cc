#include <algorithm>

#include <gtest/gtest.h>

#include "graph.h"
#include "support/test_ops.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::Graph;

// Builds a graph by hand: each entry is {name, op, inputs...}.
void build(Graph& graph, const std::vector<std::vector<std::string>>& nodes) {
  for (const auto& entry : nodes) {
    Node* node = graph.add_node(entry[0]);
    node->init_op(entry[1]);
    for (size_t i = 2; i < entry.size(); ++i) node->add_input(entry[i]);
  }
}

size_t position(const std::vector<std::string>& order, const std::string& name) {
  return std::find(order.begin(), order.end(), name) - order.begin();
}

class GraphTest : public ::testing::Test {
 protected:
  void SetUp() override { test_op_log().clear(); }
};

TEST_F(GraphTest, DiamondRunsEveryProducerFirstAndOnce) {
  Graph graph;
  build(graph, {{"d", "TestSum", "b", "c"}, {"b", "TestSum", "a"}, {"c", "TestSum", "a"}, {"a", "TestSum"}});
  graph.initialize({}, "");
  ASSERT_EQ(graph.start_nodes().size(), 1u);
  EXPECT_EQ(graph.start_nodes()[0]->name(), "a");
  ASSERT_EQ(graph.end_nodes().size(), 1u);
  EXPECT_EQ(graph.end_nodes()[0]->name(), "d");
  EXPECT_EQ(graph.input_names(), (std::set<std::string>{"a"}));
  Tensor x = make_tensor({3}, {1, 2, 3});
  graph.add_input("a", &x);
  EXPECT_EQ(graph.run(), 1);
  const auto& order = test_op_log().executed;
  ASSERT_EQ(order.size(), 4u);
  EXPECT_LT(position(order, "a"), position(order, "b"));
  EXPECT_LT(position(order, "b"), position(order, "d"));
  EXPECT_LT(position(order, "c"), position(order, "d"));
  // b and c read the fed tensor directly (a is a start node): d = 2x.
  EXPECT_EQ(tensor_values(*graph.get_output_tensor("d")), (std::vector<float>{2, 4, 6}));
  EXPECT_EQ(graph.get_node("b")->consumers(), std::vector<std::string>{"d"});
  EXPECT_EQ(graph.get_node("a")->consumers().size(), 2u);
}

TEST_F(GraphTest, ExplicitStartAndEndPickASubGraph) {
  Graph graph;
  build(graph, {{"a", "TestSum"}, {"b", "TestSum", "a"}, {"c", "TestSum", "b"}, {"d", "TestSum", "c"}});
  graph.initialize({"c"}, "c");
  EXPECT_EQ(graph.input_names(), std::set<std::string>{"b"});
  Tensor x = make_tensor({2}, {5, 6});
  graph.add_input("b", &x);
  graph.run();
  EXPECT_EQ(test_op_log().executed, std::vector<std::string>{"c"});
  EXPECT_EQ(tensor_values(*graph.get_output_tensor("c")), (std::vector<float>{5, 6}));
}

TEST_F(GraphTest, ANameGivenTwicePushesTheStartNodeTwice) {
  Graph graph;
  build(graph, {{"a", "TestSum"}, {"b", "TestSum", "a"}});
  graph.initialize({"b", "b"}, "");
  EXPECT_EQ(graph.start_nodes().size(), 2u);
}

TEST_F(GraphTest, ShapesAreInferredAgainOnlyWhenAFedShapeChanges) {
  Graph graph;
  build(graph, {{"a", "TestSum"}, {"b", "TestSum", "a"}});
  graph.initialize({}, "");
  Tensor x = make_tensor({2}, {1, 2});
  graph.add_input("a", &x);
  graph.run();
  Tensor same = make_tensor({2}, {3, 4});
  graph.add_input("a", &same);
  graph.run();
  EXPECT_EQ(test_op_log().shape_inferences["b"], 1);
  EXPECT_EQ(tensor_values(*graph.get_output_tensor("b")), (std::vector<float>{3, 4}));
  Tensor longer = make_tensor({3}, {1, 1, 1});
  graph.add_input("a", &longer);
  graph.run();
  EXPECT_EQ(test_op_log().shape_inferences["b"], 2);
  EXPECT_EQ(graph.get_output_tensor("b")->shape(), std::vector<int>{3});
  // Resized behind the graph's back (no add_input): the changed shape is seen anyway.
  longer.set_data({4}, Tensor::DT_FLOAT, nullptr);
  longer.fill(2.0f);
  graph.run();
  EXPECT_EQ(test_op_log().shape_inferences["b"], 3);
  EXPECT_EQ(tensor_values(*graph.get_output_tensor("b")), (std::vector<float>{2, 2, 2, 2}));
}

TEST_F(GraphTest, EachInitializeIsFollowedByItsOwnRun) {
  Graph graph;
  build(graph, {{"a", "TestSum"}, {"b", "TestSum", "a"}, {"c", "TestSum", "b"}, {"d", "TestSum", "c"}});
  Tensor x = make_tensor({1}, {5});
  graph.initialize({}, "");
  graph.add_input("a", &x);
  graph.run();
  graph.initialize({"c"}, "c");
  graph.add_input("b", &x);
  graph.run();
  graph.initialize({}, "b");
  graph.run();
  graph.initialize({}, "");
  graph.run();
  EXPECT_EQ(test_op_log().executed,
            (std::vector<std::string>{"a", "b", "c", "d", "c", "a", "b", "a", "b", "c", "d"}));
}

struct ObservedNode {
  std::string name;
  long long start_ns, end_ns;
};

void observe(void* context, const Node& node, long long start_ns, long long end_ns) {
  static_cast<std::vector<ObservedNode>*>(context)->push_back({node.name(), start_ns, end_ns});
}

TEST_F(GraphTest, ObserverSeesEveryNodeWithBackToBackTimes) {
  Graph graph;
  build(graph, {{"d", "TestSum", "b", "c"}, {"b", "TestSum", "a"}, {"c", "TestSum", "a"}, {"a", "TestSum"}});
  graph.initialize({}, "");
  Tensor x = make_tensor({2}, {1, 2});
  graph.add_input("a", &x);
  std::vector<ObservedNode> seen;
  graph.set_node_observer(&observe, &seen);
  graph.run();
  graph.run();
  graph.set_node_observer(nullptr, nullptr);
  graph.run();
  ASSERT_EQ(seen.size(), 8u);
  for (size_t i = 0; i < seen.size(); ++i) {
    EXPECT_EQ(seen[i].name, test_op_log().executed[i]);
    EXPECT_LE(seen[i].start_ns, seen[i].end_ns);
    // Within a run each node starts where the previous one ended.
    if (i % 4 != 0) {
      EXPECT_EQ(seen[i].start_ns, seen[i - 1].end_ns) << i;
    }
  }
  EXPECT_GE(seen[4].start_ns, seen[3].end_ns);
}

TEST_F(GraphTest, InplaceFreesIntermediatesAndRefusesMiddleNodes) {
  Graph graph;
  build(graph, {{"a", "TestSum"}, {"b", "TestSum", "a"}, {"c", "TestSum", "b"}, {"d", "TestSum", "c", "b"}});
  graph.set_inplace(true);
  graph.initialize({}, "");
  Tensor x = make_tensor({1}, {1});
  graph.add_input("a", &x);
  graph.run();
  EXPECT_EQ(tensor_values(*graph.get_output_tensor("d")), std::vector<float>{2});
  // b had two consumers (c, d): freed once both ran.
  EXPECT_EQ(graph.get_node("b")->pending_consumers(), 0);
  EXPECT_NE(graph.get_node_tensor("d"), nullptr);
  EXPECT_FATAL(graph.get_node_tensor("b"),
               "Please set inplace mode as FALSE to get the middle node:b output tensor.");
  graph.set_inplace(false);
  EXPECT_EQ(graph.get_node_tensor("b"), nullptr);  // released, not dangling
  EXPECT_EQ(graph.get_node_tensor("c"), nullptr);
}

TEST_F(GraphTest, SecondaryOutputIsPickedByTheRealInputName) {
  Graph graph;
  build(graph, {{"a", "TestSum"}, {"spl", "TestSplit", "a"}, {"use", "TestSum", "spl"}});
  graph.get_node("use")->set_real_input_name("spl:1");
  graph.initialize({}, "");
  Tensor x = make_tensor({2}, {1, 2});
  graph.add_input("a", &x);
  graph.run();
  EXPECT_EQ(tensor_values(*graph.get_output_tensor("use")), (std::vector<float>{100, 200}));
}

TEST_F(GraphTest, WeightOnlyOperatorsRunWhenAnInputNodeReadsThem) {
  ScopedConstOpOverride override_const_op;
  Graph graph;
  build(graph, {{"x", "TestSum"}, {"rw", "Z40AdaRoundQuantizeWeight"}, {"conv", "TestSum", "x", "rw"}});
  Tensor* w = graph.get_node("rw")->add_weight("w");
  w->set_data({2}, Tensor::DT_FLOAT, nullptr);
  w->mutable_data<float>()[0] = 10;
  w->mutable_data<float>()[1] = 20;
  graph.initialize({}, "");
  // Never a start point even though it has no inputs.
  for (const Node* node : graph.start_nodes()) EXPECT_NE(node->name(), "rw");
  graph.initialize({"conv"}, "");
  EXPECT_EQ(graph.input_names(), (std::set<std::string>{"rw", "x"}));
  Tensor x = make_tensor({2}, {1, 2});
  graph.add_input("x", &x);
  graph.run();
  EXPECT_EQ(test_op_log().executed, (std::vector<std::string>{"rw", "conv"}));
  EXPECT_EQ(tensor_values(*graph.get_output_tensor("conv")), (std::vector<float>{11, 22}));
}

TEST_F(GraphTest, InputReadiness) {
  Graph graph;
  build(graph, {{"a", "TestSum"}, {"b", "TestSum"}, {"c", "TestSum", "a", "b"}});
  graph.initialize({}, "");
  testing::internal::CaptureStdout();
  EXPECT_TRUE(graph._input_ready());
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Warning: The graph have no any input."),
            std::string::npos);
  Tensor x = make_tensor({1}, {1});
  graph.add_input("a", &x);
  EXPECT_FALSE(graph._input_ready());
  graph.add_input("b", &x);
  EXPECT_TRUE(graph._input_ready());
}

TEST_F(GraphTest, DeepChainDoesNotExhaustTheStack) {
  Graph graph;
  const int depth = 50000;
  build(graph, {{"n0", "TestSum"}});
  for (int i = 1; i < depth; ++i) build(graph, {{"n" + std::to_string(i), "TestSum", "n" + std::to_string(i - 1)}});
  graph.initialize({}, "");
  Tensor x = make_tensor({1}, {3});
  graph.add_input("n0", &x);
  graph.run();
  EXPECT_EQ(tensor_values(*graph.get_output_tensor("n" + std::to_string(depth - 1))), std::vector<float>{3});
}

TEST(GraphDeathTest, FatalPaths) {
  {
    Graph graph;
    build(graph, {{"a", "TestSum"}, {"b", "TestSum", "a"}});
    EXPECT_ERROR(graph.initialize({}, "zzz"), "Have no end point, please check it!");
    EXPECT_ERROR(graph.initialize({"zzz"}, ""), "Have no start point, please check it!");
    graph.initialize({}, "");
    EXPECT_ERROR(graph.run(), "Do not find the input data :a");
    EXPECT_ERROR(graph.get_node_tensor("nope"), "Graph have no node:nope");
    EXPECT_ERROR(graph.get_node_tensor("b"), "Do not find the node tensor of name:b");
    EXPECT_THROW(graph.get_output_tensor("b"), std::out_of_range);
  }
  {
    Graph empty;
    EXPECT_ERROR(empty.initialize({}, ""), "Have no end point, please check it!");
  }
  {
    Graph cycle;
    build(cycle, {{"src", "TestSum"}, {"p", "TestSum", "src", "q"}, {"q", "TestSum", "p"}});
    EXPECT_ERROR(cycle.initialize({}, ""), "The graph has a cycle among the nodes: p, q");
  }
  {
    // Inputs added after initialize are planned at the next run.
    Graph graph;
    build(graph, {{"a", "TestSum"}, {"b", "TestSum", "a"}});
    graph.initialize({}, "");
    Tensor x = make_tensor({1}, {1});
    graph.add_input("a", &x);
    graph.run();
    graph.get_node("b")->add_input("ghost");
    EXPECT_ERROR(graph.run(), "Can not find the node: ghost");
    // The same for a start node.
    Graph started;
    build(started, {{"a", "TestSum"}, {"b", "TestSum", "a"}});
    started.initialize({"b"}, "");
    started.add_input("a", &x);
    started.run();
    started.get_node("b")->add_input("ghost");
    EXPECT_ERROR(started.run(), "Can not find the node: ghost");
  }
  {
    // A weight-only operator runs without pulling inputs it should not have.
    ScopedConstOpOverride override_const_op;
    Graph graph;
    build(graph, {{"x", "TestSum"}, {"rw", "Z40AdaRoundQuantizeWeight"}, {"conv", "TestSum", "x", "rw"}});
    graph.initialize({"conv"}, "");
    graph.get_node("rw")->add_input("ghost");
    Tensor x = make_tensor({1}, {1});
    graph.add_input("x", &x);
    EXPECT_ERROR(graph.run(), "Do not find the input node:ghost");
  }
  {
    Graph dangling;
    build(dangling, {{"a", "TestSum"}, {"b", "TestSum", "a", "ghost"}});
    // An input naming no node of the graph can never be satisfied either.
    EXPECT_ERROR(dangling.initialize({}, ""), "The graph has a cycle among the nodes: b");
  }
}

}  // namespace
}  // namespace kovra_test
