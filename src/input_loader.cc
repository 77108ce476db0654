#include "input_loader.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <sstream>

#include "checked_size.h"
#include "npy.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

bool parse_dims(const std::string& text, std::vector<int>& dims) {
  dims.clear();
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('x', start);
    if (end == std::string::npos) end = text.size();
    const std::string item = text.substr(start, end - start);
    if (item.empty() || item.size() > 10) return false;
    for (char c : item) {
      if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    }
    const long long dim = std::stoll(item);
    if (dim < 1 || dim > 0x7fffffffLL) return false;
    dims.push_back(static_cast<int>(dim));
    start = end + 1;
  }
  return !dims.empty();
}

bool parse_input_arg(const std::string& text, InputArg& arg, std::string& error) {
  const size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0 || eq + 1 == text.size()) {
    error = "bad input '" + text + "': expected NAME=PATH or NAME=PATH:DIMS";
    return false;
  }
  arg.name = text.substr(0, eq);
  arg.path = text.substr(eq + 1);
  arg.dims.clear();
  const size_t colon = arg.path.rfind(':');
  if (colon != std::string::npos) {
    std::vector<int> dims;
    const std::string suffix = arg.path.substr(colon + 1);
    if (parse_dims(suffix, dims)) {
      arg.dims = dims;
      arg.path.erase(colon);
    } else if (!suffix.empty() && suffix.find_first_not_of("0123456789x") == std::string::npos) {
      error = "bad dimensions '" + suffix + "' in input '" + text + "': expected e.g. 1x224x224x3";
      return false;
    }
  }
  if (arg.path.empty()) {
    error = "bad input '" + text + "': empty file name";
    return false;
  }
  return true;
}

std::string dims_text(const std::vector<int>& dims) {
  std::string text;
  for (size_t i = 0; i < dims.size(); ++i) text += (i ? "x" : "") + std::to_string(dims[i]);
  return text.empty() ? "scalar" : text;
}

namespace {

bool is_npy(const std::string& bytes) { return bytes.compare(0, 6, "\x93NUMPY") == 0; }

// Appends at most `limit` more bytes of `file` to `bytes`: a device or pipe
// without end (/dev/zero) is read only as far as the caller can use.
void read_at_most(std::istream& file, size_t limit, std::string& bytes) {
  char chunk[1 << 16];
  while (limit > 0 && file) {
    file.read(chunk, static_cast<std::streamsize>(std::min(limit, sizeof(chunk))));
    const size_t got = static_cast<size_t>(file.gcount());
    bytes.append(chunk, got);
    limit -= got;
  }
}

// The size of a regular file larger than `needed`, for messages; other files
// are known only to hold more.
std::string larger_size_text(const std::string& path, size_t needed) {
  struct stat info;
  if (::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) return std::to_string(info.st_size);
  return "more than " + std::to_string(needed);
}

}  // namespace

bool load_input(const InputArg& arg, std::unique_ptr<Tensor>& tensor, std::string& error) {
  std::ifstream file(arg.path, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    error = arg.path + ": cannot open input file for '" + arg.name + "'";
    return false;
  }
  std::string bytes;
  read_at_most(file, 6, bytes);
  if (is_npy(bytes)) {
    std::ostringstream rest;
    rest << file.rdbuf();
    bytes += rest.str();
  } else if (!arg.dims.empty()) {
    const long long count = shape_count(arg.dims);
    // One byte beyond the shape is enough to refuse a larger file.
    const size_t needed = count < 0 ? 0 : static_cast<size_t>(count) * 4;
    if (count >= 0 && bytes.size() <= needed) read_at_most(file, needed + 1 - bytes.size(), bytes);
  }
  return load_input_data(arg, bytes, tensor, error);
}

bool load_input_data(const InputArg& arg, const std::string& bytes, std::unique_ptr<Tensor>& tensor,
                     std::string& error) {
  std::vector<int> shape;
  std::vector<float> values;
  if (is_npy(bytes)) {
    NpyArray array;
    if (!parse_npy(bytes, arg.path, array, error)) return false;
    if (!arg.dims.empty() && arg.dims != array.shape) {
      error = arg.path + ": the file holds shape " + dims_text(array.shape) + " but " + dims_text(arg.dims) +
              " was given";
      return false;
    }
    shape = array.shape;
    values = std::move(array.values);
  } else {
    if (arg.dims.empty()) {
      error = arg.path + ": not a .npy file; give the shape of raw float32 data as " + arg.name + "=" +
              arg.path + ":DIMS";
      return false;
    }
    const long long count = shape_count(arg.dims);
    if (count < 0) {
      error = arg.path + ": shape " + dims_text(arg.dims) + " holds more than 2147483647 elements";
      return false;
    }
    const size_t needed = static_cast<size_t>(count) * 4;
    if (bytes.size() != needed) {
      const std::string held =
          bytes.size() > needed ? larger_size_text(arg.path, needed) : std::to_string(bytes.size());
      error = arg.path + ": holds " + held + " bytes but shape " + dims_text(arg.dims) +
              " of float32 needs " + std::to_string(needed);
      return false;
    }
    shape = arg.dims;
    values.resize(static_cast<size_t>(count));
    std::memcpy(values.data(), bytes.data(), needed);
  }
  if (values.empty()) {
    error = arg.path + ": the array has no elements";
    return false;
  }
  // A tensor is never sized by an empty shape: a scalar is one element.
  if (shape.empty()) shape.push_back(1);
  tensor.reset(new Tensor(shape, Tensor::DT_FLOAT, nullptr, "cpu"));
  tensor->set_name(arg.name);
  std::memcpy(tensor->mutable_data<float>(), values.data(), values.size() * sizeof(float));
  return true;
}

bool load_inputs(const std::vector<InputArg>& input_args, std::vector<std::unique_ptr<Tensor>>& tensors,
                 std::string& error) {
  tensors.clear();
  for (const InputArg& arg : input_args) {
    for (const auto& loaded : tensors) {
      if (loaded->name() == arg.name) {
        error = "input '" + arg.name + "' is given twice";
        return false;
      }
    }
    std::unique_ptr<Tensor> tensor;
    if (!load_input(arg, tensor, error)) return false;
    tensors.push_back(std::move(tensor));
  }
  return true;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
