#include "graph.h"

#include <algorithm>
#include <chrono>

#include "checked_size.h"
#include "common.h"
#include "graph_executor_access.h"
#include "graph_topology.h"
#include "node_name_map.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

bool same_shape(const Tensor* a, const Tensor* b) { return a->shape() == b->shape(); }

long long now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Graph::Graph() = default;

Graph::~Graph() {
  for (Node* node : nodes_) delete node;
}

Node* Graph::add_node(const std::string& name) {
  auto it = node_name_map_.find(name);
  if (it != node_name_map_.end()) return it->second;
  Node* node = new Node();
  node->set_owner(this);
  node->set_name(name);
  nodes_.push_back(node);
  node_name_map_[name] = node;
  plan_valid_ = false;
  return node;
}

Node* Graph::get_node(const std::string& name) const {
  auto it = node_name_map_.find(name);
  return it == node_name_map_.end() ? nullptr : it->second;
}

void Graph::add_input(const std::string& name, const Tensor* tensor) {
  auto it = input_tensors_.find(name);
  if (it == input_tensors_.end() || !same_shape(it->second, tensor)) reshape_ = true;
  if (it != input_tensors_.end()) input_tensors_.erase(it);
  input_tensors_.emplace(name, tensor);
}

void Graph::_sort_by_execution(std::vector<Node*>& out) {
  std::unordered_map<std::string, std::vector<std::string>> deps;
  for (Node* node : nodes_) deps[node->name()] = node->inputs();
  _top_sort(deps, out);
}

void Graph::_top_sort(std::unordered_map<std::string, std::vector<std::string>>& deps,
                      std::vector<Node*>& out) {
  // Nodes ready together run in model order, so the order is stable and readable.
  std::unordered_map<std::string, size_t> position;
  for (size_t i = 0; i < nodes_.size(); ++i) position[nodes_[i]->name()] = i;
  std::vector<std::vector<size_t>> producers(nodes_.size());
  for (const auto& entry : deps) {
    if (node_name_map_.count(entry.first) == 0) {
      fatal("Check failed: node_name_map_.count(name) != 0==>\"Do not find your node.\"");
    }
    const size_t i = position[entry.first];
    for (const std::string& input : entry.second) {
      auto it = position.find(input);
      // A producer that is no node can never run: the reader stays unordered.
      producers[i].push_back(it == position.end() ? i : it->second);
    }
  }
  std::vector<size_t> cyclic;
  for (size_t i : topological_order(producers, &cyclic)) out.push_back(nodes_[i]);
  if (!cyclic.empty()) {
    std::string left;
    for (size_t i : cyclic) left += (left.empty() ? "" : ", ") + nodes_[i]->name();
    fatal("The graph has a cycle among the nodes: " + left);
  }
}

void Graph::initialize(const std::vector<std::string>& input_names, const std::string& output_name) {
  initialized_ = false;
  plan_valid_ = false;
  output_tensors_.clear();
  input_names_.clear();
  start_nodes_.clear();
  end_nodes_.clear();
  std::vector<Node*> order;
  _sort_by_execution(order);
  // Consumers of each node, in execution order. The order is topological, so
  // one pass over every node's inputs finds exactly the later readers.
  std::unordered_map<std::string, size_t> position;
  for (size_t i = 0; i < order.size(); ++i) position[order[i]->name()] = i;
  for (size_t j = 0; j < order.size(); ++j) {
    for (const std::string& input : order[j]->inputs()) {
      auto it = position.find(input);
      if (it != position.end() && it->second <= j) order[it->second]->add_consumer(order[j]->name());
    }
  }
  for (size_t i = 0; i < order.size(); ++i) {
    Node* node = order[i];
    node->set_is_input(false);
    node->set_is_output(false);
    if (input_names.empty()) {
      if (node->inputs().empty() && !node->is_const_op()) {
        node->set_is_input(true);
        start_nodes_.push_back(node);
      }
    } else {
      for (const std::string& name : input_names) {
        if (name == node->name()) {
          node->set_is_input(true);
          start_nodes_.push_back(node);
        }
      }
    }
    const bool is_end = output_name.empty() ? node->consumers().empty() : node->name() == output_name;
    if (is_end) {
      node->set_is_output(true);
      end_nodes_.push_back(node);
    }
  }
  for (Node* node : start_nodes_) {
    for (const std::string& name : node->inputs()) input_names_.insert(name);
  }
  if (end_nodes_.empty()) fatal("Have no end point, please check it!");
  if (start_nodes_.empty()) fatal("Have no start point, please check it!");
  if (input_names_.empty()) {
    for (Node* node : start_nodes_) input_names_.insert(node->name());
  }
  initialized_ = true;
}

