#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "kovraexecutor/compare.h"
#include "kovraexecutor/input_loader.h"
#include "checked_size.h"
#include "dump_parse.h"
#include "kovraexecutor/npy.h"
#include "tensor_dump.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

bool ends_with(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::vector<std::string> split_tabs(const std::string& line) {
  std::vector<std::string> fields;
  std::stringstream stream(line);
  std::string field;
  while (std::getline(stream, field, '\t')) fields.push_back(field);
  return fields;
}

// Bytes per stored element, doubled so that packed nibbles count as 1.
int half_bytes(const std::string& dtype) {
  if (dtype == "float32") return 8;
  if (dtype == "int16" || dtype == "uint16") return 4;
  if (dtype == "int8" || dtype == "uint8") return 2;
  if (dtype == "int4x2" || dtype == "uint4x2") return 1;
  return 0;
}

// Sign-extends the low `bits` of `code`.
float signed_code(uint32_t code, int bits) {
  const uint32_t sign = 1u << (bits - 1);
  return static_cast<float>(static_cast<int32_t>((code ^ sign)) - static_cast<int32_t>(sign));
}

}  // namespace

bool read_manifest(const std::string& path, std::istream& manifest, std::set<std::string>& files,
                   std::vector<DumpTensor>& tensors, std::string& error) {
  std::string line;
  for (int number = 1; std::getline(manifest, line); ++number) {
    if (line.empty() || line[0] == '#') continue;
    const std::vector<std::string> fields = split_tabs(line);
    DumpTensor tensor;
    if (fields.size() < 5 || !ends_with(fields[1], ".bin") ||
        !(fields[3] == "scalar" || parse_dims(fields[3], tensor.shape))) {
      error = path + ": malformed line " + std::to_string(number);
      return false;
    }
    tensor.file = fields[1];
    tensor.name = fields[2];
    tensor.dtype = fields[4];
    if (fields.size() > 5) tensor.bitwidth = std::atoi(fields[5].c_str());
    if (fields.size() > 6) tensor.op = fields[6];
    if (files.insert(tensor.file).second) tensors.push_back(tensor);
  }
  return true;
}

bool decode_bin(const std::string& bytes, const std::string& path, DumpTensor& tensor, std::string& error) {
  const int halves = half_bytes(tensor.dtype);
  if (halves == 0) {
    error = path + ": unknown dump type '" + tensor.dtype + "'";
    return false;
  }
  // The manifest's shape is any text: its product must not wrap into a size the file happens to have.
  const long long elements = shape_count(tensor.shape);
  if (elements < 0) {
    error = path + ": shape " + dims_text(tensor.shape) + " has more than 2147483647 elements";
    return false;
  }
  const size_t count = static_cast<size_t>(elements);
  const size_t needed = (count * halves + 1) / 2;
  if (bytes.size() != needed) {
    error = path + ": holds " + std::to_string(bytes.size()) + " bytes but " + tensor.dtype + " of shape " +
            dims_text(tensor.shape) + " needs " + std::to_string(needed);
    return false;
  }
  const auto* raw = reinterpret_cast<const unsigned char*>(bytes.data());
  const bool is_signed = tensor.dtype[0] == 'i';
  tensor.values.resize(count);
  for (size_t i = 0; i < count; ++i) {
    float& value = tensor.values[i];
    if (halves == 8) {
      const uint32_t bits = raw[4 * i] | (raw[4 * i + 1] << 8) | (raw[4 * i + 2] << 16) |
                            (static_cast<uint32_t>(raw[4 * i + 3]) << 24);
      std::memcpy(&value, &bits, 4);
      continue;
    }
    uint32_t code;
    if (halves == 4) {
      code = raw[2 * i] | (raw[2 * i + 1] << 8);
    } else if (halves == 2) {
      code = raw[i];
    } else {
      code = i % 2 == 0 ? raw[i / 2] >> 4 : raw[i / 2] & 0xfu;
    }
    value = is_signed ? signed_code(code, halves * 4) : static_cast<float>(code);
  }
  return true;
}

namespace {

// Reads a raw dump file at `path` as tensor.dtype of tensor.shape.
bool load_bin(const std::string& path, DumpTensor& tensor, std::string& error) {
  std::ifstream file(path, std::ios::binary);
  if (!file.is_open()) {
    error = path + ": cannot read file";
    return false;
  }
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return decode_bin(bytes, path, tensor, error);
}

}  // namespace

bool is_code_dtype(const std::string& dtype) {
  return dtype == "npy-codes" || (half_bytes(dtype) != 0 && dtype != "float32");
}

