#ifndef KOVRAEXECUTOR_ENCRYPTION_H_
#define KOVRAEXECUTOR_ENCRYPTION_H_

#include <string>

#include "export.h"
#include "lite/proto/graph_def.pb.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The protected-model road: model files handed to GraphExecutor by path are
// stored enciphered with RC4 under the key built into the library.
//
// Layout of a protected file: the 8-byte magic "KVRAPROT" followed by the
// enciphered model bytes. A file without the magic is deciphered whole.
class KOVRA_API EncryptionRC4 {
 public:
  static const char kMagic[9];

  // Deciphers `path` into a private temporary file, parses it and removes it.
  // Returns a new GraphDef owned by the caller (empty after a failure).
  static ::kovra::trenkit::GraphDef* decryption_model(const std::string& path);
  // Writes the protected form of the plain model file `in_path` to `out_path`.
  static bool encryption_model(const std::string& in_path, const std::string& out_path);
  // Writes the plain model held in protected file `in_path` to `out_path`.
  static bool decryption_file(const std::string& in_path, const std::string& out_path);

  // The stored form of a plain serialized model: the magic, then the enciphered bytes.
  static std::string protect(const std::string& plain);
  // The plain serialized model held in stored bytes, with or without the magic.
  static std::string unprotect(const std::string& stored);

  // RC4 with the built-in key, in place; applying it twice restores the bytes.
  static void crypt(std::string& bytes);
  // True when `bytes` start with the protected-file magic.
  static bool has_magic(const std::string& bytes);
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_ENCRYPTION_H_
