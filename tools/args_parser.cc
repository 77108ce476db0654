#include "args_parser.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <iostream>
#include <string>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct ArgsParser::Impl {
  CLI::App app{"Runs and examines kovra accelerator models on the host.", "kovra"};
  CLI::App* run = nullptr;
  CLI::App* check = nullptr;
  CLI::App* inspect = nullptr;
  CLI::App* convert = nullptr;
  CLI::App* protect = nullptr;
  CLI::App* unprotect = nullptr;
  CLI::App* compare = nullptr;
  CLI::App* verify = nullptr;
  CLI::Option* repeat = nullptr;
};

namespace {

const char* const kFormats[] = {"auto", "plain", "text", "protected"};

// Tolerances: a plain non-negative number.
const CLI::Validator kTolerance(
    [](std::string& text) -> std::string {
      char* end = nullptr;
      const double value = std::strtod(text.c_str(), &end);
      if (text.empty() || *end != '\0' || !(value >= 0.0)) return "'" + text + "' is not a number >= 0";
      return std::string();
    },
    "TOL");

// NAME=DIMS into `shapes`; false with a message naming the argument.
bool parse_shapes(const std::vector<std::string>& raw, ShapeMap& shapes, std::string& error) {
  for (const std::string& text : raw) {
    const size_t eq = text.find('=');
    std::vector<int> dims;
    if (eq == std::string::npos || eq == 0 || !parse_dims(text.substr(eq + 1), dims)) {
      error = "-s '" + text + "' is not NAME=DIMS (DIMS like 1x224x224x3)";
      return false;
    }
    if (!shapes.emplace(text.substr(0, eq), dims).second) {
      error = "-s: the shape of '" + text.substr(0, eq) + "' is given twice";
      return false;
    }
  }
  return true;
}

// "--max-memory" as bytes: digits with an optional K, M or G (binary units).
bool parse_memory_size(const std::string& text, long long& bytes) {
  size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
  if (digits == 0 || digits > 12) return false;
  const std::string unit = text.substr(digits);
  int shift = 0;
  if (unit == "K") {
    shift = 10;
  } else if (unit == "M") {
    shift = 20;
  } else if (unit == "G") {
    shift = 30;
  } else if (!unit.empty()) {
    return false;
  }
  const long long value = std::stoll(text.substr(0, digits));
  if (value <= 0 || value > (1LL << 50) >> shift) return false;
  bytes = value << shift;
  return true;
}

}  // namespace

