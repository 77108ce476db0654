#include <cmath>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

#include "input_loader.h"
#include "npy.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::InputArg;
using kovra::trenkit::kovraexecutor::load_input;
using kovra::trenkit::kovraexecutor::load_inputs;
using kovra::trenkit::kovraexecutor::npy_bytes;
using kovra::trenkit::kovraexecutor::NpyArray;
using kovra::trenkit::kovraexecutor::parse_input_arg;
using kovra::trenkit::kovraexecutor::parse_npy;
using kovra::trenkit::kovraexecutor::read_npy;
using kovra::trenkit::kovraexecutor::write_npy;

// A version 1.0 file with `header` as written by numpy and raw `data`.
std::string npy_file(const std::string& header, const std::string& data, int version = 1) {
  std::string out("\x93NUMPY", 6);
  out += static_cast<char>(version);
  out += '\0';
  std::string padded = header + "\n";
  if (version == 1) {
    out += static_cast<char>(padded.size() & 0xff);
    out += static_cast<char>(padded.size() >> 8);
  } else {
    for (int b = 0; b < 4; ++b) out += static_cast<char>((padded.size() >> (8 * b)) & 0xff);
  }
  return out + padded + data;
}

std::string bytes(std::initializer_list<int> values) {
  std::string out;
  for (int v : values) out += static_cast<char>(v);
  return out;
}

void write_bytes(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary).write(data.data(), static_cast<std::streamsize>(data.size()));
}

TEST(NpyTest, WriteThenReadRoundTrips) {
  TempDir dir;
  const std::vector<std::vector<int>> shapes = {{}, {3}, {2, 3, 4}, {1, 1, 5, 1}};
  for (const auto& shape : shapes) {
    size_t count = 1;
    for (int d : shape) count *= static_cast<size_t>(d);
    std::vector<float> values(count);
    for (size_t i = 0; i < count; ++i) values[i] = 0.25f * static_cast<float>(i) - 1.5f;
    values[0] = -0.0f;
    std::string error;
    ASSERT_TRUE(write_npy(dir.file("a.npy"), shape, values.data(), error)) << error;
    NpyArray array;
    ASSERT_TRUE(read_npy(dir.file("a.npy"), array, error)) << error;
    EXPECT_EQ(array.shape, shape);
    EXPECT_EQ(array.dtype, "<f4");
    ASSERT_EQ(array.values.size(), count);
    EXPECT_EQ(0, std::memcmp(array.values.data(), values.data(), count * 4));
  }
}

TEST(NpyTest, WrittenHeaderIsWhatNumpyWrites) {
  const float values[2] = {1.0f, 2.0f};
  const std::string file = npy_bytes({2}, values);
  // Data start on a multiple of 64; the header is a dict literal ending in '\n'.
  ASSERT_EQ(file.size(), 128u + 8u);
  EXPECT_EQ(file.substr(8, 2), bytes({118, 0}));
  EXPECT_EQ(file.find("{'descr': '<f4', 'fortran_order': False, 'shape': (2,), }"), 10u);
  EXPECT_EQ(file[127], '\n');
  EXPECT_EQ(file.substr(128), bytes({0, 0, 0x80, 0x3f, 0, 0, 0, 0x40}));
}

struct DtypeCase {
  const char* descr;
  std::string data;
  std::vector<float> expected;
};

class NpyDtypeTest : public ::testing::TestWithParam<DtypeCase> {};

