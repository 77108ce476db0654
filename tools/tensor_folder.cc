#include "tensor_folder.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include <kovraexecutor/input_loader.h>
#include <kovraexecutor/npy.h>

#include "model_file.h"

namespace kovra_tool {

using kovra::trenkit::kovraexecutor::dims_text;
using kovra::trenkit::kovraexecutor::NpyArray;
using kovra::trenkit::kovraexecutor::parse_dims;
using kovra::trenkit::kovraexecutor::parse_npy;

namespace {

bool ends_with(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::vector<std::string> split_tabs(const std::string& line) {
  std::vector<std::string> fields;
  std::stringstream stream(line);
  std::string field;
  while (std::getline(stream, field, '\t')) fields.push_back(field);
  return fields;
}

size_t count_of(const std::vector<int>& shape) {
  size_t count = 1;
  for (int d : shape) count *= static_cast<size_t>(d);
  return count;
}

}  // namespace

bool scan_folder(const std::string& dir, std::vector<FolderTensor>& tensors, bool& ordered,
                 std::string& error) {
  tensors.clear();
  ordered = false;
  struct stat info;
  if (::stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    error = "'" + dir + "' is not a folder";
    return false;
  }
  std::set<std::string> keys;
  std::ifstream manifest(dir + "/manifest.tsv");
  if (manifest.is_open()) {
    ordered = true;
    std::string line;
    int number = 0;
    while (std::getline(manifest, line)) {
      ++number;
      if (line.empty() || line[0] == '#') continue;
      const std::vector<std::string> fields = split_tabs(line);
      FolderTensor tensor;
      if (fields.size() < 5 || !ends_with(fields[1], ".bin") ||
          !(fields[3] == "scalar" || parse_dims(fields[3], tensor.shape))) {
        error = dir + "/manifest.tsv: malformed line " + std::to_string(number);
        return false;
      }
      tensor.file = fields[1];
      tensor.key = fields[1].substr(0, fields[1].size() - 4);
      tensor.dtype = fields[4];
      if (keys.insert(tensor.key).second) tensors.push_back(tensor);
    }
  }
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
    FolderTensor tensor;
    tensor.file = name;
    tensor.key = name.substr(0, name.size() - 4);
    tensor.dtype = "npy";
    if (keys.insert(tensor.key).second) tensors.push_back(tensor);
  }
  return true;
}

bool load_folder_tensor(const std::string& dir, const FolderTensor& tensor, std::vector<int>& shape,
                        std::vector<float>& values, std::string& error) {
  const std::string path = dir + "/" + tensor.file;
  std::string bytes;
  if (!read_file(path, bytes)) {
    error = path + ": cannot read file";
    return false;
  }
  if (tensor.dtype == "npy") {
    NpyArray array;
    if (!parse_npy(bytes, path, array, error)) return false;
    shape = array.shape;
    values = std::move(array.values);
    return true;
  }
  shape = tensor.shape;
  const size_t count = count_of(shape);
  size_t needed;
  if (tensor.dtype == "float32") {
    needed = count * 4;
  } else if (tensor.dtype == "uint16") {
    needed = count * 2;
  } else if (tensor.dtype == "uint8") {
    needed = count;
  } else if (tensor.dtype == "uint4x2") {
    needed = (count + 1) / 2;
  } else {
    error = path + ": unknown dump type '" + tensor.dtype + "'";
    return false;
  }
  if (bytes.size() != needed) {
    error = path + ": holds " + std::to_string(bytes.size()) + " bytes but " + tensor.dtype +
            " of shape " + dims_text(shape) + " needs " + std::to_string(needed);
    return false;
  }
  const auto* raw = reinterpret_cast<const unsigned char*>(bytes.data());
  values.resize(count);
  for (size_t i = 0; i < count; ++i) {
    if (tensor.dtype == "float32") {
      uint32_t bits = raw[4 * i] | (raw[4 * i + 1] << 8) | (raw[4 * i + 2] << 16) |
                      (static_cast<uint32_t>(raw[4 * i + 3]) << 24);
      std::memcpy(&values[i], &bits, 4);
    } else if (tensor.dtype == "uint16") {
      values[i] = static_cast<float>(raw[2 * i] | (raw[2 * i + 1] << 8));
    } else if (tensor.dtype == "uint8") {
      values[i] = raw[i];
    } else {
      values[i] = static_cast<float>(i % 2 == 0 ? raw[i / 2] >> 4 : raw[i / 2] & 0xf);
    }
  }
  return true;
}

}  // namespace kovra_tool
