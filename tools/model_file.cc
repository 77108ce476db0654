#include "model_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <utility>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/text_format.h>

#include <kovraexecutor/encryption.h>

namespace kovra_tool {

using kovra::trenkit::kovraexecutor::EncryptionRC4;

bool write_file(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::out | std::ios::binary | std::ios::trunc);
  if (!file.is_open()) return false;
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  return static_cast<bool>(file);
}

bool make_dirs(const std::string& path) {
  std::string partial;
  for (size_t i = 0; i <= path.size(); ++i) {
    if ((i == path.size() || path[i] == '/') && !partial.empty()) {
      if (::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    if (i < path.size()) partial += path[i];
  }
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool write_model(const GraphDef& graph, ModelFormat format, const std::string& path,
                 std::string& error, const std::string& binary) {
  std::string bytes = binary;
  if (format == ModelFormat::kText) {
    if (!google::protobuf::TextFormat::PrintToString(graph, &bytes)) {
      error = "cannot print the model as text";
      return false;
    }
  } else {
    if (bytes.empty()) {
      google::protobuf::io::StringOutputStream stream(&bytes);
      google::protobuf::io::CodedOutputStream coded(&stream);
      coded.SetSerializationDeterministic(true);
      if (!graph.SerializeToCodedStream(&coded)) {
        error = "cannot serialize the model";
        return false;
      }
    }
    if (format == ModelFormat::kProtected) bytes = EncryptionRC4::protect(bytes);
  }
  if (!write_file(path, bytes)) {
    error = "cannot write '" + path + "'";
    return false;
  }
  return true;
}

}  // namespace kovra_tool
