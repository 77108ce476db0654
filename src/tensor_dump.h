#ifndef KOVRAEXECUTOR_TENSOR_DUMP_H_
#define KOVRAEXECUTOR_TENSOR_DUMP_H_

#include <fstream>
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
// the node's output bit width: 4 -> two values per uint8 (first in the high
// nibble), 5..8 -> uint8, 9..16 -> uint16 (float truncated), 17..32 -> float32.
// <folder>/manifest.tsv lists the dumps of the last run in execution order:
// order, file, tensor name, shape (AxBxC), stored element type, bit width.
class TensorDump {
 public:
  TensorDump();

  void enable(const std::string& folder);
  void disable() { enabled_ = false; }
  bool enabled() const { return enabled_; }
  const std::string& folder() const { return folder_; }

  // Starts a new manifest; called at the start of every run.
  void begin_run();
  void operator()(const Tensor* tensor, int bitwidth, bool is_input);

  static std::string sanitize(const std::string& name);

 private:
  bool _ensure_folder();

  bool enabled_ = false;
  std::string folder_;
  int order_ = 0;
  bool manifest_started_ = false;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_TENSOR_DUMP_H_
