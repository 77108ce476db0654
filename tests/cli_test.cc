// End-to-end tests of the kovra tool: every case runs the real binary.

#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "encryption.h"
#include "graph_executor.h"
#include "npy.h"
#include "support/kovra_cli.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::EncryptionRC4;
using kovra::trenkit::kovraexecutor::GraphExecutor;
using kovra::trenkit::kovraexecutor::NpyArray;
using kovra::trenkit::kovraexecutor::read_npy;
using kovra::trenkit::kovraexecutor::write_npy;

void spit(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary).write(data.data(), static_cast<std::streamsize>(data.size()));
}

void write_floats(const std::string& path, const std::vector<int>& shape, const std::vector<float>& v) {
  std::string error;
  ASSERT_TRUE(write_npy(path, shape, v.data(), error)) << error;
}

std::vector<float> read_floats(const std::string& path, std::vector<int>* shape = nullptr) {
  NpyArray array;
  std::string error;
  EXPECT_TRUE(read_npy(path, array, error)) << error;
  if (shape) *shape = array.shape;
  return array.values;
}

// A model of placeholder operators: it loads and runs, but computes nothing.
const char* const kPlaceholderModel = R"(
node { name: "input" op: "ZxxNOp" }
node { name: "w" op: "Const" attr { key: "value" value { tensor {
  dtype: DT_FLOAT tensor_shape { dim { size: 1 } } tensor_content: "\000\000\200?" } } } }
node { name: "qconv" op: "Z40QuantizeConv2D" input: "input" input: "w"
       attr { key: "output_bitwidth" value { i: 8 } } }
)";

// A raw float32 input of shape 1x2x2x1.
void write_raw_input(const std::string& path) {
  const float values[4] = {1, 2, 3, 4};
  spit(path, std::string(reinterpret_cast<const char*>(values), sizeof(values)));
}

std::string examples_dir() { return env_or_empty("KOVRA_SOURCE_DIR") + "/examples"; }

// ---- invocations, their exit code and a line they print -----------------------------------

struct BadCase {
  const char* label;
  std::string args;  // {dir} stands for the test's folder
  int code;
  std::string line;  // the exact message line ({dir} substituted)
  std::string err;   // a line expected on standard error alone, if any
  BadCase(const char* l, std::string a, int c, std::string li, std::string e = "")
      : label(l), args(std::move(a)), code(c), line(std::move(li)), err(std::move(e)) {}
};

std::string substitute(std::string text, const std::string& dir) {
  for (size_t at; (at = text.find("{dir}")) != std::string::npos;) text.replace(at, 5, dir);
  return text;
}

class BadInvocationTest : public ::testing::TestWithParam<BadCase> {};

TEST_P(BadInvocationTest, ExitCodeAndLine) {
  TempDir dir;
  spit(dir.file("p.pbtxt"), kPlaceholderModel);
  write_raw_input(dir.file("in.bin"));
  write_floats(dir.file("in.npy"), {1, 2, 2, 1}, {1, 2, 3, 4});
  spit(dir.file("junk.pb"), std::string("\x01\x02\x03 this is no model \xff\xfe", 24));
  spit(dir.file("badmagic.pb"), std::string("KVRAPROT") + "garbage that deciphers to nothing");
  spit(dir.file("afile"), "x");
  spit(dir.file("empty"), "");
  ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0755), 0);
  std::string protected_model = parse_text_graph(kPlaceholderModel).SerializeAsString();
  EncryptionRC4::crypt(protected_model);
  spit(dir.file("p.prot"), std::string("KVRAPROT") + protected_model);
  spit(dir.file("unknown.pbtxt"), R"(node { name: "input" op: "ZxxNOp" }
                                   node { name: "f" op: "Z40Frobnicate" input: "input" })");
  spit(dir.file("dangling.pbtxt"), R"(node { name: "input" op: "ZxxNOp" }
                                    node { name: "b" op: "ZxxFlatten" input: "zzz" })");
  spit(dir.file("noname.pbtxt"), R"(node { name: "input" op: "ZxxNOp" } node { op: "ZxxFlatten" })");
  spit(dir.file("short.pbtxt"), R"(node { name: "input" op: "ZxxNOp" }
    node { name: "w" op: "Const" attr { key: "value" value { tensor {
      dtype: DT_FLOAT tensor_shape { dim { size: 2 } } tensor_content: "\000\000\200?" } } } }
    node { name: "f" op: "ZxxFlatten" input: "input" input: "w" })");
  // Well formed, but fails once shapes are known: at run time, or under check -s.
  spit(dir.file("concat1.pbtxt"), R"(node { name: "input" op: "ZxxNOp" }
                                   node { name: "c" op: "Z40Concat" input: "input" })");
  spit(dir.file("relu3.pbtxt"), R"(node { name: "input" op: "ZxxNOp" }
    node { name: "w" op: "Const" attr { key: "value" value { tensor {
      dtype: DT_FLOAT tensor_shape { dim { size: 1 } } tensor_content: "\000\000\200?" } } } }
    node { name: "v" op: "Const" attr { key: "value" value { tensor {
      dtype: DT_FLOAT tensor_shape { dim { size: 1 } } tensor_content: "\000\000\200?" } } } }
    node { name: "r" op: "Z40Relu" input: "input" input: "w" input: "v" })");
  // Grows 1x2x2x1 to 2116000000 bytes, then three Z40Relu on it.
  spit(dir.file("grow.pbtxt"), R"(node { name: "input" op: "ZxxNOp" }
    node { name: "pad" op: "Z40Pad" input: "input"
      attr { key: "output_shape" value { list { i: 1 i: 23000 i: 23000 i: 1 } } }
      attr { key: "pads" value { list { i: 0 i: 0 i: 11499 i: 11499 i: 11499 i: 11499 i: 0 i: 0 } } } }
    node { name: "r1" op: "Z40Relu" input: "pad" } node { name: "r2" op: "Z40Relu" input: "r1" }
    node { name: "r3" op: "Z40Relu" input: "r2" })");
  spit(dir.file("chain.pbtxt"), R"(node { name: "input" op: "ZxxNOp" }
                                 node { name: "a" op: "ZxxFlatten" input: "input" }
                                 node { name: "b" op: "ZxxFlatten" input: "a" })");
  // Manifests for in.bin fed back as a dumped tensor: one without 'a', one with a size it does not have.
  spit(dir.file("other.tsv"), "0\tz.bin\tz\t1x4\tint8\t8\tZxxFlatten\n");
  spit(dir.file("small.tsv"), "0\ta.bin\ta\t1x2x2x1\tint8\t8\tZxxFlatten\n");
  const Result r = kovra(substitute(GetParam().args, dir.path()));
  EXPECT_EQ(r.code, GetParam().code) << r.out;
  EXPECT_TRUE(has_line(r.out, substitute(GetParam().line, dir.path()))) << r.out;
  EXPECT_TRUE(GetParam().err.empty() || has_line(r.err, GetParam().err)) << r.err;
  EXPECT_EQ(r.out.find("Aborted"), std::string::npos);
}

const char* const kRunHint = " (see 'kovra run --help')";

