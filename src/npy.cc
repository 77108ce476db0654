#include "npy.h"

#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

const char kMagic[] = "\x93NUMPY";
const size_t kMagicSize = 6;

// The header is a Python dict literal; only strings, booleans and tuples of
// integers occur in it, so a small recursive reader is enough.
class HeaderReader {
 public:
  explicit HeaderReader(const std::string& text) : text_(text) {}

  // key -> raw value: a string's contents, "True"/"False", or "(d0,d1,...)".
  bool read(std::map<std::string, std::string>& entries) {
    skip_blanks();
    if (!eat('{')) return false;
    while (true) {
      skip_blanks();
      if (eat('}')) return true;
      std::string key, value;
      if (!read_string(key)) return false;
      skip_blanks();
      if (!eat(':')) return false;
      skip_blanks();
      if (peek() == '\'' || peek() == '"') {
        if (!read_string(value)) return false;
      } else if (peek() == '(') {
        if (!read_tuple(value)) return false;
      } else if (!read_word(value)) {
        return false;
      }
      entries[key] = value;
      skip_blanks();
      if (eat(',')) continue;
      skip_blanks();
      if (eat('}')) return true;
      return false;
    }
  }

 private:
  char peek() const { return pos_ < text_.size() ? text_[pos_] : '\0'; }
  bool eat(char c) {
    if (peek() != c) return false;
    ++pos_;
    return true;
  }
  void skip_blanks() {
    while (pos_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
  }
  bool read_string(std::string& out) {
    const char quote = peek();
    if (quote != '\'' && quote != '"') return false;
    ++pos_;
    const size_t end = text_.find(quote, pos_);
    if (end == std::string::npos) return false;
    out = text_.substr(pos_, end - pos_);
    pos_ = end + 1;
    return true;
  }
  bool read_tuple(std::string& out) {
    const size_t end = text_.find(')', pos_);
    if (end == std::string::npos) return false;
    out = text_.substr(pos_, end + 1 - pos_);
    pos_ = end + 1;
    return true;
  }
  bool read_word(std::string& out) {
    const size_t start = pos_;
    while (std::isalnum(static_cast<unsigned char>(peek()))) ++pos_;
    out = text_.substr(start, pos_ - start);
    return !out.empty();
  }

  const std::string& text_;
  size_t pos_ = 0;
};

bool parse_shape(const std::string& tuple, std::vector<int>& shape) {
  shape.clear();
  if (tuple.size() < 2 || tuple.front() != '(' || tuple.back() != ')') return false;
  std::string inner = tuple.substr(1, tuple.size() - 2);
  std::stringstream items(inner);
  std::string item;
  while (std::getline(items, item, ',')) {
    size_t a = item.find_first_not_of(" \t");
    if (a == std::string::npos) continue;  // the trailing comma of a 1-tuple
    size_t b = item.find_last_not_of(" \tL");
    item = item.substr(a, b + 1 - a);
    if (item.empty() || item.size() > 10) return false;
    for (char c : item) {
      if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    }
    const long long dim = std::stoll(item);
    if (dim > 0x7fffffffLL) return false;
    shape.push_back(static_cast<int>(dim));
  }
  return true;
}

float half_to_float(uint16_t h) {
  const int sign = (h >> 15) & 1;
  const int exponent = (h >> 10) & 0x1f;
  const int mantissa = h & 0x3ff;
  float value;
  if (exponent == 0) {
    value = std::ldexp(static_cast<float>(mantissa), -24);
  } else if (exponent == 31) {
    value = mantissa == 0 ? INFINITY : NAN;
  } else {
    value = std::ldexp(static_cast<float>(mantissa | 0x400), exponent - 25);
  }
  return sign ? -value : value;
}

// Element `bytes` (already in little-endian order) of kind/size as float.
float element_to_float(const unsigned char* p, char kind, int size) {
  uint64_t bits = 0;
  for (int i = size - 1; i >= 0; --i) bits = (bits << 8) | p[i];
  switch (kind) {
    case 'b':
      return bits != 0 ? 1.0f : 0.0f;
    case 'u':
      return static_cast<float>(bits);
    case 'i': {
      const int shift = 64 - 8 * size;
      const int64_t value = static_cast<int64_t>(bits << shift) >> shift;
      return static_cast<float>(value);
    }
    default:
      break;
  }
  if (size == 2) return half_to_float(static_cast<uint16_t>(bits));
  if (size == 4) {
    const uint32_t b32 = static_cast<uint32_t>(bits);
    float value;
    std::memcpy(&value, &b32, 4);
    return value;
  }
  double value;
  std::memcpy(&value, &bits, 8);
  return static_cast<float>(value);
}

bool supported_dtype(char kind, int size) {
  switch (kind) {
    case 'b':
      return size == 1;
    case 'i':
    case 'u':
      return size == 1 || size == 2 || size == 4 || size == 8;
    case 'f':
      return size == 2 || size == 4 || size == 8;
    default:
      return false;
  }
}

// Moves values stored in Fortran order into C order.
std::vector<float> fortran_to_c(const std::vector<float>& in, const std::vector<int>& shape) {
  std::vector<float> out(in.size());
  const size_t rank = shape.size();
  std::vector<int> index(rank, 0);
  for (size_t c = 0; c < in.size(); ++c) {
    size_t f = 0, stride = 1;
    for (size_t d = 0; d < rank; ++d) {
      f += static_cast<size_t>(index[d]) * stride;
      stride *= static_cast<size_t>(shape[d]);
    }
    out[c] = in[f];
    for (size_t d = rank; d-- > 0;) {
      if (++index[d] < shape[d]) break;
      index[d] = 0;
    }
  }
  return out;
}

}  // namespace

