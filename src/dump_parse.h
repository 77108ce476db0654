#ifndef KOVRAEXECUTOR_DUMP_PARSE_H_
#define KOVRAEXECUTOR_DUMP_PARSE_H_

#include <istream>
#include <set>
#include <string>
#include <vector>

#include "kovraexecutor/compare.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The steps of reading a dump folder on bytes already in memory, shared by
// the folder readers of compare.h.

// Appends the entries of the manifest `manifest` (read from `path`, which
// messages name) whose files are not yet in `files`.
bool read_manifest(const std::string& path, std::istream& manifest, std::set<std::string>& files,
                   std::vector<DumpTensor>& tensors, std::string& error);
// Decodes the raw dump `bytes` (of the file `path`) as tensor.dtype of tensor.shape.
bool decode_bin(const std::string& bytes, const std::string& path, DumpTensor& tensor, std::string& error);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_DUMP_PARSE_H_
