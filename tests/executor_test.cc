#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "graph.h"
#include "graph_executor.h"
#include "graph_executor_access.h"
#include "support/test_ops.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::GraphExecutor;
using kovra::trenkit::kovraexecutor::GraphExecutorAccess;

const char* const kSumModel = R"(
  node { name: "input" op: "TestSum" }
  node { name: "bias" op: "Const" attr { key: "value" value { tensor {
    dtype: DT_FLOAT tensor_shape { dim { size: 2 } } tensor_content: "\000\000\200?\000\000\000@" } } } }
  node { name: "add" op: "TestSum" input: "input" input: "bias" }
  node { name: "out" op: "TestSum" input: "add" }
)";

TEST(ExecutorTest, TranslatesConstantsIntoWeightsAndRuns) {
  GraphDef graph = parse_text_graph(kSumModel);
  GraphExecutor executor(&graph, CPU);
  EXPECT_EQ(executor.get_input_names(), std::vector<std::string>{"input"});
  EXPECT_EQ(executor.get_output_names(), std::vector<std::string>{"out"});
  const auto& weights = executor.get_node_weights("add");
  ASSERT_EQ(weights.size(), 1u);
  EXPECT_EQ(weights[0]->name(), "bias");
  EXPECT_EQ(tensor_values(*weights[0]), (std::vector<float>{1, 2}));
  EXPECT_EQ(GraphExecutorAccess::graph(executor)->get_node("bias"), nullptr);  // constants never become nodes
  Tensor x = make_tensor({2}, {10, 20});
  executor.set_input("input", &x);
  EXPECT_TRUE(executor.work({}, ""));
  EXPECT_EQ(tensor_values(*executor.get_output_tensor("out")), (std::vector<float>{11, 22}));
  EXPECT_EQ(tensor_values(*executor.get_node_tensor("add")), (std::vector<float>{11, 22}));
  EXPECT_EQ(executor.get_node_tensor("input"), executor.get_node_tensor("input"));
  EXPECT_EQ(executor.get_op_executor("nope"), nullptr);
  EXPECT_NE(executor.get_op_executor("add"), nullptr);
}

TEST(ExecutorTest, SetInputsNamesTensorsByKeyAndSetInputClearsOthers) {
  GraphDef graph = parse_text_graph(kSumModel);
  Tensor x = make_tensor({2}, {1, 1}, "whatever");
  GraphExecutor executor(&graph, {{"input", &x}}, CPU);
  EXPECT_EQ(x.name(), "input");
  executor.work({}, "");
  EXPECT_EQ(tensor_values(*executor.get_output_tensor("out")), (std::vector<float>{2, 3}));
  Tensor y = make_tensor({2}, {0, 0}, "input");
  executor.set_input(&y);
  executor.work({}, "");
  EXPECT_EQ(tensor_values(*executor.get_output_tensor("out")), (std::vector<float>{1, 2}));
}

TEST(ExecutorTest, InputReferencesUseTheKeptPrefixRule) {
  // "abcd:0" (length 6, ':' at 4) is looked up as its first 3 characters.
  GraphDef graph = parse_text_graph(R"(
    node { name: "input" op: "TestSum" }
    node { name: "abc" op: "TestSplit" input: "input" }
    node { name: "use" op: "TestSum" input: "abcd:1" })");
  GraphExecutor executor(&graph, CPU);
  const Node* use = GraphExecutorAccess::graph(executor)->get_node("use");
  EXPECT_EQ(use->inputs(), std::vector<std::string>{"abc"});
  EXPECT_EQ(use->real_input_name(), "abcd:1");
}

TEST(ExecutorTest, ScalarConstantBecomesOneElementWeight) {
  GraphDef graph = parse_text_graph(R"(
    node { name: "input" op: "TestSum" }
    node { name: "k" op: "Const" attr { key: "value" value { tensor {
      dtype: DT_FLOAT tensor_content: "\000\000@@" } } } }
    node { name: "add" op: "TestSum" input: "input" input: "k" })");
  GraphExecutor executor(&graph, CPU);
  EXPECT_EQ(tensor_values(*executor.get_node_weights("add")[0]), std::vector<float>{3});
}

TEST(ExecutorTest, BannerIsPrintedOnceAndSetDeviceAgainDoesNothing) {
  GraphDef graph = parse_text_graph(kSumModel);
  testing::internal::CaptureStdout();
  GraphExecutor executor(&graph, CPU);
  executor.set_device(CPU);
  const std::string printed = testing::internal::GetCapturedStdout();
  const std::string prefix = "\033[1;32;40mINFO(kovraexecutor): kovra executor version:2.1.0(0_";
  ASSERT_EQ(printed.find(prefix), 0u) << printed;
  EXPECT_EQ(printed.find(prefix, 1), std::string::npos);
  EXPECT_NE(printed.find("_kovra) built:"), std::string::npos);
  EXPECT_NE(printed.find(":CPU\033[0m\n"), std::string::npos);
  EXPECT_EQ(executor.device(), CPU);
}