const BadCase kBadCases[] = {
    {"NoArguments", "", 2, "Usage: kovra [OPTIONS] SUBCOMMAND"},
    {"HelpRun", "run --help", 0,
     "execute kovra model on input files; print, save, dump and time its outputs"},
    {"HelpRunUsage", "run --help", 0, "Usage: kovra run [OPTIONS] model"},
    {"HelpCheck", "check --help", 0, "Usage: kovra check [OPTIONS] model"},
    {"HelpInspect", "inspect --help", 0, "Usage: kovra inspect [OPTIONS] model"},
    {"HelpConvert", "convert --help", 0, "Usage: kovra convert [OPTIONS] in out"},
    {"HelpProtect", "protect --help", 0, "Usage: kovra protect [OPTIONS] in out"},
    {"HelpUnprotect", "unprotect --help", 0, "Usage: kovra unprotect [OPTIONS] in out"},
    {"HelpCompare", "compare --help", 0, "Usage: kovra compare [OPTIONS] A B"},
    {"UnknownCommand", "frob", 2,
     "kovra: unknown command 'frob' (commands: run, check, inspect, convert, protect, unprotect, "
     "compare, verify)"},
    {"UnknownFlag", "run {dir}/p.pbtxt --bogus", 2,
     std::string("kovra run: The following argument was not expected: --bogus") + kRunHint},
    {"NoModel", "run", 2, std::string("kovra run: model is required") + kRunHint},
    {"BadFormatWord", "run {dir}/p.pbtxt --format xml", 2,
     std::string("kovra run: --format: xml not in {auto,plain,text,protected}") + kRunHint},
    {"ZeroRepeat", "run {dir}/p.pbtxt --repeat 0", 2,
     std::string("kovra run: --repeat: Value 0 not in range 1 to 1000000") + kRunHint},
    {"BadInputText", "run {dir}/p.pbtxt -i input", 2,
     "kovra run: bad input 'input': expected NAME=PATH or NAME=PATH:DIMS"},
    {"MissingModelFile", "run {dir}/none.pb", 2, "kovra run: cannot read model file '{dir}/none.pb'"},
    {"ModelIsAFolder", "inspect {dir}", 2, "kovra inspect: cannot read model file '{dir}'"},
    {"GarbledModel", "run {dir}/junk.pb -i input={dir}/in.npy", 2,
     "kovra run: cannot read '{dir}/junk.pb' as a model: neither protected, binary nor text GraphDef"},
    {"GarbledProtected", "run {dir}/badmagic.pb", 2,
     "kovra run: '{dir}/badmagic.pb' has the protected-model magic but does not decipher into a "
     "model (damaged, or enciphered with another key)"},
    {"TextGivenAsPlain", "run {dir}/p.pbtxt --format plain", 2,
     "kovra run: '{dir}/p.pbtxt' is not a binary GraphDef with nodes"},
    {"JunkGivenAsText", "inspect {dir}/afile --format text", 2,
     "kovra inspect: '{dir}/afile' is not a text GraphDef: line 1 column 2: Message type "
     "\"kovra.trenkit.GraphDef\" has no field named \"x\"."},
    {"EmptyText", "inspect {dir}/empty --format text", 2, "kovra inspect: '{dir}/empty' holds no nodes"},
    {"EmptyAuto", "inspect {dir}/empty", 2,
     "kovra inspect: cannot read '{dir}/empty' as a model: neither protected, binary nor text "
     "GraphDef"},
    {"PlainGivenAsProtected", "run {dir}/p.pbtxt --format protected", 2,
     "kovra run: '{dir}/p.pbtxt' does not decipher into a model (not protected, or another key)"},
    {"UnknownOperator", "run {dir}/unknown.pbtxt -i input={dir}/in.npy", 2,
     "kovra run: {dir}/unknown.pbtxt: the model uses operators this build does not have: "
     "Z40Frobnicate"},
    {"ConstTooShort", "run {dir}/short.pbtxt", 2,
     "kovra run: {dir}/short.pbtxt: constant 'w' holds 4 bytes of data but its shape needs 8"},
    {"UnknownInputName", "run {dir}/p.pbtxt -i imgs={dir}/in.npy", 2,
     "kovra run: unknown input 'imgs'; the model's inputs are: input"},
    {"MissingInput", "run {dir}/p.pbtxt", 2, "kovra run: no data for input 'input' (give -i input=FILE)"},
    {"MissingInputFile", "run {dir}/p.pbtxt -i input={dir}/none.npy", 2,
     "kovra run: {dir}/none.npy: cannot open input file for 'input'"},
    {"WrongRawSize", "run {dir}/p.pbtxt -i input={dir}/in.bin:1x5", 2,
     "kovra run: {dir}/in.bin: holds 16 bytes but shape 1x5 of float32 needs 20"},
    // An endless file is read only as far as the shape needs.
    {"EndlessRawInput", "run {dir}/p.pbtxt -i input=/dev/zero:1", 2,
     "kovra run: /dev/zero: holds more than 4 bytes but shape 1 of float32 needs 4"},
    {"RawShapeTooLarge", "run {dir}/p.pbtxt -i input={dir}/in.bin:65536x65536", 2,
     "kovra run: {dir}/in.bin: shape 65536x65536 holds more than 2147483647 elements"},
    {"BadMaxMemoryUnit", "run {dir}/p.pbtxt --max-memory 12X", 2,
     "kovra run: bad --max-memory '12X': expected a positive number of bytes, optionally with K, M or G"},
    {"ZeroMaxMemory", "run {dir}/p.pbtxt --max-memory 0", 2,
     "kovra run: bad --max-memory '0': expected a positive number of bytes, optionally with K, M or G"},
    {"HugeMaxMemory", "run {dir}/p.pbtxt --max-memory 9999999999G", 2,
     "kovra run: bad --max-memory '9999999999G': expected a positive number of bytes, optionally with K, M "
     "or G"},
    // Refused before anything runs.
    {"OverMaxMemory", "run {dir}/grow.pbtxt -i input={dir}/in.npy --max-memory 1G", 2,
     "kovra run: {dir}/grow.pbtxt: The node:pad needs 2116000000 bytes for its output, which brings the run "
     "to 2116000004 bytes, over its memory budget of 1073741824"},
    // Runs, but says what it ignores.
    {"RunWarnsOfExtraInputs", "run {dir}/relu3.pbtxt -i input={dir}/in.npy", 0,
     "kovra run: {dir}/relu3.pbtxt: warning: node 'r' has 3 inputs but Z40Relu reads 1; the rest would be "
     "ignored"},
    {"RawWithoutShape", "run {dir}/p.pbtxt -i input={dir}/in.bin", 2,
     "kovra run: {dir}/in.bin: not a .npy file; give the shape of raw float32 data as "
     "input={dir}/in.bin:DIMS"},
    {"NpyShapeDisagrees", "run {dir}/p.pbtxt -i input={dir}/in.npy:1x4", 2,
     "kovra run: {dir}/in.npy: the file holds shape 1x2x2x1 but 1x4 was given"},
    {"InputTwice", "run {dir}/p.pbtxt -i input={dir}/in.npy -i input={dir}/in.npy", 2,
     "kovra run: input 'input' is given twice"},
    {"UnknownOutput", "run {dir}/p.pbtxt -i input={dir}/in.npy --output nope", 2,
     "kovra run: --output: the model has no node 'nope'"},
    {"UnknownStart", "run {dir}/p.pbtxt --start input,nope", 2,
     "kovra run: --start: the model has no node 'nope'"},
    {"OutDirIsAFile", "run {dir}/p.pbtxt -i input={dir}/in.npy --out-dir {dir}/afile/out", 2,
     "kovra run: cannot create output folder '{dir}/afile/out'"},
    {"DumpDirIsAFile", "run {dir}/p.pbtxt -i input={dir}/in.npy --dump {dir}/afile", 2,
     "kovra run: cannot create dump folder '{dir}/afile'"},
    {"TraceUnwritable", "run {dir}/p.pbtxt -i input={dir}/in.npy --trace {dir}/no/t.json", 2,
     "kovra run: cannot write trace file '{dir}/no/t.json'"},
    // The library's own error line, then a clean exit instead of a core dump.
    {"LibraryError", "run {dir}/concat1.pbtxt -i input={dir}/in.npy", 3,
     "\033[1m\033[31mError: Check failed: inputs.size() > 1==>\"Z40Concat operator inputs must "
     "greater than 1.\"\033[0m",
     "kovra: the error is in node 'c' (operator Z40Concat)"},
    {"OutputUpstreamOfStart", "run {dir}/chain.pbtxt --start b --output a", 2,
     "kovra run: --output: node 'a' does not depend on the --start nodes (b)"},
    {"CheckClean", "check {dir}/chain.pbtxt", 0, "0 problems, 0 warnings"},
    {"CheckShapes", "check {dir}/p.pbtxt -s input=1x2x2x1", 0, "0 problems, 0 warnings"},
    {"CheckFindsEveryProblem", "check {dir}/unknown.pbtxt", 1,
     "problem: f (Z40Frobnicate): the model uses operators this build does not have: Z40Frobnicate"},
    {"CheckNameless", "check {dir}/noname.pbtxt --format text", 1,
     "problem: (no name) (ZxxFlatten): the model has a node without a name (op ZxxFlatten)"},
    {"CheckInference", "check {dir}/concat1.pbtxt -s input=1x2x2x1", 1,
     "problem: c (Z40Concat): Check failed: inputs.size() > 1==>\"Z40Concat operator inputs must "
     "greater than 1.\""},
    {"CheckCounts", "check {dir}/short.pbtxt", 1, "1 problem, 0 warnings"},
    {"CheckBadShapeArg", "check {dir}/p.pbtxt -s input", 2,
     "kovra check: -s 'input' is not NAME=DIMS (DIMS like 1x224x224x3)"},
    {"CheckShapeTwice", "check {dir}/p.pbtxt -s input=1 -s input=2", 2,
     "kovra check: -s: the shape of 'input' is given twice"},
    {"CheckMissingModel", "check {dir}/none.pb", 2, "kovra check: cannot read model file '{dir}/none.pb'"},
    {"InspectWithProblems", "inspect {dir}/dangling.pbtxt", 1,
     "problem: b (ZxxFlatten): node 'b' reads 'zzz', which is not in the model"},
    {"ConvertUnwritable", "convert {dir}/p.pbtxt {dir}/no/out.pb", 2,
     "kovra convert: cannot write '{dir}/no/out.pb'"},
    {"ConvertMissing", "convert {dir}/none.pb {dir}/out.pb", 2,
     "kovra convert: cannot read model file '{dir}/none.pb'"},
    {"ProtectTwice", "protect {dir}/p.prot {dir}/x.pb", 2,
     "kovra protect: '{dir}/p.prot' is already protected"},
    {"ProtectGarbled", "protect {dir}/badmagic.pb {dir}/x.pb", 2,
     "kovra protect: '{dir}/badmagic.pb' has the protected-model magic but does not decipher into a "
     "model (damaged, or enciphered with another key)"},
    {"ProtectUnwritable", "protect {dir}/p.pbtxt {dir}/no/x.pb", 2,
     "kovra protect: cannot write '{dir}/no/x.pb'"},
    {"UnprotectPlain", "unprotect {dir}/p.pbtxt {dir}/x.pb", 2,
     "kovra unprotect: '{dir}/p.pbtxt' is not protected (it is a text model)"},
    {"UnprotectMissing", "unprotect {dir}/none.pb {dir}/x.pb", 2,
     "kovra unprotect: cannot read model file '{dir}/none.pb'"},
    {"CompareNotAFolder", "compare {dir}/none {dir}", 2, "kovra compare: '{dir}/none' is not a folder"},
    {"CompareSecondNotAFolder", "compare {dir} {dir}/afile", 2,
     "kovra compare: '{dir}/afile' is not a folder"},
    {"CompareNothingInCommon", "compare {dir}/sub {dir}", 2,
     "kovra compare: no tensor is present in both '{dir}/sub' and '{dir}'"},
    {"CompareNegativeTolerance", "compare {dir} {dir} --rtol -1", 2,
     "kovra compare: --rtol: '-1' is not a number >= 0 (see 'kovra compare --help')"},
    {"CompareMissingManifest", "compare {dir}/sub {dir} --manifest {dir}/none.tsv", 2,
     "kovra compare: cannot read manifest '{dir}/none.tsv'"},
    {"CompareMissingFolder", "compare {dir}", 2, "kovra compare: B is required (see 'kovra compare --help')"},
    {"RunDumpNotInManifest", "run {dir}/chain.pbtxt --start b -i a={dir}/in.bin --manifest {dir}/other.tsv",
     2, "kovra run: manifest '{dir}/other.tsv' has no line for 'a'"},
    {"RunDumpWrongSize", "run {dir}/chain.pbtxt --start b -i a={dir}/in.bin --manifest {dir}/small.tsv", 2,
     "kovra run: {dir}/in.bin: holds 16 bytes but int8 of shape 1x2x2x1 needs 4"},
    {"HelpVerify", "verify --help", 0, "Usage: kovra verify [OPTIONS] model reference"},
    {"VerifyNotAFolder", "verify {dir}/chain.pbtxt {dir}/none -i input={dir}/in.npy", 2,
     "kovra verify: '{dir}/none' is not a folder"},
    {"VerifyUnknownStart", "verify {dir}/chain.pbtxt {dir}/sub --start nope", 2,
     "kovra verify: the model has no node 'nope'"},
    {"VerifyNoInput", "verify {dir}/chain.pbtxt {dir}/sub", 2,
     "kovra verify: no data for input 'input': give it, or a reference that holds it"},
    {"VerifyBadInputText", "verify {dir}/chain.pbtxt {dir}/sub -i input", 2,
     "kovra verify: bad input 'input': expected NAME=PATH or NAME=PATH:DIMS"},
    {"VerifyMissingModel", "verify {dir}/none.pb {dir}/sub", 2,
     "kovra verify: cannot read model file '{dir}/none.pb'"},
    {"VerifyInputNotInManifest",
     "verify {dir}/chain.pbtxt {dir}/sub -i input={dir}/in.bin --manifest {dir}/other.tsv", 2,
     "kovra verify: manifest '{dir}/other.tsv' has no line for 'input'"},
};

