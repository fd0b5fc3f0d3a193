// The blockproc tool run as a program on the bundled sample: golden outputs, the decode -> encode round
// trip, exit codes and messages for bad input.
//
// BLOCKPROC_UPDATE_GOLDEN=1 rewrites the golden files from the tool's output instead of comparing.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace {

const std::string kSource = BLOCKPROC_SOURCE_DIR;
const std::string kDef = "examples/current_price.xml";
const std::string kReply = "examples/current_price.reply";

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string tempPath(const std::string& name) {
  return ::testing::TempDir() + "blockproc_cli_" + std::to_string(getpid()) + "_" + name;
}

struct Outcome {
  int code;
  std::string out, err;
};

// Runs the tool in the source directory with `args` (shell words) and `input` on standard input.
Outcome run(const std::string& args, const std::string& input = "") {
  const std::string in = tempPath("in"), out = tempPath("out"), err = tempPath("err");
  writeFile(in, input);
  const std::string command = "cd '" + kSource + "' && '" BLOCKPROC_CLI_PATH "' " + args + " <'" + in +
                              "' >'" + out + "' 2>'" + err + "'";
  const int status = std::system(command.c_str());
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return {code, readFile(out), readFile(err)};
}

struct Golden {
  const char* what;
  std::string args;
  std::string file;
};

class GoldenOutput : public ::testing::TestWithParam<Golden> {};

TEST_P(GoldenOutput, MatchesExactly) {
  const Golden& g = GetParam();
  const Outcome r = run(g.args);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const std::string path = kSource + "/tests/golden/" + g.file;
  if (std::getenv("BLOCKPROC_UPDATE_GOLDEN") != nullptr) writeFile(path, r.out);
  EXPECT_EQ(r.out, readFile(path));
}

INSTANTIATE_TEST_SUITE_P(
    Sample, GoldenOutput,
    ::testing::Values(
        Golden{"decode_table", "decode " + kDef + " " + kReply, "current_price.table.txt"},
        Golden{"decode_json", "decode " + kDef + " " + kReply + " --format json", "current_price.json"},
        Golden{"decode_csv", "decode " + kDef + " " + kReply + " --format csv", "current_price.csv"},
        Golden{"hexdump", "hexdump " + kDef + " " + kReply, "current_price.hexdump.txt"},
        Golden{"inspect", "inspect " + kDef, "current_price.inspect.txt"},
        Golden{"realtime", "realtime " + kDef + " examples/current_price.stream --block OutBlock1",
               "current_price.realtime.txt"}),
    [](const ::testing::TestParamInfo<Golden>& param) { return std::string(param.param.what); });

TEST(BlockprocCli, DecodesStandardInputAndOneBlock) {
  const Outcome all = run("decode " + kDef + " -", readFile(kSource + "/" + kReply));
  EXPECT_EQ(all.code, 0) << all.err;
  EXPECT_EQ(all.out, readFile(kSource + "/tests/golden/current_price.table.txt"));

  const Outcome one = run("decode " + kDef + " " + kReply + " --block OutBlock1 --format csv");
  EXPECT_EQ(one.code, 0) << one.err;
  EXPECT_EQ(one.out.find("OutBlock,"), std::string::npos);
  EXPECT_NE(one.out.find("OutBlock1,4,cvolume,250\n"), std::string::npos) << one.out;
}

TEST(BlockprocCli, RebuildsTheReplyFromDecodedJson) {
  const std::string reply = readFile(kSource + "/" + kReply);
  const Outcome decoded = run("decode " + kDef + " " + kReply + " --format json");
  ASSERT_EQ(decoded.code, 0) << decoded.err;
  const Outcome encoded = run("encode " + kDef + " - --reply", decoded.out);
  ASSERT_EQ(encoded.code, 0) << encoded.err;
  EXPECT_EQ(encoded.out, reply);
}

TEST(BlockprocCli, EncodesTheValuesFileIntoAFile) {
  const std::string output = tempPath("request.bin");
  const Outcome r = run("encode " + kDef + " examples/current_price.values.json -o '" + output + "'");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(readFile(output), "123450");
}

struct BadInput {
  const char* what;
  std::string args;
  std::string input;
  int code;
  std::string err;  // the whole of standard error, or a part of it when `part` is set
  bool part = false;
};

class BadInputs : public ::testing::TestWithParam<BadInput> {};

TEST_P(BadInputs, ExitWithTheirCodeAndSayWhatToDo) {
  const BadInput& c = GetParam();
  const Outcome r = run(c.args, c.input);
  EXPECT_EQ(r.code, c.code) << r.err;
  if (c.part) {
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
  } else {
    EXPECT_EQ(r.err, c.err);
  }
}

