// The comparison reports as one HTML page. The markup is kept XML-clean (every
// element closed, void elements self-closed) so that it can be checked by a
// strict parser, and it needs nothing beyond a browser: no script, no fetch.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "kovraexecutor/compare.h"
#include "kovraexecutor/input_loader.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// Node names are user data.
std::string escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string format(const char* pattern, double v) {
  char text[64];
  std::snprintf(text, sizeof text, pattern, v);
  return text;
}

// A statistic for the table: non-finite values as words.
std::string shown(double v, const char* pattern = "%.6g") {
  if (std::isnan(v)) return "nan";
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  return format(pattern, v);
}

// A coordinate: one decimal is finer than a pixel.
std::string px(double v) { return format("%.1f", v); }

std::string index_text(const std::vector<int>& index) {
  std::string text = "(";
  for (size_t i = 0; i < index.size(); ++i) text += (i ? "," : "") + std::to_string(index[i]);
  return text + ")";
}

const char* const kStyle =
    "body{font-family:sans-serif;margin:20px;color:#222}"
    "h1{font-size:22px;margin:0 0 8px}"
    "table.meta td{padding:1px 12px 1px 0}"
    ".banner{font-size:18px;font-weight:bold;padding:8px 12px;margin:12px 0;border-radius:4px}"
    ".banner.fail{background:#b71c1c;color:#fff}"
    ".banner.ok{background:#2e7d32;color:#fff}"
    "svg{display:block;margin:8px 0}"
    "table.layers{border-collapse:collapse;font-size:12px}"
    "table.layers th,table.layers td{border:1px solid #ccc;padding:2px 5px;white-space:nowrap}"
    "table.layers th{background:#eee;white-space:normal}"
    "table.layers td.num{text-align:right;font-variant-numeric:tabular-nums}"
    "tr.fail td{background:#fde0e0}"
    "tr.first td{border-top:2px solid #b71c1c;border-bottom:2px solid #b71c1c;font-weight:bold}"
    "span.first{color:#b71c1c;margin-left:6px}";

std::string page_start(const std::string& title) {
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n<title>" + escape(title) +
         "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n<h1>" + escape(title) + "</h1>\n";
}

std::string meta_row(const std::string& label, const std::string& value) {
  return "<tr><td>" + label + "</td><td>" + value + "</td></tr>\n";
}

std::string banner(bool failing, const std::string& text) {
  return std::string("<p class=\"banner ") + (failing ? "fail" : "ok") + "\" id=\"verdict\">" + text +
         "</p>\n";
}

// ---- chart ---------------------------------------------------------------------------------

struct Series {
  const char* name;
  const char* color;
  const char* dashes;                    // "" for a solid line
  std::vector<const TensorDiff*> diffs;  // one per layer
};

const double kInf = std::numeric_limits<double>::infinity();
const double kWidth = 1040, kLeft = 78, kRight = 16;
const double kSqnrTop = 44, kSqnrHeight = 180, kRateTop = 250, kRateHeight = 130, kBand = 18;

double rate_of(const TensorDiff& d) {
  return d.count ? static_cast<double>(d.mismatches) / static_cast<double>(d.count) : 0;
}

// Ticks of `step` from lo to hi, with `step` a round number giving at most eight intervals.
double nice_step(double span) {
  for (double step : {5.0, 10.0, 20.0, 50.0, 100.0, 200.0, 500.0}) {
    if (span / step <= 8) return step;
  }
  return 1000;
}

std::string text_at(double x, double y, const char* anchor, const std::string& text,
                    const std::string& extra = "") {
  return "<text x=\"" + px(x) + "\" y=\"" + px(y) + "\" text-anchor=\"" + anchor + "\"" + extra + ">" + text +
         "</text>\n";
}

std::string hline(double x1, double x2, double y, const char* color) {
  return "<line x1=\"" + px(x1) + "\" y1=\"" + px(y) + "\" x2=\"" + px(x2) + "\" y2=\"" + px(y) +
         "\" stroke=\"" + color + "\"/>\n";
}

std::string rect(double x, double y, double w, double h, const char* fill) {
  return "<rect x=\"" + px(x) + "\" y=\"" + px(y) + "\" width=\"" + px(w) + "\" height=\"" + px(h) +
         "\" fill=\"" + fill + "\"/>\n";
}

