// The compiled half of the Python package: thin bindings over the public
// library. Every entry point puts its thread under the throwing error policy,
// so a failure reaches Python as kovra.Error instead of ending the process;
// the pure-Python modules of the package give the API its shape.

#include <kovraexecutor/compare.h>
#include <kovraexecutor/encryption.h>
#include <kovraexecutor/errors.h>
#include <kovraexecutor/graph_executor.h>
#include <kovraexecutor/input_loader.h>
#include <kovraexecutor/model_check.h>
#include <kovraexecutor/model_reader.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace py = pybind11;
namespace kx = kovra::trenkit::kovraexecutor;

namespace {

using kx::Tensor;

class Throwing : public kx::ScopedErrorPolicy {
 public:
  Throwing() : kx::ScopedErrorPolicy(kx::ErrorPolicy::kThrow) {}
};

[[noreturn]] void fail(const std::string& message, const std::string& node = "", const std::string& op = "") {
  throw kx::Error(message, node, op);
}

py::dtype dtype_of(Tensor::DataType type) {
  switch (type) {
    case Tensor::DT_FLOAT:
      return py::dtype::of<float>();
    case Tensor::DT_INT32:
      return py::dtype::of<int32_t>();
    case Tensor::DT_UINT8:
      return py::dtype::of<uint8_t>();
    case Tensor::DT_INT16:
      return py::dtype::of<int16_t>();
    case Tensor::DT_INT8:
      return py::dtype::of<int8_t>();
    case Tensor::DT_UINT32:
      return py::dtype::of<uint32_t>();
    default:
      fail("element type " + std::to_string(type) + " has no numpy equivalent");
  }
}

// A copy of the tensor's elements in their own type.
py::array native_array(const Tensor& tensor) {
  py::array array(dtype_of(tensor.data_type()),
                  std::vector<py::ssize_t>(tensor.shape().begin(), tensor.shape().end()));
  if (tensor.get_ptr() != nullptr) std::memcpy(array.mutable_data(), tensor.get_ptr(), tensor.byte_size());
  return array;
}

// Values read out of a run, held while the interpreter lock is released.
struct Values {
  std::string name;
  std::vector<int> shape;
  std::vector<float> values;
};

py::array_t<float> float_array(const Values& v) {
  py::array_t<float> array(std::vector<py::ssize_t>(v.shape.begin(), v.shape.end()));
  if (!v.values.empty()) std::memcpy(array.mutable_data(), v.values.data(), v.values.size() * sizeof(float));
  return array;
}

// `source` is a path when `is_path`, the model's bytes otherwise.
void decode(const std::string& source, bool is_path, const std::string& format,
            kovra::trenkit::GraphDef& graph, kx::ModelFormat& chosen) {
  static const char* const kFormats[] = {"auto", "plain", "text", "protected"};
  bool known = false;
  for (const char* f : kFormats) known = known || format == f;
  if (!known) fail("unknown model format '" + format + "' (auto, plain, text or protected)");
  std::string error;
  const bool ok = is_path ? kx::read_model(source, format, graph, chosen, error)
                          : kx::read_model_data(source, "<bytes>", format, graph, chosen, error);
  if (!ok) fail(error);
}

// One model and its executor. The lock serialises runs of one model from
// several Python threads; different models run in parallel.
class Executor {
 public:
  Executor(const std::string& source, bool is_path, const std::string& format) {
    Throwing policy;
    decode(source, is_path, format, graph_, format_);
    const kx::ModelReport report = kx::check_model(graph_);
    if (!report.problems.empty()) {
      const kx::ModelIssue& issue = report.problems.front();
      fail(issue.message, issue.node, issue.op);
    }
    outline_ = kx::graph_outline(graph_);
    executor_.reset(new kx::GraphExecutor(&graph_, kx::CPU));
  }

  std::string format() const { return kx::format_name(format_); }
  py::bytes graph_bytes() const {
    std::string bytes;
    graph_.SerializeToString(&bytes);
    return py::bytes(bytes);
  }
  std::vector<std::string> inputs() const {
    Throwing policy;
    return executor_->get_input_names();
  }
  std::vector<std::string> outputs() const {
    Throwing policy;
    return executor_->get_output_names();
  }

