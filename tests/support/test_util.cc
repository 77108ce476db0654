#include "support/test_util.h"

#include <google/protobuf/text_format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "errors.h"

namespace kovra_test {

using kovra::trenkit::AttrValue;
using kovra::trenkit::TensorProto;
using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::GraphExecutor;

std::string literal_regex(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::strchr(".^$|()[]{}*+?\\", c) != nullptr) out += '\\';
    out += c;
  }
  return out;
}

std::string error_regex(const std::string& text) { return literal_regex("Error: " + text + "\033[0m\n"); }

std::string check_regex(const std::string& condition, const std::string& message) {
  return error_regex("Check failed: " + condition + "==>\"" + message + "\"");
}

std::string error_text(const std::function<void()>& statement) {
  kovra::trenkit::kovraexecutor::ScopedErrorPolicy policy(kovra::trenkit::kovraexecutor::ErrorPolicy::kThrow);
  try {
    statement();
  } catch (const kovra::trenkit::kovraexecutor::Error& e) {
    return e.message();
  }
  return "(no error)";
}

std::string check_text(const std::string& condition, const std::string& message) {
  return "Check failed: " + condition + "==>\"" + message + "\"";
}

GraphDef parse_text_graph(const std::string& text) {
  GraphDef graph;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &graph)) << text;
  return graph;
}

NodeDef parse_text_node(const std::string& text) {
  NodeDef node;
  EXPECT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &node)) << text;
  return node;
}

NodeDef* add_node(GraphDef& graph, const std::string& name, const std::string& op,
                  const std::vector<std::string>& inputs) {
  NodeDef* node = graph.add_node();
  node->set_name(name);
  node->set_op(op);
  for (const auto& input : inputs) node->add_input(input);
  return node;
}

NodeDef* add_float_const(GraphDef& graph, const std::string& name, const std::vector<int>& shape,
                         const std::vector<float>& values) {
  NodeDef* node = add_node(graph, name, "Const");
  TensorProto* tensor = (*node->mutable_attr())["value"].mutable_tensor();
  tensor->set_dtype(kovra::trenkit::DT_FLOAT);
  for (int d : shape) tensor->mutable_tensor_shape()->add_dim()->set_size(d);
  tensor->set_tensor_content(
      std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float)));
  return node;
}

void set_attr_f(NodeDef* node, const std::string& key, float value) {
  (*node->mutable_attr())[key].set_f(value);
}
void set_attr_i(NodeDef* node, const std::string& key, long long value) {
  (*node->mutable_attr())[key].set_i(value);
}
void set_attr_b(NodeDef* node, const std::string& key, bool value) {
  (*node->mutable_attr())[key].set_b(value);
}
void set_attr_s(NodeDef* node, const std::string& key, const std::string& value) {
  (*node->mutable_attr())[key].set_s(value);
}
void set_attr_ints(NodeDef* node, const std::string& key, const std::vector<int>& values) {
  AttrValue& attr = (*node->mutable_attr())[key];
  attr.mutable_list()->clear_i();
  for (int v : values) attr.mutable_list()->add_i(v);
}
void set_attr_floats(NodeDef* node, const std::string& key, const std::vector<float>& values) {
  AttrValue& attr = (*node->mutable_attr())[key];
  attr.mutable_list()->clear_f();
  for (float v : values) attr.mutable_list()->add_f(v);
}

Tensor make_tensor(const std::vector<int>& shape, const std::vector<float>& values, const std::string& name) {
  Tensor tensor(shape, Tensor::DT_FLOAT, nullptr, "cpu");
  EXPECT_EQ(static_cast<size_t>(tensor.size()), values.size());
  // A mismatched test fails above; it must not also write past the buffer.
  const size_t count = std::min(values.size(), static_cast<size_t>(tensor.size()));
  std::memcpy(tensor.get_mutable_ptr(), values.data(), count * sizeof(float));
  tensor.set_name(name);
  return tensor;
}

std::vector<float> tensor_values(const Tensor& tensor) {
  const float* data = tensor.data<float>();
  return std::vector<float>(data, data + tensor.size());
}

std::vector<float> run_graph(const GraphDef& graph,
                             const std::vector<std::pair<std::string, const Tensor*>>& inputs,
                             const std::string& output_node, std::vector<int>* shape) {
  GraphExecutor executor(&graph, CPU);
  for (const auto& input : inputs) {
    executor.set_input(input.first, const_cast<Tensor*>(input.second));
  }
  executor.work({}, output_node);
  const Tensor* output = executor.get_output_tensor(output_node);
  if (shape != nullptr) *shape = output->shape();
  return tensor_values(*output);
}

std::vector<float> run_single_op(const GraphDef& graph, const Tensor& input, const std::string& output_node,
                                 std::vector<int>* shape) {
  return run_graph(graph, {{"input", &input}}, output_node, shape);
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kovra_test_XXXXXX").string();
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  const char* made = ::mkdtemp(buffer.data());
  EXPECT_NE(made, nullptr);
  path_ = made == nullptr ? std::string() : std::string(made);
}

TempDir::~TempDir() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

}  // namespace kovra_test
