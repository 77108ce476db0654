#ifndef KOVRA_TESTS_SUPPORT_TEST_UTIL_H_
#define KOVRA_TESTS_SUPPORT_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "graph_executor.h"
#include "lite/proto/graph_def.pb.h"
#include "tensor.h"

namespace kovra_test {

using kovra::trenkit::GraphDef;
using kovra::trenkit::NodeDef;
using kovra::trenkit::kovraexecutor::Tensor;

// A regular expression matching `text` literally.
std::string literal_regex(const std::string& text);
// Regex for the fatal line "Error: <text>" (with its colour codes around it).
std::string error_regex(const std::string& text);
// Regex for "Error: Check failed: <condition>==>"<message>"".
std::string check_regex(const std::string& condition, const std::string& message);

// Asserts that `statement` aborts after printing the error line `text` exactly.
#define EXPECT_FATAL(statement, text) EXPECT_DEATH(statement, ::kovra_test::error_regex(text) + "$")
#define EXPECT_CHECK_FAILED(statement, condition, message) \
  EXPECT_DEATH(statement, ::kovra_test::check_regex(condition, message) + "$")

// The text of the kovra Error that `statement` raises under the throwing
// policy (the error line without colour or "Error: "), or "(no error)".
std::string error_text(const std::function<void()>& statement);
// The text of a failed check: Check failed: <condition>==>"<message>".
std::string check_text(const std::string& condition, const std::string& message);

// The same checks under the throwing policy: no process is forked.
#define EXPECT_ERROR(statement, text) EXPECT_EQ(::kovra_test::error_text([&] { statement; }), text)
#define EXPECT_CHECK_ERROR(statement, condition, message) \
  EXPECT_EQ(::kovra_test::error_text([&] { statement; }), ::kovra_test::check_text(condition, message))

// Parses a GraphDef from protobuf text format; fails the test on bad text.
GraphDef parse_text_graph(const std::string& text);
NodeDef parse_text_node(const std::string& text);

// Small builders for models written in code.
NodeDef* add_node(GraphDef& graph, const std::string& name, const std::string& op,
                  const std::vector<std::string>& inputs = {});
NodeDef* add_float_const(GraphDef& graph, const std::string& name, const std::vector<int>& shape,
                         const std::vector<float>& values);
void set_attr_f(NodeDef* node, const std::string& key, float value);
void set_attr_i(NodeDef* node, const std::string& key, long long value);
void set_attr_b(NodeDef* node, const std::string& key, bool value);
void set_attr_s(NodeDef* node, const std::string& key, const std::string& value);
void set_attr_ints(NodeDef* node, const std::string& key, const std::vector<int>& values);
void set_attr_floats(NodeDef* node, const std::string& key, const std::vector<float>& values);

// An owned float tensor with the given contents.
Tensor make_tensor(const std::vector<int>& shape, const std::vector<float>& values,
                   const std::string& name = "");
std::vector<float> tensor_values(const Tensor& tensor);

// Runs a graph made of one input node "input" (ZxxNOp) feeding `op_node`
// (whose inputs must start with "input") and returns the output of `op_node`.
std::vector<float> run_single_op(const GraphDef& graph, const Tensor& input, const std::string& output_node,
                                 std::vector<int>* shape = nullptr);

// Runs the executor with the given named inputs and returns one node's output.
std::vector<float> run_graph(const GraphDef& graph,
                             const std::vector<std::pair<std::string, const Tensor*>>& inputs,
                             const std::string& output_node, std::vector<int>* shape = nullptr);

// A fresh temporary directory, removed with its contents when destroyed.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace kovra_test

#endif  // KOVRA_TESTS_SUPPORT_TEST_UTIL_H_
