#ifndef KOVRAEXECUTOR_GRAPH_EXECUTOR_H_
#define KOVRAEXECUTOR_GRAPH_EXECUTOR_H_

#include <map>
#include <string>
#include <vector>

#include "errors.h"
#include "export.h"
#include "lite/proto/graph_def.pb.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

using ::kovra::trenkit::GraphDef;
using ::kovra::trenkit::NodeDef;

class Graph;
class Node;
class NodeNameMap;
class OpExecutor;

// Fixed to int: a value from outside (a config, a binding) may be any int, and
// the executor refuses unknown ones with a message rather than in undefined behaviour.
enum DEVICE : int { CPU = 0, GPU = 1 };

// The public entry point: translates a model into a graph, takes input
// tensors, runs the graph or a part of it and hands out tensors by node name.
class KOVRA_API GraphExecutor {
 public:
  // Reads (and deciphers) the model at `model_path`.
  GraphExecutor(const std::string& model_path, DEVICE device);
  // Uses the caller's model, which must outlive the executor.
  GraphExecutor(const GraphDef* graph_def, DEVICE device);
  GraphExecutor(const GraphDef* graph_def, const std::map<std::string, Tensor*>& inputs, DEVICE device);
  ~GraphExecutor();
  GraphExecutor(const GraphExecutor&) = delete;
  GraphExecutor& operator=(const GraphExecutor&) = delete;

  void set_device(DEVICE device);
  DEVICE device() const { return static_cast<DEVICE>(device_); }
  void set_inplace(bool inplace);
  bool inplace() const;
  // Bytes the node outputs of one run may hold at once (8 GiB unless set); a
  // run is refused before the node whose output would pass it.
  void set_memory_budget(long long bytes);
  long long memory_budget() const;
  // Threads used by the tiled convolutions, process-wide; results never depend on it.
  static void set_num_threads(int threads);
  static int num_threads();

  void set_input(Tensor* tensor);
  void set_input(const std::string& name, Tensor* tensor);
  void set_inputs(const std::map<std::string, Tensor*>& inputs);
  bool work(const std::vector<std::string>& start_names = {}, const std::string& end_name = "");

  const Tensor* get_output_tensor(const std::string& name) const;
  Tensor* get_mutable_output_tensor(const std::string& name) const;
  const Tensor* get_node_tensor(const std::string& name) const;
  Tensor* get_mutable_node_tensor(const std::string& name) const;
  const std::vector<const Tensor*>& get_node_weights(const std::string& name) const;
  OpExecutor* get_op_executor(const std::string& name) const;
  std::vector<std::string> get_input_names() const;
  std::vector<std::string> get_output_names() const;
  std::vector<float> get_node_float_data(const Tensor* tensor) const;
  void update_graph();
  const GraphDef* graph_def() const { return graph_def_; }

  // Called after every node execution with the node's name, its operator and
  // the monotonic clock in nanoseconds before and after it ran. A null
  // observer stops the calls; nothing is timed while none is set.
  using NodeObserver = void (*)(void* context, const std::string& node, const std::string& op,
                                long long start_ns, long long end_ns);
  void set_node_observer(NodeObserver observer, void* context);

  // Writes every tensor computed from now on into `folder`, as
  // KOVRA_CPP_DUMPDATA=true does (<name>.bin files and manifest.tsv); an empty
  // folder stops dumping.
  void set_dump_folder(const std::string& folder);
  // The file name, without extension, under which a tensor of that name is
  // dumped: every character outside [A-Za-z0-9._-] becomes '_'.
  static std::string dump_file_stem(const std::string& tensor_name);

  // No accelerator in this build: each of these stops the process.
  void query_gpu_device();
  void check_gpu_device(int id);
  void find_gpu_device(int id);
  void set_gpu_device(int id);

 private:
  // Code inside the library (and its tests) reaches the graph through it.
  friend class GraphExecutorAccess;

  static void _forward_node_timing(void* context, const Node& node, long long start_ns, long long end_ns);
  void _common_init(DEVICE device);
  void _release();
  void _ir_graph_initialize(const GraphDef* graph_def);
  std::string _get_target_device(const GraphDef* graph_def) const;
  void _parse_node_weight(const NodeDef& const_node, Tensor* weight);
  void _pre_run(const std::vector<std::string>& start_names, const std::string& end_name);

  int32_t device_ = -1;
  Graph* graph_ = nullptr;
  std::vector<std::string> start_names_;
  std::string end_name_;
  const GraphDef* graph_def_ = nullptr;
  bool own_graph_def_ = false;
  NodeNameMap* node_name_map_ = nullptr;
  std::string target_device_;
  // Views of each node's weights as const tensors, for get_node_weights.
  mutable std::map<std::string, std::vector<const Tensor*>> weight_views_;
  NodeObserver node_observer_ = nullptr;
  void* node_observer_context_ = nullptr;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_GRAPH_EXECUTOR_H_