TEST_P(NpyDtypeTest, ConvertsToFloat32) {
  const DtypeCase& c = GetParam();
  const std::string header = std::string("{'descr': '") + c.descr +
                             "', 'fortran_order': False, 'shape': (" +
                             std::to_string(c.expected.size()) + ",), }";
  NpyArray array;
  std::string error;
  ASSERT_TRUE(parse_npy(npy_file(header, c.data), "x.npy", array, error)) << error;
  EXPECT_EQ(array.shape, std::vector<int>{static_cast<int>(c.expected.size())});
  ASSERT_EQ(array.values.size(), c.expected.size());
  for (size_t i = 0; i < c.expected.size(); ++i) {
    if (std::isnan(c.expected[i])) {
      EXPECT_TRUE(std::isnan(array.values[i]));
    } else {
      EXPECT_EQ(array.values[i], c.expected[i]) << c.descr << " element " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    AllDtypes, NpyDtypeTest,
    ::testing::Values(
        DtypeCase{"<f4", bytes({0, 0, 0xc0, 0x3f, 0, 0, 0x80, 0xff}), {1.5f, -INFINITY}},
        DtypeCase{">f4", bytes({0x3f, 0xc0, 0, 0}), {1.5f}},
        DtypeCase{"<f8", bytes({0, 0, 0, 0, 0, 0, 0x04, 0xc0, 0, 0, 0, 0, 0, 0, 0xf8, 0x7f}),
                  {-2.5f, NAN}},
        DtypeCase{"<f2", bytes({0x00, 0x3c, 0x00, 0xc1, 0x01, 0x00, 0x00, 0x7c}),
                  {1.0f, -2.5f, 5.9604644775390625e-8f, INFINITY}},
        DtypeCase{"|i1", bytes({0x80, 0x7f, 0xff}), {-128.0f, 127.0f, -1.0f}},
        DtypeCase{"|u1", bytes({0x80, 0xff}), {128.0f, 255.0f}},
        DtypeCase{"<i2", bytes({0x00, 0x80, 0x34, 0x12}), {-32768.0f, 4660.0f}},
        DtypeCase{">i2", bytes({0xff, 0xfe}), {-2.0f}},
        DtypeCase{"<u2", bytes({0xff, 0xff}), {65535.0f}},
        DtypeCase{"<i4", bytes({0xfe, 0xff, 0xff, 0xff, 0x40, 0x42, 0x0f, 0x00}), {-2.0f, 1000000.0f}},
        DtypeCase{">u4", bytes({0x00, 0x00, 0x01, 0x00}), {256.0f}},
        DtypeCase{"<i8", bytes({0xf6, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}), {-10.0f}},
        DtypeCase{"<u8", bytes({0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00}), {4294967296.0f}},
        DtypeCase{"|b1", bytes({0, 1, 1}), {0.0f, 1.0f, 1.0f}}));

TEST(NpyTest, FortranOrderIsReorderedToC) {
  // Column-major storage of [[1, 2, 3], [4, 5, 6]].
  std::string data;
  for (float v : {1.0f, 4.0f, 2.0f, 5.0f, 3.0f, 6.0f}) data.append(reinterpret_cast<const char*>(&v), 4);
  NpyArray array;
  std::string error;
  ASSERT_TRUE(parse_npy(npy_file("{'descr': '<f4', 'fortran_order': True, 'shape': (2, 3), }", data),
                        "f.npy", array, error))
      << error;
  EXPECT_EQ(array.shape, (std::vector<int>{2, 3}));
  EXPECT_EQ(array.values, (std::vector<float>{1, 2, 3, 4, 5, 6}));
}

TEST(NpyTest, Version2HeaderIsRead) {
  NpyArray array;
  std::string error;
  ASSERT_TRUE(parse_npy(npy_file("{'descr': '|u1', 'fortran_order': False, 'shape': (1, 2)}",
                                 bytes({7, 9}), 2),
                        "v2.npy", array, error))
      << error;
  EXPECT_EQ(array.shape, (std::vector<int>{1, 2}));
  EXPECT_EQ(array.values, (std::vector<float>{7, 9}));
}

struct MalformedCase {
  const char* label;
  std::string file;
  const char* message;
};

class NpyMalformedTest : public ::testing::TestWithParam<MalformedCase> {};

TEST_P(NpyMalformedTest, FailsWithOneLineNamingTheFile) {
  NpyArray array;
  std::string error;
  EXPECT_FALSE(parse_npy(GetParam().file, "bad.npy", array, error));
  EXPECT_EQ(error, std::string("bad.npy: ") + GetParam().message);
}

const std::string kF4 = "{'descr': '<f4', 'fortran_order': False, 'shape': (2,), }";
const std::string kEight = std::string(8, '\0');

INSTANTIATE_TEST_SUITE_P(
    AllDefects, NpyMalformedTest,
    ::testing::Values(
        MalformedCase{"NoMagic", "PK\x03\x04 not an array at all", "not a .npy file (no \\x93NUMPY magic)"},
        MalformedCase{"Version4", npy_file(kF4, kEight, 4), "unsupported .npy format version 4"},
        MalformedCase{"TruncatedHeader", npy_file(kF4, kEight).substr(0, 30), "truncated .npy header"},
        MalformedCase{"TruncatedV2Length", std::string("\x93NUMPY\x02\x00\x10\x00", 10),
                      "truncated .npy header"},
        MalformedCase{"NotADict", npy_file("descr: <f4", kEight), "malformed .npy header"},
        MalformedCase{"UnclosedString", npy_file("{'descr: '<f4'", kEight), "malformed .npy header"},
        MalformedCase{"MissingShape", npy_file("{'descr': '<f4', 'fortran_order': False}", kEight),
                      "the .npy header lacks descr, shape or fortran_order"},
        MalformedCase{"Complex", npy_file("{'descr': '<c8', 'fortran_order': False, 'shape': (1,), }", kEight),
                      "unsupported dtype '<c8'"},
        MalformedCase{"Structured", npy_file("{'descr': 'x', 'fortran_order': False, 'shape': (1,), }", kEight),
                      "unsupported dtype 'x'"},
        MalformedCase{"OddFloatSize",
                      npy_file("{'descr': '<f16', 'fortran_order': False, 'shape': (1,), }", kEight),
                      "unsupported dtype '<f16'"},
        MalformedCase{"BadOrderWord",
                      npy_file("{'descr': '<f4', 'fortran_order': Maybe, 'shape': (2,), }", kEight),
                      "malformed .npy header"},
        MalformedCase{"BadShape", npy_file("{'descr': '<f4', 'fortran_order': False, 'shape': (2, a), }", kEight),
                      "malformed shape in .npy header"},
        MalformedCase{"HugeShape",
                      npy_file("{'descr': '<f4', 'fortran_order': False, 'shape': (65536, 65536), }", kEight),
                      "the array is too large"},
        MalformedCase{"ShortData", npy_file(kF4, std::string(7, '\0')),
                      "holds 7 bytes of data but shape and dtype need 8"},
        MalformedCase{"LongData", npy_file(kF4, std::string(12, '\0')),
                      "holds 12 bytes of data but shape and dtype need 8"}),
    [](const ::testing::TestParamInfo<MalformedCase>& info) { return info.param.label; });

TEST(NpyTest, MissingAndUnwritableFiles) {
  TempDir dir;
  NpyArray array;
  std::string error;
  EXPECT_FALSE(read_npy(dir.file("absent.npy"), array, error));
  EXPECT_EQ(error, dir.file("absent.npy") + ": cannot open file");
  const float v = 1.0f;
  EXPECT_FALSE(write_npy(dir.file("no/such/dir.npy"), {1}, &v, error));
  EXPECT_EQ(error, dir.file("no/such/dir.npy") + ": cannot create file");
}

struct ArgCase {
  const char* text;
  const char* name;
  const char* path;
  std::vector<int> dims;
  const char* error;  // empty when the text is valid
};

class InputArgTest : public ::testing::TestWithParam<ArgCase> {};

TEST_P(InputArgTest, SplitsNamePathAndDims) {
  const ArgCase& c = GetParam();
  InputArg arg;
  std::string error;
  const bool ok = parse_input_arg(c.text, arg, error);
  if (std::string(c.error).empty()) {
    ASSERT_TRUE(ok) << error;
    EXPECT_EQ(arg.name, c.name);
    EXPECT_EQ(arg.path, c.path);
    EXPECT_EQ(arg.dims, c.dims);
  } else {
    EXPECT_FALSE(ok);
    EXPECT_EQ(error, c.error);
  }
}

INSTANTIATE_TEST_SUITE_P(
    AllForms, InputArgTest,
    ::testing::Values(
        ArgCase{"input=img.npy", "input", "img.npy", {}, ""},
        ArgCase{"input=img.bin:1x224x224x3", "input", "img.bin", {1, 224, 224, 3}, ""},
        ArgCase{"x:0=a.bin:7", "x:0", "a.bin", {7}, ""},
        ArgCase{"a=/data/run:2/img.npy", "a", "/data/run:2/img.npy", {}, ""},
        ArgCase{"a=/data/run:2/img.bin:2x2", "a", "/data/run:2/img.bin", {2, 2}, ""},
        ArgCase{"noequals", "", "", {}, "bad input 'noequals': expected NAME=PATH or NAME=PATH:DIMS"},
        ArgCase{"=f.npy", "", "", {}, "bad input '=f.npy': expected NAME=PATH or NAME=PATH:DIMS"},
        ArgCase{"a=", "", "", {}, "bad input 'a=': expected NAME=PATH or NAME=PATH:DIMS"},
        ArgCase{"a=f.bin:1x0", "", "", {},
                 "bad dimensions '1x0' in input 'a=f.bin:1x0': expected e.g. 1x224x224x3"},
        ArgCase{"a=f.bin:2xx3", "", "", {},
                 "bad dimensions '2xx3' in input 'a=f.bin:2xx3': expected e.g. 1x224x224x3"},
        ArgCase{"a=:2x2", "", "", {}, "bad input 'a=:2x2': empty file name"}));

TEST(InputLoaderTest, RawAndNpyFilesBecomeFloatTensors) {
  TempDir dir;
  const float raw[6] = {1, -2, 3.5f, 4, 5, 6};
  write_bytes(dir.file("raw.bin"), std::string(reinterpret_cast<const char*>(raw), sizeof(raw)));
  write_bytes(dir.file("codes.npy"),
              npy_file("{'descr': '|i1', 'fortran_order': False, 'shape': (1, 3), }", bytes({0xff, 2, 0x80})));
  std::vector<std::unique_ptr<Tensor>> tensors;
  std::string error;
  ASSERT_TRUE(load_inputs({{"a", dir.file("raw.bin"), {1, 2, 3}}, {"b", dir.file("codes.npy"), {}},
                           {"c", dir.file("codes.npy"), {1, 3}}},
                          tensors, error))
      << error;
  ASSERT_EQ(tensors.size(), 3u);
  EXPECT_EQ(tensors[0]->name(), "a");
  EXPECT_EQ(tensors[0]->shape(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(tensor_values(*tensors[0]), (std::vector<float>{1, -2, 3.5f, 4, 5, 6}));
  EXPECT_EQ(tensors[1]->data_type(), Tensor::DT_FLOAT);
  EXPECT_EQ(tensors[1]->shape(), (std::vector<int>{1, 3}));
  EXPECT_EQ(tensor_values(*tensors[1]), (std::vector<float>{-1, 2, -128}));
}

TEST(InputLoaderTest, BadInputsNameTheFile) {
  TempDir dir;
  write_bytes(dir.file("five.bin"), std::string(20, '\0'));
  write_bytes(dir.file("empty.npy"), npy_file("{'descr': '<f4', 'fortran_order': False, 'shape': (0,), }", ""));
  write_bytes(dir.file("pair.npy"), npy_file(kF4, kEight));
  const std::string five = dir.file("five.bin");
  const struct {
    InputArg arg;
    std::string error;
  } cases[] = {
      {{"a", five, {1, 4}}, five + ": holds 20 bytes but shape 1x4 of float32 needs 16"},
      {{"a", five, {}}, five + ": not a .npy file; give the shape of raw float32 data as a=" + five + ":DIMS"},
      {{"a", dir.file("none.bin"), {1}}, dir.file("none.bin") + ": cannot open input file for 'a'"},
      {{"a", dir.file("empty.npy"), {}}, dir.file("empty.npy") + ": the array has no elements"},
      {{"a", dir.file("pair.npy"), {1, 2}}, dir.file("pair.npy") + ": the file holds shape 2 but 1x2 was given"},
  };
  for (const auto& c : cases) {
    std::unique_ptr<Tensor> tensor;
    std::string error;
    EXPECT_FALSE(load_input(c.arg, tensor, error));
    EXPECT_EQ(error, c.error);
  }
  std::vector<std::unique_ptr<Tensor>> tensors;
  std::string error;
  EXPECT_FALSE(load_inputs({{"a", five, {5}}, {"a", five, {5}}}, tensors, error));
  EXPECT_EQ(error, "input 'a' is given twice");
}

}  // namespace
}  // namespace kovra_test
