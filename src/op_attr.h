#ifndef KOVRAEXECUTOR_OP_ATTR_H_
#define KOVRAEXECUTOR_OP_ATTR_H_

#include <map>
#include <set>
#include <string>
#include <vector>

#include "op_executor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The one attribute reader: every operator reads its attributes through these
// functions, once, in parse_parameter. Each reader returns false and leaves
// `value` untouched when the key is absent, so defaults live in the parameter
// record; each require_* form stops with
// `Check failed: suc=="<message>"` instead (the message as the operator's
// catalogue spells it).

// Float scalar: the float when the value holds one, 0 for any other kind.
bool read_float(const NodeDef& node, const char* key, float& value);
// Same rule into an int field: the float truncated toward zero.
bool read_float_as_int(const NodeDef& node, const char* key, int& value);
// Integer attributes of quantized operators: the integer when the value holds
// one, 0 for any other kind.
bool read_int(const NodeDef& node, const char* key, int& value);
// Integer scalars that converters write either way: the integer, or the float
// truncated toward zero; 0 for any other kind.
bool read_int_or_float(const NodeDef& node, const char* key, int& value);
// Bool attributes: the bool, else the integer or float as a truth value.
bool read_bool(const NodeDef& node, const char* key, bool& value);
// String: the bytes when the value holds a string, empty otherwise.
bool read_string(const NodeDef& node, const char* key, std::string& value);
// Integer list (list.i); empty when the value holds no integer list.
bool read_int_list(const NodeDef& node, const char* key, std::vector<int>& values);
// Float vector: a float list (list.f) or a float tensor (its content, or its
// float_val entries, one of which fills the whole shape); empty for any other
// kind. A tensor whose content does not fill its shape stops with a message
// naming the node and the key.
bool read_float_list(const NodeDef& node, const char* key, std::vector<float>& values);

void require_float(const NodeDef& node, const char* key, float& value, const std::string& message);
void require_float_as_int(const NodeDef& node, const char* key, int& value, const std::string& message);
void require_int(const NodeDef& node, const char* key, int& value, const std::string& message);
void require_int_or_float(const NodeDef& node, const char* key, int& value, const std::string& message);
void require_string(const NodeDef& node, const char* key, std::string& value, const std::string& message);
void require_int_list(const NodeDef& node, const char* key, std::vector<int>& values,
                      const std::string& message);
void require_float_list(const NodeDef& node, const char* key, std::vector<float>& values,
                        const std::string& message);
// For presence rules the readers cannot express (a key required only in some
// configurations): stops with `Check failed: suc=="<message>"` unless `suc`.
void require_attr(bool suc, const std::string& message);

// The encodings the readers above take, one per reader family.
enum class AttrEncoding { kFloat, kInt, kIntOrFloat, kBool, kString, kIntList, kFloatList };
// "float", "int", "int or float", "bool", "string", "int list", "float list".
const char* encoding_name(AttrEncoding encoding);
// Whether the reader of `encoding` takes what `value` holds (any other kind reads as 0 or empty).
bool encoding_accepts(AttrEncoding encoding, const AttrValue& value);
// What `value` holds, for messages: "an integer", "a float list"...
std::string attr_kind_text(const AttrValue& value);

// While alive, records on the calling thread every key the readers above look
// up, present or not, and the encoding each reads, so that the model check can
// name attributes no operator reads or reads in another encoding. Trackers
// nest; the innermost records.
class AttrReadTracker {
 public:
  AttrReadTracker();
  ~AttrReadTracker();
  AttrReadTracker(const AttrReadTracker&) = delete;
  AttrReadTracker& operator=(const AttrReadTracker&) = delete;
  const std::set<std::string>& keys() const { return keys_; }
  // Per key, every encoding it was read in, in order (an operator may try several).
  const std::map<std::string, std::vector<AttrEncoding>>& encodings() const { return encodings_; }

 private:
  friend const AttrValue* find_tracked_attr(const NodeDef& node, const char* key, AttrEncoding encoding);
  std::set<std::string> keys_;
  std::map<std::string, std::vector<AttrEncoding>> encodings_;
  AttrReadTracker* previous_;
};

// "Do not find the <key> in <op>!!!", the catalogue's pattern for a missing key.
std::string missing_message(const char* key, const char* op);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OP_ATTR_H_