TEST(ExecutorTest, WorkReinitialisesOnlyWhenArgumentsChange) {
  GraphDef graph = parse_text_graph(kSumModel);
  GraphExecutor executor(&graph, CPU);
  Tensor x = make_tensor({2}, {0, 0});
  executor.set_input("input", &x);
  executor.work({}, "add");
  EXPECT_EQ(executor.get_output_names(), std::vector<std::string>{"add"});
  // Re-initialise the graph behind the executor's back: the same arguments must not undo it.
  GraphExecutorAccess::graph(executor)->initialize({}, "out");
  executor.work({}, "add");
  EXPECT_EQ(executor.get_output_names(), std::vector<std::string>{"out"});
  executor.work({}, "");
  EXPECT_EQ(executor.get_output_names(), std::vector<std::string>{"out"});
  executor.work({"add"}, "add");
  EXPECT_EQ(executor.get_input_names(), std::vector<std::string>{"add"});
}

TEST(ExecutorTest, FloatDataOfEveryReadableType) {
  GraphDef graph = parse_text_graph(kSumModel);
  GraphExecutor executor(&graph, CPU);
  int8_t s8[3] = {-3, 0, 127};
  uint8_t u8[3] = {0, 200, 255};
  int32_t s32[3] = {-70000, 1, 70000};
  Tensor a({3}, Tensor::DT_INT8, s8, "cpu"), b({3}, Tensor::DT_UINT8, u8, "cpu"),
      c({3}, Tensor::DT_INT32, s32, "cpu");
  EXPECT_EQ(executor.get_node_float_data(&a), (std::vector<float>{-3, 0, 127}));
  EXPECT_EQ(executor.get_node_float_data(&b), (std::vector<float>{0, 200, 255}));
  EXPECT_EQ(executor.get_node_float_data(&c), (std::vector<float>{-70000, 1, 70000}));
}

TEST(ExecutorTest, UpdateGraphWritesWeightsBack) {
  GraphDef graph = parse_text_graph(kSumModel);
  GraphExecutor executor(&graph, CPU);
  Tensor* bias = const_cast<Tensor*>(executor.get_node_weights("add")[0]);
  bias->mutable_data<float>()[1] = 5.5f;
  executor.update_graph();
  const std::string& content = graph.node(1).attr().at("value").tensor().tensor_content();
  ASSERT_EQ(content.size(), 8u);
  float stored[2];
  std::memcpy(stored, content.data(), 8);
  EXPECT_EQ(stored[0], 1.0f);
  EXPECT_EQ(stored[1], 5.5f);
}

struct NodeEvent {
  std::string node, op;
  long long start_ns, end_ns;
};

void record_node(void* context, const std::string& node, const std::string& op, long long start_ns,
                 long long end_ns) {
  static_cast<std::vector<NodeEvent>*>(context)->push_back({node, op, start_ns, end_ns});
}

TEST(ExecutorTest, NodeObserverSeesEveryNodeInExecutionOrderUntilCleared) {
  GraphDef graph = parse_text_graph(kSumModel);
  GraphExecutor executor(&graph, CPU);
  Tensor x = make_tensor({2}, {1, 1});
  executor.set_input("input", &x);
  std::vector<NodeEvent> events;
  executor.set_node_observer(&record_node, &events);
  executor.work({}, "");
  ASSERT_EQ(events.size(), 3u);
  const char* order[] = {"input", "add", "out"};
  for (size_t i = 0; i < events.size(); ++i) {
    EXPECT_EQ(events[i].node, order[i]);
    EXPECT_EQ(events[i].op, "TestSum");
    EXPECT_LE(events[i].start_ns, events[i].end_ns);
    if (i > 0) {
      EXPECT_LE(events[i - 1].end_ns, events[i].start_ns);
    }
  }
  executor.set_node_observer(nullptr, nullptr);
  executor.work({}, "");
  EXPECT_EQ(events.size(), 3u);
}

TEST(ExecutorTest, DumpFolderIsSwitchedOnAndOffThroughTheExecutor) {
  EXPECT_EQ(GraphExecutor::dump_file_stem("conv1/Relu:0"), "conv1_Relu_0");
  TempDir dir;
  GraphDef graph = parse_text_graph(kSumModel);
  GraphExecutor executor(&graph, CPU);
  Tensor x = make_tensor({2}, {1, 1});
  executor.set_input("input", &x);
  const std::string folder = dir.file("dumps");
  executor.set_dump_folder(folder);
  testing::internal::CaptureStdout();
  executor.work({}, "");
  testing::internal::GetCapturedStdout();
  for (const char* name : {"input.bin", "add.bin", "out.bin", "manifest.tsv"}) {
    EXPECT_TRUE(std::filesystem::exists(folder + "/" + name)) << name;
  }
  std::filesystem::remove_all(folder);
  executor.set_dump_folder("");
  executor.work({}, "");
  EXPECT_FALSE(std::filesystem::exists(folder));
}

// Bad models and calls, under both error policies: errors_test. By default a
// reference to no node logs the name it looked for, then aborts with one line.
TEST(ExecutorDeathTest, MissingInputLogsThenAborts) {
  GraphDef graph = parse_text_graph(R"(node { name: "a" op: "TestSum" input: "ghost" })");
  EXPECT_DEATH(GraphExecutor(&graph, CPU), literal_regex("Log: Do not find ghostin graph") + ".*" +
                                               error_regex("Check failed: input_node != nullptr") + "$");
}

}  // namespace
}  // namespace kovra_test
