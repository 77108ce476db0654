#include "node.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "checked_size.h"
#include "common.h"
#include "graph.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

Node::Node() = default;

Node::~Node() {
  delete op_;
  delete output_tensor_;
  delete spare_tensor_;
  for (Tensor* weight : weights_) delete weight;
}

void Node::add_input(const std::string& name) {
  if (std::find(inputs_.begin(), inputs_.end(), name) == inputs_.end()) {
    inputs_.push_back(name);
    ++structure_version_;
  }
}

void Node::add_consumer(const std::string& name) {
  if (std::find(consumers_.begin(), consumers_.end(), name) == consumers_.end()) {
    consumers_.push_back(name);
  }
}

Tensor* Node::add_weight(const std::string& name) {
  for (const Tensor* weight : weights_) {
    if (weight->name() == name) return nullptr;
  }
  Tensor* weight = new Tensor();
  weight->set_name(name);
  weights_.push_back(weight);
  return weight;
}

void Node::init_op(const std::string& op_type) {
  op_type_ = op_type;
  const_op_ = CONST_OPS.count(op_type) != 0;
  ++structure_version_;
  // operator[] on purpose: an unknown name leaves an empty entry behind.
  OpCreator creator = Holder::new_op_creator()[op_type];
  if (creator == nullptr) fatal("Op: " + op_type + " has not been supported!");
  delete op_;
  op_ = creator();
  op_->set_owner(this);
}

namespace {

int bitwidth_from_attributes(const NodeDef& node_def, const std::string& name, const std::string& op_type) {
  AttrValue value;
  if (get_attr_value(node_def, "output_bitwidth", value)) {
    return value.value_case() == AttrValue::kI ? static_cast<int>(value.i()) : 0;
  }
  if (op_type == "NOp") {
    if (!get_attr_value(node_def, "op_target", value)) fatal("Op: " + name + " have no optarget!");
    const std::string target = value.value_case() == AttrValue::kS ? value.s() : std::string();
    if (target == "output") return 32;
    if (target == "input") return 8;
    fatal("Op: " + name + " have an unsupport op target:" + target + "!");
  }
  const bool quantized =
      op_type.find("Quantize") != std::string::npos || op_type.find("Int8") != std::string::npos;
  if (quantized) fatal("Op: " + name + " have no output bitwidth!");
  return 32;
}

}  // namespace

void Node::parse_parameter(const NodeDef& node_def) {
  if (output_bitwidth_ == -1) {
    set_output_bitwidth(bitwidth_from_attributes(node_def, name_, op_type_));
  }
  AttrValue min_value;
  set_output_signed(get_attr_value(node_def, "minValue", min_value) &&
                    ((min_value.value_case() == AttrValue::kI && min_value.i() < 0) ||
                     (min_value.value_case() == AttrValue::kF && min_value.f() < 0)));
  if (op_ != nullptr) op_->parse_parameter(node_def);
}

void Node::inference_shape(const std::vector<const Tensor*>& inputs) {
  // Until the operator has succeeded the node counts as not inferred, so a
  // caught failure midway never leaves a partial shape that looks current.
  inferred_ = false;
  oshape_checked_ = false;
  oshape_.clear();
  op_->inference_shape(inputs, oshape_);
  inferred_inputs_.clear();
  for (const Tensor* input : inputs) {
    inferred_inputs_.push_back(input == nullptr ? -1 : static_cast<int>(input->data_type()));
    if (input == nullptr) continue;
    inferred_inputs_.push_back(input->dims());
    inferred_inputs_.insert(inferred_inputs_.end(), input->shape().begin(), input->shape().end());
  }
  inferred_ = true;
}

bool Node::inferred_from(const std::vector<const Tensor*>& inputs) const {
  if (!inferred_) return false;
  const int* it = inferred_inputs_.data();
  const int* end = it + inferred_inputs_.size();
  for (const Tensor* input : inputs) {
    if (it == end) return false;
    if (input == nullptr) {
      if (*it++ != -1) return false;
      continue;
    }
    if (*it++ != static_cast<int>(input->data_type())) return false;
    const std::vector<int>& shape = input->shape();
    const size_t rank = shape.size();
    if (end - it < static_cast<std::ptrdiff_t>(rank) + 1 || *it++ != static_cast<int>(rank)) return false;
    for (size_t d = 0; d < rank; ++d) {
      if (it[d] != shape[d]) return false;
    }
    it += rank;
  }
  return it == end;
}

