#ifndef KOVRAEXECUTOR_GRAPH_EXECUTOR_ACCESS_H_
#define KOVRAEXECUTOR_GRAPH_EXECUTOR_ACCESS_H_

#include "graph.h"
#include "graph_executor.h"
#include "node_name_map.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The executor's internals, which its public interface does not hand out:
// for code inside the library and for tests.
class GraphExecutorAccess {
 public:
  static Graph* graph(const GraphExecutor& executor) { return executor.graph_; }
  static const NodeNameMap* node_name_map(const GraphExecutor& executor) { return executor.node_name_map_; }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_GRAPH_EXECUTOR_ACCESS_H_
