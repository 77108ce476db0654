#include "graph_executor.h"

#include <cstdio>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "common.h"
#include "encryption.h"
#include "graph.h"
#include "graph_topology.h"
#include "model_reader.h"
#include "node_name_map.h"
#include "op_executor.h"
#include "tensor_dump.h"
#include "thread_pool.h"

#ifndef KOVRA_VERSION
#define KOVRA_VERSION "2.1.0"
#endif
#ifndef KOVRA_REVISION
#define KOVRA_REVISION "unknown"
#endif
#ifndef KOVRA_BUILD_STAMP
#define KOVRA_BUILD_STAMP __DATE__ " " __TIME__ ":CPU"
#endif

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

const char* const kNoGpu = "Your library don't compile with GPU.";

}  // namespace

GraphExecutor::GraphExecutor(const std::string& model_path, DEVICE device) {
  graph_def_ = EncryptionRC4::decryption_model(model_path);
  own_graph_def_ = true;
  _common_init(device);
}

GraphExecutor::GraphExecutor(const GraphDef* graph_def, DEVICE device) {
  graph_def_ = graph_def;
  own_graph_def_ = false;
  _common_init(device);
}

GraphExecutor::GraphExecutor(const GraphDef* graph_def, const std::map<std::string, Tensor*>& inputs,
                             DEVICE device)
    : GraphExecutor(graph_def, device) {
  set_inputs(inputs);
}

GraphExecutor::~GraphExecutor() { _release(); }

void GraphExecutor::_release() {
  delete node_name_map_;
  node_name_map_ = nullptr;
  delete graph_;
  graph_ = nullptr;
  if (own_graph_def_) delete graph_def_;
  graph_def_ = nullptr;
}

void GraphExecutor::_common_init(DEVICE device) {
  // A constructor that throws (ErrorPolicy::kThrow) runs no destructor: free
  // here what the failed construction had made.
  try {
    device_ = -1;
    node_name_map_ = new NodeNameMap(graph_def_);
    node_name_map_->update(graph_def_);
    graph_ = new Graph();
    graph_->set_graph_executor(this);
    start_names_.clear();
    end_name_.clear();
    set_device(device);
  } catch (...) {
    _release();
    throw;
  }
}

void GraphExecutor::set_inplace(bool inplace) { graph_->set_inplace(inplace); }

bool GraphExecutor::inplace() const { return graph_->inplace(); }

void GraphExecutor::set_memory_budget(long long bytes) {
  KOVRA_ENSURE_MSG(bytes > 0, "bytes > 0",
                   "The memory budget must be positive, got " + std::to_string(bytes));
  graph_->set_memory_budget(bytes);
}

long long GraphExecutor::memory_budget() const { return graph_->memory_budget(); }

void GraphExecutor::set_device(DEVICE device) {
  if (static_cast<int32_t>(device) == device_) return;
  if (device == CPU) {
    device_ = CPU;
    _ir_graph_initialize(graph_def_);
    char banner[256];
    std::snprintf(banner, sizeof(banner),
                  "INFO(kovraexecutor): kovra executor version:%s(%d_%s_kovra) built:%s", KOVRA_VERSION,
                  static_cast<int>(device_), KOVRA_REVISION, KOVRA_BUILD_STAMP);
    print_banner(banner);
    return;
  }
  if (device == GPU) fatal(kNoGpu);
  fatal("Unsupport device type: " + std::to_string(static_cast<int>(device)));
}

void GraphExecutor::set_num_threads(int threads) { ThreadPool::instance().set_num_threads(threads); }

int GraphExecutor::num_threads() { return ThreadPool::instance().num_threads(); }

std::string GraphExecutor::_get_target_device(const GraphDef* graph_def) const {
  for (const auto& node : graph_def->node()) {
    auto it = node.attr().find("target_device");
    if (it == node.attr().end()) continue;
    return it->second.value_case() == AttrValue::kS ? it->second.s() : std::string();
  }
  return std::string();
}