  // `feeds` are .npy bytes by input name, read as the command line reads
  // input files; values come back as float32 by node name.
  py::dict run(const std::map<std::string, py::bytes>& feeds, const std::vector<std::string>& outputs,
               const std::vector<std::string>& starts, int threads, bool keep) {
    Throwing policy;
    for (const std::string& name : starts) known_node(name, "start");
    for (const std::string& name : outputs) known_node(name, "output");
    // The executor ignores a tensor fed under a name it does not read; a typo must not pass silently.
    const std::vector<std::string> allowed = kx::run_feeds(outline_, kx::run_starts(outline_, starts));
    for (const auto& feed : feeds) {
      if (std::find(allowed.begin(), allowed.end(), feed.first) == allowed.end()) {
        std::string names;
        for (const std::string& name : allowed) names += (names.empty() ? "" : ", ") + name;
        fail("unknown input '" + feed.first + "'; the model's inputs are: " + names);
      }
    }
    std::vector<std::unique_ptr<Tensor>> tensors;
    for (const auto& feed : feeds) {
      std::unique_ptr<Tensor> tensor;
      std::string error;
      if (!kx::load_input_data({feed.first, "feed '" + feed.first + "'", {}}, feed.second, tensor, error)) {
        fail(error);
      }
      tensors.push_back(std::move(tensor));
    }
    std::vector<Values> results;
    {
      py::gil_scoped_release released;
      std::lock_guard<std::mutex> lock(mutex_);
      if (threads > 0) kx::GraphExecutor::set_num_threads(threads);
      std::map<std::string, Tensor*> inputs;
      for (auto& tensor : tensors) inputs[tensor->name()] = tensor.get();
      executor_->set_inputs(inputs);
      // The executor keeps pointers to the feeds: they live until the next run.
      fed_ = std::move(tensors);
      // Several outputs need the tensors of non-end nodes, which inplace runs free.
      executor_->set_inplace(!keep && outputs.size() <= 1);
      executor_->work(starts, outputs.size() == 1 ? outputs.front() : "");
      const std::vector<std::string> names = outputs.empty() ? executor_->get_output_names() : outputs;
      for (const std::string& name : names) {
        results.push_back(read_values(
            name, outputs.empty() ? executor_->get_output_tensor(name) : executor_->get_node_tensor(name)));
      }
    }
    py::dict out;
    for (const Values& v : results) out[py::str(v.name)] = float_array(v);
    return out;
  }

  py::array_t<float> tensor(const std::string& name) {
    Throwing policy;
    known_node(name, "tensor");
    Values values;
    {
      py::gil_scoped_release released;
      std::lock_guard<std::mutex> lock(mutex_);
      values = read_values(name, executor_->get_node_tensor(name));
    }
    return float_array(values);
  }

  py::list weights(const std::string& name) {
    Throwing policy;
    // Nobody waits for the lock while holding the interpreter's: a long run
    // of this model must not stop every other Python thread.
    std::unique_lock<std::mutex> lock(mutex_, std::defer_lock);
    {
      py::gil_scoped_release released;
      lock.lock();
    }
    py::list out;
    for (const Tensor* weight : executor_->get_node_weights(name)) out.append(native_array(*weight));
    return out;
  }

  const kovra::trenkit::GraphDef& graph() const { return graph_; }

 private:
  void known_node(const std::string& name, const char* what) const {
    if (outline_.find(name) < 0) fail(std::string(what) + ": the model has no node '" + name + "'");
  }

  Values read_values(const std::string& name, const Tensor* tensor) const {
    Values v;
    v.name = name;
    if (tensor == nullptr || tensor->get_ptr() == nullptr) {
      fail("node '" + name + "' holds no tensor", name, outline_.ops[outline_.find(name)]);
    }
    v.shape = tensor->shape();
    if (tensor->data_type() == Tensor::DT_FLOAT) {
      v.values.assign(tensor->data<float>(), tensor->data<float>() + tensor->size());
    } else {
      v.values = executor_->get_node_float_data(tensor);
    }
    return v;
  }