ArgsParser::ArgsParser() : impl_(new Impl) {
  CLI::App& app = impl_->app;
  app.require_subcommand(1);
  app.footer("Run 'kovra COMMAND --help' for the options of one command.");
  const std::vector<std::string> formats(std::begin(kFormats), std::end(kFormats));

  CLI::App* run = impl_->run = app.add_subcommand(
      "run", "execute kovra model on input files; print, save, dump and time its outputs");
  run->add_option("model", run_.model, "model file")->required();
  run->add_option("--format", run_.format, "model file format (auto decides from the file)")
      ->check(CLI::IsMember(formats));
  run->add_option("-i,--input", raw_inputs_,
                  "input tensor: NAME=FILE.npy, or NAME=FILE:DIMS for raw little-endian float32 "
                  "(DIMS like 1x224x224x3); repeat for several inputs")
      ->allow_extra_args(false)
      ->type_name("NAME=PATH[:DIMS]");
  run->add_option("--output", run_.output, "end node (default: every node without consumers)");
  run->add_option("--start", raw_starts_, "start nodes, comma separated (default: graph inputs)")
      ->type_name("NODE,...");
  run->add_option("--out-dir", run_.out_dir, "write each output to DIR/<name>.npy")
      ->type_name("DIR");
  run->add_option("--dump", run_.dump_dir, "dump every computed tensor into DIR")
      ->type_name("DIR");
  run->add_flag("--inplace", run_.inplace, "free intermediate tensors as soon as possible");
  impl_->repeat =
      run->add_option("--repeat", run_.repeat, "run N times and print a time profile")
          ->check(CLI::Range(1, 1000000))
          ->type_name("N");
  run->add_option("--trace", run_.trace, "write the per-node timeline as Chrome trace JSON")
      ->type_name("FILE");
  run->add_option("--threads", run_.threads, "worker threads of the convolutions")
      ->check(CLI::Range(1, 1024))
      ->type_name("N");
  run->add_option("--max-memory", raw_max_memory_,
                  "refuse a run whose tensors would hold more than SIZE bytes at once (K, M, G; default 8G)")
      ->type_name("SIZE");
  run->add_flag("-q,--quiet", run_.quiet, "print no banner and no log lines (errors still)");
  run->add_option("--manifest", run_.manifest,
                  "dump manifest giving the shape and type of -i NAME=FILE.bin inputs (dumped tensors)")
      ->type_name("FILE");

  CLI::App* check = impl_->check = app.add_subcommand(
      "check", "report every problem and warning of a model without running it; exit 1 on problems");
  check->add_option("model", check_.model, "model file")->required();
  check->add_option("--format", check_.format, "model file format")->check(CLI::IsMember(formats));
  check->add_option("-s,--shape", raw_shapes_,
                    "shape of a fed tensor, NAME=DIMS (DIMS like 1x224x224x3): infer and print every "
                    "node's output shape; repeat for several inputs")
      ->allow_extra_args(false)
      ->type_name("NAME=DIMS");

  CLI::App* inspect = impl_->inspect =
      app.add_subcommand("inspect", "list the nodes, weights, inputs and outputs of a model");
  inspect->add_option("model", inspect_.model, "model file")->required();
  inspect->add_option("--format", inspect_.format, "model file format")->check(CLI::IsMember(formats));
  inspect->add_option("-s,--shape", raw_shapes_, "shape of a fed tensor, NAME=DIMS: show output shapes")
      ->allow_extra_args(false)
      ->type_name("NAME=DIMS");

  CLI::App* convert = impl_->convert =
      app.add_subcommand("convert", "convert a model between binary and text format");
  convert->add_option("in", convert_.in, "model file to read")->required();
  convert->add_option("out", convert_.out, "model file to write")->required();
  convert->add_option("--format", convert_.format, "format of the input")->check(CLI::IsMember(formats));
  convert->add_option("--to", convert_.to, "format to write (default: the other of binary and text)")
      ->check(CLI::IsMember({"plain", "text"}));

  CLI::App* protect = impl_->protect =
      app.add_subcommand("protect", "encipher a model for the library's path constructor");
  protect->add_option("in", cipher_.in, "plain (binary or text) model file")->required();
  protect->add_option("out", cipher_.out, "protected model file to write")->required();

  CLI::App* unprotect = impl_->unprotect =
      app.add_subcommand("unprotect", "decipher a protected model into a binary model");
  unprotect->add_option("in", cipher_.in, "protected model file")->required();
  unprotect->add_option("out", cipher_.out, "binary model file to write")->required();

  CLI::App* compare = impl_->compare = app.add_subcommand(
      "compare", "compare two tensor folders (dumps or .npy files) tensor by tensor");
  compare->add_option("A", compare_.a, "folder under test")->required();
  compare->add_option("B", compare_.b, "reference folder")->required();
  compare->add_option("--rtol", compare_.rtol, "relative tolerance")->check(kTolerance);
  compare->add_option("--atol", compare_.atol, "absolute tolerance")->check(kTolerance);
  compare->add_option("--manifest", compare_.manifest,
                      "manifest.tsv describing a folder of raw .bin files without one");
  compare->add_option("--per-channel", compare_.per_channel, "break this node's tensor down by channel");
  compare->add_option("--json", compare_.json, "also write the records as JSON to this file ('-': stdout)");
  compare->add_option("--csv", compare_.csv, "also write the records as CSV to this file ('-': stdout)");
  compare->add_option("--html", compare_.html, "also write the report as an HTML page to this file");

  CLI::App* verify = impl_->verify = app.add_subcommand(
      "verify", "run each node on a reference's inputs and find the node that computes differently");
  verify->add_option("model", verify_.model, "model file")->required();
  verify->add_option("reference", verify_.reference, "reference dump folder")->required();
  verify->add_option("-i,--input", raw_inputs_, "graph input, as for run (default: from the reference)")
      ->allow_extra_args(false)
      ->type_name("NAME=PATH[:DIMS]");
  verify->add_option("--start", raw_starts_, "start nodes, comma separated (default: graph inputs)")
      ->type_name("NODE,...");
  verify->add_option("--output", verify_.output, "end node (default: every node without consumers)");
  verify->add_option("--manifest", verify_.manifest,
                     "manifest.tsv describing a reference of raw .bin files (and dumped -i inputs)");
  verify->add_option("--json", verify_.json, "also write the records as JSON to this file ('-': stdout)");
  verify->add_option("--html", verify_.html, "also write the report as an HTML page to this file");
  verify->add_option("--rtol", verify_.rtol, "relative tolerance")->check(kTolerance);
  verify->add_option("--atol", verify_.atol, "absolute tolerance")->check(kTolerance);
}

