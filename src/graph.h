#ifndef KOVRAEXECUTOR_GRAPH_H_
#define KOVRAEXECUTOR_GRAPH_H_

#include <cstdint>
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
  // What a run needs of one node, resolved once per initialize so that a run
  // makes no lookup by name and no allocation: producers as pointers, fed
  // inputs as slots, and the node's input vector, reused from run to run.
  struct NodePlan;
  struct PlanInput {
    const std::string* name;  // the node's input name
    NodePlan* producer;       // null: no node of that name (reported when reached)
    int fed;                  // slot in fed_ of that name, or -1
    bool in_input_names;      // the name is one of input_names_
  };
  struct NodePlan {
    Node* node = nullptr;
    std::vector<PlanInput> inputs;
    int self_fed = -1;  // slot of the node's own name (input nodes without inputs)
    bool was_input = false;
    std::vector<const Tensor*> tensors;
  };
  // A tensor fed under `name`, looked up once per run.
  struct FedSlot {
    std::string name;
    const Tensor* tensor = nullptr;
    bool present = false;
  };
  struct Frame {
    NodePlan* plan;
    size_t next_input;
  };

  void _build_plan();
  int _fed_slot(const std::string& name, std::unordered_map<std::string, int>& slots);
  // The tensor of fed slot `slot`; aborts naming `name` when nothing is fed.
  const Tensor* _fed_tensor(int slot, const std::string& name) const;
  void _run_papa_node(NodePlan* plan);
  void _run_now(NodePlan* plan);

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

  // The run plan (see NodePlan); rebuilt when initialize or the nodes' inputs
  // have changed since it was made.
  std::vector<NodePlan> plans_;  // parallel to nodes_
  std::vector<uint64_t> plan_versions_;  // each node's inputs_version() when planned
  std::vector<NodePlan*> end_plans_;
  std::vector<FedSlot> fed_;
  std::vector<Frame> stack_;
  bool plan_valid_ = false;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_GRAPH_H_