// One panel's frame: the plot area, a band at the top and/or bottom for values off
// the scale, and the axis title.
std::string panel_frame(double top, double height, const char* title, const char* top_band,
                        const char* bottom_band) {
  const double right = kWidth - kRight;
  std::string s = rect(kLeft, top, right - kLeft, height, "#fafafa");
  if (top_band) {
    s += rect(kLeft, top, right - kLeft, kBand, "#e3f2e5");
    s += text_at(kLeft - 6, top + kBand - 5, "end", top_band, " class=\"band\"");
  }
  if (bottom_band) {
    s += rect(kLeft, top + height - kBand, right - kLeft, kBand, "#eeeeee");
    s += text_at(kLeft - 6, top + height - 5, "end", bottom_band, " class=\"band\"");
  }
  const double mid = top + height / 2;
  s += "<text x=\"16\" y=\"" + px(mid) + "\" text-anchor=\"middle\" transform=\"rotate(-90 16 " + px(mid) +
       ")\" font-weight=\"bold\">" + title + "</text>\n";
  return s;
}

// Lines through the points of each series, broken where a layer has no value (NaN y).
std::string plot_series(const std::vector<double>& xs, const std::vector<double>& ys, const Series& series,
                        bool sqnr) {
  std::string s, run;
  auto flush = [&]() {
    if (!run.empty()) {
      s += "<polyline fill=\"none\" stroke=\"" + std::string(series.color) + "\" stroke-width=\"1.5\"" +
           (*series.dashes ? " stroke-dasharray=\"" + std::string(series.dashes) + "\"" : "") + " points=\"" +
           run + "\"/>\n";
    }
    run.clear();
  };
  for (size_t i = 0; i < xs.size(); ++i) {
    if (std::isnan(ys[i])) {
      flush();
      continue;
    }
    run += (run.empty() ? "" : " ") + px(xs[i]) + "," + px(ys[i]);
  }
  flush();
  for (size_t i = 0; i < xs.size(); ++i) {
    if (std::isnan(ys[i])) continue;
    const TensorDiff& d = *series.diffs[i];
    const bool fail = d.status != "ok";
    // The value itself, when the pointer rests on the point.
    const std::string value =
        sqnr ? "SQNR " + shown(d.sqnr_db, "%.2f") + " dB"
             : "mismatch rate " + std::to_string(d.mismatches) + " / " + std::to_string(d.count);
    s += "<circle cx=\"" + px(xs[i]) + "\" cy=\"" + px(ys[i]) + "\" r=\"" + (fail ? "4.5" : "3.5") +
         "\" fill=\"" + series.color + "\"" + (fail ? " stroke=\"#b71c1c\" stroke-width=\"2\"" : "") +
         "><title>" + escape(d.name) + " (" + series.name + "): " + value + "</title></circle>\n";
  }
  return s;
}

