#include "model_check.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "checked_size.h"
#include "common.h"
#include "graph_topology.h"
#include "node.h"
#include "op_attr.h"
#include "op_registry.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// Keys the node itself and the executor read, beside the operators' own.
const std::set<std::string> kFrameworkKeys = {"output_bitwidth", "op_target", "target_device"};

// Every "ActionType" value some operator acts on; any other value silently
// means "no activation" and is most likely a misspelling.
const std::set<std::string> kActionTypes = {
    "None",    "Linear", "Relu", "Relu6", "LeakyRelu", "PRelu", "Hsigmoid", "Swish",
    "Sigmoid", "Selu",   "Tanh", "Elu",   "HardSwish", "Mish",  "Softplus", "Softsign"};

// Empty when the operator reads the attribute in an encoding it holds (or
// does not read it); otherwise says what it holds and what is read instead.
std::string encoding_mismatch(const AttrReadTracker& tracker, const std::string& op, const std::string& key,
                              const AttrValue& value) {
  const auto read = tracker.encodings().find(key);
  if (read == tracker.encodings().end()) return "";
  for (AttrEncoding encoding : read->second) {
    if (encoding_accepts(encoding, value)) return "";
  }
  const std::string wanted = encoding_name(read->second.front());
  return "the attribute \"" + key + "\" holds " + attr_kind_text(value) + " but " + op + " reads " +
         (wanted[0] == 'i' ? "an " : "a ") + wanted + "; it reads as 0 or empty";
}

// For |v| < 9e18 only, where the cast is defined.
bool integral(double v) { return v == static_cast<double>(static_cast<long long>(v)); }

// `value` in `encoding` when it converts exactly; false otherwise.
bool convert_attr(AttrEncoding encoding, AttrValue& value) {
  const AttrValue::ValueCase kind = value.value_case();
  switch (encoding) {
    case AttrEncoding::kFloat: {
      if (kind != AttrValue::kI && kind != AttrValue::kB) return false;
      const long long i = kind == AttrValue::kI ? value.i() : value.b();
      value.set_f(static_cast<float>(i));
      // Above 2^24 not every integer is a float.
      return static_cast<double>(value.f()) == static_cast<double>(i);
    }
    case AttrEncoding::kInt:
    case AttrEncoding::kIntOrFloat:
      if (kind == AttrValue::kF && std::fabs(value.f()) < 9e18f && integral(value.f())) {
        value.set_i(static_cast<long long>(value.f()));
      } else if (kind == AttrValue::kB) {
        value.set_i(value.b() ? 1 : 0);
      } else {
        return false;
      }
      return true;
    case AttrEncoding::kIntList: {
      if (kind != AttrValue::kList || value.list().i_size() > 0) return false;
      std::vector<long long> ints;
      for (float f : value.list().f()) {
        if (!(std::fabs(f) < 9e18f) || !integral(f)) return false;
        ints.push_back(static_cast<long long>(f));
      }
      value.mutable_list()->clear_f();
      for (long long i : ints) value.mutable_list()->add_i(i);
      return true;
    }
    case AttrEncoding::kFloatList: {
      if (kind != AttrValue::kList || value.list().f_size() > 0) return false;
      std::vector<float> floats(value.list().i().begin(), value.list().i().end());
      value.mutable_list()->clear_i();
      for (float f : floats) value.mutable_list()->add_f(f);
      return true;
    }
    case AttrEncoding::kBool:
    case AttrEncoding::kString:
      return false;
  }
  return false;
}

class Checker {
 public:
  Checker(const GraphDef& graph, ModelReport& report) : graph_(graph), report_(report) {}

  void run(const std::map<std::string, std::vector<int>>& input_shapes, const RunPlan& plan) {
    infer_ = !input_shapes.empty();
    _names();
    _constants();
    _nodes();
    std::vector<size_t> cyclic;
    const std::vector<size_t> order = topological_order(outline_.producers, &cyclic);
    if (!cyclic.empty()) {
      std::string left;
      for (size_t i : cyclic) left += (left.empty() ? "" : ", ") + outline_.names[i];
      problem(outline_.names[cyclic[0]], outline_.ops[cyclic[0]],
              "the model has a cycle among the nodes: " + left);
    }
    if (!input_shapes.empty()) _shapes(order, input_shapes, plan);
  }