INSTANTIATE_TEST_SUITE_P(AllCases, BadInvocationTest, ::testing::ValuesIn(kBadCases),
                         [](const ::testing::TestParamInfo<BadCase>& info) { return info.param.label; });

// ---- model files: formats, detection, round trips ----------------------------------------

GraphDef parse_file_as_binary(const std::string& path) {
  GraphDef graph;
  EXPECT_TRUE(graph.ParseFromString(slurp(path))) << path;
  return graph;
}

bool same_model(const GraphDef& a, const GraphDef& b) {
  return google::protobuf::util::MessageDifferencer::Equals(a, b);
}

TEST(CliTest, ConvertRoundTripKeepsTheModel) {
  TempDir dir;
  spit(dir.file("m.pbtxt"), slurp(examples_dir() + "/int8_model.pbtxt"));
  const GraphDef original = parse_text_graph(slurp(dir.file("m.pbtxt")));
  ASSERT_GT(original.node_size(), 0);

  Result r = kovra("convert " + dir.file("m.pbtxt") + " " + dir.file("m.pb"));
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(has_line(r.out, dir.file("m.pbtxt") + " (text) -> " + dir.file("m.pb") + " (plain), 9 nodes"));
  EXPECT_TRUE(same_model(parse_file_as_binary(dir.file("m.pb")), original));

  r = kovra("convert " + dir.file("m.pb") + " " + dir.file("back.pbtxt"));
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(same_model(parse_text_graph(slurp(dir.file("back.pbtxt"))), original));

  // --to forces the written format; binary to binary keeps the bytes.
  r = kovra("convert " + dir.file("m.pb") + " " + dir.file("same.pb") + " --to plain");
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(slurp(dir.file("same.pb")), slurp(dir.file("m.pb")));
  // Text is written deterministically.
  r = kovra("convert " + dir.file("m.pb") + " " + dir.file("again.pbtxt"));
  EXPECT_EQ(slurp(dir.file("again.pbtxt")), slurp(dir.file("back.pbtxt")));
}

