#include <kovraexecutor/compare.h>
#include <kovraexecutor/errors.h>
#include <kovraexecutor/graph_executor.h>
#include <kovraexecutor/input_loader.h>
#include <kovraexecutor/model_check.h>
#include <kovraexecutor/npy.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <set>

#include "commands.h"
#include "model_file.h"
#include "profile.h"

namespace kovra_tool {

using kovra::trenkit::kovraexecutor::check_model;
using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::dims_text;
using kovra::trenkit::kovraexecutor::error_line;
using kovra::trenkit::kovraexecutor::graph_outline;
using kovra::trenkit::kovraexecutor::GraphExecutor;
using kovra::trenkit::kovraexecutor::GraphOutline;
using kovra::trenkit::kovraexecutor::load_inputs;
using kovra::trenkit::kovraexecutor::MessageLevel;
using kovra::trenkit::kovraexecutor::ModelIssue;
using kovra::trenkit::kovraexecutor::ModelReport;
using kovra::trenkit::kovraexecutor::run_depends_on;
using kovra::trenkit::kovraexecutor::run_ends;
using kovra::trenkit::kovraexecutor::run_feeds;
using kovra::trenkit::kovraexecutor::run_starts;
using kovra::trenkit::kovraexecutor::run_upstream;
using kovra::trenkit::kovraexecutor::RunPlan;
using kovra::trenkit::kovraexecutor::set_message_sink;
using kovra::trenkit::kovraexecutor::Tensor;
using kovra::trenkit::kovraexecutor::write_npy;

namespace {

const char* const kWhere = "kovra run";

std::string join(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
  return text.empty() ? "(none)" : text;
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

void print_summary(const std::string& name, const std::vector<int>& shape, const std::vector<float>& values) {
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

void quiet_messages() {
  // Errors and warnings still show; the banner and log lines do not.
  set_message_sink([](MessageLevel level, const std::string& text) {
    if (level == MessageLevel::kError) {
      std::fputs(error_line(text).c_str(), stdout);
    } else if (level == MessageLevel::kWarning) {
      std::printf("\033[1m\033[33mWarning: %s\033[0m\n", text.c_str());
    }
  });
}

int cmd_run(const RunOptions& options) {
  GraphDef graph;
  ModelFormat format;
  std::string error;
  if (!read_model(options.model, options.format, graph, format, error)) return fail(kWhere, error);
  if (options.format == "auto") {
    std::fprintf(stderr, "kovra run: reading %s as a %s model (--format auto)\n", options.model.c_str(),
                 format_name(format));
  }
  const ModelReport report = check_model(graph);
  if (!report.problems.empty()) return fail(kWhere, options.model + ": " + report.problems.front().message);
  // What the run would silently ignore is said before it runs.
  for (const ModelIssue& issue : report.warnings) {
    std::fprintf(stderr, "kovra run: %s: warning: %s\n", options.model.c_str(), issue.message.c_str());
  }

  const GraphOutline outline = graph_outline(graph);
  for (const std::string& name : options.starts) {
    if (outline.find(name) < 0) return fail(kWhere, "--start: the model has no node '" + name + "'");
  }
  if (!options.output.empty() && outline.find(options.output) < 0) {
    return fail(kWhere, "--output: the model has no node '" + options.output + "'");
  }
  const std::vector<size_t> starts = run_starts(outline, options.starts);
  const std::vector<size_t> ends = run_ends(outline, options.output);
  if (!options.starts.empty() && !options.output.empty() && !run_depends_on(outline, ends.front(), starts)) {
    return fail(kWhere, "--output: node '" + options.output + "' does not depend on the --start nodes (" +
                            join(options.starts) + ")");
  }
  const std::vector<std::string> feeds = run_feeds(outline, starts);
  const std::vector<std::string> upstream = run_upstream(outline, ends);
  const std::set<std::string> needed(upstream.begin(), upstream.end());
  for (const auto& arg : options.inputs) {
    if (std::find(feeds.begin(), feeds.end(), arg.name) == feeds.end()) {
      return fail(kWhere, "unknown input '" + arg.name + "'; the model's inputs are: " + join(feeds));
    }
  }
  for (const std::string& name : feeds) {
    if (!needed.count(name)) continue;
    const bool given =
        std::any_of(options.inputs.begin(), options.inputs.end(),
                    [&](const kovra::trenkit::kovraexecutor::InputArg& s) { return s.name == name; });
    if (!given) return fail(kWhere, "no data for input '" + name + "' (give -i " + name + "=FILE)");
  }
  std::vector<std::unique_ptr<Tensor>> inputs;
  if (!load_inputs(options.inputs, options.manifest, inputs, error)) return fail(kWhere, error);
  // A run that would cross its memory budget is refused before it starts.
  // Other shape problems stay the run's own errors, reported by the node.
  std::map<std::string, std::vector<int>> shapes;
  for (const auto& tensor : inputs) shapes[tensor->name()] = tensor->shape();
  RunPlan plan;
  if (options.max_memory > 0) plan.memory_budget = options.max_memory;
  plan.inplace = options.inplace;
  const ModelReport planned = check_model(graph, shapes, plan);
  if (planned.over_budget >= 0) {
    return fail(kWhere, options.model + ": " + planned.problems[planned.over_budget].message);
  }
  if (!options.out_dir.empty() && !make_dirs(options.out_dir)) {
    return fail(kWhere, "cannot create output folder '" + options.out_dir + "'");
  }
  if (!options.dump_dir.empty() && !make_dirs(options.dump_dir)) {
    return fail(kWhere, "cannot create dump folder '" + options.dump_dir + "'");
  }

  if (options.quiet) quiet_messages();
  if (options.threads > 0) GraphExecutor::set_num_threads(options.threads);
  std::unique_ptr<GraphExecutor> executor(format == ModelFormat::kProtected
                                              ? new GraphExecutor(options.model, CPU)
                                              : new GraphExecutor(&graph, CPU));
  executor->set_inplace(options.inplace);
  if (options.max_memory > 0) executor->set_memory_budget(options.max_memory);
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