int Graph::_fed_slot(const std::string& name, std::unordered_map<std::string, int>& slots) {
  auto it = slots.find(name);
  if (it != slots.end()) return it->second;
  const int slot = static_cast<int>(fed_.size());
  fed_.push_back(FedSlot{name, nullptr, false});
  slots.emplace(name, slot);
  return slot;
}

void Graph::_build_plan() {
  plans_.clear();
  plans_.resize(nodes_.size());
  plan_versions_.resize(nodes_.size());
  fed_.clear();
  schedule_.clear();
  std::unordered_map<const Node*, NodePlan*> plan_of;
  for (size_t i = 0; i < nodes_.size(); ++i) {
    plans_[i].node = nodes_[i];
    plan_versions_[i] = nodes_[i]->structure_version();
    plan_of[nodes_[i]] = &plans_[i];
  }
  std::unordered_map<std::string, int> slots;
  for (NodePlan& plan : plans_) {
    const Node* node = plan.node;
    // Fed tensors are read by input nodes (other than weight-only ones) under
    // their input names or, without inputs, their own name; by other nodes
    // under the names of input_names_.
    const bool reads_feeds = node->is_input() && !node->is_const_op();
    for (const std::string& name : node->inputs()) {
      PlanInput input;
      input.name = &name;
      Node* producer = get_node(name);
      input.producer = producer == nullptr ? nullptr : plan_of[producer];
      input.in_input_names = input_names_.count(name) != 0;
      input.fed = input.in_input_names || reads_feeds ? _fed_slot(name, slots) : -1;
      plan.inputs.push_back(input);
    }
    plan.self_fed = reads_feeds && node->inputs().empty() ? _fed_slot(node->name(), slots) : -1;
    plan.tensors.reserve(node->inputs().size() + node->weights().size() + 1);
  }
  std::vector<char> pulled(plans_.size(), 0);
  for (Node* node : end_nodes_) {
    // A pull that reaches a missing node aborts the run there.
    if (!_run_papa_node(plan_of[node], pulled)) break;
    schedule_.push_back({Step::kOutput, plan_of[node], nullptr});
  }
  planned_end_nodes_ = static_cast<int>(end_nodes_.size());
  plan_valid_ = true;
}

bool Graph::_run_papa_node(NodePlan* root, std::vector<char>& pulled) {
  struct Frame {
    NodePlan* plan;
    size_t next_input;
  };
  auto ran = [&](const NodePlan* plan) -> char& { return pulled[plan - plans_.data()]; };
  if (ran(root)) return true;
  std::vector<Frame> stack{{root, 0}};
  while (!stack.empty()) {
    Frame& frame = stack.back();
    NodePlan* plan = frame.plan;
    const Node* node = plan->node;
    NodePlan* pull = nullptr;
    while (frame.next_input < plan->inputs.size() && pull == nullptr) {
      const PlanInput& input = plan->inputs[frame.next_input++];
      if (input.producer == nullptr) {
        schedule_.push_back({Step::kMissing, nullptr, input.name});
        return false;
      }
      const Node* producer = input.producer->node;
      if (node->is_input()) {
        // Weight-only producers of an input node run right before it, each time.
        if (producer->is_const_op()) {
          schedule_.push_back({Step::kRun, input.producer, nullptr});
          ran(input.producer) = 1;
        }
        continue;
      }
      const bool fed = input.in_input_names && !producer->is_input();
      if (!fed && !ran(input.producer)) pull = input.producer;
    }
    if (pull != nullptr) {
      stack.push_back({pull, 0});
      continue;
    }
    stack.pop_back();
    if (!ran(plan)) {
      schedule_.push_back({Step::kRun, plan, nullptr});
      ran(plan) = 1;
    }
  }
  return true;
}

int Graph::run() {
  bool stale = !plan_valid_ || plans_.size() != nodes_.size();
  for (size_t i = 0; i < nodes_.size(); ++i) {
    Node* node = nodes_[i];
    node->reset();
    if (!stale && plan_versions_[i] != node->structure_version()) stale = true;
  }
  if (stale) _build_plan();
  for (FedSlot& slot : fed_) {
    auto it = input_tensors_.find(slot.name);
    slot.present = it != input_tensors_.end();
    slot.tensor = slot.present ? it->second : nullptr;
  }
  held_bytes_ = 0;
  tensor_dump_.begin_run();
  if (observer_ != nullptr) observed_ns_ = now_ns();
  // A failure is reported with the node in hand; the scope is set per step
  // rather than made per node, which keeps thread-local access out of the loop.
  NodeErrorScope scope;
  for (const Step& step : schedule_) {
    switch (step.kind) {
      case Step::kRun:
        scope.set(step.plan->node->name(), step.plan->node->op_type());
        _run_now(step.plan);
        break;
      case Step::kOutput:
        scope.set(step.plan->node->name(), step.plan->node->op_type());
        output_tensors_[step.plan->node->name()] = step.plan->node->output_tensor();
        break;
      case Step::kMissing:
        scope.clear();
        fatal("Can not find the node: " + *step.name);
    }
  }
  reshape_ = false;
  return planned_end_nodes_;
}

