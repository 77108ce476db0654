#ifndef KOVRAEXECUTOR_NODE_H_
#define KOVRAEXECUTOR_NODE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "op_executor.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

class Graph;

// One operator instance of a graph: its producers and consumers by name, its
// weights, operator and output tensor, and the run state the scheduler needs.
class Node {
 public:
  Node();
  ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  const std::string& name() const { return name_; }
  void set_name(const std::string& name) { name_ = name; }
  OpExecutor* op() const { return op_; }
  const std::string& op_type() const { return op_type_; }
  // The operator is computed from its weights alone (CONST_OPS).
  bool is_const_op() const { return const_op_; }
  const Graph* owner() const { return owner_; }
  void set_owner(const Graph* owner) { owner_ = owner; }
  const std::vector<Tensor*>& weights() const { return weights_; }
  std::vector<Tensor*>& weights() { return weights_; }
  const std::vector<std::string>& inputs() const { return inputs_; }
  void set_inputs(const std::vector<std::string>& inputs) {
    inputs_ = inputs;
    ++structure_version_;
  }
  // Changes whenever what a graph plans its runs from does (inputs, operator
  // type, start-node mark), so a plan can tell that it is out of date.
  uint64_t structure_version() const { return structure_version_; }
  const std::vector<std::string>& consumers() const { return consumers_; }
  int input_num() const { return static_cast<int>(inputs_.size()); }
  int output_num() const { return static_cast<int>(consumers_.size()); }
  const std::vector<int>& oshape() const { return oshape_; }
  bool is_input() const { return is_input_; }
  void set_is_input(bool v) {
    if (v != is_input_) ++structure_version_;
    is_input_ = v;
  }
  bool is_output() const { return is_output_; }
  void set_is_output(bool v) { is_output_ = v; }
  bool have_run() const { return have_run_; }
  bool param_update() const { return param_update_; }
  void set_param_update(bool v) { param_update_ = v; }
  int output_bitwidth() const { return output_bitwidth_; }
  void set_output_bitwidth(int v) { output_bitwidth_ = v; }
  // Whether the output codes can be negative (a negative "minValue"): dumps
  // record it so a reader turns wrapped bytes back into the node's codes.
  bool output_signed() const { return output_signed_; }
  void set_output_signed(bool v) { output_signed_ = v; }
  const std::string& real_input_name() const { return real_input_name_; }
  void set_real_input_name(const std::string& name) { real_input_name_ = name; }
  int pending_consumers() const { return pending_consumers_; }

  void add_input(const std::string& name);
  void add_consumer(const std::string& name);
  // Null when a weight of that name exists already.
  Tensor* add_weight(const std::string& name);

  void init_op(const std::string& op_type);
  void parse_parameter(const NodeDef& node_def);
  // Infers oshape() and remembers the input shapes and types it was inferred from.
  void inference_shape(const std::vector<const Tensor*>& inputs);
  // True when `inputs` have the count, shapes and element types of the last
  // inference_shape call; compares in place, without allocating.
  bool inferred_from(const std::vector<const Tensor*>& inputs) const;
  bool run(const std::vector<const Tensor*>& inputs);
  // Bytes of the output run(inputs) will size, after refusing an inferred
  // shape whose element count or byte size does not fit a tensor.
  long long output_bytes(const std::vector<const Tensor*>& inputs);
  void reset();

  Tensor* output_tensor() const;
  Tensor* consume_output_tensor(const std::string& real_name) const;
  // Frees the output once every consumer has read it; returns the bytes freed.
  long long check_release_otensor();

 private:
  void _check_output_shape(int element_bytes) const;

  bool is_input_ = false;
  bool have_run_ = false;
  mutable int pending_consumers_ = 0;
  OpExecutor* op_ = nullptr;
  Tensor* output_tensor_ = nullptr;
  std::string name_;
  std::string op_type_;
  std::vector<std::string> inputs_;
  std::vector<std::string> consumers_;
  std::vector<Tensor*> weights_;
  std::vector<int> oshape_;
  // Inputs of the last inference, flattened: per input its type, rank, dims.
  std::vector<int> inferred_inputs_;
  bool inferred_ = false;
  bool oshape_checked_ = false;
  bool const_op_ = false;
  uint64_t structure_version_ = 0;
  int output_bitwidth_ = -1;
  bool output_signed_ = false;
  std::string real_input_name_;
  const Graph* owner_ = nullptr;
  // Under the owner's activation pool: the buffer the output borrows, and the
  // released output kept for the next run so that it allocates nothing.
  void* pool_block_ = nullptr;
  size_t pool_capacity_ = 0;
  Tensor* spare_tensor_ = nullptr;
  bool param_update_ = false;
  bool is_output_ = false;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_NODE_H_
