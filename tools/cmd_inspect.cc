#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>

#include <kovraexecutor/model_check.h>
#include <kovraexecutor/op_registry.h>

#include "commands.h"
#include "model_file.h"

namespace kovra_tool {

using kovra::trenkit::AttrValue;
using kovra::trenkit::kovraexecutor::input_lookup_name;
using kovra::trenkit::kovraexecutor::is_const_op;
using kovra::trenkit::kovraexecutor::is_registered_op;

namespace {

const size_t kListShown = 8;  // longer lists show their head and their length

const char* dtype_name(int dtype) {
  switch (dtype) {
    case 1:
      return "float32";
    case 3:
      return "int32";
    case 4:
      return "uint8";
    case 5:
      return "int16";
    case 6:
      return "int8";
    case 22:
      return "uint32";
    default:
      return nullptr;
  }
}

std::string type_text(int dtype) {
  const char* name = dtype_name(dtype);
  return name ? name : "type" + std::to_string(dtype);
}

std::string shape_text(const kovra::trenkit::TensorShapeProto& shape) {
  std::string text;
  for (const auto& dim : shape.dim()) text += (text.empty() ? "" : "x") + std::to_string(dim.size());
  return text.empty() ? "scalar" : text;
}

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
  }
  return out + "\"";
}

// The shortest text that reads back as the same float.
std::string number(float v) {
  char text[32];
  for (int digits = 6; digits <= 9; ++digits) {
    std::snprintf(text, sizeof(text), "%.*g", digits, static_cast<double>(v));
    if (std::strtof(text, nullptr) == v) break;
  }
  return text;
}

template <typename List, typename Format>
std::string list_text(const List& items, Format format) {
  std::string text = "[";
  const size_t n = static_cast<size_t>(items.size());
  for (size_t i = 0; i < n && i < kListShown; ++i) text += (i ? "," : "") + format(items[static_cast<int>(i)]);
  if (n > kListShown) text += ",... (" + std::to_string(n) + " values)";
  return text + "]";
}

std::string attr_text(const AttrValue& value) {
  switch (value.value_case()) {
    case AttrValue::kS:
      return quoted(value.s());
    case AttrValue::kI:
      return std::to_string(value.i());
    case AttrValue::kF:
      return number(value.f());
    case AttrValue::kB:
      return value.b() ? "true" : "false";
    case AttrValue::kType:
      return type_text(value.type());
    case AttrValue::kShape:
      return "shape " + shape_text(value.shape());
    case AttrValue::kTensor:
      return "tensor " + shape_text(value.tensor().tensor_shape()) + " " + type_text(value.tensor().dtype());
    case AttrValue::kFunc:
      return "func " + value.func().name();
    case AttrValue::kPlaceholder:
      return "placeholder " + value.placeholder();
    case AttrValue::kList: {
      const auto& list = value.list();
      if (list.i_size()) return list_text(list.i(), [](long long v) { return std::to_string(v); });
      if (list.f_size()) return list_text(list.f(), [](float v) { return number(v); });
      if (list.s_size()) return list_text(list.s(), [](const std::string& v) { return quoted(v); });
      if (list.b_size()) return list_text(list.b(), [](bool v) { return std::string(v ? "true" : "false"); });
      if (list.type_size()) return list_text(list.type(), [](int v) { return type_text(v); });
      return "[]";
    }
    case AttrValue::VALUE_NOT_SET:
      break;
  }
  return "(empty)";
}

}  // namespace

int cmd_inspect(const InspectOptions& options) {
  GraphDef graph;
  ModelFormat format;
  std::string error;
  if (!read_model(options.model, options.format, graph, format, error)) return fail("kovra inspect", error);

  std::map<std::string, const NodeDef*> by_name;
  for (const NodeDef& node : graph.node()) by_name.emplace(node.name(), &node);
  std::map<std::string, int> consumers;
  for (const NodeDef& node : graph.node()) {
    for (const std::string& input : node.input()) ++consumers[input_lookup_name(input)];
  }
  std::printf("model %s (%s format), %d nodes\n\n", options.model.c_str(), format_name(format),
              graph.node_size());
  std::map<std::string, int> per_op;
  std::set<std::string> unknown;
  std::vector<std::string> inputs, outputs;
  int index = 0;
  for (const NodeDef& node : graph.node()) {
    if (node.op() == "Const") continue;
    const bool known = is_registered_op(node.op());
    if (!known) unknown.insert(node.op());
    ++per_op[node.op()];
    std::printf("[%d] %s  %s%s\n", index++, node.name().c_str(), node.op().c_str(),
                known ? "" : "  (unknown operator)");
    std::string reads, weights;
    for (const std::string& input : node.input()) {
      auto it = by_name.find(input_lookup_name(input));
      if (it != by_name.end() && it->second->op() == "Const") {
        const auto value = it->second->attr().find("value");
        std::string detail = "no value";
        if (value != it->second->attr().end() && value->second.value_case() == AttrValue::kTensor) {
          const auto& tensor = value->second.tensor();
          detail = shape_text(tensor.tensor_shape()) + " " + type_text(tensor.dtype());
        }
        weights += (weights.empty() ? "" : ", ") + input + " [" + detail + "]";
      } else {
        reads += (reads.empty() ? "" : ", ") + input + (it == by_name.end() ? " (missing)" : "");
      }
    }
    if (reads.empty() && !is_const_op(node.op())) inputs.push_back(node.name());
    if (!consumers.count(node.name())) outputs.push_back(node.name());
    if (!reads.empty()) std::printf("    inputs:  %s\n", reads.c_str());
    if (!weights.empty()) std::printf("    weights: %s\n", weights.c_str());
    std::map<std::string, AttrValue> sorted(node.attr().begin(), node.attr().end());
    if (!sorted.empty()) {
      std::string attrs;
      for (const auto& entry : sorted) {
        attrs += (attrs.empty() ? "" : "  ") + entry.first + "=" + attr_text(entry.second);
      }
      std::printf("    attrs:   %s\n", attrs.c_str());
    }
  }
  auto join = [](const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
    return text.empty() ? std::string("(none)") : text;
  };
  std::printf("\ngraph inputs:  %s\n", join(inputs).c_str());
  std::printf("graph outputs: %s\n", join(outputs).c_str());
  std::printf("operators:\n");
  for (const auto& entry : per_op) {
    std::printf("  %-32s %d%s\n", entry.first.c_str(), entry.second,
                unknown.count(entry.first) ? "  (unknown operator)" : "");
  }
  if (!unknown.empty()) {
    std::vector<std::string> list(unknown.begin(), unknown.end());
    std::printf("unknown to this build: %s\n", join(list).c_str());
  }
  const auto report = kovra::trenkit::kovraexecutor::check_model(graph, options.shapes);
  if (!report.problems.empty() || !report.warnings.empty() || !options.shapes.empty()) std::printf("\n");
  return print_report(report, !options.shapes.empty()) == 0 ? kExitOk : kExitMismatch;
}

}  // namespace kovra_tool
