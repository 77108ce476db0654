#ifndef KOVRAEXECUTOR_COMPARE_H_
#define KOVRAEXECUTOR_COMPARE_H_

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "export.h"
#include "input_loader.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
class GraphDef;
}  // namespace trenkit
}  // namespace kovra

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// One tensor of a folder: an entry of a dump manifest or a .npy file.
struct DumpTensor {
  std::string name;  // node name; a .npy file's name without ".npy"
  std::string op;    // operator, when the manifest records it
  std::string file;  // relative to the folder
  // float32, int8, uint8, int16, uint16, int4x2, uint4x2; npy, which loading
  // turns into npy-codes for an integer array.
  std::string dtype;
  int bitwidth = 32;
  std::vector<int> shape;
  std::vector<float> values;  // the node's values, filled by load_dump_tensor
};

// Lists the tensors of `dir` in execution order: the entries of `manifest`
// (default `dir`/manifest.tsv, when present; files are read from `dir`),
// then .npy files not already listed, by name.
KOVRA_API bool read_dump_index(const std::string& dir, const std::string& manifest,
                               std::vector<DumpTensor>& tensors, std::string& error);
// Reads a listed tensor's values; signed codes come back negative.
KOVRA_API bool load_dump_tensor(const std::string& dir, DumpTensor& tensor, std::string& error);
// Whether a dump type holds integer codes rather than floats.
KOVRA_API bool is_code_dtype(const std::string& dtype);
// `value` as a dump of `dtype` holds it: a code is truncated toward zero and
// wrapped to the type's width (read back signed for the signed types); floats
// are kept.
KOVRA_API float as_dumped(float value, const std::string& dtype);

// Reads the dumped .bin file arg.path as the tensor the line for arg.name in
// `manifest` describes (shape, element type), converted back to the values the
// node computed, so a dump can feed a run that starts inside the graph.
KOVRA_API bool load_dumped_input(const InputArg& arg, const std::string& manifest,
                                 std::unique_ptr<Tensor>& tensor, std::string& error);
// Whether load_inputs below reads `arg` through `manifest`: a .bin file given without DIMS.
KOVRA_API bool is_dumped_input(const InputArg& arg, const std::string& manifest);
// load_inputs of input_loader.h, reading dumped .bin files through `manifest` when one is given.
KOVRA_API bool load_inputs(const std::vector<InputArg>& input_args, const std::string& manifest,
                           std::vector<std::unique_ptr<Tensor>>& tensors, std::string& error);
// A float tensor named `name` holding `values` (an empty shape is one element).
KOVRA_API std::unique_ptr<Tensor> tensor_of(const std::string& name, std::vector<int> shape,
                                            const std::vector<float>& values);

// Differences of one tensor, A under test against B the reference.
struct TensorDiff {
  std::string name;
  std::string op;
  std::string status;  // "ok", "mismatch" or "shape" (shapes differ: no statistics)
  std::vector<int> shape_a, shape_b;
  size_t count = 0;
  size_t mismatches = 0;  // outside atol + rtol * |b|; NaN matches NaN only
  double max_abs = 0, mean_abs = 0, rmse = 0, cosine = 1, sqnr_db = 0;
  std::vector<int> worst_index;  // of the largest difference, one entry per dimension
  float worst_a = 0, worst_b = 0;
  bool codes = false;  // either side is integer codes
  size_t codes_differ = 0, code_diff_1 = 0, code_diff_2 = 0, code_diff_more = 0;
  std::vector<TensorDiff> channels;  // per last-dimension channel, when asked for
};

struct CompareSettings {
  double rtol = 1e-5;
  double atol = 1e-6;
  std::string manifest_a, manifest_b;  // for folders of raw .bin files
  std::string per_channel;             // node broken down by channel
};

struct CompareReport {
  std::vector<TensorDiff> tensors;  // paired tensors in execution order
  size_t only_a = 0, only_b = 0;
  int failed = 0;                // tensors whose status is not "ok"
  std::string first_divergence;  // name of the first of them
};

// Differences of two value arrays of `shape` (flat, C order).
KOVRA_API TensorDiff diff_values(const std::vector<float>& a, const std::vector<float>& b,
                                 const std::vector<int>& shape, bool codes, double rtol, double atol);
// Pairs the tensors of two folders by node name and compares each pair.
KOVRA_API bool compare_folders(const std::string& a, const std::string& b, const CompareSettings& settings,
                               CompareReport& report, std::string& error);
// The report as JSON and CSV (schema in docs/compare.md).
KOVRA_API std::string report_json(const CompareReport& report);
KOVRA_API std::string report_csv(const CompareReport& report);

// One node of a verify run: its output computed from the reference's values of
// its inputs (local) and from the graph inputs through the host's own results
// (accumulated), each against the reference's tensor for the node.
struct VerifyNode {
  std::string name;
  std::string op;
  TensorDiff local, accumulated;
};

struct VerifySettings {
  double rtol = 1e-5;
  double atol = 1e-6;
  std::string manifest;             // for a reference of raw .bin files
  std::vector<std::string> starts;  // as GraphExecutor::work
  std::string output;
};

struct VerifyReport {
  std::vector<VerifyNode> nodes;  // execution order
  int local_failed = 0, accumulated_failed = 0;
  std::string first_local;                // the first node that computes differently
  std::string first_accumulated;          // the first node whose result differs at all
  std::vector<std::string> unreferenced;  // run but absent from the reference
};

// Runs every node of `graph` on the reference's values of its inputs and the
// whole graph from `inputs` (float tensors by name, as load_inputs makes them;
// missing graph inputs are taken from the reference), comparing each node with
// the reference folder `reference`. Library errors while running follow the
// error policy (errors.h).
KOVRA_API bool verify_model(const ::kovra::trenkit::GraphDef& graph, const std::string& reference,
                            const std::map<std::string, const Tensor*>& inputs,
                            const VerifySettings& settings, VerifyReport& report, std::string& error);
KOVRA_API std::string verify_json(const VerifyReport& report);

// What a report page names in its header.
struct HtmlContext {
  std::string title;       // heading; empty for the report's default
  std::string under_test;  // the folder under test, or the model verified
  std::string reference;   // the reference folder
  double rtol = 1e-5;
  double atol = 1e-6;
};

// A report as one self-contained HTML page (inline CSS and SVG, no script):
// a header with the first failing layer, a chart of SQNR and mismatch rate per
// layer in execution order, and the per-layer table.
KOVRA_API std::string report_html(const CompareReport& report, const HtmlContext& context);
KOVRA_API std::string verify_html(const VerifyReport& report, const HtmlContext& context);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_COMPARE_H_
