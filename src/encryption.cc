#include "encryption.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <vector>

#include "common.h"
#include "model_parse.h"
#include "model_reader.h"

#ifndef KOVRA_MODEL_CIPHER_KEY
#define KOVRA_MODEL_CIPHER_KEY "kovra-executor-model-key"
#endif

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

const char EncryptionRC4::kMagic[9] = "KVRAPROT";

namespace {

const size_t kMagicSize = 8;

bool write_all(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool write_file(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::out | std::ios::binary | std::ios::trunc);
  if (!file.is_open()) return false;
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(file);
}

std::string temporary_directory() {
  const char* dir = std::getenv("TMPDIR");
  return dir != nullptr && dir[0] != '\0' ? dir : "/tmp";
}

// Removes the file when it goes out of scope, whatever path the parse took.
struct RemoveOnExit {
  std::string path;
  ~RemoveOnExit() { std::remove(path.c_str()); }
};

enum class PlainForm { kNone, kBinary, kText };

// Whether the stored bytes are a plain model rather than a protected one.
PlainForm plain_model_form(const std::string& stored) {
  if (EncryptionRC4::has_magic(stored)) return PlainForm::kNone;
  ::kovra::trenkit::GraphDef graph;
  if (parse_binary(stored, graph) && looks_sane(graph)) return PlainForm::kBinary;
  std::string error;
  return parse_text(stored, graph, error) && looks_sane(graph) ? PlainForm::kText : PlainForm::kNone;
}

}  // namespace

void EncryptionRC4::crypt(std::string& bytes) {
  static const std::string key = KOVRA_MODEL_CIPHER_KEY;
  unsigned char s[256];
  for (int i = 0; i < 256; ++i) s[i] = static_cast<unsigned char>(i);
  for (int i = 0, j = 0; i < 256; ++i) {
    j = (j + s[i] + static_cast<unsigned char>(key[i % key.size()])) & 0xff;
    std::swap(s[i], s[j]);
  }
  int i = 0, j = 0;
  for (char& c : bytes) {
    i = (i + 1) & 0xff;
    j = (j + s[i]) & 0xff;
    std::swap(s[i], s[j]);
    c = static_cast<char>(static_cast<unsigned char>(c) ^ s[(s[i] + s[j]) & 0xff]);
  }
}

bool EncryptionRC4::has_magic(const std::string& bytes) {
  return bytes.size() >= kMagicSize && std::memcmp(bytes.data(), kMagic, kMagicSize) == 0;
}

std::string EncryptionRC4::protect(const std::string& plain) {
  std::string bytes = plain;
  crypt(bytes);
  return std::string(kMagic, kMagicSize) + bytes;
}

std::string EncryptionRC4::unprotect(const std::string& stored) {
  std::string bytes = has_magic(stored) ? stored.substr(kMagicSize) : stored;
  crypt(bytes);
  return bytes;
}

::kovra::trenkit::GraphDef* EncryptionRC4::decryption_model(const std::string& path) {
  // Owned until returned, so that a failure thrown under ErrorPolicy::kThrow leaks nothing.
  std::unique_ptr<::kovra::trenkit::GraphDef> graph_def(new ::kovra::trenkit::GraphDef());
  std::string stored;
  if (!read_file(path, stored)) {
    print_error("Open file [" + path + "] error!");
    return graph_def.release();
  }
  const std::string bytes = unprotect(stored);
  // A private file per call (mode 0600, unique name), so that two processes
  // never read each other's plain model.
  std::string temp = temporary_directory() + "/kovra_template_XXXXXX";
  std::vector<char> name(temp.begin(), temp.end());
  name.push_back('\0');
  const int fd = ::mkstemp(name.data());
  if (fd < 0) fatal("Open file [" + temp + "] failed!");
  RemoveOnExit cleanup{name.data()};
  const bool written = write_all(fd, bytes);
  ::close(fd);
  if (!written) fatal("Open file [" + cleanup.path + "] failed!");
  std::ifstream probe(cleanup.path, std::ios::in | std::ios::binary);
  if (!probe.is_open()) {
    std::fprintf(stderr, "open failed %s\n", cleanup.path.c_str());
    return graph_def.release();
  }
  probe.close();
  const bool parsed = parse_graph_file(cleanup.path, graph_def.get());
  if (!parsed || !looks_sane(*graph_def)) {
    // The usual mistake: a model that was never protected. Say so, instead of
    // the empty graph failing later for want of an end point.
    const PlainForm form = plain_model_form(stored);
    if (form != PlainForm::kNone) {
      const bool text = form == PlainForm::kText;
      fatal("The model file " + path + " is a plain (unprotected) model" + (text ? " in text format" : "") +
            ", but a path given to GraphExecutor must be a protected model: " +
            (text ? "parse it with google::protobuf::TextFormat"
                  : "read it with load_graph() of kovraexecutor/model_reader.h") +
            " and pass the GraphDef to GraphExecutor(const GraphDef*, DEVICE), or protect the file with "
            "kovra protect.");
    }
  }
  if (!parsed) print_error("open model file failed, " + path);
  return graph_def.release();
}

bool EncryptionRC4::encryption_model(const std::string& in_path, const std::string& out_path) {
  std::string bytes;
  if (!read_file(in_path, bytes)) return false;
  return write_file(out_path, protect(bytes));
}

bool EncryptionRC4::decryption_file(const std::string& in_path, const std::string& out_path) {
  std::string bytes;
  if (!read_file(in_path, bytes)) return false;
  return write_file(out_path, unprotect(bytes));
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