// SQNR and mismatch rate per layer, one point per series and layer; `marked`
// (a layer index, or -1) gets a vertical marker labelled `mark_label`.
std::string chart(const std::vector<std::string>& names, const std::vector<Series>& series, int marked,
                  const std::string& mark_label) {
  const size_t n = names.size();
  const double right = kWidth - kRight, plot_width = right - kLeft;
  std::vector<double> xs(n);
  for (size_t i = 0; i < n; ++i) xs[i] = kLeft + (i + 0.5) * plot_width / std::max<size_t>(n, 1);

  // SQNR scale over the finite values; +inf (equal tensors) goes to the top band,
  // -inf and NaN (no signal, or NaN against a number) to the bottom one.
  double lo = kInf, hi = -kInf;
  double min_rate = 1;
  for (const Series& se : series) {
    for (const TensorDiff* d : se.diffs) {
      if (d->status == "shape") continue;
      if (std::isfinite(d->sqnr_db)) {
        lo = std::min(lo, d->sqnr_db);
        hi = std::max(hi, d->sqnr_db);
      }
      if (d->mismatches) min_rate = std::min(min_rate, rate_of(*d));
    }
  }
  if (lo > hi) lo = 0, hi = 60;
  const double step = nice_step(std::max(hi, 0.0) - std::min(lo, 0.0));
  lo = std::floor(std::min(lo, 0.0) / step) * step;
  hi = std::max(std::ceil(hi / step) * step, lo + step);
  // A gap between the bands and the scale keeps their labels apart.
  const double sqnr_top = kSqnrTop + kBand + 14, sqnr_bottom = kSqnrTop + kSqnrHeight - kBand - 14;
  auto sqnr_y = [&](double db) {
    if (std::isinf(db) && db > 0) return kSqnrTop + kBand / 2;
    if (!std::isfinite(db)) return kSqnrTop + kSqnrHeight - kBand / 2;
    return sqnr_bottom - (db - lo) / (hi - lo) * (sqnr_bottom - sqnr_top);
  };
  // Mismatch rate on a log scale down to the decade of the smallest non-zero
  // rate (at least one decade); a rate of zero goes to the bottom band.
  const int decades = std::max(1, static_cast<int>(std::ceil(-std::log10(min_rate) - 1e-9)));
  const double rate_top = kRateTop + 8, rate_bottom = kRateTop + kRateHeight - kBand - 14;
  auto rate_y = [&](double rate) {
    if (rate <= 0) return kRateTop + kRateHeight - kBand / 2;
    return rate_top + (-std::log10(rate)) / decades * (rate_bottom - rate_top);
  };

  // Room under the lower panel for the slanted names (about 6 px a character, at 40 degrees).
  const size_t every = (n + 39) / 40, longest_name = 28;
  size_t longest = 0;
  for (size_t i = 0; i < n; i += every) longest = std::max(longest, std::min(names[i].size(), longest_name));
  const double label_top = kRateTop + kRateHeight + 12;
  const double height = label_top + 4 + 4.0 * longest + 22;
  std::string s = "<svg xmlns=\"http://www.w3.org/2000/svg\" id=\"chart\" width=\"" + px(kWidth) +
                  "\" height=\"" + px(height) + "\" viewBox=\"0 0 " + px(kWidth) + " " + px(height) +
                  "\" font-family=\"sans-serif\" font-size=\"11\">\n";
  // Legend.
  double legend_x = kLeft;
  for (const Series& se : series) {
    s += "<line x1=\"" + px(legend_x) + "\" y1=\"14\" x2=\"" + px(legend_x + 22) + "\" y2=\"14\" stroke=\"" +
         se.color + "\" stroke-width=\"2\"" +
         (*se.dashes ? " stroke-dasharray=\"" + std::string(se.dashes) + "\"" : "") + "/>\n";
    s += "<circle cx=\"" + px(legend_x + 11) + "\" cy=\"14\" r=\"3.5\" fill=\"" + se.color + "\"/>\n";
    s += text_at(legend_x + 28, 18, "start", se.name, " class=\"legend\"");
    legend_x += 40 + 7.0 * std::string(se.name).size();
  }
  const std::string ring = "\" cy=\"14\" r=\"4.5\" fill=\"#fff\" stroke=\"#b71c1c\" stroke-width=\"2\"/>\n";
  s += "<circle cx=\"" + px(legend_x + 11) + ring;
  s += text_at(legend_x + 22, 18, "start", "out of tolerance", " class=\"legend\"");

  s += panel_frame(kSqnrTop, kSqnrHeight, "SQNR (dB)", "exact", "-inf/nan");
  for (double t = lo; t <= hi + step / 2; t += step) {
    s += hline(kLeft, right, sqnr_y(t), "#dddddd");
    s += text_at(kLeft - 6, sqnr_y(t) + 4, "end", format("%g", t));
  }
  s += panel_frame(kRateTop, kRateHeight, "mismatch rate (log)", nullptr, "0");
  for (int k = 0; k <= decades; ++k) {
    const double rate = std::pow(10.0, -k);
    s += hline(kLeft, right, rate_y(rate), "#dddddd");
    s += text_at(kLeft - 6, rate_y(rate) + 4, "end", k <= 3 ? format("%g", rate) : "1e-" + std::to_string(k));
  }

  for (const Series& se : series) {
    std::vector<double> sq(n), rt(n);
    for (size_t i = 0; i < n; ++i) {
      const TensorDiff& d = *se.diffs[i];
      const bool none = d.status == "shape";
      sq[i] = none ? NAN : sqnr_y(d.sqnr_db);
      rt[i] = none ? NAN : rate_y(rate_of(d));
    }
    s += plot_series(xs, sq, se, true);
    s += plot_series(xs, rt, se, false);
  }
  // Layers whose shapes differ have no statistics.
  for (size_t i = 0; i < n; ++i) {
    bool shape = false;
    for (const Series& se : series) shape = shape || se.diffs[i]->status == "shape";
    if (shape) s += text_at(xs[i], kSqnrTop + kSqnrHeight - 5, "middle", "shape", " fill=\"#b71c1c\"");
  }

  // Layer names under the lower panel, slanted; thinned out when crowded.
  for (size_t i = 0; i < n; i += every) {
    // Near the left edge a slanted name has less room (about 4.6 px of width a character).
    const size_t room = std::min(longest_name, static_cast<size_t>(xs[i] / 4.6));
    std::string name = names[i];
    if (name.size() > room) name = name.substr(0, room - 2) + "..";
    s += "<text x=\"" + px(xs[i]) + "\" y=\"" + px(label_top) +
         "\" text-anchor=\"end\" transform=\"rotate(-40 " + px(xs[i]) + " " + px(label_top) + ")\"" +
         (static_cast<int>(i) == marked ? " fill=\"#b71c1c\"" : "") + ">" + escape(name) + "</text>\n";
  }
  s += text_at(kWidth - kRight, height - 6, "end", "layers in execution order");

  if (marked >= 0) {
    const double x = xs[marked];
    const bool left = x > kLeft + plot_width * 0.6;  // label on the side with room
    s += "<g id=\"first-failing\" class=\"first-failing\">\n";
    s += "<line x1=\"" + px(x) + "\" y1=\"" + px(kSqnrTop - 12) + "\" x2=\"" + px(x) + "\" y2=\"" +
         px(kRateTop + kRateHeight) + "\" stroke=\"#b71c1c\" stroke-width=\"2\" stroke-dasharray=\"6 3\"/>\n";
    s += text_at(left ? x - 5 : x + 5, kSqnrTop - 3, left ? "end" : "start", escape(mark_label),
                 " fill=\"#b71c1c\" font-weight=\"bold\" font-size=\"12\"");
    s += "</g>\n";
  }
  return s + "</svg>\n";
}