 private:
  void problem(const std::string& node, const std::string& op, const std::string& message) {
    report_.problems.push_back({node, op, message});
  }
  void warning(const std::string& node, const std::string& op, const std::string& message) {
    report_.warnings.push_back({node, op, message});
  }

  void _names() {
    std::set<std::string> seen;
    for (const NodeDef& node : graph_.node()) {
      if (node.name().empty()) {
        problem("", node.op(), "the model has a node without a name (op " + node.op() + ")");
      } else if (!seen.insert(node.name()).second) {
        problem(node.name(), node.op(), "the node name '" + node.name() + "' appears twice");
      }
      // The first node of a name is the one the executor would use.
      defs_.emplace(node.name(), &node);
    }
    outline_ = graph_outline(graph_);
  }

  void _constants() {
    for (const NodeDef& node : graph_.node()) {
      if (node.op() != "Const" || defs_[node.name()] != &node) continue;
      auto it = node.attr().find("value");
      if (it == node.attr().end() || it->second.value_case() != AttrValue::kTensor) {
        problem(node.name(), node.op(), "constant '" + node.name() + "' has no tensor attribute \"value\"");
        continue;
      }
      const TensorProto& tensor = it->second.tensor();
      const long long count = constant_element_count(tensor);
      if (count < 0) {
        problem(node.name(), node.op(), "constant '" + node.name() + "' has an invalid shape");
        continue;
      }
      int size = 0;
      try {
        ScopedErrorPolicy policy(ErrorPolicy::kThrow);
        size = Tensor().element_byte_size(static_cast<Tensor::DataType>(tensor.dtype()));
      } catch (const Error&) {
      }
      if (size <= 0) {
        problem(
            node.name(), node.op(),
            "constant '" + node.name() + "' has unsupported element type " + std::to_string(tensor.dtype()));
        continue;
      }
      const unsigned long long needed = static_cast<unsigned long long>(count) * size;
      const size_t held = tensor.tensor_content().size();
      const std::string detail = "constant '" + node.name() + "' holds " + std::to_string(held) +
                                 " bytes of data but its shape needs " + std::to_string(needed);
      if (held < needed) problem(node.name(), node.op(), detail);
      if (held > needed) warning(node.name(), node.op(), detail + "; the rest is ignored");
    }
  }

  // Operators, inputs and attributes of every non-constant node.
  void _nodes() {
    nodes_.resize(outline_.names.size());
    for (size_t i = 0; i < outline_.names.size(); ++i) {
      const NodeDef& def = *defs_.at(outline_.names[i]);
      const std::string& op = def.op();
      for (const std::string& input : def.input()) {
        const std::string name = input_lookup_name(input);
        if (defs_.count(name) == 0) {
          problem(def.name(), op,
                  "node '" + def.name() + "' reads '" + input + "', which is not in the model");
        }
      }
      if (!is_registered_op(op)) {
        problem(def.name(), op, "the model uses operators this build does not have: " + op);
        continue;
      }
      std::unique_ptr<Node> node(new Node());
      node->set_name(def.name());
      AttrReadTracker tracker;
      try {
        ScopedErrorPolicy policy(ErrorPolicy::kThrow);
        NodeErrorScope scope(def.name(), op);
        node->init_op(op);
        for (size_t p : outline_.producers[i]) node->add_input(outline_.names[p]);
        // Weights matter to shape inference only; a plain check need not copy them.
        if (infer_) {
          for (const std::string& input : def.input()) _add_weight(*node, input_lookup_name(input));
        }
        node->parse_parameter(def);
        const int reads = node->op()->max_inputs();
        if (reads >= 0 && def.input_size() > reads) {
          warning(def.name(), op,
                  "node '" + def.name() + "' has " + std::to_string(def.input_size()) + " inputs but " + op +
                      " reads " + std::to_string(reads) + "; the rest would be ignored");
        }
        nodes_[i] = std::move(node);
      } catch (const Error& e) {
        problem(def.name(), op, e.message());
      }
      for (const auto& attr : def.attr()) {
        if (!tracker.keys().count(attr.first) && !kFrameworkKeys.count(attr.first)) {
          warning(def.name(), op, "the attribute \"" + attr.first + "\" is read by no operator");
        }
        const std::string misread = encoding_mismatch(tracker, op, attr.first, attr.second);
        if (!misread.empty()) warning(def.name(), op, misread);
      }
      auto action = def.attr().find("ActionType");
      if (action != def.attr().end() && action->second.value_case() == AttrValue::kS &&
          !kActionTypes.count(action->second.s())) {
        warning(def.name(), op, "the ActionType \"" + action->second.s() + "\" is recognised by no operator");
      }
    }
  }

