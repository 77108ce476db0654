#include <kovraexecutor/compare.h>
#include <kovraexecutor/input_loader.h>
#include <kovraexecutor/model_check.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>
#include <memory>

#include "commands.h"
#include "model_file.h"

namespace kovra_tool {

namespace kx = kovra::trenkit::kovraexecutor;

namespace {

const char* const kWhere = "kovra verify";

// One difference's columns; `width` pads the last one (0 at the end of the row).
void print_diff(const kx::TensorDiff& d, int width) {
  if (d.status == "shape") {
    std::printf(" | %-*s", width ? 42 : 0,
                ("SHAPE " + kx::dims_text(d.shape_a) + " vs " + kx::dims_text(d.shape_b)).c_str());
    return;
  }
  const std::string counted = std::to_string(d.mismatches) + "/" + std::to_string(d.count);
  std::printf(" | %12.6g %10.6f %10s %-*s", d.max_abs, d.cosine, counted.c_str(), width,
              d.status == "ok" ? "ok" : "MISMATCH");
}

}  // namespace

int cmd_verify(const VerifyOptions& options) {
  GraphDef graph;
  ModelFormat format;
  std::string error;
  if (!read_model(options.model, "auto", graph, format, error)) return fail(kWhere, error);
  const kx::ModelReport checked = kx::check_model(graph);
  if (!checked.problems.empty()) return fail(kWhere, options.model + ": " + checked.problems.front().message);
  std::vector<std::unique_ptr<kx::Tensor>> tensors;
  if (!kx::load_inputs(options.inputs, options.manifest, tensors, error)) return fail(kWhere, error);
  std::map<std::string, const kx::Tensor*> inputs;
  for (const auto& tensor : tensors) inputs[tensor->name()] = tensor.get();
  kx::VerifySettings settings;
  settings.rtol = options.rtol;
  settings.atol = options.atol;
  settings.manifest = options.manifest;
  settings.starts = options.starts;
  settings.output = options.output;
  // The table and the JSON are the output; the library's banner and log lines would only interleave.
  quiet_messages();
  kx::VerifyReport report;
  if (!kx::verify_model(graph, options.reference, inputs, settings, report, error))
    return fail(kWhere, error);
  std::fflush(stdout);

  if (options.json != "-") {
    int width = 6;
    for (const kx::VerifyNode& n : report.nodes) width = std::max(width, static_cast<int>(n.name.size()));
    std::printf("verifying %s against %s (reference), rtol=%g atol=%g\n", options.model.c_str(),
                options.reference.c_str(), options.rtol, options.atol);
    std::printf("%4s  %-*s %-14s | %-42s | %s\n", "#", width, "node", "shape",
                "local: max_abs, cosine, mismatches, verdict", "accumulated: the same");
    for (size_t i = 0; i < report.nodes.size(); ++i) {
      const kx::VerifyNode& n = report.nodes[i];
      std::printf("%4zu  %-*s %-14s", i, width, n.name.c_str(), kx::dims_text(n.local.shape_b).c_str());
      print_diff(n.local, 8);
      print_diff(n.accumulated, 0);
      std::printf("%s\n", n.name == report.first_local ? "  <-- computes differently" : "");
    }
    std::printf("%zu node(s) compared: %d locally out of tolerance, %d accumulated out of tolerance\n",
                report.nodes.size(), report.local_failed, report.accumulated_failed);
    if (!report.unreferenced.empty()) {
      std::string names;
      for (const std::string& name : report.unreferenced) names += (names.empty() ? "" : ", ") + name;
      std::printf("not in the reference: %s\n", names.c_str());
    }
    if (report.local_failed) {
      std::printf("first node that computes differently: %s\n", report.first_local.c_str());
    } else if (report.accumulated_failed) {
      std::printf("no node computes differently; differences accumulate from %s\n",
                  report.first_accumulated.c_str());
    }
  }
  std::cout.flush();
  if (!options.json.empty()) {
    const std::string json = kx::verify_json(report);
    if (options.json == "-") {
      std::cout << json;
    } else if (!write_file(options.json, json)) {
      return fail(kWhere, "cannot write '" + options.json + "'");
    }
  }
  if (!options.html.empty()) {
    kx::HtmlContext context;
    context.under_test = options.model;
    context.reference = options.reference;
    context.rtol = options.rtol;
    context.atol = options.atol;
    if (!write_file(options.html, kx::verify_html(report, context))) {
      return fail(kWhere, "cannot write '" + options.html + "'");
    }
  }
  return report.local_failed || report.accumulated_failed ? kExitMismatch : kExitOk;
}

}  // namespace kovra_tool
