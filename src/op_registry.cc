#include "op_registry.h"

#include "op_executor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

std::vector<std::string> registered_op_names() {
  std::vector<std::string> names;
  for (const auto& entry : Holder::new_op_creator()) {
    if (entry.second != nullptr) names.push_back(entry.first);
  }
  return names;
}

bool is_registered_op(const std::string& op) {
  const auto& creators = Holder::new_op_creator();
  const auto it = creators.find(op);
  return it != creators.end() && it->second != nullptr;
}

bool is_const_op(const std::string& op) { return CONST_OPS.count(op) != 0; }

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