  // Constant inputs become the node's weights, as the executor attaches them.
  void _add_weight(Node& node, const std::string& name) {
    auto it = defs_.find(name);
    if (it == defs_.end() || it->second->op() != "Const") return;
    auto value = it->second->attr().find("value");
    if (value == it->second->attr().end() || value->second.value_case() != AttrValue::kTensor) return;
    const TensorProto& proto = value->second.tensor();
    std::vector<int> shape;
    get_tensor_shape(&proto, shape);
    if (shape.empty()) shape.push_back(1);
    Tensor* weight = node.add_weight(name);
    if (weight == nullptr) return;
    const auto type = static_cast<Tensor::DataType>(proto.dtype());
    // Read in place as the executor reads it, so checking a large model
    // costs no second copy of its weights; a short constant (a problem
    // reported above) gets a buffer of its own.
    const std::string& content = proto.tensor_content();
    const long long count = shape_count(shape);
    if (count >= 0 && content.size() >= static_cast<size_t>(count * weight->element_byte_size(type)) &&
        reinterpret_cast<uintptr_t>(content.data()) % alignof(std::max_align_t) == 0) {
      weight->set_data(shape, type, const_cast<char*>(content.data()));
      return;
    }
    weight->set_data(shape, type, nullptr);
    const size_t bytes = std::min(static_cast<size_t>(weight->byte_size()), content.size());
    if (bytes > 0) std::memcpy(weight->get_mutable_ptr(), content.data(), bytes);
  }