void GraphExecutor::_ir_graph_initialize(const GraphDef* graph_def) {
  target_device_ = _get_target_device(graph_def);
  NodeErrorScope scope;
  for (const auto& node_def : graph_def->node()) {
    if (node_def.op() == "Const") continue;
    scope.set(node_def.name(), node_def.op());
    Node* node = graph_->add_node(node_def.name());
    node->init_op(node_def.op());
    for (const std::string& input : node_def.input()) {
      std::string name = input;
      if (input.find(':') != std::string::npos) {
        name = input_lookup_name(input);
        node->set_real_input_name(input);
      }
      const NodeDef* input_node = node_name_map_->find_node_in_all_by_name(name);
      if (input_node == nullptr) {
        print_log("Do not find " + name + "in graph");
        check_failed("input_node != nullptr");
      }
      if (input_node->op() == "Const") {
        Tensor* weight = node->add_weight(name);
        if (weight != nullptr) _parse_node_weight(*input_node, weight);
      } else {
        node->add_input(name);
      }
    }
    node->parse_parameter(node_def);
  }
  scope.clear();
  _pre_run({}, "");
}

void GraphExecutor::_parse_node_weight(const NodeDef& const_node, Tensor* weight) {
  auto it = const_node.attr().find("value");
  if (it == const_node.attr().end()) fatal("key not found: value");
  const TensorProto& proto = it->second.tensor();
  std::vector<int> shape;
  const long long count = constant_element_count(proto);
  if (count < 0) fatal("The constant node:" + const_node.name() + " has an invalid shape.");
  get_tensor_shape(&proto, shape);
  // A rank-0 constant is one element; a Tensor cannot be sized by an empty shape.
  if (shape.empty()) shape.push_back(1);
  const auto type = static_cast<Tensor::DataType>(proto.dtype());
  const size_t needed = static_cast<size_t>(count) * static_cast<size_t>(weight->element_byte_size(type));
  const std::string& content = proto.tensor_content();
  if (content.size() < needed) {
    fatal("The constant node:" + const_node.name() + " holds " + std::to_string(content.size()) +
          " bytes of data but its shape " + shape_text(shape) + " needs " + std::to_string(needed) + ".");
  }
  // Most likely a shape declared too small (a 3x3 kernel as 1x1): say so
  // rather than run on the first values alone.
  if (content.size() > needed) {
    print_warning("The constant node:" + const_node.name() + " holds " + std::to_string(content.size()) +
                  " bytes of data but its shape " + shape_text(shape) + " needs " + std::to_string(needed) +
                  "; the rest is ignored.");
  }
  // The model outlives the executor, so a weight reads the model's own bytes
  // in place: packed copies are then the only second copy of a weight.
  // Operators never write their weights; bytes too unaligned for vector
  // loads of the element type are copied.
  if (needed > 0 && reinterpret_cast<uintptr_t>(content.data()) % alignof(std::max_align_t) == 0) {
    weight->set_data(shape, type, const_cast<char*>(content.data()));
    return;
  }
  weight->set_data(shape, type, nullptr);
  if (needed > 0) std::memcpy(weight->get_mutable_ptr(), content.data(), needed);
}

void GraphExecutor::_pre_run(const std::vector<std::string>& start_names, const std::string& end_name) {
  graph_->initialize(start_names, end_name);
}

void GraphExecutor::set_input(Tensor* tensor) {
  graph_->clear_inputs();
  graph_->add_input(tensor->name(), tensor);
}

void GraphExecutor::set_input(const std::string& name, Tensor* tensor) { graph_->add_input(name, tensor); }

void GraphExecutor::set_inputs(const std::map<std::string, Tensor*>& inputs) {
  graph_->clear_inputs();
  for (const auto& entry : inputs) {
    entry.second->set_name(entry.first);
    graph_->add_input(entry.first, entry.second);
  }
}

bool GraphExecutor::work(const std::vector<std::string>& start_names, const std::string& end_name) {
  if (start_names != start_names_ || end_name != end_name_ || !graph_->initialized()) {
    _pre_run(start_names, end_name);
    start_names_ = start_names;
    end_name_ = end_name;
  }
  graph_->run();
  return true;
}

const Tensor* GraphExecutor::get_output_tensor(const std::string& name) const {
  return graph_->get_output_tensor(name);
}

Tensor* GraphExecutor::get_mutable_output_tensor(const std::string& name) const {
  return graph_->get_mutable_output_tensor(name);
}

