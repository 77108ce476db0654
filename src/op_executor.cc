#include "op_executor.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

std::map<std::string, OpCreator>& Holder::new_op_creator() {
  // Never freed, so registration from any static initialiser is safe.
  static auto* op_creator_map = new std::map<std::string, OpCreator>();
  return *op_creator_map;
}

void Holder::add_op_crreator(const std::string& name, OpCreator creator) {
  auto& creators = new_op_creator();
  if (creators.count(name) != 0) {
    std::printf("%s had already been registered. \n", name.c_str());
    std::fflush(stdout);
    return;
  }
  creators[name] = creator;
}

bool get_attr_value(const NodeDef& node_def, const char* key, AttrValue& value) {
  auto it = node_def.attr().find(key);
  if (it == node_def.attr().end()) return false;
  value = it->second;
  return true;
}

void get_tensor_shape(const TensorProto* tensor, std::vector<int>& shape) {
  shape.clear();
  for (const auto& dim : tensor->tensor_shape().dim()) shape.push_back(static_cast<int>(dim.size()));
}

template <typename T>
void get_tensor_content(const TensorProto* tensor, T** data) {
  const std::string& content = tensor->tensor_content();
  const size_t n = content.size();
  if (n == 0) {
    *data = nullptr;
    return;
  }
  // 128 spare bytes so vector kernels may read a little past the end.
  void* block = std::malloc(n + 128);
  if (block == nullptr) {
    print_error("memory alloc failed!!");
    *data = nullptr;
    return;
  }
  std::memcpy(block, content.data(), n);
  *data = static_cast<T*>(block);
}

template void get_tensor_content<float>(const TensorProto*, float**);
template void get_tensor_content<int>(const TensorProto*, int**);
template void get_tensor_content<unsigned int>(const TensorProto*, unsigned int**);
template void get_tensor_content<signed char>(const TensorProto*, signed char**);
template void get_tensor_content<unsigned char>(const TensorProto*, unsigned char**);
template void get_tensor_content<unsigned short>(const TensorProto*, unsigned short**);
template void get_tensor_content<short>(const TensorProto*, short**);

namespace {

// Copies `bytes` raw bytes of the tensor's content into `dst`, never more than stored.
template <typename Element>
void copy_raw(const TensorProto& tensor, void* dst, size_t bytes) {
  Element* block = nullptr;
  get_tensor_content<Element>(&tensor, &block);
  if (block == nullptr) return;
  const size_t stored = tensor.tensor_content().size();
  std::memcpy(dst, block, bytes < stored ? bytes : stored);
  std::free(block);
}

}  // namespace

template <typename T>
bool OpExecutor::_tensor_parameter_parser(const NodeDef& node_def, const char* key,
                                          std::vector<T>& values) {
  AttrValue value;
  if (!get_attr_value(node_def, key, value)) {
    print_error(node_def.name() + " value get failed!!!");
    return false;
  }
  if (!value.has_tensor()) return false;
  const TensorProto& tensor = value.tensor();
  size_t count = 1;
  for (const auto& dim : tensor.tensor_shape().dim()) {
    if (dim.size() < 0 || dim.size() > INT32_MAX || count * static_cast<size_t>(dim.size()) > INT32_MAX) {
      fatal(node_def.name() + " has a malformed tensor attribute " + key);
    }
    count *= static_cast<size_t>(dim.size());
  }
  values.resize(count);
  // Raw bytes by stored type, no conversion: the element type of `values`
  // must match. Copies stop at the vector's end whatever the stored type says.
  const size_t capacity = count * sizeof(T);
  switch (tensor.dtype()) {
    case ::kovra::trenkit::DT_INT32:
      copy_raw<int>(tensor, values.data(), std::min(count * 4, capacity));
      break;
    case ::kovra::trenkit::DT_FLOAT:
      copy_raw<float>(tensor, values.data(), std::min(count * 4, capacity));
      break;
    case ::kovra::trenkit::DT_INT16:
      copy_raw<short>(tensor, values.data(), std::min(count * 2, capacity));
      break;
    default:
      print_error(std::to_string(tensor.dtype()) + " adding...");
      break;
  }
  return true;
}

template bool OpExecutor::_tensor_parameter_parser<float>(const NodeDef&, const char*,
                                                          std::vector<float>&);
template bool OpExecutor::_tensor_parameter_parser<int>(const NodeDef&, const char*,
                                                        std::vector<int>&);
template bool OpExecutor::_tensor_parameter_parser<unsigned char>(const NodeDef&, const char*,
                                                                  std::vector<unsigned char>&);
template bool OpExecutor::_tensor_parameter_parser<signed char>(const NodeDef&, const char*,
                                                                std::vector<signed char>&);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
