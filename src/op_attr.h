#ifndef KOVRAEXECUTOR_OP_ATTR_H_
#define KOVRAEXECUTOR_OP_ATTR_H_

#include <string>
#include <vector>

#include "op_executor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The attribute-reading rules every operator uses. Each reader returns false
// and leaves `value` untouched when the key is absent, so defaults live in the
// parameter record.

// Float scalar: the float when the value holds one, 0 for any other kind.
bool read_float(const NodeDef& node, const char* key, float& value);
// Same rule into an int field: the float truncated toward zero.
bool read_float_as_int(const NodeDef& node, const char* key, int& value);
// Integer attributes of quantized operators: the integer when the value holds
// one, 0 for any other kind.
bool read_int(const NodeDef& node, const char* key, int& value);
// Bool attributes: the bool, else the integer or float as a truth value.
bool read_bool(const NodeDef& node, const char* key, bool& value);
// String: the bytes when the value holds a string, empty otherwise.
bool read_string(const NodeDef& node, const char* key, std::string& value);
// Integer list (list.i); empty when the value holds no integer list.
bool read_int_list(const NodeDef& node, const char* key, std::vector<int>& values);
// Float list (list.f); empty when the value holds no float list.
bool read_float_list(const NodeDef& node, const char* key, std::vector<float>& values);

// A required attribute: aborts with `Check failed: suc=="<message>"` when absent.
void require_attr(bool suc, const std::string& message);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OP_ATTR_H_
