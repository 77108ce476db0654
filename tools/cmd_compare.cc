#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>

#include <kovraexecutor/compare.h>
#include <kovraexecutor/input_loader.h>

#include "commands.h"
#include "model_file.h"

namespace kovra_tool {

using kovra::trenkit::kovraexecutor::CompareReport;
using kovra::trenkit::kovraexecutor::CompareSettings;
using kovra::trenkit::kovraexecutor::dims_text;
using kovra::trenkit::kovraexecutor::TensorDiff;

namespace {

const char* const kWhere = "kovra compare";

bool has_manifest(const std::string& dir) {
  struct stat info;
  return ::stat((dir + "/manifest.tsv").c_str(), &info) == 0;
}

std::string index_text(const std::vector<int>& index) {
  std::string text = "(";
  for (size_t i = 0; i < index.size(); ++i) text += (i ? "," : "") + std::to_string(index[i]);
  return text + ")";
}

void print_row(const std::string& label, const std::string& name, int width, const TensorDiff& d,
               const char* note) {
  char worst[96];
  std::snprintf(worst, sizeof worst, "%s=%.6g/%.6g", index_text(d.worst_index).c_str(), d.worst_a, d.worst_b);
  const std::string counted = std::to_string(d.mismatches) + "/" + std::to_string(d.count);
  std::printf("%4s  %-*s %-14s %12.6g %12.6g %12.6g %10.6f %9.2f %16s  %-24s %s", label.c_str(), width,
              name.c_str(), dims_text(d.shape_a).c_str(), d.max_abs, d.mean_abs, d.rmse, d.cosine, d.sqnr_db,
              counted.c_str(), worst, d.status == "ok" ? "ok" : "MISMATCH");
  if (d.codes && d.codes_differ) {
    std::printf("  codes: %zu differ (1: %zu, 2: %zu, more: %zu)", d.codes_differ, d.code_diff_1,
                d.code_diff_2, d.code_diff_more);
  }
  std::printf("%s\n", note);
}

// Writes `text` to `path`, or to stdout for "-".
bool write_text(const std::string& path, const std::string& text, std::string& error) {
  if (path == "-") {
    std::cout << text;
    return true;
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  if (!file.good()) {
    error = "cannot write '" + path + "'";
    return false;
  }
  return true;
}

}  // namespace

int cmd_compare(const CompareOptions& options) {
  CompareSettings settings;
  settings.rtol = options.rtol;
  settings.atol = options.atol;
  settings.per_channel = options.per_channel;
  // The host's manifest describes whichever folder has none of its own.
  if (!options.manifest.empty()) {
    if (!has_manifest(options.a)) settings.manifest_a = options.manifest;
    if (!has_manifest(options.b)) settings.manifest_b = options.manifest;
  }
  CompareReport report;
  std::string error;
  if (!kovra::trenkit::kovraexecutor::compare_folders(options.a, options.b, settings, report, error)) {
    return fail(kWhere, error);
  }
  if (!options.per_channel.empty()) {
    bool found = false;
    for (const TensorDiff& d : report.tensors) found = found || d.name == options.per_channel;
    if (!found) return fail(kWhere, "--per-channel: no tensor '" + options.per_channel + "' in both folders");
  }
  // With a machine-readable format on stdout, the table stays out of its way.
  const bool table = options.json != "-" && options.csv != "-";
  if (table) {
    int width = 6;
    for (const TensorDiff& d : report.tensors) {
      const size_t channel_width = d.channels.empty() ? 0 : 4 + std::to_string(d.channels.size()).size();
      width = std::max(width, static_cast<int>(d.name.size() + channel_width));
    }
    std::printf("comparing %s (under test) with %s (reference), rtol=%g atol=%g\n", options.a.c_str(),
                options.b.c_str(), options.rtol, options.atol);
    std::printf("%4s  %-*s %-14s %12s %12s %12s %10s %9s %16s  %-24s %s\n", "#", width, "tensor", "shape",
                "max_abs", "mean_abs", "rmse", "cosine", "sqnr_db", "mismatches", "worst (index)=A/B",
                "verdict");
    bool first = true;
    for (size_t i = 0; i < report.tensors.size(); ++i) {
      const TensorDiff& d = report.tensors[i];
      const char* note = d.status != "ok" && first ? "  <-- first divergence" : "";
      if (d.status != "ok") first = false;
      if (d.status == "shape") {
        std::printf("%4zu  %-*s %-14s  SHAPE %s vs %s%s\n", i, width, d.name.c_str(),
                    dims_text(d.shape_a).c_str(), dims_text(d.shape_a).c_str(), dims_text(d.shape_b).c_str(),
                    note);
        continue;
      }
      print_row(std::to_string(i), d.name, width, d, note);
      for (size_t c = 0; c < d.channels.size(); ++c) {
        print_row("-", d.name + "[c" + std::to_string(c) + "]", width, d.channels[c], "");
      }
    }
    std::printf("%zu tensor(s) compared, %d out of tolerance", report.tensors.size(), report.failed);
    if (report.only_a || report.only_b) {
      std::printf("; %zu only in %s, %zu only in %s", report.only_a, options.a.c_str(), report.only_b,
                  options.b.c_str());
    }
    std::printf("\n");
    if (report.failed) std::printf("first divergence: %s\n", report.first_divergence.c_str());
  }
  std::cout.flush();
  if (!options.json.empty() &&
      !write_text(options.json, kovra::trenkit::kovraexecutor::report_json(report), error)) {
    return fail(kWhere, error);
  }
  if (!options.csv.empty() &&
      !write_text(options.csv, kovra::trenkit::kovraexecutor::report_csv(report), error)) {
    return fail(kWhere, error);
  }
  if (!options.html.empty()) {
    kovra::trenkit::kovraexecutor::HtmlContext context;
    context.under_test = options.a;
    context.reference = options.b;
    context.rtol = options.rtol;
    context.atol = options.atol;
    if (!write_file(options.html, kovra::trenkit::kovraexecutor::report_html(report, context))) {
      return fail(kWhere, "cannot write '" + options.html + "'");
    }
  }
  return report.failed ? kExitMismatch : kExitOk;
}

}  // namespace kovra_tool
