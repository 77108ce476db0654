#include "kovraexecutor/compare.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <sstream>

#include "kovraexecutor/input_loader.h"
#include "tensor_dump.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

const double kInf = std::numeric_limits<double>::infinity();

// Statistics over the elements first, first + step, ... of a and b.
TensorDiff diff_strided(const std::vector<float>& a, const std::vector<float>& b, size_t first, size_t step,
                        bool codes, double rtol, double atol) {
  TensorDiff d;
  d.codes = codes;
  double dot = 0, na = 0, nb = 0, sum_abs = 0, sum_sq = 0;
  bool nan_apart = false;
  size_t worst = first;
  double worst_diff = -1;
  for (size_t i = first; i < a.size(); i += step) {
    ++d.count;
    const double x = a[i], y = b[i];
    double diff;
    if (std::isnan(x) || std::isnan(y)) {
      // NaN equals only NaN; against a number it is as far off as can be.
      diff = std::isnan(x) && std::isnan(y) ? 0 : kInf;
      nan_apart = nan_apart || diff != 0;
    } else {
      diff = x == y ? 0 : std::fabs(x - y);
      dot += x * y;
      na += x * x;
      nb += y * y;
    }
    if (diff > worst_diff) {
      worst_diff = diff;
      worst = i;
    }
    // An infinite difference is never within a tolerance that scales with an infinite reference.
    if (diff != 0 && (std::isinf(diff) || !(diff <= atol + rtol * std::fabs(y)))) ++d.mismatches;
    sum_abs += diff;
    sum_sq += diff * diff;
    if (codes && diff != 0) {
      ++d.codes_differ;
      ++(diff == 1 ? d.code_diff_1 : diff == 2 ? d.code_diff_2 : d.code_diff_more);
    }
  }
  if (d.count == 0) return d;
  d.max_abs = worst_diff;
  d.mean_abs = sum_abs / d.count;
  d.rmse = std::sqrt(sum_sq / d.count);
  if (nan_apart) {
    d.cosine = std::nan("");
  } else if (na == 0 && nb == 0) {
    d.cosine = 1;
  } else if (na == 0 || nb == 0) {
    d.cosine = 0;
  } else {
    d.cosine = dot / (std::sqrt(na) * std::sqrt(nb));
  }
  // Signal is the reference's power, noise the difference's.
  d.sqnr_db = sum_sq == 0 ? kInf : nb == 0 ? -kInf : 10 * std::log10(nb / sum_sq);
  d.worst_a = a[worst];
  d.worst_b = b[worst];
  d.worst_index.push_back(static_cast<int>(worst));
  d.status = d.mismatches ? "mismatch" : "ok";
  return d;
}

std::vector<int> unravel(size_t flat, const std::vector<int>& shape) {
  std::vector<int> index(shape.size(), 0);
  for (size_t k = shape.size(); k-- > 0;) {
    if (shape[k] <= 0) continue;
    index[k] = static_cast<int>(flat % shape[k]);
    flat /= shape[k];
  }
  return index;
}

std::string number(double v) {
  if (std::isnan(v)) return "\"nan\"";
  if (std::isinf(v)) return v > 0 ? "\"inf\"" : "\"-inf\"";
  std::ostringstream text;
  text.precision(9);
  text << v;
  return text.str();
}

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) < 0x20) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\u%04x", c);
      out += hex;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string ints(const std::vector<int>& values, const char* separator) {
  std::string text;
  for (size_t i = 0; i < values.size(); ++i) text += (i ? separator : "") + std::to_string(values[i]);
  return text;
}

std::string json_record(const TensorDiff& d) {
  std::string j = "{\"name\": " + quoted(d.name) + ", \"op\": " + quoted(d.op) +
                  ", \"status\": " + quoted(d.status) + ", \"shape_a\": [" + ints(d.shape_a, ", ") +
                  "], \"shape_b\": [" + ints(d.shape_b, ", ") + "]";
  if (d.status == "shape") return j + "}";
  j += ", \"count\": " + std::to_string(d.count) + ", \"mismatches\": " + std::to_string(d.mismatches) +
       ", \"max_abs\": " + number(d.max_abs) + ", \"mean_abs\": " + number(d.mean_abs) +
       ", \"rmse\": " + number(d.rmse) + ", \"cosine\": " + number(d.cosine) +
       ", \"sqnr_db\": " + number(d.sqnr_db) + ", \"worst_index\": [" + ints(d.worst_index, ", ") +
       "], \"worst_a\": " + number(d.worst_a) + ", \"worst_b\": " + number(d.worst_b);
  if (d.codes) {
    j += ", \"codes_differ\": " + std::to_string(d.codes_differ) +
         ", \"code_diff\": {\"1\": " + std::to_string(d.code_diff_1) +
         ", \"2\": " + std::to_string(d.code_diff_2) + ", \"more\": " + std::to_string(d.code_diff_more) +
         "}";
  }
  if (!d.channels.empty()) {
    j += ", \"channels\": [";
    for (size_t c = 0; c < d.channels.size(); ++c) j += (c ? ", " : "") + json_record(d.channels[c]);
    j += "]";
  }
  return j + "}";
}

