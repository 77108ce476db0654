#ifndef KOVRAEXECUTOR_GRAPH_H_
#define KOVRAEXECUTOR_GRAPH_H_

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "allocator/activation_pool.h"
#include "model_check.h"
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
  // Where outputs take their buffers when a run frees each tensor after its
  // last reader (inplace); null otherwise.
  ActivationPool* activation_pool() const { return inplace_ ? &activation_pool_ : nullptr; }
  // Bytes the node outputs of one run may hold at once; a node whose output
  // would pass it is refused before it runs.
  void set_memory_budget(long long bytes) { memory_budget_ = bytes; }
  long long memory_budget() const { return memory_budget_; }

  Node* add_node(const std::string& name);
  Node* get_node(const std::string& name) const;
  const std::vector<Node*>& nodes() const { return nodes_; }
  const std::vector<Node*>& start_nodes() const { return start_nodes_; }
  const std::vector<Node*>& end_nodes() const { return end_nodes_; }
  const std::set<std::string>& input_names() const { return input_names_; }

  void add_input(const std::string& name, const Tensor* tensor);
  void clear_inputs() { input_tensors_.clear(); }
  void initialize(const std::vector<std::string>& input_names, const std::string& output_name);
  // False from the start of initialize until it has succeeded: a caller that
  // caught its failure must initialize again before running.
  bool initialized() const { return initialized_; }
  int run();
  bool _input_ready();

  Tensor* get_mutable_output_tensor(const std::string& name) const;
  const Tensor* get_output_tensor(const std::string& name) const;
  Tensor* get_mutable_node_tensor(const std::string& name) const;
  const Tensor* get_node_tensor(const std::string& name) const;

  TensorDump& tensor_dump() { return tensor_dump_; }
  // Called after every node with the steady-clock time, in nanoseconds, at
  // which the graph turned to the node (when the previous node's call ended,
  // or the run began) and at which its operator returned; so a node's time
  // includes gathering its inputs, and the times of a run add up to the run.
  // One clock read per node keeps timing cheap next to tiny operators.
  typedef void (*NodeObserver)(void* context, const Node& node, long long start_ns, long long end_ns);
  void set_node_observer(NodeObserver observer, void* context) {
    observer_ = observer;
    observer_context_ = context;
  }

 private:
  void _sort_by_execution(std::vector<Node*>& out);
  void _top_sort(std::unordered_map<std::string, std::vector<std::string>>& deps, std::vector<Node*>& out);
  // What a run needs of one node, resolved once per initialize so that a run
  // makes no lookup by name and no allocation: producers as pointers, fed
  // inputs as slots, and the node's input vector, reused from run to run.
  // Every run starts from the same state (all nodes reset), so the
  // depth-first pull visits the nodes in the same order each time: the plan
  // pulls once and keeps that order as the schedule a run follows.
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
    std::vector<const Tensor*> tensors;
  };
  // A tensor fed under `name`, looked up once per run.
  struct FedSlot {
    std::string name;
    const Tensor* tensor = nullptr;
    bool present = false;
  };
  struct Step {
    enum Kind { kRun, kOutput, kMissing } kind;
    NodePlan* plan;           // kRun: the node to run; kOutput: the end node whose output to keep
    const std::string* name;  // kMissing: the input that names no node
  };

  void _build_plan();
  int _fed_slot(const std::string& name, std::unordered_map<std::string, int>& slots);
  // The tensor of fed slot `slot`; aborts naming `name` when nothing is fed.
  const Tensor* _fed_tensor(int slot, const std::string& name) const;
  // Pulls `root` depth first on an explicit stack (a deep model cannot
  // overflow the call stack), appending to schedule_ each node in the order it
  // runs; `pulled` marks the nodes already scheduled. False when the pull
  // reaches an input naming no node (scheduled as kMissing).
  bool _run_papa_node(NodePlan* root, std::vector<char>& pulled);
  void _run_now(NodePlan* plan);

  bool inplace_ = false;
  // Declared before nothing that outlives it: nodes are deleted first, and
  // their tensors only borrow its buffers.
  mutable ActivationPool activation_pool_;
  long long memory_budget_ = kDefaultMemoryBudget;
  long long held_bytes_ = 0;  // node outputs the current run holds
  bool reshape_ = false;
  bool initialized_ = false;
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
  long long observed_ns_ = 0;  // start of the next observed node

  // The run plan (see NodePlan); rebuilt when initialize or the nodes' inputs
  // have changed since it was made.
  std::vector<NodePlan> plans_;          // parallel to nodes_
  std::vector<uint64_t> plan_versions_;  // each node's structure_version() when planned
  std::vector<FedSlot> fed_;
  std::vector<Step> schedule_;
  int planned_end_nodes_ = 0;
  bool plan_valid_ = false;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_GRAPH_H_