TEST(CliTest, ProtectUnprotectRoundTripAndTheLibraryReadsIt) {
  TempDir dir;
  spit(dir.file("p.pbtxt"), kPlaceholderModel);
  ASSERT_EQ(kovra("convert " + dir.file("p.pbtxt") + " " + dir.file("p.pb")).code, 0);

  Result r = kovra("protect " + dir.file("p.pbtxt") + " " + dir.file("p.prot"));
  EXPECT_EQ(r.code, 0) << r.out;
  const std::string stored = slurp(dir.file("p.prot"));
  EXPECT_TRUE(EncryptionRC4::has_magic(stored));
  EXPECT_EQ(stored.find("qconv"), std::string::npos) << "node names must not be readable";

  r = kovra("unprotect " + dir.file("p.prot") + " " + dir.file("back.pb"));
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(slurp(dir.file("back.pb")), slurp(dir.file("p.pb")));

  // The path constructor deciphers what the tool wrote.
  GraphExecutor executor(dir.file("p.prot"), kovra::trenkit::kovraexecutor::CPU);
  EXPECT_EQ(executor.get_output_names(), std::vector<std::string>{"qconv"});
  EXPECT_EQ(executor.get_input_names(), std::vector<std::string>{"input"});
}

TEST(CliTest, AutoDetectionNamesTheFormatItChose) {
  TempDir dir;
  spit(dir.file("m.pbtxt"), kPlaceholderModel);
  ASSERT_EQ(kovra("convert " + dir.file("m.pbtxt") + " " + dir.file("m.pb")).code, 0);
  ASSERT_EQ(kovra("protect " + dir.file("m.pb") + " " + dir.file("m.prot")).code, 0);
  // Enciphered without the magic, as older tools stored models.
  std::string bare = slurp(dir.file("m.pb"));
  EncryptionRC4::crypt(bare);
  spit(dir.file("bare.prot"), bare);
  write_raw_input(dir.file("in.bin"));
  const struct {
    const char* file;
    const char* format;
  } cases[] = {{"m.pbtxt", "text"}, {"m.pb", "plain"}, {"m.prot", "protected"}, {"bare.prot", "protected"}};
  for (const auto& c : cases) {
    const std::string path = dir.file(c.file);
    Result r = kovra("inspect " + path);
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(has_line(r.out, "model " + path + " (" + c.format + " format), 3 nodes")) << r.out;
    r = kovra("run " + path + " -i input=" + dir.file("in.bin") + ":1x2x2x1");
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_TRUE(
        has_line(r.out, "kovra run: reading " + path + " as a " + c.format + " model (--format auto)"))
        << r.out;
    EXPECT_TRUE(has_line(r.out, "qconv  (the operator produced no tensor)")) << r.out;
    EXPECT_NE(r.out.find("INFO(kovraexecutor)"), std::string::npos) << r.out;
    // --quiet drops the library's banner, and only that.
    r = kovra("run " + path + " -i input=" + dir.file("in.bin") + ":1x2x2x1 --quiet");
    EXPECT_EQ(r.code, 0) << r.out;
    EXPECT_EQ(r.out.find("INFO(kovraexecutor)"), std::string::npos) << r.out;
    EXPECT_TRUE(has_line(r.out, "qconv  (the operator produced no tensor)")) << r.out;
  }
}

TEST(CliTest, InspectListsNodesWeightsAttributesAndUnknownOperators) {
  TempDir dir;
  spit(dir.file("m.pbtxt"), std::string(kPlaceholderModel) + R"(
node { name: "big" op: "Z40Frob" input: "qconv" input: "ghost"
       attr { key: "scales" value { list { f: 0.1 f: 2 f: 3 f: 4 f: 5 f: 6 f: 7 f: 8 f: 9 f: 10 } } }
       attr { key: "mode" value { s: "SAME" } } attr { key: "on" value { b: true } } }
)");
  const Result r = kovra("inspect " + dir.file("m.pbtxt") + " -s input=1x2x2x1");
  EXPECT_EQ(r.code, 1) << r.out;
  const char* const expected[] = {
      "problem: big (Z40Frob): node 'big' reads 'ghost', which is not in the model",
      "problem: big (Z40Frob): the model uses operators this build does not have: Z40Frob",
      "[0] input  ZxxNOp",
      "[1] qconv  Z40QuantizeConv2D",
      "    inputs:  input",
      "    weights: w [1 float32]",
      "    attrs:   output_bitwidth=8",
      "[2] big  Z40Frob  (unknown operator)",
      "    inputs:  qconv, ghost (missing)",
      "    attrs:   mode=\"SAME\"  on=true  scales=[0.1,2,3,4,5,6,7,8,... (10 values)]",
      "graph inputs:  input",
      "graph outputs: big",
      "  Z40Frob                          1  (unknown operator)",
      "  ZxxNOp                           1",
      "unknown to this build: Z40Frob",
  };
  for (const char* line : expected) EXPECT_TRUE(has_line(r.out, line)) << line << "\n" << r.out;
}

// ---- compare -----------------------------------------------------------------------------

struct CompareRow {
  double max_abs, mean_abs, rmse, cosine, sqnr_db;
  std::string mismatches, worst, verdict;
};

// Reads the row of `tensor` from compare's table.
bool row_of(const std::string& out, const std::string& tensor, CompareRow& row) {
  std::istringstream lines(out);
  std::string l;
  while (std::getline(lines, l)) {
    std::istringstream fields(l);
    std::string index, name, shape, number[5];
    fields >> index >> name >> shape;
    if (name != tensor) continue;
    fields >> number[0] >> number[1] >> number[2] >> number[3] >> number[4] >> row.mismatches >> row.worst >>
        row.verdict;
    // strtod, unlike a stream, reads "inf" and "nan".
    double* const targets[] = {&row.max_abs, &row.mean_abs, &row.rmse, &row.cosine, &row.sqnr_db};
    for (int k = 0; k < 5; ++k) *targets[k] = std::strtod(number[k].c_str(), nullptr);
    return true;
  }
  return false;
}

