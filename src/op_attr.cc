#include "op_attr.h"

#include <limits>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

const AttrValue* find_attr(const NodeDef& node, const char* key) {
  auto it = node.attr().find(key);
  return it == node.attr().end() ? nullptr : &it->second;
}

// Saturating float-to-int so that a huge or NaN attribute cannot be undefined behaviour.
int truncate_to_int(double v) {
  if (!(v == v)) return 0;
  if (v >= static_cast<double>(std::numeric_limits<int>::max())) return std::numeric_limits<int>::max();
  if (v <= static_cast<double>(std::numeric_limits<int>::min())) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

int narrow(long long v) {
  if (v > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
  if (v < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

}  // namespace

bool read_float(const NodeDef& node, const char* key, float& value) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  value = attr->value_case() == AttrValue::kF ? attr->f() : 0.0f;
  return true;
}

bool read_float_as_int(const NodeDef& node, const char* key, int& value) {
  float f = 0.0f;
  if (!read_float(node, key, f)) return false;
  value = truncate_to_int(f);
  return true;
}

bool read_int(const NodeDef& node, const char* key, int& value) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  value = attr->value_case() == AttrValue::kI ? narrow(attr->i()) : 0;
  return true;
}

bool read_bool(const NodeDef& node, const char* key, bool& value) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  switch (attr->value_case()) {
    case AttrValue::kB: value = attr->b(); break;
    case AttrValue::kI: value = attr->i() != 0; break;
    case AttrValue::kF: value = attr->f() != 0.0f; break;
    default: value = false; break;
  }
  return true;
}

bool read_string(const NodeDef& node, const char* key, std::string& value) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  value = attr->value_case() == AttrValue::kS ? attr->s() : std::string();
  return true;
}

bool read_int_list(const NodeDef& node, const char* key, std::vector<int>& values) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  values.clear();
  if (attr->value_case() == AttrValue::kList) {
    for (long long v : attr->list().i()) values.push_back(narrow(v));
  }
  return true;
}

bool read_float_list(const NodeDef& node, const char* key, std::vector<float>& values) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  values.clear();
  if (attr->value_case() == AttrValue::kList) {
    values.assign(attr->list().f().begin(), attr->list().f().end());
  }
  return true;
}

void require_attr(bool suc, const std::string& message) {
  if (!suc) check_failed_quoted("suc", message);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
