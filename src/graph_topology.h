#ifndef KOVRAEXECUTOR_GRAPH_TOPOLOGY_H_
#define KOVRAEXECUTOR_GRAPH_TOPOLOGY_H_

#include <string>
#include <vector>

#include "model_check.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The rules by which a model's nodes form a graph, shared by the executor,
// the model check and the command-line tool so that all three agree.

// input_lookup_name and the run-selection helpers are public (model_check.h).

// Kahn's algorithm over nodes 0..n-1, `producers[i]` naming the nodes node i
// reads. Among nodes ready together the lower index comes first, so the order
// is stable and follows the model. Returns the order; nodes on (or behind) a
// cycle are left out and listed in `cyclic`, in index order.
std::vector<size_t> topological_order(const std::vector<std::vector<size_t>>& producers,
                                      std::vector<size_t>* cyclic = nullptr);

// The element count of a constant's shape, or -1 when a dimension is negative
// or the count does not fit a 32-bit element count.
long long constant_element_count(const ::kovra::trenkit::TensorProto& tensor);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_GRAPH_TOPOLOGY_H_