  kovra::trenkit::GraphDef graph_;
  kx::ModelFormat format_ = kx::ModelFormat::kPlain;
  kx::GraphOutline outline_;
  std::unique_ptr<kx::GraphExecutor> executor_;
  // Inputs of the last run, kept until the next one.
  std::vector<std::unique_ptr<Tensor>> fed_;
  std::mutex mutex_;
};

py::list issues(const std::vector<kx::ModelIssue>& list) {
  py::list out;
  for (const kx::ModelIssue& issue : list) out.append(py::make_tuple(issue.node, issue.op, issue.message));
  return out;
}

py::dict check(const std::string& source, bool is_path, const std::string& format,
               const std::map<std::string, std::vector<int>>& shapes) {
  Throwing policy;
  kovra::trenkit::GraphDef graph;
  kx::ModelFormat chosen;
  decode(source, is_path, format, graph, chosen);
  const kx::ModelReport report = kx::check_model(graph, shapes);
  py::list inferred;
  for (const kx::NodeShape& s : report.shapes) inferred.append(py::make_tuple(s.node, s.op, s.shape));
  py::dict out;
  out["problems"] = issues(report.problems);
  out["warnings"] = issues(report.warnings);
  out["shapes"] = inferred;
  return out;
}

// (name, operator, dump type, shape, values) of every tensor of a folder.
py::list load_dump(const std::string& folder, const std::string& manifest) {
  Throwing policy;
  std::vector<kx::DumpTensor> tensors;
  std::string error;
  if (!kx::read_dump_index(folder, manifest, tensors, error)) fail(error);
  py::list out;
  for (kx::DumpTensor& t : tensors) {
    if (!kx::load_dump_tensor(folder, t, error)) fail(error, t.name, t.op);
    Values v{t.name, t.shape, std::move(t.values)};
    out.append(py::make_tuple(t.name, t.op, t.dtype, float_array(v)));
  }
  return out;
}

// The report as JSON and, when asked, as the HTML page the command writes.
py::tuple compare(const std::string& a, const std::string& b, double rtol, double atol,
                  const std::string& manifest_a, const std::string& manifest_b,
                  const std::string& per_channel, bool html) {
  Throwing policy;
  kx::CompareSettings settings;
  settings.rtol = rtol;
  settings.atol = atol;
  settings.manifest_a = manifest_a;
  settings.manifest_b = manifest_b;
  settings.per_channel = per_channel;
  kx::CompareReport report;
  std::string error;
  {
    py::gil_scoped_release released;
    if (!kx::compare_folders(a, b, settings, report, error)) fail(error);
  }
  kx::HtmlContext context;
  context.under_test = a;
  context.reference = b;
  context.rtol = rtol;
  context.atol = atol;
  return py::make_tuple(kx::report_json(report), html ? kx::report_html(report, context) : std::string());
}

py::tuple verify(Executor& model, const std::string& name, const std::string& reference,
                 const std::map<std::string, py::bytes>& feeds, double rtol, double atol,
                 const std::string& manifest, const std::vector<std::string>& starts,
                 const std::string& output, bool html) {
  Throwing policy;
  std::vector<std::unique_ptr<Tensor>> tensors;
  std::map<std::string, const Tensor*> inputs;
  for (const auto& feed : feeds) {
    std::unique_ptr<Tensor> tensor;
    std::string error;
    if (!kx::load_input_data({feed.first, "feed '" + feed.first + "'", {}}, feed.second, tensor, error)) {
      fail(error);
    }
    inputs[feed.first] = tensor.get();
    tensors.push_back(std::move(tensor));
  }
  kx::VerifySettings settings;
  settings.rtol = rtol;
  settings.atol = atol;
  settings.manifest = manifest;
  settings.starts = starts;
  settings.output = output;
  kx::VerifyReport report;
  std::string error;
  {
    py::gil_scoped_release released;
    if (!kx::verify_model(model.graph(), reference, inputs, settings, report, error)) fail(error);
  }
  kx::HtmlContext context;
  context.under_test = name;
  context.reference = reference;
  context.rtol = rtol;
  context.atol = atol;
  return py::make_tuple(kx::verify_json(report), html ? kx::verify_html(report, context) : std::string());
}

}  // namespace

PYBIND11_MODULE(_kovra, m) {
  m.doc() = "Bindings of libkovraExecutor; use the kovra package, not this module.";

  // kovra.Error is a Python class (kovra/_errors.py) so that it pickles and
  // carries the node and operator as plain attributes.
  py::register_exception_translator([](std::exception_ptr failure) {
    try {
      if (failure) std::rethrow_exception(failure);
    } catch (const kx::Error& e) {
      py::object type = py::module_::import("kovra._errors").attr("Error");
      py::object error = type(e.message(), e.node(), e.op());
      PyErr_SetObject(type.ptr(), error.ptr());
    }
  });

  py::class_<Executor>(m, "Executor")
      .def(py::init<const std::string&, bool, const std::string&>(), py::arg("source"), py::arg("is_path"),
           py::arg("format"))
      .def_property_readonly("format", &Executor::format)
      .def_property_readonly("inputs", &Executor::inputs)
      .def_property_readonly("outputs", &Executor::outputs)
      .def("graph_bytes", &Executor::graph_bytes)
      .def("run", &Executor::run)
      .def("tensor", &Executor::tensor)
      .def("weights", &Executor::weights);

  m.def("check", &check);
  m.def("load_dump", &load_dump);
  m.def("compare", &compare);
  m.def("verify", &verify);
  m.def("protect", [](const std::string& plain) {
    Throwing policy;
    return py::bytes(kx::EncryptionRC4::protect(plain));
  });
  m.def("set_num_threads", [](int threads) {
    Throwing policy;
    kx::GraphExecutor::set_num_threads(threads);
  });
  m.def("num_threads", [] {
    Throwing policy;
    return kx::GraphExecutor::num_threads();
  });
  m.def("input_lookup_name", [](const std::string& input) {
    Throwing policy;
    return kx::input_lookup_name(input);
  });
  // (node re-encoded, warnings for the attributes that could not be)
  m.def("fit_attribute_encodings", [](const std::string& node_bytes) {
    Throwing policy;
    kovra::trenkit::NodeDef node;
    if (!node.ParseFromString(node_bytes)) fail("not a serialized NodeDef");
    const std::vector<std::string> left = kx::fit_attribute_encodings(node);
    return py::make_tuple(py::bytes(node.SerializeAsString()), left);
  });
}