const Tensor* GraphExecutor::get_node_tensor(const std::string& name) const {
  return graph_->get_node_tensor(name);
}

Tensor* GraphExecutor::get_mutable_node_tensor(const std::string& name) const {
  return graph_->get_mutable_node_tensor(name);
}

const std::vector<const Tensor*>& GraphExecutor::get_node_weights(const std::string& name) const {
  Node* node = graph_->get_node(name);
  if (node == nullptr) fatal("Graph have no node:" + name);
  auto& view = weight_views_[name];
  view.assign(node->weights().begin(), node->weights().end());
  return view;
}

OpExecutor* GraphExecutor::get_op_executor(const std::string& name) const {
  Node* node = graph_->get_node(name);
  return node == nullptr ? nullptr : node->op();
}

std::vector<std::string> GraphExecutor::get_input_names() const {
  std::vector<std::string> names;
  for (const Node* node : graph_->start_nodes()) names.push_back(node->name());
  return names;
}

std::vector<std::string> GraphExecutor::get_output_names() const {
  std::vector<std::string> names;
  for (const Node* node : graph_->end_nodes()) names.push_back(node->name());
  return names;
}

std::vector<float> GraphExecutor::get_node_float_data(const Tensor* tensor) const {
  const int count = tensor->size();
  std::vector<float> values(count > 0 ? static_cast<size_t>(count) : 0);
  if (count <= 0 || tensor->get_ptr() == nullptr) return values;
  switch (tensor->data_type()) {
    case Tensor::DT_FLOAT:
      std::memcpy(values.data(), tensor->get_ptr(), values.size() * sizeof(float));
      break;
    case Tensor::DT_INT32:
      for (int i = 0; i < count; ++i) values[i] = static_cast<float>(tensor->data<int32_t>()[i]);
      break;
    case Tensor::DT_UINT8:
      for (int i = 0; i < count; ++i) values[i] = tensor->data<uint8_t>()[i];
      break;
    case Tensor::DT_INT8:
      for (int i = 0; i < count; ++i) values[i] = tensor->data<int8_t>()[i];
      break;
    default:
      fatal("Unsupport tensor data type:" + std::to_string(static_cast<int>(tensor->data_type())));
  }
  return values;
}

void GraphExecutor::update_graph() {
  for (Node* node : graph_->nodes()) {
    for (Tensor* weight : node->weights()) {
      const NodeDef* found = node_name_map_->find_node_in_all_by_name(weight->name());
      if (found == nullptr) {
        print_log("Do not find " + weight->name() + "in graph");
        check_failed("const_node != nullptr");
      }
      auto* const_node = const_cast<NodeDef*>(found);
      AttrValue& value = (*const_node->mutable_attr())["value"];
      TensorProto* proto = value.mutable_tensor();
      proto->set_tensor_content(
          std::string(static_cast<const char*>(weight->get_ptr()), static_cast<size_t>(weight->byte_size())));
    }
  }
}

void GraphExecutor::set_node_observer(NodeObserver observer, void* context) {
  node_observer_ = observer;
  node_observer_context_ = context;
  // The graph times nodes only while it has an observer.
  if (observer == nullptr) {
    graph_->set_node_observer(nullptr, nullptr);
  } else {
    graph_->set_node_observer(&GraphExecutor::_forward_node_timing, this);
  }
}

void GraphExecutor::_forward_node_timing(void* context, const Node& node, long long start_ns,
                                         long long end_ns) {
  const auto* self = static_cast<const GraphExecutor*>(context);
  self->node_observer_(self->node_observer_context_, node.name(), node.op_type(), start_ns, end_ns);
}

void GraphExecutor::set_dump_folder(const std::string& folder) {
  if (folder.empty()) {
    graph_->tensor_dump().disable();
  } else {
    graph_->tensor_dump().enable(folder);
  }
}

std::string GraphExecutor::dump_file_stem(const std::string& tensor_name) {
  return TensorDump::sanitize(tensor_name);
}

void GraphExecutor::query_gpu_device() { fatal(kNoGpu); }
void GraphExecutor::check_gpu_device(int) { fatal(kNoGpu); }
void GraphExecutor::find_gpu_device(int) { fatal(kNoGpu); }
void GraphExecutor::set_gpu_device(int) { fatal(kNoGpu); }

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