  // Shape inference in execution order on tensors that are shaped but never
  // computed. A node whose inputs have no shape is skipped, silently: the
  // problem lies upstream and is reported there.
  void _shapes(const std::vector<size_t>& order, const std::map<std::string, std::vector<int>>& input_shapes,
               const RunPlan& plan) {
    std::map<std::string, std::unique_ptr<Tensor>> fed;
    for (const auto& entry : input_shapes) {
      if (outline_.find(entry.first) < 0) {
        problem(entry.first, "", "a shape is given for '" + entry.first + "', which is no node of the model");
        continue;
      }
      std::unique_ptr<Tensor> tensor(new Tensor());
      tensor->set_name(entry.first);
      try {
        ScopedErrorPolicy policy(ErrorPolicy::kThrow);
        tensor->set_data(entry.second, Tensor::DT_FLOAT, nullptr);
      } catch (const Error& e) {
        problem(entry.first, "", e.message());
        continue;
      }
      fed.emplace(entry.first, std::move(tensor));
    }
    std::vector<std::unique_ptr<Tensor>> outputs(outline_.names.size());
    // The bytes a run holds, counted as the executor counts them: every
    // output kept, or in place each one released once its last reader ran.
    std::vector<long long> bytes(outline_.names.size(), 0);
    std::vector<int> readers(outline_.names.size(), 0);
    for (size_t i : order) {
      for (size_t p : outline_.producers[i]) ++readers[p];
    }
    long long held = 0;
    for (size_t i : order) {
      Node* node = nodes_[i].get();
      if (node == nullptr) continue;
      std::vector<const Tensor*> inputs;
      bool ready = true;
      for (size_t p : outline_.producers[i]) {
        auto it = fed.find(outline_.names[p]);
        const Tensor* tensor = it != fed.end() ? it->second.get() : outputs[p].get();
        ready = ready && tensor != nullptr;
        inputs.push_back(tensor);
      }
      if (outline_.producers[i].empty() && !is_const_op(outline_.ops[i])) {
        auto it = fed.find(outline_.names[i]);
        ready = it != fed.end();
        if (ready) inputs.push_back(it->second.get());
      }
      if (!ready) continue;
      for (const Tensor* weight : node->weights()) inputs.push_back(weight);
      try {
        ScopedErrorPolicy policy(ErrorPolicy::kThrow);
        NodeErrorScope scope(outline_.names[i], outline_.ops[i]);
        node->inference_shape(inputs);
        bytes[i] = node->output_bytes(inputs);
        // Refused before anything is shaped past the budget; what lies
        // beyond would not run either.
        if (held + bytes[i] > plan.memory_budget) {
          report_.over_budget = static_cast<int>(report_.problems.size());
          problem(outline_.names[i], outline_.ops[i],
                  over_budget_message(outline_.names[i], bytes[i], held + bytes[i], plan.memory_budget));
          return;
        }
        if (!node->oshape().empty()) {
          std::unique_ptr<Tensor> out(new Tensor());
          out->set_name(outline_.names[i]);
          out->set_data(node->oshape(), inputs.empty() ? Tensor::DT_FLOAT : inputs[0]->data_type(), nullptr);
          outputs[i] = std::move(out);
        }
      } catch (const Error& e) {
        problem(outline_.names[i], outline_.ops[i], e.message());
        continue;
      }
      if (outputs[i] != nullptr)
        report_.shapes.push_back({outline_.names[i], outline_.ops[i], node->oshape()});
      held += bytes[i];
      report_.planned_bytes = std::max(report_.planned_bytes, held);
      if (plan.inplace && !outline_.producers[i].empty()) {
        // The graph's input nodes hand over the fed tensors and keep them.
        for (size_t p : outline_.producers[i]) {
          if (--readers[p] == 0 && !outline_.producers[p].empty() && !fed.count(outline_.names[p])) {
            held -= bytes[p];
          }
        }
      }
    }
  }

  const GraphDef& graph_;
  ModelReport& report_;
  std::map<std::string, const NodeDef*> defs_;
  GraphOutline outline_;
  std::vector<std::unique_ptr<Node>> nodes_;
  bool infer_ = false;
};

}  // namespace

ModelReport check_model(const GraphDef& graph, const std::map<std::string, std::vector<int>>& input_shapes,
                        const RunPlan& plan) {
  ModelReport report;
  Checker(graph, report).run(input_shapes, plan);
  return report;
}

std::vector<std::string> fit_attribute_encodings(NodeDef& def) {
  std::vector<std::string> left;
  if (!is_registered_op(def.op())) return left;
  AttrReadTracker tracker;
  try {
    ScopedErrorPolicy policy(ErrorPolicy::kThrow);
    Node node;
    node.set_name(def.name());
    node.init_op(def.op());
    node.parse_parameter(def);
  } catch (const Error&) {
    // An operator stops at its first missing attribute; what it read so far still counts.
  }
  for (auto& attr : *def.mutable_attr()) {
    const auto read = tracker.encodings().find(attr.first);
    if (read == tracker.encodings().end() ||
        encoding_mismatch(tracker, def.op(), attr.first, attr.second).empty()) {
      continue;
    }
    AttrValue converted = attr.second;
    if (convert_attr(read->second.front(), converted)) {
      attr.second = converted;
    } else {
      left.push_back(encoding_mismatch(tracker, def.op(), attr.first, attr.second));
    }
  }
  return left;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