namespace {

Tensor::DataType output_type(const std::vector<const Tensor*>& inputs) {
  return inputs.empty() ? Tensor::DT_FLOAT : inputs[0]->data_type();
}

}  // namespace

long long Node::output_bytes(const std::vector<const Tensor*>& inputs) {
  const int element_bytes = inputs.empty() ? 4 : inputs[0]->element_byte_size(output_type(inputs));
  // Only a newly inferred shape can be invalid.
  if (!oshape_checked_) {
    _check_output_shape(element_bytes);
    oshape_checked_ = true;
  }
  return shape_count(oshape_) * element_bytes;
}

bool Node::run(const std::vector<const Tensor*>& inputs) {
  if (output_tensor_ == nullptr) {
    std::swap(output_tensor_, spare_tensor_);
    if (output_tensor_ == nullptr) {
      output_tensor_ = new Tensor();
      output_tensor_->set_name(name_);
    }
  }
  const long long bytes = output_bytes(inputs);
  const Tensor::DataType type = output_type(inputs);
  // Outputs of the run outlive it (the caller reads them), so they keep
  // buffers of their own rather than hold a pooled one across runs.
  ActivationPool* pool = owner_ != nullptr && !is_output_ ? owner_->activation_pool() : nullptr;
  if (pool == nullptr) {
    // Keeps the buffer when shape and type are unchanged (see Tensor::set_data).
    output_tensor_->set_data(oshape_, type, nullptr);
  } else {
    if (pool_block_ == nullptr || pool_capacity_ < static_cast<size_t>(bytes)) {
      if (pool_block_ != nullptr) pool->give(pool_block_);
      pool_block_ = bytes > 0 ? pool->take(static_cast<size_t>(bytes), &pool_capacity_) : nullptr;
    }
    output_tensor_->set_data(oshape_, type, pool_block_);
  }
  const bool result = op_->execute(inputs, output_tensor_);
  have_run_ = true;
  return result;
}

void Node::_check_output_shape(int element_bytes) const {
  // A malformed model can make an operator infer a negative or overflowing
  // shape; stop here rather than size a buffer from it. A tensor keeps its
  // byte size in an int as well.
  const long long count = shape_count(oshape_);
  if (count >= 0 && count * element_bytes <= kMaxTensorElements) return;
  const std::string text = shape_text(oshape_);
  if (count < 0) fatal("The node:" + name_ + " inferred an invalid output shape " + text);
  fatal("The node:" + name_ + " inferred an output shape " + text + " of " +
        std::to_string(count * element_bytes) + " bytes, more than the 2147483647 a tensor holds");
}

void Node::reset() {
  have_run_ = false;
  pending_consumers_ = static_cast<int>(consumers_.size());
}

Tensor* Node::output_tensor() const {
  if (!have_run_) fatal("The node:" + name_ + " have not been run.");
  return output_tensor_;
}

Tensor* Node::consume_output_tensor(const std::string& real_name) const {
  --pending_consumers_;
  if (real_name.empty()) return output_tensor();
  Tensor* output = output_tensor();
  if (output != nullptr) {
    for (Tensor* slave : output->get_mu_slave_tensors()) {
      if (slave != nullptr && slave->name() == real_name) return slave;
    }
  }
  fatal("The node:" + name_ + " do not found output:" + real_name);
}

long long Node::check_release_otensor() {
  if (pending_consumers_ != 0 || output_tensor_ == nullptr) return 0;
  const long long bytes = output_tensor_->byte_size();
  ActivationPool* pool = owner_ != nullptr ? owner_->activation_pool() : nullptr;
  if (pool != nullptr && pool_block_ != nullptr) {
    pool->give(pool_block_);
    pool_block_ = nullptr;
  }
  // A tensor on a pool buffer is kept for the next run; one whose operator
  // gave it a buffer of its own is freed with it.
  if (pool != nullptr && !output_tensor_->own_data() && spare_tensor_ == nullptr) {
    spare_tensor_ = output_tensor_;
  } else {
    delete output_tensor_;
  }
  output_tensor_ = nullptr;
  return bytes;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