TEST(CompareTest, ReportsDifferencesOfNpyFolders) {
  TempDir a, b;
  write_floats(a.file("x.npy"), {4}, {1, 2, 3, 4});
  write_floats(b.file("x.npy"), {4}, {1, 2, 3, 4.5f});
  write_floats(a.file("same.npy"), {2}, {0, -1});
  write_floats(b.file("same.npy"), {2}, {0, -1});
  write_floats(a.file("zero.npy"), {2}, {1, 0});
  write_floats(b.file("zero.npy"), {2}, {0, 0});
  write_floats(a.file("only_a.npy"), {1}, {1});
  const Result r = kovra("compare " + a.path() + " " + b.path());
  EXPECT_EQ(r.code, 1) << r.out;
  CompareRow row;
  ASSERT_TRUE(row_of(r.out, "x", row)) << r.out;
  EXPECT_DOUBLE_EQ(row.max_abs, 0.5);
  EXPECT_DOUBLE_EQ(row.mean_abs, 0.125);
  EXPECT_DOUBLE_EQ(row.rmse, 0.25);  // sqrt(0.5^2 / 4)
  EXPECT_NEAR(row.cosine, 32.0 / (std::sqrt(30.0) * std::sqrt(34.25)), 1e-6);
  EXPECT_NEAR(row.sqnr_db, 21.37, 0.005);  // 10 log10(34.25 / 0.25)
  EXPECT_EQ(row.mismatches, "1/4");
  EXPECT_EQ(row.worst, "(3)=4/4.5");
  EXPECT_EQ(row.verdict, "MISMATCH");
  ASSERT_TRUE(row_of(r.out, "same", row));
  EXPECT_EQ(row.max_abs, 0.0);
  EXPECT_EQ(row.cosine, 1.0);
  EXPECT_EQ(row.verdict, "ok");
  // A reference of zeros: no signal, SQNR -inf, cosine 0.
  ASSERT_TRUE(row_of(r.out, "zero", row));
  EXPECT_TRUE(std::isinf(row.sqnr_db) && row.sqnr_db < 0);
  EXPECT_EQ(row.cosine, 0.0);
  // Without a manifest the order is by name: same, x, zero.
  EXPECT_NE(line_starting(r.out, "   1  x ").find("<-- first divergence"), std::string::npos) << r.out;
  EXPECT_TRUE(has_line(
      r.out, "3 tensor(s) compared, 2 out of tolerance; 1 only in " + a.path() + ", 0 only in " + b.path()))
      << r.out;
  EXPECT_TRUE(has_line(r.out, "first divergence: x")) << r.out;

  // Tolerances: 0.5 is within atol 0.5; the zero reference still fails (|1 - 0| > 0.5).
  const Result loose = kovra("compare " + a.path() + " " + b.path() + " --atol 0.5");
  ASSERT_TRUE(row_of(loose.out, "x", row));
  EXPECT_EQ(row.verdict, "ok");
  EXPECT_EQ(loose.code, 1);
  const Result looser = kovra("compare " + a.path() + " " + b.path() + " --atol 1");
  EXPECT_EQ(looser.code, 0) << looser.out;
  EXPECT_TRUE(has_line(looser.out, "3 tensor(s) compared, 0 out of tolerance; 1 only in " + a.path() +
                                       ", 0 only in " + b.path()));
  // rtol scales with the reference: 0.5 <= 0.12 * 4.5.
  const Result relative = kovra("compare " + a.path() + " " + b.path() + " --rtol 0.12 --atol 0");
  ASSERT_TRUE(row_of(relative.out, "x", row));
  EXPECT_EQ(row.verdict, "ok");
}

TEST(CompareTest, ReadsDumpFoldersInManifestOrder) {
  TempDir dump, ref;
  // Dumps as the executor writes them: codes of 4, 16 and 8 bits.
  spit(dump.file("manifest.tsv"),
       "# order\tfile\tname\tshape\tdtype\tbitwidth\n"
       "0\tz.bin\tz\t1x3\tuint4x2\t4\n"
       "1\tm_1.bin\tm:1\t2\tuint16\t16\n"
       "2\ta.bin\ta\t1x2\tuint8\t8\n"
       "3\tf.bin\tf\t1\tfloat32\t32\n");
  spit(dump.file("z.bin"), std::string("\x1f\x70", 2));
  spit(dump.file("m_1.bin"), std::string("\x01\x01\xff\xff", 4));
  spit(dump.file("a.bin"), std::string("\x00\xfe", 2));
  const float f = -0.75f;
  spit(dump.file("f.bin"), std::string(reinterpret_cast<const char*>(&f), 4));
  write_floats(ref.file("z.npy"), {1, 3}, {1, 15, 7});
  write_floats(ref.file("m_1.npy"), {2}, {257, 65535});
  write_floats(ref.file("a.npy"), {1, 2}, {0, 254});
  write_floats(ref.file("f.npy"), {1}, {-0.75f});
  const Result r = kovra("compare " + dump.path() + " " + ref.path() + " --rtol 0 --atol 0");
  EXPECT_EQ(r.code, 0) << r.out;
  // Rows name the node; the .npy file of "m:1" pairs through its sanitised name.
  EXPECT_LT(r.out.find(" z "), r.out.find(" m:1 "));
  EXPECT_LT(r.out.find(" m:1 "), r.out.find(" a "));
  EXPECT_TRUE(has_line(r.out, "4 tensor(s) compared, 0 out of tolerance")) << r.out;
  // The manifest of the reference gives the order when the tested folder has none.
  const Result swapped = kovra("compare " + ref.path() + " " + dump.path());
  EXPECT_EQ(swapped.code, 0) << swapped.out;
  EXPECT_LT(swapped.out.find(" z "), swapped.out.find(" a "));
}

