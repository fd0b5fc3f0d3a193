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
const std::string kDecode = "decode " + kDef + " " + kReply;

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

const std::string kSampleReply = readFile(kSource + "/" + kReply);

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

TEST(BlockprocCli, WritesTheGoldenOutputsExactly) {
  const struct {
    std::string args, file, input;
  } cases[] = {{kDecode, "current_price.table.txt", ""},
               {"decode " + kDef + " -", "current_price.table.txt", kSampleReply},
               {kDecode + " --format json", "current_price.json", ""},
               {kDecode + " --format csv --block OutBlock1", "current_price.OutBlock1.csv", ""},
               {kDecode + " --format jsonl", "current_price.jsonl", ""},
               {kDecode + " --format long", "current_price.long.csv", ""},
               {kDecode + " --raw", "current_price.raw.txt", ""},
               {"hexdump " + kDef + " " + kReply, "current_price.hexdump.txt", ""},
               {"inspect " + kDef, "current_price.layout.txt", ""},
               {"realtime " + kDef + " examples/current_price.stream --block OutBlock1",
                "current_price.realtime.txt", ""}};
  for (const auto& c : cases) {
    const Outcome r = run(c.args, c.input);
    EXPECT_EQ(r.code, 0) << c.args << "\n" << r.err;
    EXPECT_EQ(r.err, "") << c.args;
    const std::string path = kSource + "/tests/golden/" + c.file;
    if (r.code == 0 && std::getenv("BLOCKPROC_UPDATE_GOLDEN") != nullptr) writeFile(path, r.out);
    EXPECT_EQ(r.out, readFile(path)) << c.args;
  }
}

// The decoded JSON (the golden file above) encodes back to the very reply.
TEST(BlockprocCli, RebuildsTheReplyFromDecodedJson) {
  const Outcome r = run("encode " + kDef + " tests/golden/current_price.json --reply");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, kSampleReply);
}

TEST(BlockprocCli, EncodesTheValuesFileIntoAFile) {
  const std::string output = tempPath("request.bin");
  const Outcome r = run("encode " + kDef + " examples/current_price.values.json -o '" + output + "'");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(readFile(output), "123450");
}

TEST(BlockprocCli, ExitsWithTheCodeOfBadInputAndSaysWhatToDo) {
  const std::string decodeIn = "decode " + kDef + " -", encodeIn = "encode " + kDef + " -";
  const std::string hint = "\n  (hexdump shows how the bytes fall into the blocks)\n";
  const std::string tooLong =
      "standard input: the reply has 242 bytes, but its blocks take 239; 3 remain after block OutBlock1";
  std::string tooManyTicks = kSampleReply;
  tooManyTicks[82] = '\x7F';  // OutBlock.cnt, a two-byte integer: 127 ticks
  const struct {
    std::string args, input;
    int code;
    std::string err;  // standard error after "blockproc: ", or a part of it when `part` is set
    bool part = false;
  } cases[] = {
      {"decode missing.xml " + kReply, "", 2,
       "missing.xml: cannot open: No such file or directory\n  (give the path of a transaction definition "
       "file)\n"},
      {"decode " + kDef + " missing.reply", "", 2,
       "missing.reply: cannot open: No such file or directory\n"
       "  (check the path, or give - to read standard input)\n"},
      // A directory is refused in one line with the usage code, as the definition or as the data.
      {"decode examples " + kReply, "", 2,
       "examples: is a directory, not a file\n  (give the path of a transaction definition file)\n"},
      {"decode " + kDef + " examples", "", 2,
       "examples: is a directory, not a file\n  (check the path, or give - to read standard input)\n"},
      {"decode - -", "", 2, "the definition and the data cannot both come from standard input\n"},
      {"decode tests/data/unknown_type.xml " + kReply, "", 2,
       "tests/data/unknown_type.xml:5: field 'price': unknown type 'nubmer' (expected text, number, int16, "
       "int64, float, double or sint64)\n  (fix the definition; docs/definition-format.md describes the "
       "format)\n"},
      {"inspect " + kReply, "", 2, "blockproc: examples/current_price.reply:1: ", true},  // not XML
      {decodeIn, kSampleReply.substr(0, 100), 1,
       "standard input: block OutBlock1 needs 155 bytes for 5 records; 16 remain" + hint},
      {decodeIn, tooManyTicks, 1,
       "standard input: block OutBlock1 holds at most 20 records (its repeat); the reply has 127 records" +
           hint},
      {decodeIn, kSampleReply + "xyz", 1, tooLong + hint},
      {"hexdump " + kDef + " -", kSampleReply + "xyz", 1, tooLong + "\n"},
      {"", "", 2, "A subcommand is required", true},
      {kDecode + " --colour", "", 2, "--colour", true},
      {kDecode + " --format xml", "", 2, "xml", true},
      {kDecode + " --block InBlock", "", 2,
       "no output block named 'InBlock'; the reply has OutBlock, OutBlock1\n"},
      {kDecode + " --encoding klingon", "", 2,
       "unknown encoding 'klingon'; use cp949, euc-kr, utf-8, ascii or latin1\n"},
      {encodeIn, "{\"InBlock\": ", 1, "blockproc: standard input: not valid JSON: ", true},
      {encodeIn, R"({"InBlock": {"shcode": "1234567"}})", 1,
       "standard input: block InBlock, record 0, field shcode: '1234567' takes 7 bytes; the field holds 6 "
       "bytes\n"},
      {encodeIn, R"({"OutBlock": {}})", 1,
       "standard input: OutBlock is an output block; give --reply to build a reply, or name input blocks\n"},
      {encodeIn, R"({"InBlock": [1]})", 1, "standard input: InBlock[0] must be an object of field values\n"},
      {"realtime " + kDef + " examples/current_price.stream", "", 2, "--block is required", true},
      {"realtime " + kDef + " examples/current_price.stream --block Ticks", "", 2,
       "no block named 'Ticks'; the definition has InBlock, OutBlock, OutBlock1\n"},
      {"realtime " + kDef + " - --block OutBlock1", std::string(40, ' '), 1,
       "standard input: the stream holds 40 bytes, not a whole number of 31-byte OutBlock1 records\n"}};
  for (const auto& c : cases) {
    const Outcome r = run(c.args, c.input);
    EXPECT_EQ(r.code, c.code) << c.args << "\n" << r.err;
    if (c.part) {
      EXPECT_NE(r.err.find(c.err), std::string::npos) << c.args << "\n" << r.err;
    } else {
      EXPECT_EQ(r.err, "blockproc: " + c.err) << c.args;
    }
  }
}

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

// Every cut of the sample reply is refused without a crash; the hexdump still shows what could be read.
TEST(BlockprocCli, RefusesEveryTruncatedReply) {
  for (size_t n = 0; n < kSampleReply.size(); n += 7) {
    const Outcome r = run("hexdump " + kDef + " -", kSampleReply.substr(0, n));
    EXPECT_EQ(r.code, 1) << n << ": " << r.err;
    EXPECT_NE(r.out.find("Q10100 reply: "), std::string::npos) << n;
  }
}

}  // namespace