std::string csv_field(const std::string& text) {
  if (text.find_first_of(",\"\n") == std::string::npos) return text;
  std::string out = "\"";
  for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + "\"";
}

std::string csv_number(double v) {
  const std::string text = number(v);
  return text[0] == '"' ? text.substr(1, text.size() - 2) : text;
}

void csv_record(const TensorDiff& d, const std::string& channel, std::string& out) {
  out += csv_field(d.name) + "," + channel + "," + csv_field(d.op) + "," + d.status + "," +
         ints(d.shape_a, "x") + "," + ints(d.shape_b, "x");
  if (d.status == "shape") {
    out += ",,,,,,,,,,,,,,,\n";
    return;
  }
  out += "," + std::to_string(d.count) + "," + std::to_string(d.mismatches) + "," + csv_number(d.max_abs) +
         "," + csv_number(d.mean_abs) + "," + csv_number(d.rmse) + "," + csv_number(d.cosine) + "," +
         csv_number(d.sqnr_db) + "," + ints(d.worst_index, "x") + "," + csv_number(d.worst_a) + "," +
         csv_number(d.worst_b);
  if (d.codes) {
    out += "," + std::to_string(d.codes_differ) + "," + std::to_string(d.code_diff_1) + "," +
           std::to_string(d.code_diff_2) + "," + std::to_string(d.code_diff_more) + "\n";
  } else {
    out += ",,,,\n";
  }
}

}  // namespace

TensorDiff diff_values(const std::vector<float>& a, const std::vector<float>& b,
                       const std::vector<int>& shape, bool codes, double rtol, double atol) {
  TensorDiff d = diff_strided(a, b, 0, 1, codes, rtol, atol);
  if (d.status.empty()) d.status = "ok";
  d.shape_a = d.shape_b = shape;
  d.worst_index = unravel(d.worst_index.empty() ? 0 : d.worst_index[0], shape);
  return d;
}