// The chip's raw files carry no manifest: the host's describes them. Signed codes -1 and 127
// against -2 and 124: one code off by one, one by three.
TEST(CompareTest, ReadsTheChipsBinFilesWithTheHostManifest) {
  TempDir host, chip, out;
  spit(host.file("manifest.tsv"), "0\tq.bin\tq\t1x2x2\tint8\t8\tZ40Quantize\n");
  spit(host.file("q.bin"), std::string("\xff\x01\x80\x7f", 4));
  spit(chip.file("q.bin"), std::string("\xfe\x01\x80\x7c", 4));
  const std::string both = "compare " + host.path() + " " + chip.path();
  Result r = kovra(both + " --manifest " + host.file("manifest.tsv") + " --per-channel q --csv " +
                   out.file("d.csv") + " --html " + out.file("r.html"));
  EXPECT_EQ(r.code, 1) << r.out;
  CompareRow row;
  ASSERT_TRUE(row_of(r.out, "q", row)) << r.out;
  EXPECT_EQ(row.max_abs, 3);
  EXPECT_EQ(row.mean_abs, 1);
  EXPECT_EQ(row.worst, "(0,1,1)=127/124");
  EXPECT_NE(r.out.find("codes: 2 differ (1: 1, 2: 0, more: 1)  <-- first divergence"), std::string::npos);
  ASSERT_TRUE(row_of(r.out, "q[c0]", row)) << r.out;  // channel 0: codes -1, 0x80 against -2, 0x80
  EXPECT_EQ(row.worst, "(0,0,0)=-1/-2");
  EXPECT_EQ(slurp(out.file("d.csv")).substr(0, 12), "name,channel");
  EXPECT_NE(slurp(out.file("r.html")).find(">First failing layer: q (Z40Quantize)</p>"), std::string::npos);
  // Records on stdout replace the table.
  r = kovra(both + " --manifest " + host.file("manifest.tsv") + " --json -");
  EXPECT_EQ(r.out.compare(0, 13, "{\"tensors\": ["), 0) << r.out;
  EXPECT_NE(r.out.find("\"first_divergence\": \"q\"}"), std::string::npos) << r.out;

  const struct {
    std::string options, line;
  } errors[] = {
      {"", "no tensor is present in both '{dir}' and '{b}'"},
      {" --manifest {dir}/manifest.tsv --per-channel p", "--per-channel: no tensor 'p' in both folders"},
      {" --manifest {dir}/manifest.tsv --json {dir}/no/d.json", "cannot write '{dir}/no/d.json'"},
      {" --manifest {dir}/manifest.tsv --html {dir}/no/r.html", "cannot write '{dir}/no/r.html'"},
  };
  for (const auto& e : errors) {
    r = kovra(both + substitute(e.options, host.path()));
    EXPECT_EQ(r.code, 2);
    std::string line = "kovra compare: " + substitute(e.line, host.path());
    const size_t at = line.find("{b}");
    if (at != std::string::npos) line.replace(at, 3, chip.path());
    EXPECT_TRUE(has_line(r.out, line)) << r.out;
  }
}

// A float chain dumped, one layer of the reference changed: verify names that layer; a dumped
// tensor fed back at a start inside the graph gives the run's own downstream values.
TEST(CliTest, VerifyNamesTheLayerAndDumpsFeedBack) {
  TempDir dir;
  std::string chain = "node { name: \"input\" op: \"ZxxNOp\" }";
  const char* layers[][3] = {{"f1", "input", "0.5"}, {"f2", "f1", "3"}, {"f3", "f2", "0.25"}};
  for (const auto& l : layers) {
    chain += std::string(" node { name: \"") + l[0] + "\" op: \"Z40Dequantize\" input: \"" + l[1] +
             "\" attr { key: \"QSCALE\" value { list { f: " + l[2] + " f: " + l[2] + " f: " + l[2] +
             " f: " + l[2] +
             " } } } attr { key: \"offset\" value { i: 0 } }"
             " attr { key: \"output_bitwidth\" value { i: 32 } } }";
  }
  spit(dir.file("m.pbtxt"), chain);
  write_floats(dir.file("in.npy"), {1, 1, 1, 4}, {1, -2, 3, 4});
  const std::string model = dir.file("m.pbtxt") + " -i input=" + dir.file("in.npy");
  Result r = kovra("run -q " + model + " --dump " + dir.file("host"));
  ASSERT_EQ(r.code, 0) << r.out;
  // f1 = .5, -1, 1.5, 2; f2 = 1.5, -3, 4.5, 6; f3 = .375, -.75, 1.125, 1.5.
  EXPECT_TRUE(has_line(r.out, "f3  shape=1x1x1x4  min=-0.75  max=1.5  mean=0.5625")) << r.out;
  r = kovra("run " + dir.file("m.pbtxt") + " -q --start f3 -i f2=" + dir.file("host/f2.bin") +
            " --manifest " + dir.file("host/manifest.tsv"));
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(has_line(r.out, "f3  shape=1x1x1x4  min=-0.75  max=1.5  mean=0.5625")) << r.out;

  r = kovra("verify " + model + " " + dir.file("host"));
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(
      has_line(r.out, "3 node(s) compared: 0 locally out of tolerance, 0 accumulated out of tolerance"))
      << r.out;
  ASSERT_EQ(::mkdir(dir.file("ref").c_str(), 0755), 0);
  for (const char* name : {"f1.bin", "manifest.tsv"}) {
    spit(dir.file(std::string("ref/") + name), slurp(dir.file(std::string("host/") + name)));
  }
  // The reference's f2 computes 7 instead of 6; its f3 is computed from that.
  const float f2[4] = {1.5f, -3, 4.5f, 7}, f3[4] = {0.375f, -0.75f, 1.125f, 1.75f};
  spit(dir.file("ref/f2.bin"), std::string(reinterpret_cast<const char*>(f2), sizeof f2));
  spit(dir.file("ref/f3.bin"), std::string(reinterpret_cast<const char*>(f3), sizeof f3));
  r = kovra("verify " + model + " " + dir.file("ref"));
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_TRUE(
      has_line(r.out, "3 node(s) compared: 1 locally out of tolerance, 2 accumulated out of tolerance"))
      << r.out;
  EXPECT_TRUE(has_line(r.out, "first node that computes differently: f2")) << r.out;
  EXPECT_NE(r.out.find("  <-- computes differently"), std::string::npos) << r.out;
  r = kovra("verify " + model + " " + dir.file("ref") + " --json -");
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_NE(r.out.find("\"first_local\": \"f2\", \"first_accumulated\": \"f2\""), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("verifying"), std::string::npos) << r.out;
  r = kovra("verify " + model + " " + dir.file("ref") + " --json " + dir.file("no/v.json"));
  EXPECT_EQ(r.code, 2) << r.out;
  EXPECT_TRUE(has_line(r.out, "kovra verify: cannot write '" + dir.file("no/v.json") + "'")) << r.out;
  r = kovra("verify " + model + " " + dir.file("ref") + " --html " + dir.file("v.html"));
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_NE(slurp(dir.file("v.html")).find(">First layer that computes differently: f2 (Z40Dequantize)</p>"),
            std::string::npos);
  r = kovra("verify " + model + " " + dir.file("ref") + " --html " + dir.file("no/v.html"));
  EXPECT_EQ(r.code, 2) << r.out;
  EXPECT_TRUE(has_line(r.out, "kovra verify: cannot write '" + dir.file("no/v.html") + "'")) << r.out;
}

TEST(CompareTest, BrokenFoldersFailWithOneLine) {
  TempDir good;
  write_floats(good.file("t.npy"), {2}, {1, 2});
  const struct {
    std::string manifest, file, data;
    std::string line;  // {dir}: the broken folder
    int code;
  } cases[] = {
      {"0\tt.bin\tt\t1xq\tfloat32\t32\n", "t.bin", std::string(8, '\0'),
       "kovra compare: {dir}/manifest.tsv: malformed line 1", 2},
      {"0\tt.txt\tt\t2\tfloat32\t32\n", "t.txt", "", "kovra compare: {dir}/manifest.tsv: malformed line 1",
       2},
      {"0\tt.bin\tt\t2\tfloat32\t32\n", "t.bin", std::string(7, '\0'),
       "kovra compare: {dir}/t.bin: holds 7 bytes but float32 of shape 2 needs 8", 2},
      {"0\tt.bin\tt\t2\tint7\t7\n", "t.bin", std::string(2, '\0'),
       "kovra compare: {dir}/t.bin: unknown dump type 'int7'", 2},
      {"0\tt.bin\tt\t2\tfloat32\t32\n", "other.bin", "", "kovra compare: {dir}/t.bin: cannot read file", 2},
      {"", "t.npy", "not an array", "kovra compare: {dir}/t.npy: not a .npy file (no \\x93NUMPY magic)", 2},
      {"0\tt.bin\tt\t1x3\tfloat32\t32\n", "t.bin", std::string(12, '\0'), "", 1},
  };
  for (const auto& c : cases) {
    TempDir broken;
    if (!c.manifest.empty()) spit(broken.file("manifest.tsv"), c.manifest);
    spit(broken.file(c.file), c.data);
    const Result r = kovra("compare " + broken.path() + " " + good.path());
    EXPECT_EQ(r.code, c.code) << r.out;
    if (c.code == 2) {
      EXPECT_TRUE(has_line(r.out, substitute(c.line, broken.path()))) << r.out;
    } else {
      EXPECT_NE(r.out.find("SHAPE 1x3 vs 2  <-- first divergence"), std::string::npos) << r.out;
    }
  }
}

