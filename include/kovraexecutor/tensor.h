#ifndef KOVRAEXECUTOR_TENSOR_H_
#define KOVRAEXECUTOR_TENSOR_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "export.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// An n-dimensional host array: shape, element type, a buffer that is owned or
// borrowed, a device code and the secondary ("slave") outputs it owns.
class KOVRA_API Tensor {
 public:
  // Same numbers as the model schema's DataType, so codes convert by value.
  enum DataType : int32_t {
    DT_INVALID = 0,
    DT_FLOAT = 1,
    DT_INT32 = 3,
    DT_UINT8 = 4,
    DT_INT16 = 5,
    DT_INT8 = 6,
    DT_UINT32 = 22,
  };

  Tensor();
  Tensor(const std::vector<int>& shape, DataType type, void* data, std::string device);
  // Deep copy of shape, type and contents (not of the slaves).
  Tensor(const Tensor& other);
  Tensor(Tensor&& other) noexcept;
  ~Tensor();

  // Copies contents and device code; the name and slaves stay this tensor's.
  Tensor& operator=(const Tensor& other);

  void set_data(const std::vector<int>& shape, DataType type, void* data);
  void reshape(const std::vector<int>& shape);

  const void* get_ptr() const;
  // Mutable access counts as a change of contents (see version()).
  void* get_mutable_ptr();
  template <typename T>
  const T* data() const {
    return static_cast<const T*>(get_ptr());
  }
  template <typename T>
  T* mutable_data() {
    return static_cast<T*>(get_mutable_ptr());
  }

  // Bounds-checked float element access.
  float at(int index) const;
  float& at(int index);
  // Aborts with the element-access message unless 0 <= index < size().
  void check_index(int index) const;

  const std::vector<int>& shape() const { return shape_; }
  int size() const { return size_; }
  int byte_size() const { return byte_size_; }
  DataType data_type() const { return data_type_; }
  const std::string& name() const { return name_; }
  void set_name(const std::string& name) { name_ = name; }
  bool own_data() const { return own_data_; }
  // Changes whenever the contents may have changed: on every mutable access,
  // every new shape or buffer and every assignment. Values are unique across
  // all tensors of the process, so a tensor created where another one lived
  // never repeats its version; caches derived from a tensor's values (packed
  // weights) key on it. A borrowed buffer changed behind the tensor's back is
  // not seen: call get_mutable_ptr() after writing into it.
  uint64_t version() const { return version_; }
  int head() const { return head_; }
  int dims() const { return static_cast<int>(shape_.size()); }
  // Bytes per element of a supported type; aborts for any other code.
  int element_byte_size(DataType type) const { return _get_ele_byte_size(type); }

  // Element-wise arithmetic (tensor_operators.cc). Elements are read as float
  // and every result is a new float tensor; tensor operands broadcast.
  Tensor add(const Tensor& other) const;
  Tensor sub(const Tensor& other) const;
  Tensor mul(const Tensor& other) const;
  Tensor div(const Tensor& other) const;
  Tensor less_than(const Tensor& other) const;
  Tensor greater_than(const Tensor& other) const;
  Tensor equal(const Tensor& other) const;
  Tensor less_equal(const Tensor& other) const;
  Tensor greater_equal(const Tensor& other) const;
  Tensor bool_or(const Tensor& other) const;
  Tensor bool_and(const Tensor& other) const;
  Tensor add(float s) const;
  Tensor sub(float s) const;
  Tensor mul(float s) const;
  Tensor div(float s) const;
  Tensor pow(float s) const;
  // e^x; the argument has no effect.
  Tensor exp(float s) const;
  Tensor less_than(float s) const;
  Tensor greater_than(float s) const;
  Tensor equal(float s) const;
  Tensor less_equal(float s) const;
  Tensor greater_equal(float s) const;
  Tensor bool_or(float s) const;
  Tensor bool_and(float s) const;
  Tensor neg() const;
  Tensor abs() const;
  Tensor sigmoid() const;
  Tensor floor() const;
  Tensor log() const;
  Tensor sign() const;
  Tensor bool_not() const;
  void fill(float v);
  // Clamps into [min, max]; aborts unless max > min.
  Tensor clip(float min, float max) const;
  // Compound forms assign the new contents; the name stays this tensor's.
  Tensor& operator+=(const Tensor& other);
  Tensor& operator-=(const Tensor& other);
  Tensor& operator*=(const Tensor& other);
  Tensor& operator/=(const Tensor& other);
  Tensor& operator+=(float s);
  Tensor& operator-=(float s);
  Tensor& operator*=(float s);
  Tensor& operator/=(float s);

  // Reductions along one axis (tensor_reduce.cc), or over every element.
  Tensor reduce_min(int axis, bool keep_dims) const;
  Tensor reduce_max(int axis, bool keep_dims) const;
  Tensor reduce_sum(int axis, bool keep_dims) const;
  Tensor reduce_mean(int axis, bool keep_dims) const;
  Tensor reduce_std(int axis, bool keep_dims) const;
  float reduce_min() const;
  float reduce_max() const;
  float reduce_sum() const;
  float reduce_mean() const;
  float reduce_std() const;

  // Secondary outputs, owned by this tensor.
  void set_slave_tensors(Tensor* tensor);
  const std::vector<Tensor*>& get_slave_tensors() const { return slave_tensors_; }
  std::vector<Tensor*>& get_mu_slave_tensors() { return slave_tensors_; }

  void _to_cpu() const {}
  void to_cpu() { _to_cpu(); }
  void _release();
  void _release_cpu();

  // This build is host-only: every device entry point stops the process.
  void set_gpu_data(const std::vector<int>& shape, DataType type, void* data);
  void* get_gpu_ptr() const;
  void* get_mutable_gpu_ptr();
  void _to_gpu() const;
  void to_gpu();
  void _release_gpu();

 private:
  int _get_ele_byte_size(DataType type) const;

  std::vector<Tensor*> slave_tensors_;
  std::string name_;
  std::vector<int> shape_;
  void* data_ = nullptr;
  void* gpu_data_ = nullptr;
  int byte_size_ = 0;
  int size_ = 0;
  bool own_data_ = false;
  int head_ = 0;
  DataType data_type_ = DT_INVALID;
  bool unread_ = true;
  uint64_t version_ = 0;

  void _touch();
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_TENSOR_H_