// ---- table -----------------------------------------------------------------------------------

const char* const kDiffHeads =
    "<th>status</th><th>shape</th><th>max_abs</th><th>mean_abs</th><th>rmse</th><th>cosine</th>"
    "<th>SQNR dB</th><th>mismatches</th><th>worst (index) A / B</th><th>codes differ (by 1/2/more)</th>";

std::string num_cell(const std::string& text) { return "<td class=\"num\">" + text + "</td>"; }

std::string diff_cells(const TensorDiff& d) {
  if (d.status == "shape") {
    return "<td>shape</td><td colspan=\"9\">" + dims_text(d.shape_a) + " vs " + dims_text(d.shape_b) +
           "</td>";
  }
  std::string s = "<td>" + d.status + "</td><td>" + dims_text(d.shape_a) + "</td>" +
                  num_cell(shown(d.max_abs)) + num_cell(shown(d.mean_abs)) + num_cell(shown(d.rmse)) +
                  num_cell(shown(d.cosine)) + num_cell(shown(d.sqnr_db, "%.2f")) +
                  num_cell(std::to_string(d.mismatches) + " / " + std::to_string(d.count)) +
                  num_cell(index_text(d.worst_index) + " " + shown(d.worst_a) + " / " + shown(d.worst_b));
  if (d.codes) {
    s += num_cell(std::to_string(d.codes_differ) + " (" + std::to_string(d.code_diff_1) + "/" +
                  std::to_string(d.code_diff_2) + "/" + std::to_string(d.code_diff_more) + ")");
  } else {
    s += "<td></td>";
  }
  return s;
}

// A row's opening tag: failing rows styled, the first one marked for the eye and by id.
std::string row_start(const TensorDiff& d, bool first) {
  if (first) return "<tr class=\"fail first\" id=\"first-failing-row\">";
  return d.status == "ok" ? "<tr>" : "<tr class=\"fail\">";
}

std::string name_with_mark(const std::string& name, bool first, const char* mark) {
  return escape(name) + (first ? std::string("<span class=\"first\">") + mark + "</span>" : "");
}

}  // namespace

std::string report_html(const CompareReport& report, const HtmlContext& context) {
  const std::string title = context.title.empty() ? "Tensor comparison" : context.title;
  std::string s = page_start(title);
  s += "<table class=\"meta\">\n" + meta_row("Under test", escape(context.under_test)) +
       meta_row("Reference", escape(context.reference)) +
       meta_row("Tolerances", "rtol=" + shown(context.rtol) + " atol=" + shown(context.atol)) +
       meta_row("Tensors", std::to_string(report.tensors.size()) + " compared, " +
                               std::to_string(report.failed) + " out of tolerance; " +
                               std::to_string(report.only_a) + " only under test, " +
                               std::to_string(report.only_b) + " only in the reference") +
       "</table>\n";
  int first = -1;
  for (size_t i = 0; i < report.tensors.size() && first < 0; ++i) {
    if (report.failed && report.tensors[i].name == report.first_divergence) first = static_cast<int>(i);
  }
  if (first >= 0) {
    const TensorDiff& d = report.tensors[first];
    s += banner(true,
                "First failing layer: " + escape(d.name) + (d.op.empty() ? "" : " (" + escape(d.op) + ")"));
  } else {
    s += banner(false, "Every tensor is within tolerance");
  }

  std::vector<std::string> names;
  Series series = {"under test vs reference", "#1565c0", "", {}};
  for (const TensorDiff& d : report.tensors) {
    names.push_back(d.name);
    series.diffs.push_back(&d);
  }
  s += chart(names, {series}, first, first >= 0 ? "first failing: " + report.first_divergence : "");

  s += "<table class=\"layers\">\n<tr><th>#</th><th>tensor</th><th>op</th>" + std::string(kDiffHeads) +
       "</tr>\n";
  for (size_t i = 0; i < report.tensors.size(); ++i) {
    const TensorDiff& d = report.tensors[i];
    const bool is_first = static_cast<int>(i) == first;
    s += row_start(d, is_first) + "<td class=\"num\">" + std::to_string(i) + "</td><td>" +
         name_with_mark(d.name, is_first, "first failing") + "</td><td>" + escape(d.op) + "</td>" +
         diff_cells(d) + "</tr>\n";
    for (size_t c = 0; c < d.channels.size(); ++c) {
      s += row_start(d.channels[c], false) + "<td></td><td>" + escape(d.name) + "[c" + std::to_string(c) +
           "]</td><td></td>" + diff_cells(d.channels[c]) + "</tr>\n";
    }
  }
  return s + "</table>\n</body>\n</html>\n";
}