// ---- running real models -----------------------------------------------------------------

// Two outputs, one of them named with a '/', computed by hand:
// input [-2, -1, 0.5, 7] -> relu [0, 0, 0.5, 7]; sum/out = relu + input; clip = relu6(input).
const char* const kToyModel = R"(
node { name: "input" op: "ZxxNOp" }
node { name: "relu" op: "Z40Relu" input: "input" }
node { name: "sum/out" op: "Z40EltwiseAdd" input: "relu" input: "input" }
node { name: "clip" op: "Z40Relu6" input: "input" }
)";

TEST(CliTest, ToyModelSummaryLinesAndOutDirFilesHoldTheValues) {
  TempDir dir;
  spit(dir.file("toy.pbtxt"), kToyModel);
  const float values[4] = {-2, -1, 0.5f, 7};
  spit(dir.file("in.bin"), std::string(reinterpret_cast<const char*>(values), sizeof(values)));
  // The same values as float64 .npy.
  std::string header = "{'descr': '<f8', 'fortran_order': False, 'shape': (1, 2, 2, 1), }";
  header.append((64 - (10 + header.size() + 1) % 64) % 64, ' ');
  std::string npy =
      std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>(header.size() + 1) + '\0' + header + '\n';
  for (double v : {-2.0, -1.0, 0.5, 7.0}) npy.append(reinterpret_cast<const char*>(&v), 8);
  spit(dir.file("in.npy"), npy);
  const std::string run = "run " + dir.file("toy.pbtxt") + " -i input=";
  Result r = kovra(run + dir.file("in.bin") + ":1x2x2x1");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(has_line(r.out, "sum/out  shape=1x2x2x1  min=-2  max=14  mean=3")) << r.out;
  EXPECT_TRUE(has_line(r.out, "clip  shape=1x2x2x1  min=0  max=6  mean=1.625")) << r.out;

  r = kovra(run + dir.file("in.npy") + " --out-dir " + dir.file("out"));
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(has_line(r.out, "sum/out  shape=1x2x2x1  -> " + dir.file("out") + "/sum_out.npy")) << r.out;
  std::vector<int> shape;
  EXPECT_EQ(read_floats(dir.file("out/sum_out.npy"), &shape), (std::vector<float>{-2, -1, 1, 14}));
  EXPECT_EQ(shape, (std::vector<int>{1, 2, 2, 1}));
  EXPECT_EQ(read_floats(dir.file("out/clip.npy")), (std::vector<float>{0, 0, 0.5f, 6}));
  // In place, relu must not overwrite the input that sum/out reads after it.
  r = kovra(run + dir.file("in.npy") + " --inplace --threads 1 --out-dir " + dir.file("inplace"));
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(read_floats(dir.file("inplace/sum_out.npy")), (std::vector<float>{-2, -1, 1, 14}));

  // --output picks one end node.
  r = kovra(run + dir.file("in.bin") + ":1x2x2x1 --output relu");
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(has_line(r.out, "relu  shape=1x2x2x1  min=0  max=7  mean=1.875")) << r.out;
  EXPECT_EQ(r.out.find("clip  shape"), std::string::npos) << r.out;
}

struct Example {
  const char* name;
  const char* output_file;  // sanitised end node
  double tolerance;         // 0: every value exactly
};

class ExampleTest : public ::testing::TestWithParam<Example> {
 protected:
  std::string model() const { return examples_dir() + "/" + GetParam().name + "_model.pbtxt"; }
  std::string input() const { return "-i input=" + examples_dir() + "/" + GetParam().name + "_input.npy"; }
  std::string expected() const { return examples_dir() + "/" + GetParam().name + "_expected.npy"; }
};

TEST_P(ExampleTest, OutputMatchesTheIndependentReference) {
  TempDir dir;
  const Result r = kovra("run " + model() + " " + input() + " --out-dir " + dir.path());
  ASSERT_EQ(r.code, 0) << r.out;
  std::vector<int> shape, expected_shape;
  const std::vector<float> got = read_floats(dir.file(GetParam().output_file), &shape);
  const std::vector<float> want = read_floats(expected(), &expected_shape);
  EXPECT_EQ(shape, expected_shape);
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    if (GetParam().tolerance == 0.0) {
      EXPECT_EQ(got[i], want[i]) << "element " << i;
    } else {
      EXPECT_NEAR(got[i], want[i], GetParam().tolerance * (1.0 + std::fabs(want[i]))) << "element " << i;
    }
  }
  // Without --out-dir: one summary line per output.
  const Result summary = kovra("run " + model() + " " + input());
  EXPECT_EQ(summary.code, 0);
  EXPECT_FALSE(line_starting(summary.out, std::string(GetParam().name) == "float"
                                              ? "logits/conv  shape=1x3x3x4  min="
                                              : "output/dequantize  shape=1x4x4x4  min=")
                   .empty())
      << summary.out;
}

// A run verified against its own dump is clean, and a dumped tensor (int8 codes for the int8
// model) fed back at a start inside the graph gives the same output bytes.
TEST_P(ExampleTest, OwnDumpVerifiesCleanAndFeedsBack) {
  TempDir dir;
  const bool is_float = std::string(GetParam().name) == "float";
  ASSERT_EQ(
      kovra("run " + model() + " " + input() + " --dump " + dir.file("d") + " --out-dir " + dir.file("o"))
          .code,
      0);
  Result r = kovra("verify " + model() + " " + dir.file("d") + " " + input());
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(
      has_line(r.out, std::string(is_float ? "3" : "4") +
                          " node(s) compared: 0 locally out of tolerance, 0 accumulated out of tolerance"))
      << r.out;
  r = kovra("run " + model() + " --start " + (is_float ? "pool1" : "conv2") +
            " -i conv1=" + dir.file("d/conv1.bin") + " --manifest " + dir.file("d/manifest.tsv") +
            " --out-dir " + dir.file("s"));
  ASSERT_EQ(r.code, 0) << r.out;
  EXPECT_EQ(slurp(dir.file("s/") + GetParam().output_file), slurp(dir.file("o/") + GetParam().output_file));
}