bool compare_folders(const std::string& a, const std::string& b, const CompareSettings& settings,
                     CompareReport& report, std::string& error) {
  report = CompareReport();
  std::vector<DumpTensor> in_a, in_b;
  if (!read_dump_index(a, settings.manifest_a, in_a, error)) return false;
  if (!read_dump_index(b, settings.manifest_b, in_b, error)) return false;
  // Names pair first; a .npy file's name is a sanitised node name, so
  // sanitised names pair what is left when they are unambiguous.
  std::map<std::string, size_t> by_name, by_stem;
  std::map<std::string, int> stems;
  for (size_t i = 0; i < in_b.size(); ++i) {
    by_name[in_b[i].name] = i;
    const std::string stem = TensorDump::sanitize(in_b[i].name);
    by_stem[stem] = i;
    ++stems[stem];
  }
  std::vector<std::pair<size_t, size_t>> pairs;
  std::vector<bool> b_used(in_b.size(), false);
  for (size_t i = 0; i < in_a.size(); ++i) {
    auto found = by_name.find(in_a[i].name);
    if (found == by_name.end()) {
      const std::string stem = TensorDump::sanitize(in_a[i].name);
      found = stems[stem] == 1 ? by_stem.find(stem) : by_stem.end();
      if (found == by_stem.end()) continue;
    }
    if (b_used[found->second]) continue;
    b_used[found->second] = true;
    pairs.emplace_back(i, found->second);
  }
  if (pairs.empty()) {
    error = "no tensor is present in both '" + a + "' and '" + b + "'";
    return false;
  }
  // Execution order comes from a manifest, A's first.
  const bool a_ordered = !in_a.empty() && in_a[0].dtype != "npy";
  const bool b_ordered = !in_b.empty() && in_b[0].dtype != "npy";
  if (!a_ordered && b_ordered) {
    std::sort(pairs.begin(), pairs.end(),
              [](const std::pair<size_t, size_t>& x, const std::pair<size_t, size_t>& y) {
                return x.second < y.second;
              });
  }
  report.only_a = in_a.size() - pairs.size();
  report.only_b = in_b.size() - pairs.size();
  for (const auto& pair : pairs) {
    DumpTensor& ta = in_a[pair.first];
    DumpTensor& tb = in_b[pair.second];
    if (!load_dump_tensor(a, ta, error) || !load_dump_tensor(b, tb, error)) return false;
    TensorDiff d;
    if (ta.shape != tb.shape) {
      d.status = "shape";
      d.shape_a = ta.shape;
      d.shape_b = tb.shape;
    } else {
      const bool codes = is_code_dtype(ta.dtype) || is_code_dtype(tb.dtype);
      d = diff_values(ta.values, tb.values, ta.shape, codes, settings.rtol, settings.atol);
      if (!settings.per_channel.empty() && settings.per_channel == ta.name && !ta.shape.empty() &&
          ta.shape.back() > 0) {
        const size_t channels = static_cast<size_t>(ta.shape.back());
        for (size_t c = 0; c < channels; ++c) {
          TensorDiff channel =
              diff_strided(ta.values, tb.values, c, channels, codes, settings.rtol, settings.atol);
          channel.name = ta.name;
          channel.op = ta.op;
          channel.shape_a = channel.shape_b = ta.shape;
          channel.worst_index = unravel(channel.worst_index.empty() ? 0 : channel.worst_index[0], ta.shape);
          d.channels.push_back(channel);
        }
      }
    }
    d.name = ta.name;
    d.op = ta.op.empty() ? tb.op : ta.op;
    if (d.status != "ok" && report.failed++ == 0) report.first_divergence = d.name;
    report.tensors.push_back(std::move(d));
    // Values are not kept: a model's dumps can be large.
    ta.values = std::vector<float>();
    tb.values = std::vector<float>();
  }
  return true;
}

std::string report_json(const CompareReport& report) {
  std::string j = "{\"tensors\": [";
  for (size_t i = 0; i < report.tensors.size(); ++i) {
    j += (i ? ",\n  " : "\n  ") + json_record(report.tensors[i]);
  }
  j += "],\n \"compared\": " + std::to_string(report.tensors.size()) +
       ", \"failed\": " + std::to_string(report.failed) + ", \"only_a\": " + std::to_string(report.only_a) +
       ", \"only_b\": " + std::to_string(report.only_b) +
       ", \"first_divergence\": " + (report.failed ? quoted(report.first_divergence) : "null") + "}\n";
  return j;
}

std::string report_csv(const CompareReport& report) {
  std::string out =
      "name,channel,op,status,shape_a,shape_b,count,mismatches,max_abs,mean_abs,rmse,cosine,sqnr_db,"
      "worst_index,worst_a,worst_b,codes_differ,code_diff_1,code_diff_2,code_diff_more\n";
  for (const TensorDiff& d : report.tensors) {
    csv_record(d, "", out);
    for (size_t c = 0; c < d.channels.size(); ++c) csv_record(d.channels[c], std::to_string(c), out);
  }
  return out;
}

std::string verify_json(const VerifyReport& report) {
  std::string j = "{\"nodes\": [";
  for (size_t i = 0; i < report.nodes.size(); ++i) {
    const VerifyNode& n = report.nodes[i];
    j += (i ? ",\n  " : "\n  ") + std::string("{\"name\": ") + quoted(n.name) + ", \"op\": " + quoted(n.op) +
         ",\n   \"local\": " + json_record(n.local) + ",\n   \"accumulated\": " + json_record(n.accumulated) +
         "}";
  }
  std::string unreferenced;
  for (const std::string& name : report.unreferenced)
    unreferenced += (unreferenced.empty() ? "" : ", ") + quoted(name);
  j += "],\n \"compared\": " + std::to_string(report.nodes.size()) +
       ", \"local_failed\": " + std::to_string(report.local_failed) +
       ", \"accumulated_failed\": " + std::to_string(report.accumulated_failed) +
       ", \"first_local\": " + (report.local_failed ? quoted(report.first_local) : "null") +
       ", \"first_accumulated\": " + (report.accumulated_failed ? quoted(report.first_accumulated) : "null") +
       ", \"unreferenced\": [" + unreferenced + "]}\n";
  return j;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
