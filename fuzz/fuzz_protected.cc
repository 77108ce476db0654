// Protected model files: deciphered in memory as the model reader does, and
// from a file through the path road GraphExecutor takes, under the throwing
// error policy (a plain model given there is refused with an Error).
// Protecting what was deciphered must give back the stored bytes.

#include <google/protobuf/stubs/logging.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "encryption.h"
#include "errors.h"
#include "model_check.h"
#include "model_parse.h"

namespace kx = kovra::trenkit::kovraexecutor;
using kx::EncryptionRC4;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    kx::set_message_sink([](kx::MessageLevel, const std::string&) {});
    // The path road parses without muting protobuf's log; its lines are not findings.
    google::protobuf::SetLogHandler(nullptr);
    return true;
  }();
  (void)quiet;
  static const std::string path = "/tmp/kovra_fuzz_protected_" + std::to_string(::getpid());
  std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string plain = EncryptionRC4::unprotect(bytes);
  const std::string stored = EncryptionRC4::has_magic(bytes) ? bytes : EncryptionRC4::kMagic + bytes;
  if (EncryptionRC4::protect(plain) != stored) std::abort();

  kovra::trenkit::GraphDef graph;
  kx::ModelFormat format;
  std::string error, binary;
  if (kx::parse_model(bytes, "input", "protected", graph, format, error, binary)) kx::check_model(graph);

  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  kx::ScopedErrorPolicy policy(kx::ErrorPolicy::kThrow);
  try {
    std::unique_ptr<kovra::trenkit::GraphDef> read(EncryptionRC4::decryption_model(path));
  } catch (const kx::Error&) {
  }
  std::remove(path.c_str());
  return 0;
}