ArgsParser::~ArgsParser() = default;

std::string ArgsParser::usage() const { return impl_->app.help(); }

int ArgsParser::parse(int argc, const char* const* argv) {
  CLI::App& app = impl_->app;
  if (argc < 2) {
    std::cout << app.help();
    return 2;
  }
  std::string where = "kovra";
  std::string names;
  for (CLI::App* sub : app.get_subcommands({})) {
    if (sub->get_name() == argv[1]) where += " " + sub->get_name();
    names += (names.empty() ? "" : ", ") + sub->get_name();
  }
  if (where == "kovra" && argv[1][0] != '-') {
    std::cerr << "kovra: unknown command '" << argv[1] << "' (commands: " << names << ")" << std::endl;
    return 2;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << where << ": " << e.what() << " (see '" << where << " --help')" << std::endl;
    return 2;
  }
  if (impl_->run->parsed() || impl_->verify->parsed()) {
    const bool is_run = impl_->run->parsed();
    command_ = is_run ? Command::kRun : Command::kVerify;
    std::vector<InputArg>& inputs = is_run ? run_.inputs : verify_.inputs;
    std::vector<std::string>& starts = is_run ? run_.starts : verify_.starts;
    for (const std::string& text : raw_inputs_) {
      InputArg arg;
      std::string error;
      if (!parse_input_arg(text, arg, error)) {
        std::cerr << where << ": " << error << std::endl;
        return 2;
      }
      inputs.push_back(arg);
    }
    size_t start = 0;
    while (!raw_starts_.empty() && start <= raw_starts_.size()) {
      size_t end = raw_starts_.find(',', start);
      if (end == std::string::npos) end = raw_starts_.size();
      if (end > start) starts.push_back(raw_starts_.substr(start, end - start));
      start = end + 1;
    }
    run_.profile = impl_->repeat->count() > 0;
    if (!raw_max_memory_.empty() && !parse_memory_size(raw_max_memory_, run_.max_memory)) {
      std::cerr << "kovra run: bad --max-memory '" << raw_max_memory_
                << "': expected a positive number of bytes, optionally with K, M or G" << std::endl;
      return 2;
    }
  } else if (impl_->check->parsed() || impl_->inspect->parsed()) {
    const bool is_check = impl_->check->parsed();
    command_ = is_check ? Command::kCheck : Command::kInspect;
    std::string error;
    if (!parse_shapes(raw_shapes_, is_check ? check_.shapes : inspect_.shapes, error)) {
      std::cerr << where << ": " << error << std::endl;
      return 2;
    }
  } else if (impl_->convert->parsed()) {
    command_ = Command::kConvert;
  } else if (impl_->protect->parsed()) {
    command_ = Command::kProtect;
  } else if (impl_->unprotect->parsed()) {
    command_ = Command::kUnprotect;
  } else if (impl_->compare->parsed()) {
    command_ = Command::kCompare;
  }
  return -1;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
