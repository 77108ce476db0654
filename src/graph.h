#ifndef KOVRAEXECUTOR_GRAPH_H_
#define KOVRAEXECUTOR_GRAPH_H_

#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "node.h"
#include "tensor.h"
#include "tensor_dump.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

class GraphExecutor;

// Owns the nodes of one model, marks where a run starts and ends, and runs
// nodes on demand: each end node pulls its producers depth first.
class Graph {
 public:
  Graph();
  ~Graph();
  Graph(const Graph&) = delete;
  Graph& operator=(const Graph&) = delete;

  void set_graph_executor(const GraphExecutor* executor) { graph_executor_ = executor; }
  const GraphExecutor* graph_executor() const { return graph_executor_; }
  const std::string& name() const { return name_; }
  void set_name(const std::string& name) { name_ = name; }
  void set_inplace(bool inplace) { inplace_ = inplace; }
  bool inplace() const { return inplace_; }

  Node* add_node(const std::string& name);
  Node* get_node(const std::string& name) const;
  const std::vector<Node*>& nodes() const { return nodes_; }
  const std::vector<Node*>& start_nodes() const { return start_nodes_; }
  const std::vector<Node*>& end_nodes() const { return end_nodes_; }
  const std::set<std::string>& input_names() const { return input_names_; }

  void add_input(const std::string& name, const Tensor* tensor);
  void clear_inputs() { input_tensors_.clear(); }
  void initialize(const std::vector<std::string>& input_names, const std::string& output_name);
  int run();
  bool _input_ready();

  Tensor* get_mutable_output_tensor(const std::string& name) const;
  const Tensor* get_output_tensor(const std::string& name) const;
  Tensor* get_mutable_node_tensor(const std::string& name) const;
  const Tensor* get_node_tensor(const std::string& name) const;

  TensorDump& tensor_dump() { return tensor_dump_; }
  // Called after every node with its wall time in nanoseconds, when set.
  typedef void (*NodeObserver)(void* context, const Node& node, long long start_ns,
                               long long end_ns);
  void set_node_observer(NodeObserver observer, void* context) {
    observer_ = observer;
    observer_context_ = context;
  }

 private:
  void _sort_by_execution(std::vector<Node*>& out);
  void _top_sort(std::unordered_map<std::string, std::vector<std::string>>& deps,
                 std::vector<Node*>& out);
  void _run_papa_node(Node* node);
  void _run_now(Node* node);
  Node* _producer_or_die(const std::string& name, const char* message) const;

  bool inplace_ = false;
  bool reshape_ = false;
  std::string name_;
  std::vector<Node*> start_nodes_;
  std::vector<Node*> end_nodes_;
  std::vector<Node*> nodes_;
  std::set<std::string> input_names_;
  std::unordered_map<std::string, Node*> node_name_map_;
  std::unordered_map<std::string, const Tensor*> input_tensors_;
  std::unordered_map<std::string, Tensor*> output_tensors_;
  const GraphExecutor* graph_executor_ = nullptr;
  TensorDump tensor_dump_;
  NodeObserver observer_ = nullptr;
  void* observer_context_ = nullptr;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_GRAPH_H_
