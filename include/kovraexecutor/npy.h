#ifndef KOVRAEXECUTOR_NPY_H_
#define KOVRAEXECUTOR_NPY_H_

#include <string>
#include <vector>

#include "export.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// A numeric .npy array with its values widened to float32, C order.
struct NpyArray {
  std::vector<int> shape;
  std::vector<float> values;
  std::string dtype;  // the header's descr, e.g. "<f4" or "|u1"
};

// Reads a .npy file (format 1.0, 2.0 or 3.0) of any boolean, integer or
// floating dtype in either byte order. On failure returns false and sets
// `error` to one line naming the file and the problem.
KOVRA_API bool read_npy(const std::string& path, NpyArray& array, std::string& error);
// Same, from the file's bytes; `name` is used in messages.
KOVRA_API bool parse_npy(const std::string& bytes, const std::string& name, NpyArray& array,
                         std::string& error);

// Writes float32 values in C order as a version 1.0 .npy file.
KOVRA_API bool write_npy(const std::string& path, const std::vector<int>& shape, const float* values,
                         std::string& error);
// The bytes write_npy writes.
KOVRA_API std::string npy_bytes(const std::vector<int>& shape, const float* values);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_NPY_H_
