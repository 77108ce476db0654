#ifndef KOVRA_TOOLS_ARGS_PARSER_H_
#define KOVRA_TOOLS_ARGS_PARSER_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <kovraexecutor/input_loader.h>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct RunOptions {
  std::string model;
  std::string format = "auto";
  std::vector<InputArg> inputs;
  std::string output;
  std::vector<std::string> starts;
  std::string out_dir;
  std::string dump_dir;
  bool inplace = false;
  int repeat = 1;
  bool profile = false;  // --repeat was given
  std::string trace;
  int threads = 0;  // 0: leave the library's default
  bool quiet = false;  // no banner and no log lines
  long long max_memory = 0;  // bytes; 0: the library's default budget
  std::string manifest;      // reads dumped .bin inputs by their manifest lines
};

// Shapes of the fed tensors by name, from -s NAME=DIMS.
using ShapeMap = std::map<std::string, std::vector<int>>;

struct CheckOptions {
  std::string model;
  std::string format = "auto";
  ShapeMap shapes;
};

struct InspectOptions {
  std::string model;
  std::string format = "auto";
  ShapeMap shapes;
};

struct ConvertOptions {
  std::string in;
  std::string out;
  std::string format = "auto";  // of the input
  std::string to;               // "plain" or "text"; empty: the other one
};

// protect and unprotect
struct CipherOptions {
  std::string in;
  std::string out;
};

struct CompareOptions {
  std::string a;
  std::string b;
  double rtol = 1e-5;
  double atol = 1e-6;
  std::string manifest;     // describes raw .bin files in A, B or both
  std::string per_channel;  // node to break down by channel
  std::string json;         // file for the JSON records, "-" for stdout
  std::string csv;          // file for the CSV records, "-" for stdout
  std::string html;         // file for the report page
};

struct VerifyOptions {
  std::string model;
  std::string reference;  // dump folder, or raw .bin files read with `manifest`
  std::vector<InputArg> inputs;
  std::vector<std::string> starts;
  std::string output;
  std::string manifest;
  std::string json;  // file for the JSON records, "-" for stdout
  std::string html;  // file for the report page
  double rtol = 1e-5;
  double atol = 1e-6;
};

// Command-line front end of the kovra tool: subcommands run, check, inspect,
// convert, protect, unprotect and compare, each with its own --help.
class ArgsParser {
 public:
  enum class Command { kNone, kRun, kCheck, kInspect, kConvert, kProtect, kUnprotect, kCompare, kVerify };

  ArgsParser();
  ~ArgsParser();
  ArgsParser(const ArgsParser&) = delete;
  ArgsParser& operator=(const ArgsParser&) = delete;

  // Returns -1 when a command is ready to execute; otherwise the process exit
  // code, after the help text (0) or a one-line error (2) has been printed.
  int parse(int argc, const char* const* argv);

  Command command() const { return command_; }
  const RunOptions& run() const { return run_; }
  const CheckOptions& check() const { return check_; }
  const InspectOptions& inspect() const { return inspect_; }
  const ConvertOptions& convert() const { return convert_; }
  const CipherOptions& cipher() const { return cipher_; }
  const CompareOptions& compare() const { return compare_; }
  const VerifyOptions& verify() const { return verify_; }
  std::string usage() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  Command command_ = Command::kNone;
  RunOptions run_;
  CheckOptions check_;
  InspectOptions inspect_;
  ConvertOptions convert_;
  CipherOptions cipher_;
  CompareOptions compare_;
  VerifyOptions verify_;
  std::vector<std::string> raw_inputs_;
  std::string raw_starts_;
  std::string raw_max_memory_;
  std::vector<std::string> raw_shapes_;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRA_TOOLS_ARGS_PARSER_H_