std::string sampleReply() {
  return readFile(kSource + "/" + kReply);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadInputs,
    ::testing::Values(
        BadInput{"missing_definition", "decode missing.xml " + kReply, "", 2,
                 "blockproc: missing.xml: cannot open: No such file or directory\n"
                 "  (give the path of a transaction definition file)\n"},
        BadInput{"missing_reply", "decode " + kDef + " missing.reply", "", 2,
                 "blockproc: cannot open the reply 'missing.reply': No such file or directory\n"
                 "  (check the path, or give - to read standard input)\n"},
        BadInput{
            "malformed_definition", "decode tests/data/unknown_type.xml " + kReply, "", 2,
            "blockproc: tests/data/unknown_type.xml:5: field 'price': unknown type 'nubmer' (expected text, "
            "number, int16, int64, float, double or sint64)\n"
            "  (fix the definition; docs/definition-format.md describes the format)\n"},
        BadInput{"not_xml", "inspect " + kReply, "", 2, "blockproc: examples/current_price.reply:1: ", true},
        BadInput{"short_reply", "decode " + kDef + " -", sampleReply().substr(0, 100), 1,
                 "blockproc: standard input: block OutBlock1 needs 155 bytes for 5 records; 16 remain\n"
                 "  (hexdump shows how the reply's bytes fall into the blocks)\n"},
        BadInput{
            "long_reply", "decode " + kDef + " -", sampleReply() + "xyz", 1,
            "blockproc: standard input: the reply has 242 bytes, but its blocks take 239; 3 remain after "
            "block OutBlock1\n  (hexdump shows how the reply's bytes fall into the blocks)\n"},
        BadInput{
            "hexdump_of_a_long_reply", "hexdump " + kDef + " -", sampleReply() + "xyz", 1,
            "blockproc: standard input: the reply has 242 bytes, but its blocks take 239; 3 remain after "
            "block OutBlock1\n"},
        BadInput{"no_subcommand", "", "", 2, "A subcommand is required", true},
        BadInput{"unknown_option", "decode " + kDef + " " + kReply + " --colour", "", 2, "--colour", true},
        BadInput{"unknown_format", "decode " + kDef + " " + kReply + " --format xml", "", 2, "xml", true},
        BadInput{"unknown_block", "decode " + kDef + " " + kReply + " --block InBlock", "", 2,
                 "blockproc: no output block named 'InBlock'; the reply has OutBlock, OutBlock1\n"},
        BadInput{"unknown_encoding", "decode " + kDef + " " + kReply + " --encoding klingon", "", 2,
                 "blockproc: unknown encoding 'klingon'; use cp949, euc-kr, utf-8, ascii or latin1\n"},
        BadInput{"values_not_json", "encode " + kDef + " -", "{\"InBlock\": ", 1,
                 "blockproc: standard input: not valid JSON: ", true},
        BadInput{
            "value_too_long", "encode " + kDef + " -", R"({"InBlock": {"shcode": "1234567"}})", 1,
            "blockproc: standard input: InBlock.shcode: '1234567' takes 7 bytes; the field holds 6 bytes\n"},
        BadInput{
            "output_block_in_a_request", "encode " + kDef + " -", R"({"OutBlock": {}})", 1,
            "blockproc: standard input: OutBlock is an output block; give --reply to build a reply, or name "
            "input blocks\n"},
        BadInput{"record_not_an_object", "encode " + kDef + " -", R"({"InBlock": [1]})", 1,
                 "blockproc: standard input: InBlock[0] must be an object of field values\n"},
        BadInput{"realtime_without_block", "realtime " + kDef + " examples/current_price.stream", "", 2,
                 "--block is required", true},
        BadInput{"realtime_unknown_block",
                 "realtime " + kDef + " examples/current_price.stream --block Ticks", "", 2,
                 "blockproc: no block named 'Ticks'; the definition has InBlock, OutBlock, OutBlock1\n"},
        BadInput{
            "realtime_partial_record", "realtime " + kDef + " - --block OutBlock1", std::string(40, ' '), 1,
            "blockproc: standard input: the stream holds 40 bytes, not a whole number of 31-byte OutBlock1 "
            "records\n"}),
    [](const ::testing::TestParamInfo<BadInput>& param) { return std::string(param.param.what); });

TEST(BlockprocCli, AnswersHelpAndVersion) {
  const Outcome version = run("--version");
  EXPECT_EQ(version.code, 0);
  EXPECT_EQ(version.out, "blockproc 0.1.0\n");
  for (const char* command : {"", "inspect", "decode", "encode", "hexdump", "realtime"}) {
    const Outcome help = run(std::string(command) + " --help");
    EXPECT_EQ(help.code, 0) << command;
    EXPECT_NE(help.out.find("Usage:"), std::string::npos) << command;
  }
}

// Every cut of the sample reply, and a tick count beyond the reply, is refused without a crash; the
// hexdump still shows what could be read.
TEST(BlockprocCli, RefusesEveryTruncatedReply) {
  const std::string reply = sampleReply();
  for (size_t n = 0; n < reply.size(); n += 7) {
    const Outcome r = run("hexdump " + kDef + " -", reply.substr(0, n));
    EXPECT_EQ(r.code, 1) << n << ": " << r.err;
    EXPECT_NE(r.out.find("Q10100 reply: "), std::string::npos) << n;
  }
  std::string tooMany = reply;
  tooMany[82] = '\x7F';  // OutBlock.cnt, a two-byte integer: 127 ticks
  const Outcome r = run("decode " + kDef + " -", tooMany);
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("block OutBlock1 needs 3,937 bytes for 127 records; 155 remain"), std::string::npos)
      << r.err;
}

}  // namespace
