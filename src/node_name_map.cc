#include "node_name_map.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

NodeNameMap::NodeNameMap(const ::kovra::trenkit::GraphDef* graph_def) { update(graph_def); }

void NodeNameMap::update(const ::kovra::trenkit::GraphDef* graph_def) {
  nodes_.clear();
  if (graph_def == nullptr) return;
  for (const auto& node : graph_def->node()) nodes_[node.name()] = &node;
}

const ::kovra::trenkit::NodeDef* NodeNameMap::find_node_in_all_by_name(const std::string& name) const {
  auto it = nodes_.find(name);
  return it == nodes_.end() ? nullptr : it->second;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
