#include <cstring>

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "tensor.h"

namespace kovra_test {
namespace {

TEST(TensorTest, DefaultConstructedIsEmpty) {
  Tensor t;
  EXPECT_TRUE(t.shape().empty());
  EXPECT_EQ(t.size(), 0);
  EXPECT_EQ(t.byte_size(), 0);
  EXPECT_EQ(t.get_ptr(), nullptr);
  EXPECT_FALSE(t.own_data());
  EXPECT_EQ(t.head(), 0);
  EXPECT_EQ(t.data_type(), Tensor::DT_INVALID);
  EXPECT_TRUE(t.name().empty());
}

struct SizingCase {
  Tensor::DataType type;
  std::vector<int> shape;
  int size;
  int bytes;
};

class TensorSizingTest : public ::testing::TestWithParam<SizingCase> {};

TEST_P(TensorSizingTest, SizesByElementType) {
  const SizingCase& c = GetParam();
  Tensor t(c.shape, c.type, nullptr, "cpu");
  EXPECT_EQ(t.size(), c.size);
  EXPECT_EQ(t.byte_size(), c.bytes);
  EXPECT_TRUE(t.own_data());
  EXPECT_EQ(t.head(), 1);
  EXPECT_NE(t.get_ptr(), nullptr);
  EXPECT_EQ(t.element_byte_size(c.type), c.bytes / c.size);
}

INSTANTIATE_TEST_SUITE_P(
    AllTypes, TensorSizingTest,
    ::testing::Values(SizingCase{Tensor::DT_FLOAT, {2, 3}, 6, 24},
                      SizingCase{Tensor::DT_INT32, {5}, 5, 20},
                      SizingCase{Tensor::DT_UINT8, {1, 2, 2, 3}, 12, 12},
                      SizingCase{Tensor::DT_INT16, {3, 3}, 9, 18},
                      SizingCase{Tensor::DT_INT8, {7}, 7, 7},
                      SizingCase{Tensor::DT_UINT32, {2, 2}, 4, 16}));

TEST(TensorTest, EmptyShapeLeavesEverythingAsItWas) {
  Tensor t({2, 2}, Tensor::DT_FLOAT, nullptr, "cpu");
  const void* before = t.get_ptr();
  t.set_data({}, Tensor::DT_INT8, nullptr);
  EXPECT_EQ(t.shape(), (std::vector<int>{2, 2}));
  EXPECT_EQ(t.data_type(), Tensor::DT_FLOAT);
  EXPECT_EQ(t.size(), 4);
  EXPECT_EQ(t.get_ptr(), before);
}

TEST(TensorTest, SmallerOrEqualResizeReusesTheBuffer) {
  Tensor t({4, 4}, Tensor::DT_FLOAT, nullptr, "cpu");
  const void* before = t.get_ptr();
  t.set_data({2, 2}, Tensor::DT_FLOAT, nullptr);
  EXPECT_EQ(t.get_ptr(), before);
  EXPECT_EQ(t.byte_size(), 16);
  t.set_data({2, 2}, Tensor::DT_FLOAT, nullptr);
  EXPECT_EQ(t.get_ptr(), before);
  // The recorded need is now 16 bytes, so growing past it allocates anew.
  t.set_data({5, 4}, Tensor::DT_FLOAT, nullptr);
  EXPECT_EQ(t.byte_size(), 80);
  EXPECT_TRUE(t.own_data());
}

TEST(TensorTest, SameShapeAndTypeAgainChangesNothing) {
  Tensor t({2, 3}, Tensor::DT_FLOAT, nullptr, "cpu");
  EXPECT_EQ(t.element_byte_size(Tensor::DT_INVALID), 0);
  const void* buffer = t.get_ptr();
  const uint64_t version = t.version();
  const std::vector<int> shape = {2, 3};
  t.set_data(shape, Tensor::DT_FLOAT, nullptr);
  EXPECT_EQ(t.get_ptr(), buffer);
  EXPECT_EQ(t.version(), version);
  EXPECT_EQ(t.byte_size(), 24);
  // Another type of the same width, or another shape of the same count, is a change.
  t.set_data(shape, Tensor::DT_INT32, nullptr);
  EXPECT_EQ(t.data_type(), Tensor::DT_INT32);
  EXPECT_EQ(t.get_ptr(), buffer);
  EXPECT_GT(t.version(), version);
  const uint64_t int_version = t.version();
  t.set_data({3, 2}, Tensor::DT_INT32, nullptr);
  EXPECT_EQ(t.shape(), (std::vector<int>{3, 2}));
  EXPECT_GT(t.version(), int_version);
  // A released buffer is allocated again, whatever the shape.
  t._release();
  EXPECT_EQ(t.get_ptr(), nullptr);
  t.set_data({3, 2}, Tensor::DT_INT32, nullptr);
  EXPECT_NE(t.get_ptr(), nullptr);
  EXPECT_EQ(t.byte_size(), 24);
}

TEST(TensorTest, BorrowedBufferIsKeptAndNeverFreed) {
  float external[6] = {1, 2, 3, 4, 5, 6};
  {
    Tensor t({2, 3}, Tensor::DT_FLOAT, external, "cpu");
    EXPECT_EQ(t.get_ptr(), external);
    EXPECT_FALSE(t.own_data());
    // Re-sizing within the borrowed capacity keeps writing into it.
    t.set_data({3}, Tensor::DT_FLOAT, nullptr);
    EXPECT_EQ(t.get_ptr(), external);
    EXPECT_FALSE(t.own_data());
    t.set_data({3}, Tensor::DT_FLOAT, nullptr);
    EXPECT_EQ(t.get_ptr(), external);
    EXPECT_FALSE(t.own_data());
    t.mutable_data<float>()[0] = 42.0f;
  }
  EXPECT_EQ(external[0], 42.0f);  // still alive: ASan would flag a free of a stack buffer
}

TEST(TensorTest, ZeroDimensionWithExistingBufferJustRecordsZeroBytes) {
  Tensor t({2}, Tensor::DT_FLOAT, nullptr, "cpu");
  t.set_data({0}, Tensor::DT_FLOAT, nullptr);
  EXPECT_EQ(t.byte_size(), 0);
  EXPECT_EQ(t.size(), 0);
}

TEST(TensorTest, ReshapeKeepsDataWhenCountMatches) {
  Tensor t = make_tensor({2, 3}, {1, 2, 3, 4, 5, 6});
  const void* before = t.get_ptr();
  t.reshape({3, 2});
  EXPECT_EQ(t.shape(), (std::vector<int>{3, 2}));
  t.reshape({6});
  EXPECT_EQ(t.get_ptr(), before);
  EXPECT_EQ(tensor_values(t), (std::vector<float>{1, 2, 3, 4, 5, 6}));
}

TEST(TensorTest, AssignmentCopiesContentsNotIdentity) {
  Tensor a = make_tensor({2}, {7, 8}, "a");
  Tensor b = make_tensor({1}, {0}, "b");
  Tensor* slave = new Tensor();
  b.set_slave_tensors(slave);
  b = a;
  EXPECT_EQ(b.name(), "b");
  EXPECT_EQ(tensor_values(b), (std::vector<float>{7, 8}));
  EXPECT_EQ(b.get_slave_tensors().size(), 1u);
  EXPECT_NE(b.get_ptr(), a.get_ptr());
  b = b;  // self-assignment is a no-op
  EXPECT_EQ(tensor_values(b), (std::vector<float>{7, 8}));
}

TEST(TensorTest, DestructorDeletesSlaves) {
  // Leak checking under the sanitizer build catches a missed delete.
  Tensor t;
  t.set_slave_tensors(new Tensor({3}, Tensor::DT_FLOAT, nullptr, "cpu"));
  t.set_slave_tensors(nullptr);
  EXPECT_EQ(t.get_slave_tensors().size(), 2u);
}

TEST(TensorTest, MoveLeavesSourceEmpty) {
  Tensor a = make_tensor({2}, {1, 2}, "a");
  Tensor b(std::move(a));
  EXPECT_EQ(tensor_values(b), (std::vector<float>{1, 2}));
  EXPECT_EQ(a.get_ptr(), nullptr);  // NOLINT(bugprone-use-after-move)
}

TEST(TensorDeathTest, FatalPaths) {
  EXPECT_DEATH(Tensor({2}, static_cast<Tensor::DataType>(2), nullptr, "cpu"),
               error_regex("Check failed: data_type_byte_size.count(data_type) != 0==>"));
  EXPECT_DEATH(Tensor({2}, static_cast<Tensor::DataType>(9), nullptr, "cpu"),
               error_regex("Check failed: data_type_byte_size.count(data_type) != 0==>"));
  EXPECT_DEATH(Tensor({0}, Tensor::DT_FLOAT, nullptr, "cpu"),
               error_regex("Check failed: byte_size > 0==>\"Byte size must be greater than zero.\""));
  EXPECT_DEATH(Tensor({3}, Tensor::DT_INVALID, nullptr, "cpu"),
               error_regex("Check failed: byte_size > 0==>\"Byte size must be greater than zero.\""));
  EXPECT_FATAL(Tensor({1}, Tensor::DT_FLOAT, nullptr, "gpu"), "Your library don't compile with GPU.");
  EXPECT_DEATH(Tensor({1}, Tensor::DT_FLOAT, nullptr, "tpu"),
               error_regex("Check failed: false==>\"Wrong head at tensor.\""));
  Tensor t = make_tensor({2, 3}, {1, 2, 3, 4, 5, 6}, "t");
  EXPECT_FATAL(t.reshape({4, 2}), "The shape:8 after reshaping is not match with old shape6");
  EXPECT_FATAL(t.at(6), "Index out of range error:t 6 6");
  EXPECT_FATAL(t.at(-1), "Index out of range error:t 6 -1");
  EXPECT_FATAL(Tensor({65536, 65536}, Tensor::DT_FLOAT, nullptr, "cpu"),
               "The shape:[65536,65536] has more elements than a tensor can hold");
  EXPECT_FATAL(Tensor({1024, 1024, 1024}, Tensor::DT_FLOAT, nullptr, "cpu"),
               "The shape:[1024,1024,1024] has more bytes than a tensor can hold");
  EXPECT_FATAL(t.to_gpu(), "Your library don't compile with GPU.");
  EXPECT_FATAL(t.get_gpu_ptr(), "Your library don't compile with GPU.");
}

}  // namespace
}  // namespace kovra_test
