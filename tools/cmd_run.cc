#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <set>

#include <kovraexecutor/graph_executor.h>
#include <kovraexecutor/input_loader.h>
#include <kovraexecutor/npy.h>
#include <kovraexecutor/op_registry.h>

#include "commands.h"
#include "model_file.h"
#include "profile.h"

namespace kovra_tool {

using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::dims_text;
using kovra::trenkit::kovraexecutor::GraphExecutor;
using kovra::trenkit::kovraexecutor::is_const_op;
using kovra::trenkit::kovraexecutor::load_inputs;
using kovra::trenkit::kovraexecutor::Tensor;
using kovra::trenkit::kovraexecutor::write_npy;

namespace {

const char* const kWhere = "kovra run";

std::string join(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
  return text.empty() ? "(none)" : text;
}

// The graph as the executor will see it: non-constant nodes and their
// non-constant producers, by lookup name.
struct Topology {
  std::vector<std::string> order;  // model order
  std::map<std::string, std::string> op;
  std::map<std::string, std::vector<std::string>> producers;
  std::map<std::string, int> consumers;
};

Topology topology(const GraphDef& graph) {
  Topology t;
  std::set<std::string> constants;
  for (const NodeDef& node : graph.node()) {
    if (node.op() == "Const") constants.insert(node.name());
  }
  for (const NodeDef& node : graph.node()) {
    if (node.op() == "Const") continue;
    t.order.push_back(node.name());
    t.op[node.name()] = node.op();
    auto& list = t.producers[node.name()];
    for (const std::string& input : node.input()) {
      const std::string name = lookup_name(input);
      if (constants.count(name) || std::find(list.begin(), list.end(), name) != list.end()) continue;
      list.push_back(name);
      ++t.consumers[name];
    }
  }
  return t;
}

// The names whose tensors must be fed, mirroring how the graph picks its
// start points: the inputs of the start nodes, or the start nodes themselves
// when those read nothing.
std::vector<std::string> feed_names(const Topology& t, const std::vector<std::string>& starts) {
  std::set<std::string> names;
  std::vector<std::string> start_nodes;
  for (const std::string& name : t.order) {
    const bool start = starts.empty()
                           ? t.producers.at(name).empty() && !is_const_op(t.op.at(name))
                           : std::find(starts.begin(), starts.end(), name) != starts.end();
    if (!start) continue;
    start_nodes.push_back(name);
    for (const std::string& p : t.producers.at(name)) names.insert(p);
  }
  if (names.empty()) names.insert(start_nodes.begin(), start_nodes.end());
  return std::vector<std::string>(names.begin(), names.end());
}

std::vector<std::string> end_names(const Topology& t, const std::string& output) {
  if (!output.empty()) return {output};
  std::vector<std::string> ends;
  for (const std::string& name : t.order) {
    if (t.consumers.count(name) == 0) ends.push_back(name);
  }
  return ends;
}

// Every node an end node depends on, itself included.
std::set<std::string> upstream(const Topology& t, const std::vector<std::string>& ends) {
  std::set<std::string> seen;
  std::vector<std::string> stack(ends.begin(), ends.end());
  while (!stack.empty()) {
    const std::string name = stack.back();
    stack.pop_back();
    if (!seen.insert(name).second) continue;
    auto it = t.producers.find(name);
    if (it != t.producers.end()) stack.insert(stack.end(), it->second.begin(), it->second.end());
  }
  return seen;
}

std::vector<float> float_values(const GraphExecutor& executor, const Tensor* tensor) {
  if (tensor->data_type() == Tensor::DT_FLOAT) {
    const float* data = tensor->data<float>();
    return std::vector<float>(data, data + tensor->size());
  }
  return executor.get_node_float_data(tensor);
}

bool convertible(const Tensor* tensor) {
  switch (tensor->data_type()) {
    case Tensor::DT_FLOAT:
    case Tensor::DT_INT32:
    case Tensor::DT_UINT8:
    case Tensor::DT_INT8:
      return true;
    default:
      return false;
  }
}

void print_summary(const std::string& name, const std::vector<int>& shape,
                   const std::vector<float>& values) {
  double sum = 0.0;
  float lo = INFINITY, hi = -INFINITY;
  size_t nan = 0;
  for (float v : values) {
    if (std::isnan(v)) {
      ++nan;
      continue;
    }
    lo = std::min(lo, v);
    hi = std::max(hi, v);
    sum += v;
  }
  const size_t finite = values.size() - nan;
  std::printf("%s  shape=%s  min=%.6g  max=%.6g  mean=%.6g%s\n", name.c_str(), dims_text(shape).c_str(),
              finite ? lo : NAN, finite ? hi : NAN, finite ? sum / finite : NAN,
              nan ? ("  nan=" + std::to_string(nan)).c_str() : "");
}

}  // namespace

int cmd_run(const RunOptions& options) {
  GraphDef graph;
  ModelFormat format;
  std::string error;
  if (!read_model(options.model, options.format, graph, format, error)) return fail(kWhere, error);
  if (options.format == "auto") {
    std::fprintf(stderr, "kovra run: reading %s as a %s model (--format auto)\n", options.model.c_str(),
                 format_name(format));
  }
  if (!check_model(graph, error)) return fail(kWhere, options.model + ": " + error);

  const Topology t = topology(graph);
  for (const std::string& name : options.starts) {
    if (!t.op.count(name)) return fail(kWhere, "--start: the model has no node '" + name + "'");
  }
  if (!options.output.empty() && !t.op.count(options.output)) {
    return fail(kWhere, "--output: the model has no node '" + options.output + "'");
  }
  const std::vector<std::string> feeds = feed_names(t, options.starts);
  const std::set<std::string> needed = upstream(t, end_names(t, options.output));
  for (const auto& arg : options.inputs) {
    if (std::find(feeds.begin(), feeds.end(), arg.name) == feeds.end()) {
      return fail(kWhere, "unknown input '" + arg.name + "'; the model's inputs are: " + join(feeds));
    }
  }
  for (const std::string& name : feeds) {
    if (!needed.count(name)) continue;
    const bool given = std::any_of(options.inputs.begin(), options.inputs.end(),
                                   [&](const kovra::trenkit::kovraexecutor::InputArg& s) {
                                     return s.name == name;
                                   });
    if (!given) return fail(kWhere, "no data for input '" + name + "' (give -i " + name + "=FILE)");
  }
  std::vector<std::unique_ptr<Tensor>> inputs;
  if (!load_inputs(options.inputs, inputs, error)) return fail(kWhere, error);
  if (!options.out_dir.empty() && !make_dirs(options.out_dir)) {
    return fail(kWhere, "cannot create output folder '" + options.out_dir + "'");
  }
  if (!options.dump_dir.empty() && !make_dirs(options.dump_dir)) {
    return fail(kWhere, "cannot create dump folder '" + options.dump_dir + "'");
  }

  if (options.threads > 0) GraphExecutor::set_num_threads(options.threads);
  std::unique_ptr<GraphExecutor> executor(format == ModelFormat::kProtected
                                              ? new GraphExecutor(options.model, CPU)
                                              : new GraphExecutor(&graph, CPU));
  executor->set_inplace(options.inplace);
  if (!options.dump_dir.empty()) executor->set_dump_folder(options.dump_dir);
  for (auto& tensor : inputs) executor->set_input(tensor->name(), tensor.get());
  Profiler profiler;
  const bool timed = options.profile || !options.trace.empty();
  if (timed) profiler.attach(executor.get());
  for (int run = 0; run < options.repeat; ++run) {
    profiler.begin_run(run);
    executor->work(options.starts, options.output);
  }
  std::fflush(stdout);

  for (const std::string& name : executor->get_output_names()) {
    const Tensor* tensor = executor->get_output_tensor(name);
    if (tensor == nullptr || tensor->get_ptr() == nullptr || tensor->shape().empty()) {
      std::printf("%s  (the operator produced no tensor)\n", name.c_str());
      continue;
    }
    if (!convertible(tensor)) {
      std::printf("%s  (element type %d cannot be shown)\n", name.c_str(), tensor->data_type());
      continue;
    }
    const std::vector<float> values = float_values(*executor, tensor);
    if (options.out_dir.empty()) {
      print_summary(name, tensor->shape(), values);
      continue;
    }
    const std::string path = options.out_dir + "/" + GraphExecutor::dump_file_stem(name) + ".npy";
    if (!write_npy(path, tensor->shape(), values.data(), error)) return fail(kWhere, error);
    std::printf("%s  shape=%s  -> %s\n", name.c_str(), dims_text(tensor->shape()).c_str(), path.c_str());
  }
  if (options.profile) {
    std::fflush(stdout);
    profiler.print_profile(std::cout, options.repeat);
    std::cout.flush();
  }
  if (!options.trace.empty()) {
    if (!write_file(options.trace, profiler.trace_json())) {
      return fail(kWhere, "cannot write trace file '" + options.trace + "'");
    }
    std::fprintf(stderr, "kovra run: trace written to %s (open it in ui.perfetto.dev)\n",
                 options.trace.c_str());
  }
  return kExitOk;
}

}  // namespace kovra_tool
