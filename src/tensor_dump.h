#ifndef KOVRAEXECUTOR_TENSOR_DUMP_H_
#define KOVRAEXECUTOR_TENSOR_DUMP_H_

#include <cstdint>
#include <fstream>
#include <set>
#include <string>

#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Writes every computed tensor to a folder so it can be compared with what the
// accelerator produced. Switched on by KOVRA_CPP_DUMPDATA=true (or True), or
// by enable(); the folder is KOVRA_CPP_DUMPDIR, else "kovra_dump".
//
// Each tensor goes to <folder>/<name>.bin (name with every character outside
// [A-Za-z0-9._-] replaced by '_'), as raw little-endian values converted by
// the node's output bit width: 4 -> two values per byte (first in the high
// nibble), 5..8 -> one byte, 9..16 -> two bytes (float truncated, negative
// codes wrapped as the chip stores them), 17..32 -> float32.
// <folder>/manifest.tsv lists the dumps of the last run in execution order:
// order, file, tensor name, shape (AxBxC), element type, bit width, operator.
// The element type says how to read the stored values back: float32, int8,
// uint8, int16, uint16, int4x2 or uint4x2 (int* for nodes whose codes can be
// negative). Names that sanitise alike get "~1", "~2", ... before ".bin", so
// every tensor keeps its own file; the manifest maps names to files.
class TensorDump {
 public:
  TensorDump();

  void enable(const std::string& folder);
  void disable() { enabled_ = false; }
  bool enabled() const { return enabled_; }
  const std::string& folder() const { return folder_; }

  // Starts a new manifest; called at the start of every run.
  void begin_run();
  void operator()(const Tensor* tensor, int bitwidth, bool is_input, const std::string& op_type = "",
                  bool is_signed = false);

  static std::string sanitize(const std::string& name);
  // A value as its code is stored: truncated toward zero, wrapped to 32 bits.
  static uint32_t to_code(float v);

 private:
  bool _ensure_folder();

  bool enabled_ = false;
  std::string folder_;
  int order_ = 0;
  bool manifest_started_ = false;
  std::set<std::string> files_;  // written in this run
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_TENSOR_DUMP_H_
