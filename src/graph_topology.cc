#include "graph_topology.h"

#include <algorithm>
#include <functional>
#include <map>
#include <queue>
#include <set>

#include "op_registry.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

std::string input_lookup_name(const std::string& input) {
  const size_t p = input.find(':');
  if (p == std::string::npos) return input;
  const size_t len = input.size();
  const size_t keep = std::min(len, len + 1 - p);
  return input.substr(0, keep);
}

std::vector<size_t> topological_order(const std::vector<std::vector<size_t>>& producers,
                                      std::vector<size_t>* cyclic) {
  const size_t n = producers.size();
  std::vector<std::vector<size_t>> dependants(n);
  std::vector<size_t> missing(n);
  std::priority_queue<size_t, std::vector<size_t>, std::greater<size_t>> ready;
  for (size_t i = 0; i < n; ++i) {
    missing[i] = producers[i].size();
    for (size_t p : producers[i]) dependants[p].push_back(i);
    if (missing[i] == 0) ready.push(i);
  }
  std::vector<size_t> order;
  order.reserve(n);
  while (!ready.empty()) {
    const size_t i = ready.top();
    ready.pop();
    order.push_back(i);
    for (size_t d : dependants[i]) {
      if (--missing[d] == 0) ready.push(d);
    }
  }
  if (cyclic != nullptr) {
    cyclic->clear();
    for (size_t i = 0; i < n; ++i) {
      if (missing[i] != 0) cyclic->push_back(i);
    }
  }
  return order;
}

long long constant_element_count(const TensorProto& tensor) {
  long long count = 1;
  for (const auto& dim : tensor.tensor_shape().dim()) {
    if (dim.size() < 0 || dim.size() > 0x7fffffffLL || count * dim.size() > 0x7fffffffLL) return -1;
    count *= dim.size();
  }
  return count;
}

int GraphOutline::find(const std::string& name) const {
  auto it = std::find(names.begin(), names.end(), name);
  return it == names.end() ? -1 : static_cast<int>(it - names.begin());
}

GraphOutline graph_outline(const GraphDef& graph) {
  GraphOutline outline;
  std::map<std::string, bool> is_const;
  for (const NodeDef& node : graph.node()) is_const.emplace(node.name(), node.op() == "Const");
  std::map<std::string, size_t> index;
  for (const NodeDef& node : graph.node()) {
    if (node.op() == "Const" || index.count(node.name())) continue;
    index.emplace(node.name(), outline.names.size());
    outline.names.push_back(node.name());
    outline.ops.push_back(node.op());
  }
  outline.producers.resize(outline.names.size());
  for (const NodeDef& node : graph.node()) {
    auto self = index.find(node.name());
    if (node.op() == "Const" || self == index.end()) continue;
    std::vector<size_t>& list = outline.producers[self->second];
    for (const std::string& input : node.input()) {
      auto it = index.find(input_lookup_name(input));
      if (it == index.end()) continue;
      if (std::find(list.begin(), list.end(), it->second) == list.end()) list.push_back(it->second);
    }
  }
  return outline;
}

std::vector<size_t> run_starts(const GraphOutline& outline, const std::vector<std::string>& start_names) {
  std::vector<size_t> starts;
  for (size_t i = 0; i < outline.names.size(); ++i) {
    const bool start = start_names.empty() ? outline.producers[i].empty() && !is_const_op(outline.ops[i])
                                           : std::find(start_names.begin(), start_names.end(),
                                                       outline.names[i]) != start_names.end();
    if (start) starts.push_back(i);
  }
  return starts;
}

std::vector<std::string> run_feeds(const GraphOutline& outline, const std::vector<size_t>& starts) {
  std::set<std::string> names;
  for (size_t s : starts) {
    for (size_t p : outline.producers[s]) names.insert(outline.names[p]);
  }
  if (names.empty()) {
    for (size_t s : starts) names.insert(outline.names[s]);
  }
  return std::vector<std::string>(names.begin(), names.end());
}

std::vector<size_t> run_ends(const GraphOutline& outline, const std::string& end_name) {
  std::vector<size_t> ends;
  if (!end_name.empty()) {
    const int i = outline.find(end_name);
    if (i >= 0) ends.push_back(static_cast<size_t>(i));
    return ends;
  }
  std::vector<bool> read(outline.names.size(), false);
  for (const auto& list : outline.producers) {
    for (size_t p : list) read[p] = true;
  }
  for (size_t i = 0; i < read.size(); ++i) {
    if (!read[i]) ends.push_back(i);
  }
  return ends;
}

namespace {

// Marks every node `ends` reach through their producers; stops early at a
// node of `stop` when one is given.
bool walk_up(const GraphOutline& outline, const std::vector<size_t>& ends, std::vector<bool>& seen,
             const std::vector<size_t>* stop) {
  seen.assign(outline.names.size(), false);
  std::vector<size_t> stack(ends.begin(), ends.end());
  while (!stack.empty()) {
    const size_t i = stack.back();
    stack.pop_back();
    if (seen[i]) continue;
    seen[i] = true;
    if (stop != nullptr && std::find(stop->begin(), stop->end(), i) != stop->end()) return true;
    stack.insert(stack.end(), outline.producers[i].begin(), outline.producers[i].end());
  }
  return false;
}

}  // namespace

bool run_depends_on(const GraphOutline& outline, size_t end, const std::vector<size_t>& starts) {
  std::vector<bool> seen;
  return walk_up(outline, {end}, seen, &starts);
}

std::vector<std::string> run_upstream(const GraphOutline& outline, const std::vector<size_t>& ends) {
  std::vector<bool> seen;
  walk_up(outline, ends, seen, nullptr);
  std::vector<std::string> names;
  for (size_t i = 0; i < seen.size(); ++i) {
    if (seen[i]) names.push_back(outline.names[i]);
  }
  return names;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