// Dumping, profiling, tracing, inplace mode and thread counts never change a bit; the dump folders
// hold a manifest and compare clean with each other until one tensor is perturbed.
TEST_P(ExampleTest, ObservingTheRunNeverChangesAnOutput) {
  TempDir dir;
  const bool is_float = std::string(GetParam().name) == "float";
  const std::string base = "run " + model() + " " + input() + " --out-dir ";
  ASSERT_EQ(kovra(base + dir.file("plain")).code, 0);
  const std::string reference = slurp(dir.file("plain/") + GetParam().output_file);
  ASSERT_FALSE(reference.empty());
  const char* const variants[] = {"--dump {dir}/a", "--repeat 3 --trace {dir}/t.json", "--inplace",
                                  "--threads 1 --dump {dir}/b", "--threads 2 --inplace --dump {dir}/c"};
  std::string profile;
  for (int index = 0; index < 5; ++index) {
    const std::string out = dir.file("v" + std::to_string(index));
    const Result r = kovra(base + out + " " + substitute(variants[index], dir.path()));
    ASSERT_EQ(r.code, 0) << variants[index] << "\n" << r.out;
    EXPECT_EQ(slurp(out + "/" + GetParam().output_file), reference) << variants[index];
    if (index == 1) profile = r.out;
  }
  // The trace holds one complete event per node and run.
  const std::string trace = slurp(dir.file("t.json"));
  size_t events = 0;
  for (size_t at = 0; (at = trace.find("\"name\": \"conv1\"", at)) != std::string::npos; ++at) ++events;
  EXPECT_EQ(events, 3u) << trace;
  EXPECT_NE(trace.find("\"ph\": \"X\""), std::string::npos);

  // The profile: two convolutions, three runs; rows of the node table ordered by total time.
  EXPECT_FALSE(line_starting(profile, "profile: 3 run(s), ").empty()) << profile;
  std::istringstream conv_row(line_starting(profile, is_float ? "Z40Conv2D " : "Z40Conv2DInt8 "));
  std::string name;
  long long count = 0;
  conv_row >> name >> count;
  EXPECT_EQ(count, 6) << profile;
  std::istringstream lines(profile);
  std::string l;
  double previous = 1e300;
  bool in_nodes = false;
  while (std::getline(lines, l)) {
    if (l.compare(0, 5, "node ") == 0) {
      in_nodes = true;
    } else if (in_nodes && !l.empty()) {
      std::istringstream fields(l);
      double total;
      fields >> name >> count >> total;
      EXPECT_LE(total, previous) << l;
      previous = total;
    }
  }
  EXPECT_TRUE(in_nodes) << profile;

  const std::string manifest = slurp(dir.file("a/manifest.tsv"));
  const std::vector<std::string> manifest_lines =
      is_float ? std::vector<std::string>{"0\tconv1.bin\tconv1\t1x10x10x8\tfloat32\t32\tZ40Conv2D",
                                          "1\tpool1.bin\tpool1\t1x5x5x8\tfloat32\t32\tZ40MaxPool",
                                          "2\tlogits_conv.bin\tlogits/conv\t1x3x3x4\tfloat32\t32\tZ40Conv2D"}
               : std::vector<std::string>{
                     "0\tquantize.bin\tquantize\t1x12x12x3\tint8\t8\tZ40Quantize",
                     "1\tconv1.bin\tconv1\t1x10x10x8\tuint8\t8\tZ40Conv2DInt8",
                     "2\tconv2.bin\tconv2\t1x4x4x4\tint8\t8\tZ40Conv2DInt8",
                     "3\toutput_dequantize.bin\toutput/dequantize\t1x4x4x4\tfloat32\t32\tZ40Dequantize"};
  for (const std::string& line : manifest_lines)
    EXPECT_TRUE(has_line(manifest, line)) << line << "\n" << manifest;
  // The last dump holds exactly the values written to --out-dir.
  const std::string last =
      slurp(dir.file(std::string("a/") + (is_float ? "logits_conv" : "output_dequantize") + ".bin"));
  EXPECT_EQ(last, reference.substr(reference.size() - last.size()));

  Result r = kovra("compare " + dir.file("a") + " " + dir.file("b") + " --rtol 0 --atol 0");
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(
      has_line(r.out, std::to_string(manifest_lines.size()) + " tensor(s) compared, 0 out of tolerance"))
      << r.out;
  // Perturb the second tensor: it is the first divergence, the first stays clean.
  const std::string second = is_float ? "pool1" : "conv1";
  std::string data = slurp(dir.file("b/" + second + ".bin"));
  if (is_float) {
    float v;
    std::memcpy(&v, &data[20], 4);
    v += 1.0f;
    std::memcpy(&data[20], &v, 4);
  } else {
    data[5] = static_cast<char>(data[5] ^ 0x40);
  }
  spit(dir.file("b/" + second + ".bin"), data);
  r = kovra("compare " + dir.file("a") + " " + dir.file("b"));
  EXPECT_EQ(r.code, 1) << r.out;
  CompareRow row;
  ASSERT_TRUE(row_of(r.out, is_float ? "conv1" : "quantize", row)) << r.out;
  EXPECT_EQ(row.verdict, "ok");
  ASSERT_TRUE(row_of(r.out, second, row)) << r.out;
  EXPECT_EQ(row.verdict, "MISMATCH");
  EXPECT_EQ(row.mismatches.substr(0, 2), "1/");
  EXPECT_TRUE(has_line(r.out, "first divergence: " + second)) << r.out;

  // A node's dump matches the same run's --out-dir file exactly: conv2's negative codes
  // (stored wrapped) read back negative.
  const std::string end = is_float ? "pool1" : "conv2";
  ASSERT_EQ(kovra(base + dir.file("o") + " --output " + end + " --dump " + dir.file("d")).code, 0);
  r = kovra("compare " + dir.file("d") + " " + dir.file("o") + " --rtol 0 --atol 0");
  EXPECT_EQ(r.code, 0) << r.out;
  EXPECT_TRUE(has_line(r.out, "1 tensor(s) compared, 0 out of tolerance; " +
                                  std::to_string(is_float ? 1 : 2) + " only in " + dir.file("d") +
                                  ", 0 only in " + dir.file("o")))
      << r.out;
}

TEST_P(ExampleTest, OutputAndStartNodesSelectAPartOfTheGraph) {
  TempDir dir;
  // Stop after the first layer.
  Result r = kovra("run " + model() + " " + input() + " --output conv1 --out-dir " + dir.path());
  ASSERT_EQ(r.code, 0) << r.out;
  std::vector<int> shape;
  read_floats(dir.file("conv1.npy"), &shape);
  EXPECT_EQ(shape, (std::vector<int>{1, 10, 10, 8}));
  // Start at the second layer, fed with the first layer's output.
  const std::string second = std::string(GetParam().name) == "float" ? "pool1" : "conv2";
  const std::string end = std::string(GetParam().name) == "float" ? "logits/conv" : "output/dequantize";
  ASSERT_EQ(kovra("run " + model() + " " + input() + " --out-dir " + dir.file("full")).code, 0);
  r = kovra("run " + model() + " --start " + second + " -i conv1=" + dir.file("conv1.npy") + " --output " +
            end + " --out-dir " + dir.file("part"));
  ASSERT_EQ(r.code, 0) << r.out;
  const std::string file = std::string(GetParam().output_file);
  EXPECT_EQ(slurp(dir.file("part/" + file)), slurp(dir.file("full/" + file)));
}

INSTANTIATE_TEST_SUITE_P(Examples, ExampleTest,
                         ::testing::Values(Example{"float", "logits_conv.npy", 1e-5},
                                           Example{"int8", "output_dequantize.npy", 0.0}),
                         [](const ::testing::TestParamInfo<Example>& info) { return info.param.name; });

}  // namespace
}  // namespace kovra_test