bool parse_npy(const std::string& bytes, const std::string& name, NpyArray& array,
               std::string& error) {
  auto fail = [&](const std::string& what) {
    error = name + ": " + what;
    return false;
  };
  if (bytes.size() < kMagicSize + 4 || std::memcmp(bytes.data(), kMagic, kMagicSize) != 0) {
    return fail("not a .npy file (no \\x93NUMPY magic)");
  }
  const auto* raw = reinterpret_cast<const unsigned char*>(bytes.data());
  const int major = raw[6];
  size_t header_size, header_start;
  if (major == 1) {
    header_size = raw[8] | (raw[9] << 8);
    header_start = 10;
  } else if (major == 2 || major == 3) {
    if (bytes.size() < 12) return fail("truncated .npy header");
    header_size = static_cast<size_t>(raw[8]) | (static_cast<size_t>(raw[9]) << 8) |
                  (static_cast<size_t>(raw[10]) << 16) | (static_cast<size_t>(raw[11]) << 24);
    header_start = 12;
  } else {
    return fail("unsupported .npy format version " + std::to_string(major));
  }
  if (header_size > bytes.size() - header_start) return fail("truncated .npy header");
  const std::string header = bytes.substr(header_start, header_size);
  std::map<std::string, std::string> entries;
  if (!HeaderReader(header).read(entries)) return fail("malformed .npy header");
  if (!entries.count("descr") || !entries.count("shape") || !entries.count("fortran_order")) {
    return fail("the .npy header lacks descr, shape or fortran_order");
  }
  const std::string descr = entries["descr"];
  if (descr.size() < 3 || std::string("<>|=").find(descr[0]) == std::string::npos) {
    return fail("unsupported dtype '" + descr + "'");
  }
  const char kind = descr[1];
  const std::string size_text = descr.substr(2);
  if (size_text.size() != 1 || !std::isdigit(static_cast<unsigned char>(size_text[0])) ||
      !supported_dtype(kind, size_text[0] - '0')) {
    return fail("unsupported dtype '" + descr + "'");
  }
  const int size = size_text[0] - '0';
  const bool big_endian = descr[0] == '>' && size > 1;
  const std::string order = entries["fortran_order"];
  if (order != "True" && order != "False") return fail("malformed .npy header");
  std::vector<int> shape;
  if (!parse_shape(entries["shape"], shape)) return fail("malformed shape in .npy header");
  size_t count = 1;
  for (int d : shape) {
    count *= static_cast<size_t>(d);
    if (count > 0x7fffffffULL) return fail("the array is too large");
  }
  const size_t data_start = header_start + header_size;
  const size_t data_size = bytes.size() - data_start;
  if (data_size != count * static_cast<size_t>(size)) {
    return fail("holds " + std::to_string(data_size) + " bytes of data but shape and dtype need " +
                std::to_string(count * static_cast<size_t>(size)));
  }
  std::vector<float> values(count);
  unsigned char element[8];
  for (size_t i = 0; i < count; ++i) {
    const unsigned char* p = raw + data_start + i * static_cast<size_t>(size);
    for (int b = 0; b < size; ++b) element[b] = big_endian ? p[size - 1 - b] : p[b];
    values[i] = element_to_float(element, kind, size);
  }
  if (order == "True" && shape.size() > 1) values = fortran_to_c(values, shape);
  array.shape = shape;
  array.values = std::move(values);
  array.dtype = descr;
  return true;
}

bool read_npy(const std::string& path, NpyArray& array, std::string& error) {
  std::ifstream file(path, std::ios::in | std::ios::binary);
  if (!file.is_open()) {
    error = path + ": cannot open file";
    return false;
  }
  std::ostringstream buffer;
  buffer << file.rdbuf();
  return parse_npy(buffer.str(), path, array, error);
}

std::string npy_bytes(const std::vector<int>& shape, const float* values) {
  std::string dims;
  size_t count = 1;
  for (int d : shape) {
    dims += std::to_string(d) + ", ";
    count *= static_cast<size_t>(d);
  }
  if (shape.size() > 1) dims.erase(dims.size() - 2);
  if (shape.size() == 1) dims.erase(dims.size() - 1);
  std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (" + dims + "), }";
  // Data start on a multiple of 64 bytes; the header ends with a newline.
  const size_t unpadded = kMagicSize + 4 + header.size() + 1;
  header.append((64 - unpadded % 64) % 64, ' ');
  header += '\n';
  std::string out(kMagic, kMagicSize);
  out += '\x01';
  out += '\x00';
  out += static_cast<char>(header.size() & 0xff);
  out += static_cast<char>((header.size() >> 8) & 0xff);
  out += header;
  const size_t offset = out.size();
  out.resize(offset + count * 4);
  for (size_t i = 0; i < count; ++i) {
    uint32_t bits;
    std::memcpy(&bits, &values[i], 4);
    for (int b = 0; b < 4; ++b) out[offset + i * 4 + b] = static_cast<char>((bits >> (8 * b)) & 0xff);
  }
  return out;
}

bool write_npy(const std::string& path, const std::vector<int>& shape, const float* values,
               std::string& error) {
  std::ofstream file(path, std::ios::out | std::ios::binary | std::ios::trunc);
  if (!file.is_open()) {
    error = path + ": cannot create file";
    return false;
  }
  const std::string bytes = npy_bytes(shape, values);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!file) {
    error = path + ": write failed";
    return false;
  }
  return true;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
