#include "tensor.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

const char* const kNoGpu = "Your library don't compile with GPU.";

// Bytes per element of every known type, -1 for any other code. One table
// for all tensors: building a map in every constructor cost a heap
// allocation per tensor.
int byte_size_of(Tensor::DataType type) {
  switch (type) {
    case Tensor::DT_INVALID:
      return 0;
    case Tensor::DT_FLOAT:
    case Tensor::DT_INT32:
    case Tensor::DT_UINT32:
      return 4;
    case Tensor::DT_INT16:
      return 2;
    case Tensor::DT_UINT8:
    case Tensor::DT_INT8:
      return 1;
  }
  return -1;
}

// Element counts are 32-bit; a shape whose count does not fit is refused
// rather than wrapped into a wrong buffer size.
int product(const std::vector<int>& shape) {
  long long count = 1;
  for (int d : shape) {
    count *= d;
    if (count > INT32_MAX || count < INT32_MIN) {
      fatal("The shape:" + shape_text(shape) + " has more elements than a tensor can hold");
    }
  }
  return static_cast<int>(count);
}

std::atomic<uint64_t>& version_counter() {
  static std::atomic<uint64_t> counter{0};
  return counter;
}

}  // namespace

void Tensor::_touch() { version_ = version_counter().fetch_add(1, std::memory_order_relaxed) + 1; }

Tensor::Tensor() { _touch(); }

Tensor::Tensor(const std::vector<int>& shape, DataType type, void* data, std::string device)
    : Tensor() {
  if (device == "cpu") {
    set_data(shape, type, data);
  } else if (device == "gpu") {
    fatal(kNoGpu);
  } else {
    check_failed("false", "\"Wrong head at tensor.\"");
  }
}

Tensor::Tensor(const Tensor& other) : Tensor() {
  name_ = other.name_;
  *this = other;
}

Tensor::Tensor(Tensor&& other) noexcept
    : slave_tensors_(std::move(other.slave_tensors_)),
      name_(std::move(other.name_)),
      shape_(std::move(other.shape_)),
      data_(other.data_),
      byte_size_(other.byte_size_),
      size_(other.size_),
      own_data_(other.own_data_),
      head_(other.head_),
      data_type_(other.data_type_),
      unread_(other.unread_) {
  _touch();
  other._touch();
  other.slave_tensors_.clear();
  other.data_ = nullptr;
  other.own_data_ = false;
  other.byte_size_ = 0;
  other.size_ = 0;
  other.head_ = 0;
}

Tensor::~Tensor() {
  _release();
  for (Tensor* slave : slave_tensors_) delete slave;
}

Tensor& Tensor::operator=(const Tensor& other) {
  if (&other == this) return *this;
  set_data(other.shape_, other.data_type_, nullptr);
  _touch();
  if (other.byte_size_ > 0 && data_ != nullptr) {
    std::memcpy(data_, other.get_ptr(), static_cast<size_t>(other.byte_size_));
  }
  head_ = other.head();
  return *this;
}

int Tensor::_get_ele_byte_size(DataType type) const {
  const int bytes = byte_size_of(type);
  if (bytes < 0) check_failed("data_type_byte_size.count(data_type) != 0", "");
  return bytes;
}

void Tensor::set_data(const std::vector<int>& shape, DataType type, void* data) {
  // A rank-0 shape cannot (re)size a tensor through this call.
  if (shape.empty()) return;
  // Same shape and type again into the buffer it has: neither shape, buffer
  // nor contents change (so neither does the version), and a node re-running
  // on unchanged shapes neither copies nor reallocates.
  if (data == nullptr && data_ != nullptr && type == data_type_ && (&shape == &shape_ || shape == shape_) &&
      byte_size_ == _get_ele_byte_size(type) * size_) {
    return;
  }
  _touch();
  data_type_ = type;
  if (&shape != &shape_) shape_ = shape;
  size_ = product(shape_);
  const long long wide = static_cast<long long>(_get_ele_byte_size(type)) * size_;
  if (wide > INT32_MAX) fatal("The shape:" + shape_text(shape_) + " has more bytes than a tensor can hold");
  const int n = static_cast<int>(wide);
  if (data == nullptr) {
    if (n > byte_size_) {
      _release();
    } else if (data_ != nullptr) {
      // The buffer never shrinks; byte_size_ records the smaller need.
      byte_size_ = n;
      return;
    }
    if (n < 1) check_failed("byte_size > 0", "\"Byte size must be greater than zero.\"");
    data_ = std::malloc(static_cast<size_t>(n));
    unread_ = false;
    if (data_ == nullptr) check_failed("*ptr != NULL", "\"Alloc for tensor failed.\"");
    own_data_ = true;
    head_ = 1;
    byte_size_ = n;
    return;
  }
  _release();
  data_ = data;
  own_data_ = false;
  head_ = 1;
  byte_size_ = n;
}

void Tensor::reshape(const std::vector<int>& shape) {
  const int count = product(shape);
  if (count != size_) {
    fatal("The shape:" + std::to_string(count) +
          " after reshaping is not match with old shape" + std::to_string(size_));
  }
  if (&shape != &shape_) shape_ = shape;
}

const void* Tensor::get_ptr() const {
  _to_cpu();
  return data_;
}

void* Tensor::get_mutable_ptr() {
  _to_cpu();
  _touch();
  return data_;
}

void Tensor::check_index(int index) const {
  if (index < 0 || index >= size_) {
    fatal("Index out of range error:" + name_ + " " + std::to_string(size_) + " " +
          std::to_string(index));
  }
}

float Tensor::at(int index) const {
  check_index(index);
  return static_cast<const float*>(data_)[index];
}

float& Tensor::at(int index) {
  check_index(index);
  _touch();
  return static_cast<float*>(data_)[index];
}

void Tensor::set_slave_tensors(Tensor* tensor) { slave_tensors_.push_back(tensor); }

void Tensor::_release() { _release_cpu(); }

void Tensor::_release_cpu() {
  // A borrowed pointer stays in place: it is never ours to free.
  if (own_data_ && data_ != nullptr) {
    std::free(data_);
    data_ = nullptr;
  }
}

void Tensor::set_gpu_data(const std::vector<int>&, DataType, void*) { fatal(kNoGpu); }
void* Tensor::get_gpu_ptr() const { fatal(kNoGpu); }
void* Tensor::get_mutable_gpu_ptr() { fatal(kNoGpu); }
void Tensor::_to_gpu() const { fatal(kNoGpu); }
void Tensor::to_gpu() { fatal(kNoGpu); }
void Tensor::_release_gpu() { fatal(kNoGpu); }

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
