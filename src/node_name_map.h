#ifndef KOVRAEXECUTOR_NODE_NAME_MAP_H_
#define KOVRAEXECUTOR_NODE_NAME_MAP_H_

#include <string>
#include <unordered_map>

#include "lite/proto/graph_def.pb.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Index of a model's node definitions by name.
class NodeNameMap {
 public:
  NodeNameMap() = default;
  explicit NodeNameMap(const ::kovra::trenkit::GraphDef* graph_def);

  // Indexes every node of `graph_def` (a later node of the same name wins).
  void update(const ::kovra::trenkit::GraphDef* graph_def);
  // The definition of that name, or null.
  const ::kovra::trenkit::NodeDef* find_node_in_all_by_name(const std::string& name) const;
  size_t size() const { return nodes_.size(); }

 private:
  std::unordered_map<std::string, const ::kovra::trenkit::NodeDef*> nodes_;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_NODE_NAME_MAP_H_
