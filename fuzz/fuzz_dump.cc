// A dump folder's manifest and raw file, in memory: the bytes up to the first
// NUL are manifest.tsv, the rest is the content of every file it lists. A
// decoded tensor must hold as many values as its shape counts.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "checked_size.h"
#include "compare.h"
#include "dump_parse.h"

namespace kx = kovra::trenkit::kovraexecutor;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const size_t split = bytes.find('\0');
  std::istringstream manifest(bytes.substr(0, split));
  const std::string content = split == std::string::npos ? std::string() : bytes.substr(split + 1);
  std::set<std::string> files;
  std::vector<kx::DumpTensor> tensors;
  std::string error;
  if (!kx::read_manifest("manifest.tsv", manifest, files, tensors, error)) return 0;
  for (kx::DumpTensor& tensor : tensors) {
    kx::is_code_dtype(tensor.dtype);
    if (!kx::decode_bin(content, tensor.file, tensor, error)) continue;
    if (kx::shape_count(tensor.shape) != static_cast<long long>(tensor.values.size())) std::abort();
    for (float v : tensor.values) kx::as_dumped(v, tensor.dtype);
  }
  return 0;
}