std::string verify_html(const VerifyReport& report, const HtmlContext& context) {
  const std::string title = context.title.empty() ? "Layer verification" : context.title;
  std::string s = page_start(title);
  std::string unreferenced;
  for (const std::string& name : report.unreferenced)
    unreferenced += (unreferenced.empty() ? "" : ", ") + name;
  s += "<table class=\"meta\">\n" + meta_row("Model", escape(context.under_test)) +
       meta_row("Reference", escape(context.reference)) +
       meta_row("Tolerances", "rtol=" + shown(context.rtol) + " atol=" + shown(context.atol)) +
       meta_row("Nodes", std::to_string(report.nodes.size()) + " compared, " +
                             std::to_string(report.local_failed) + " locally out of tolerance, " +
                             std::to_string(report.accumulated_failed) + " accumulated out of tolerance") +
       (unreferenced.empty() ? "" : meta_row("Not in the reference", escape(unreferenced))) + "</table>\n";

  // The layer to look at: the first that computes differently, else where differences start.
  const std::string& target = report.local_failed ? report.first_local : report.first_accumulated;
  int first = -1;
  for (size_t i = 0; i < report.nodes.size() && first < 0; ++i) {
    if ((report.local_failed || report.accumulated_failed) && report.nodes[i].name == target) {
      first = static_cast<int>(i);
    }
  }
  std::string label;
  if (first >= 0) {
    const VerifyNode& n = report.nodes[first];
    const std::string op = n.op.empty() ? "" : " (" + escape(n.op) + ")";
    if (report.local_failed) {
      s += banner(true, "First layer that computes differently: " + escape(n.name) + op);
      label = "computes differently: " + n.name;
    } else {
      s += banner(true, "No layer computes differently; differences accumulate from " + escape(n.name) + op);
      label = "differences start: " + n.name;
    }
  } else {
    s += banner(false, "Every node is within tolerance");
  }

  std::vector<std::string> names;
  // Accumulated dashed: where both agree, the local line shows through.
  Series local = {"local", "#1565c0", "", {}}, accumulated = {"accumulated", "#ef6c00", "6 4", {}};
  for (const VerifyNode& n : report.nodes) {
    names.push_back(n.name);
    local.diffs.push_back(&n.local);
    accumulated.diffs.push_back(&n.accumulated);
  }
  s += chart(names, {local, accumulated}, first, label);

  s += "<table class=\"layers\">\n<tr><th>#</th><th>node</th><th>op</th><th>run</th>" +
       std::string(kDiffHeads) + "</tr>\n";
  for (size_t i = 0; i < report.nodes.size(); ++i) {
    const VerifyNode& n = report.nodes[i];
    const bool is_first = static_cast<int>(i) == first;
    // The local row carries the mark when the node computes differently, else the accumulated one.
    const bool mark_local = is_first && report.local_failed, mark_accumulated = is_first && !mark_local;
    s += row_start(n.local, mark_local) + "<td class=\"num\" rowspan=\"2\">" + std::to_string(i) +
         "</td><td rowspan=\"2\">" + name_with_mark(n.name, is_first, "first failing") +
         "</td><td rowspan=\"2\">" + escape(n.op) + "</td><td>local</td>" + diff_cells(n.local) + "</tr>\n";
    s += row_start(n.accumulated, mark_accumulated) + "<td>accumulated</td>" + diff_cells(n.accumulated) +
         "</tr>\n";
  }
  return s + "</table>\n</body>\n</html>\n";
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
