#include <cmath>
#include <cstdio>
#include <limits>
#include <map>

#include <kovraexecutor/input_loader.h>

#include "commands.h"
#include "tensor_folder.h"

namespace kovra_tool {

using kovra::trenkit::kovraexecutor::dims_text;

namespace {

const char* const kWhere = "kovra compare";

struct Difference {
  double max_abs = 0.0;
  double max_rel = 0.0;
  size_t mismatches = 0;
  double cosine = 1.0;
};

// B is the reference: an element matches when |a - b| <= atol + rtol * |b|
// (NaN matches NaN only). The relative difference of b == 0 is infinite
// unless a is 0 too.
Difference difference(const std::vector<float>& a, const std::vector<float>& b, double rtol,
                      double atol) {
  Difference d;
  double dot = 0.0, na = 0.0, nb = 0.0;
  for (size_t i = 0; i < a.size(); ++i) {
    const double x = a[i], y = b[i];
    if (std::isnan(x) || std::isnan(y)) {
      if (!(std::isnan(x) && std::isnan(y))) ++d.mismatches;
      continue;
    }
    const double diff = x == y ? 0.0 : std::fabs(x - y);
    d.max_abs = std::max(d.max_abs, diff);
    if (diff > 0.0) {
      d.max_rel = std::max(d.max_rel, y != 0.0 ? diff / std::fabs(y)
                                                : std::numeric_limits<double>::infinity());
    }
    if (!(diff <= atol + rtol * std::fabs(y))) ++d.mismatches;
    dot += x * y;
    na += x * x;
    nb += y * y;
  }
  if (na == 0.0 && nb == 0.0) {
    d.cosine = 1.0;
  } else if (na == 0.0 || nb == 0.0) {
    d.cosine = 0.0;
  } else {
    d.cosine = dot / (std::sqrt(na) * std::sqrt(nb));
  }
  return d;
}

}  // namespace

int cmd_compare(const CompareOptions& options) {
  std::vector<FolderTensor> a_tensors, b_tensors;
  bool a_ordered = false, b_ordered = false;
  std::string error;
  if (!scan_folder(options.a, a_tensors, a_ordered, error)) return fail(kWhere, error);
  if (!scan_folder(options.b, b_tensors, b_ordered, error)) return fail(kWhere, error);
  std::map<std::string, const FolderTensor*> in_a, in_b;
  for (const auto& t : a_tensors) in_a[t.key] = &t;
  for (const auto& t : b_tensors) in_b[t.key] = &t;
  // Execution order comes from a manifest, A's first.
  const std::vector<FolderTensor>& order = a_ordered || !b_ordered ? a_tensors : b_tensors;
  std::vector<std::string> keys;
  for (const auto& t : order) {
    if (in_a.count(t.key) && in_b.count(t.key)) keys.push_back(t.key);
  }
  if (keys.empty()) {
    return fail(kWhere, "no tensor is present in both '" + options.a + "' and '" + options.b + "'");
  }
  size_t width = 6;
  for (const std::string& key : keys) width = std::max(width, key.size());
  std::printf("comparing %s (under test) with %s (reference), rtol=%g atol=%g\n", options.a.c_str(),
              options.b.c_str(), options.rtol, options.atol);
  std::printf("%4s  %-*s %-14s %12s %12s %16s %10s\n", "#", static_cast<int>(width), "tensor",
              "shape", "max_abs", "max_rel", "mismatches", "cosine");
  int failed = 0;
  std::string first;
  for (size_t i = 0; i < keys.size(); ++i) {
    std::vector<int> shape_a, shape_b;
    std::vector<float> a, b;
    if (!load_folder_tensor(options.a, *in_a[keys[i]], shape_a, a, error)) return fail(kWhere, error);
    if (!load_folder_tensor(options.b, *in_b[keys[i]], shape_b, b, error)) return fail(kWhere, error);
    std::string verdict;
    if (a.size() != b.size()) {
      verdict = "DIFFERENT SIZE " + dims_text(shape_a) + " vs " + dims_text(shape_b);
      std::printf("%4zu  %-*s %-14s %12s %12s %16s %10s  %s", i, static_cast<int>(width),
                  keys[i].c_str(), dims_text(shape_a).c_str(), "-", "-", "-", "-", verdict.c_str());
    } else {
      const Difference d = difference(a, b, options.rtol, options.atol);
      const std::string counted = std::to_string(d.mismatches) + "/" + std::to_string(a.size());
      verdict = d.mismatches ? "MISMATCH" : "ok";
      std::printf("%4zu  %-*s %-14s %12.6g %12.6g %16s %10.6f  %s", i, static_cast<int>(width),
                  keys[i].c_str(), dims_text(shape_a).c_str(), d.max_abs, d.max_rel, counted.c_str(),
                  d.cosine, verdict.c_str());
    }
    if (verdict != "ok") {
      if (failed++ == 0) {
        first = keys[i];
        std::printf("  <-- first divergence");
      }
    }
    std::printf("\n");
  }
  const size_t only_a = in_a.size() - keys.size(), only_b = in_b.size() - keys.size();
  std::printf("%zu tensor(s) compared, %d out of tolerance", keys.size(), failed);
  if (only_a || only_b) std::printf("; %zu only in %s, %zu only in %s", only_a, options.a.c_str(), only_b, options.b.c_str());
  std::printf("\n");
  if (failed) {
    std::printf("first divergence: %s\n", first.c_str());
    return kExitMismatch;
  }
  return kExitOk;
}

}  // namespace kovra_tool