float as_dumped(float value, const std::string& dtype) {
  const int halves = half_bytes(dtype);
  if (halves == 0 || halves == 8) return value;
  const int bits = halves * 4;
  const uint32_t code = TensorDump::to_code(value) & ((1u << bits) - 1);
  return dtype[0] == 'i' ? signed_code(code, bits) : static_cast<float>(code);
}

bool read_dump_index(const std::string& dir, const std::string& manifest_path,
                     std::vector<DumpTensor>& tensors, std::string& error) {
  tensors.clear();
  struct stat info;
  if (::stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    error = "'" + dir + "' is not a folder";
    return false;
  }
  const std::string listed = manifest_path.empty() ? dir + "/manifest.tsv" : manifest_path;
  std::set<std::string> files;
  std::ifstream manifest(listed);
  if (!manifest.is_open() && !manifest_path.empty()) {
    error = "cannot read manifest '" + manifest_path + "'";
    return false;
  }
  if (!read_manifest(listed, manifest, files, tensors, error)) return false;
  DIR* handle = ::opendir(dir.c_str());
  if (handle == nullptr) {
    error = "cannot list folder '" + dir + "'";
    return false;
  }
  std::vector<std::string> npy_files;
  while (dirent* entry = ::readdir(handle)) {
    const std::string name = entry->d_name;
    if (ends_with(name, ".npy")) npy_files.push_back(name);
  }
  ::closedir(handle);
  std::sort(npy_files.begin(), npy_files.end());
  for (const std::string& name : npy_files) {
    DumpTensor tensor;
    tensor.file = name;
    tensor.name = name.substr(0, name.size() - 4);
    tensor.dtype = "npy";
    if (files.insert(tensor.file).second) tensors.push_back(tensor);
  }
  return true;
}

bool load_dump_tensor(const std::string& dir, DumpTensor& tensor, std::string& error) {
  const std::string path = dir + "/" + tensor.file;
  if (tensor.dtype == "npy") {
    NpyArray array;
    if (!read_npy(path, array, error)) return false;
    tensor.shape = array.shape;
    tensor.values = std::move(array.values);
    // Integer arrays hold codes, whatever their width.
    if (array.dtype.size() > 1 && (array.dtype[1] == 'i' || array.dtype[1] == 'u'))
      tensor.dtype = "npy-codes";
    return true;
  }
  return load_bin(path, tensor, error);
}

bool load_dumped_input(const InputArg& arg, const std::string& manifest_path, std::unique_ptr<Tensor>& tensor,
                       std::string& error) {
  std::ifstream manifest(manifest_path);
  if (!manifest.is_open()) {
    error = "cannot read manifest '" + manifest_path + "'";
    return false;
  }
  std::set<std::string> files;
  std::vector<DumpTensor> listed;
  if (!read_manifest(manifest_path, manifest, files, listed, error)) return false;
  const auto found =
      std::find_if(listed.begin(), listed.end(), [&](const DumpTensor& t) { return t.name == arg.name; });
  if (found == listed.end()) {
    error = "manifest '" + manifest_path + "' has no line for '" + arg.name + "'";
    return false;
  }
  DumpTensor dumped = *found;
  if (!load_bin(arg.path, dumped, error)) return false;
  tensor = tensor_of(arg.name, dumped.shape, dumped.values);
  return true;
}

std::unique_ptr<Tensor> tensor_of(const std::string& name, std::vector<int> shape,
                                  const std::vector<float>& values) {
  // A tensor is never sized by an empty shape: a scalar is one element.
  if (shape.empty()) shape.push_back(1);
  std::unique_ptr<Tensor> tensor(new Tensor(shape, Tensor::DT_FLOAT, nullptr, "cpu"));
  tensor->set_name(name);
  if (!values.empty())
    std::memcpy(tensor->mutable_data<float>(), values.data(), values.size() * sizeof(float));
  return tensor;
}

bool load_inputs(const std::vector<InputArg>& input_args, const std::string& manifest,
                 std::vector<std::unique_ptr<Tensor>>& tensors, std::string& error) {
  std::vector<InputArg> plain;
  for (const InputArg& arg : input_args) {
    if (!is_dumped_input(arg, manifest)) plain.push_back(arg);
  }
  if (!load_inputs(plain, tensors, error)) return false;
  for (const InputArg& arg : input_args) {
    if (!is_dumped_input(arg, manifest)) continue;
    for (const auto& loaded : tensors) {
      if (loaded->name() == arg.name) {
        error = "input '" + arg.name + "' is given twice";
        return false;
      }
    }
    std::unique_ptr<Tensor> tensor;
    if (!load_dumped_input(arg, manifest, tensor, error)) return false;
    tensors.push_back(std::move(tensor));
  }
  return true;
}

bool is_dumped_input(const InputArg& arg, const std::string& manifest) {
  return !manifest.empty() && arg.dims.empty() && ends_with(arg.path, ".bin");
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