const Tensor* Graph::_fed_tensor(int slot, const std::string& name) const {
  if (slot < 0 || !fed_[slot].present) fatal("Do not find the input data :" + name);
  return fed_[slot].tensor;
}

void Graph::_run_now(NodePlan* plan) {
  Node* node = plan->node;
  std::vector<const Tensor*>& inputs = plan->tensors;
  inputs.clear();
  if (node->is_input() && !node->is_const_op()) {
    if (plan->inputs.empty()) inputs.push_back(_fed_tensor(plan->self_fed, node->name()));
    for (const PlanInput& input : plan->inputs) {
      if (input.producer == nullptr) fatal("Can not find the node: " + *input.name);
      if (input.producer->node->is_const_op()) {
        inputs.push_back(input.producer->node->consume_output_tensor(node->real_input_name()));
      } else {
        inputs.push_back(_fed_tensor(input.fed, *input.name));
      }
    }
  } else {
    for (const PlanInput& input : plan->inputs) {
      if (input.producer == nullptr) fatal("Do not find the input node:" + *input.name);
      if (input.in_input_names) {
        inputs.push_back(_fed_tensor(input.fed, *input.name));
      } else {
        inputs.push_back(input.producer->node->consume_output_tensor(node->real_input_name()));
      }
    }
  }
  for (const Tensor* input : inputs) {
    // A producer released earlier or one that never produced a tensor.
    if (input == nullptr) fatal("The node:" + node->name() + " has an input without data.");
  }
  for (const Tensor* weight : node->weights()) inputs.push_back(weight);

  // Besides a changed feed, any input whose shape or type differs from what
  // the node last inferred from (a producer that changed its output, a fed
  // tensor resized in place) re-infers, so operators can rely on execute's
  // inputs having the shapes inference_shape prepared for.
  if (reshape_ || node->oshape().empty() || !node->inferred_from(inputs)) node->inference_shape(inputs);
  if (node->param_update()) {
    const NodeDef* def =
        graph_executor_ == nullptr
            ? nullptr
            : GraphExecutorAccess::node_name_map(*graph_executor_)->find_node_in_all_by_name(node->name());
    if (def != nullptr) {
      node->parse_parameter(*def);
    } else {
      print_log("Do not find " + node->name() + "in graph");
    }
  }
  const long long bytes = node->output_bytes(inputs);
  if (held_bytes_ + bytes > memory_budget_) {
    fatal(over_budget_message(node->name(), bytes, held_bytes_ + bytes, memory_budget_));
  }
  held_bytes_ += bytes;
  node->run(inputs);
  if (observer_ != nullptr) {
    const long long end = now_ns();
    observer_(observer_context_, *node, observed_ns_, end);
    observed_ns_ = end;
  }
  if (tensor_dump_.enabled()) {
    tensor_dump_(node->output_tensor(), node->output_bitwidth(), node->is_input(), node->op_type(),
                 node->output_signed());
    // Writing files is not the next node's time.
    if (observer_ != nullptr) observed_ns_ = now_ns();
  }
  if (!node->is_input() && inplace_) {
    for (const PlanInput& input : plan->inputs) held_bytes_ -= input.producer->node->check_release_otensor();
  }
}

Tensor* Graph::get_mutable_output_tensor(const std::string& name) const { return output_tensors_.at(name); }

const Tensor* Graph::get_output_tensor(const std::string& name) const { return output_tensors_.at(name); }

Tensor* Graph::get_mutable_node_tensor(const std::string& name) const {
  Node* node = get_node(name);
  if (node == nullptr) fatal("Graph have no node:" + name);
  if (!node->is_output() && inplace_) {
    fatal("Please set inplace mode as FALSE to get the middle node:" + name + " output tensor.");
  }
  if (node->have_run()) return node->output_tensor();
  auto it = input_tensors_.find(name);
  if (it != input_tensors_.end()) return const_cast<Tensor*>(it->second);
  fatal("Do not find the node tensor of name:" + name);
}

const Tensor* Graph::get_node_tensor(const std::string& name) const { return get_mutable_node_tensor(name); }

bool Graph::_input_ready() {
  if (input_tensors_.empty()) {
    print_warning("The graph have no any input.");
    return true;
  }
  for (const std::string& name : input_names_) {
    if (input_tensors_.count(name) == 0) return false;
  }
  return true;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
