#ifndef KOVRAEXECUTOR_OP_REGISTRY_H_
#define KOVRAEXECUTOR_OP_REGISTRY_H_

#include <string>
#include <vector>

#include "export.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The operator names this build can run, sorted.
KOVRA_API std::vector<std::string> registered_op_names();
KOVRA_API bool is_registered_op(const std::string& op);
// Operators computed from their weights alone: never a graph's start point,
// they run on demand before the node that reads them.
KOVRA_API bool is_const_op(const std::string& op);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OP_REGISTRY_H_
