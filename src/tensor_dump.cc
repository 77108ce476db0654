#include "tensor_dump.h"

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

const char* const kManifest = "manifest.tsv";

std::string shape_text(const std::vector<int>& shape, const char* separator) {
  std::string text;
  for (size_t i = 0; i < shape.size(); ++i) text += (i ? separator : "") + std::to_string(shape[i]);
  return text;
}

bool make_dirs(const std::string& path) {
  std::string partial;
  for (size_t i = 0; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      if (!partial.empty() && ::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    if (i < path.size()) partial += path[i];
  }
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

TensorDump::TensorDump() {
  const char* flag = std::getenv("KOVRA_CPP_DUMPDATA");
  if (flag != nullptr && (std::string(flag) == "true" || std::string(flag) == "True")) {
    const char* dir = std::getenv("KOVRA_CPP_DUMPDIR");
    enable(dir != nullptr && dir[0] != '\0' ? dir : "kovra_dump");
  }
}

void TensorDump::enable(const std::string& folder) {
  enabled_ = true;
  folder_ = folder;
  begin_run();
}

void TensorDump::begin_run() {
  manifest_started_ = false;
  order_ = 0;
  files_.clear();
}

// Truncates toward zero and wraps to the register width, as the chip stores codes;
// values outside the 32-bit range saturate first so the conversion is defined.
uint32_t TensorDump::to_code(float v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0f) return 0x7fffffffu;
  if (v <= -2147483648.0f) return 0x80000000u;
  return static_cast<uint32_t>(static_cast<int32_t>(v));
}

std::string TensorDump::sanitize(const std::string& name) {
  std::string out = name;
  for (char& c : out) {
    const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '.' || c == '_';
    if (!keep) c = '_';
  }
  return out;
}

bool TensorDump::_ensure_folder() {
  if (make_dirs(folder_)) return true;
  print_error("Open file" + folder_ + " failed!!!!");
  return false;
}

void TensorDump::operator()(const Tensor* tensor, int bitwidth, bool is_input, const std::string& op_type,
                            bool is_signed) {
  (void)is_input;
  if (!enabled_ || tensor == nullptr) return;
  if (bitwidth < 4 || bitwidth > 32) {
    fatal("The tensor :" + tensor->name() + " output bit width is unsupport");
  }
  // Placeholders leave their output unshaped: nothing to write.
  if (tensor->get_ptr() == nullptr || tensor->shape().empty()) return;
  if (tensor->data_type() != Tensor::DT_FLOAT) {
    print_error("Invalid tensor data type!!!!");
    return;
  }
  if (!_ensure_folder()) return;
  const std::string stem = sanitize(tensor->name());
  std::string file_name = stem + ".bin";
  // '~' never survives sanitising, so a suffixed name cannot collide either.
  for (int n = 1; !files_.insert(file_name).second; ++n) file_name = stem + "~" + std::to_string(n) + ".bin";
  const std::string path = folder_ + "/" + file_name;
  const float* values = tensor->data<float>();
  const int count = tensor->size();
  std::vector<unsigned char> bytes;
  const char* stored = "float32";
  if (bitwidth == 4) {
    stored = is_signed ? "int4x2" : "uint4x2";
    bytes.assign(static_cast<size_t>((count + 1) / 2), 0);
    for (int i = 0; i < count; ++i) {
      const unsigned nibble = TensorDump::to_code(values[i]) & 0xfu;
      bytes[i / 2] |= static_cast<unsigned char>(i % 2 == 0 ? nibble << 4 : nibble);
    }
  } else if (bitwidth <= 8) {
    stored = is_signed ? "int8" : "uint8";
    bytes.resize(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(TensorDump::to_code(values[i]));
  } else if (bitwidth <= 16) {
    stored = is_signed ? "int16" : "uint16";
    bytes.resize(static_cast<size_t>(count) * 2);
    for (int i = 0; i < count; ++i) {
      const uint32_t code = TensorDump::to_code(values[i]);
      bytes[2 * i] = static_cast<unsigned char>(code & 0xff);
      bytes[2 * i + 1] = static_cast<unsigned char>((code >> 8) & 0xff);
    }
  } else {
    const auto* raw = reinterpret_cast<const unsigned char*>(values);
    bytes.assign(raw, raw + static_cast<size_t>(count) * 4);
  }
  print_log("Data dumping to:" + path);
  print_log("--->shape:[" + shape_text(tensor->shape(), ",") + "]");
  std::ofstream file(path, std::ios::out | std::ios::binary | std::ios::trunc);
  if (!file.is_open()) {
    print_error("Open file" + path + " failed!!!!");
    return;
  }
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  file.close();

  const std::string manifest_path = folder_ + "/" + kManifest;
  std::ofstream manifest(manifest_path, manifest_started_ ? std::ios::app : std::ios::trunc);
  if (!manifest.is_open()) {
    print_error("Open file" + manifest_path + " failed!!!!");
    return;
  }
  if (!manifest_started_) manifest << "# order\tfile\tname\tshape\tdtype\tbitwidth\top\n";
  manifest_started_ = true;
  auto one_field = [](std::string text) {
    for (char& c : text) c = (c == '\t' || c == '\n' || c == '\r') ? ' ' : c;
    return text;
  };
  manifest << order_++ << '\t' << file_name << '\t' << one_field(tensor->name()) << '\t'
           << shape_text(tensor->shape(), "x") << '\t' << stored << '\t' << bitwidth << '\t'
           << one_field(op_type) << '\n';
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
