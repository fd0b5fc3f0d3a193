// The blockproc tool run as a program on the bundled sample: golden outputs, the decode -> encode round
// trip, exit codes and messages for bad input.
//
// BLOCKPROC_UPDATE_GOLDEN=1 rewrites the golden files from the tool's output instead of comparing.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "../bench/QuoteLayout.h"
#include "ToolRun.h"

namespace {

using namespace tooltest;

const std::string kDef = "examples/current_price.xml";
const std::string kReply = "examples/current_price.reply";
const std::string kDecode = "decode " + kDef + " " + kReply;

const std::string kSampleReply = readFile(kSource + "/" + kReply);

TEST(BlockprocCli, WritesTheGoldenOutputsExactly) {
  const struct {
    std::string args, file, input;
  } cases[] = {{kDecode, "current_price.table.txt", ""},
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
  const std::string hint =
      "\n  (hexdump shows how the bytes fall into the blocks)\n"
      "  (blockproc check examples/current_price.xml - names the likeliest layout change)\n";
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
      // A directory is refused in one line with the usage code.
      {"decode examples " + kReply, "", 2,
       "examples: is a directory, not a file\n  (give the path of a transaction definition file)\n"},
      {"decode - -", "", 2, "the definition and the data cannot both come from standard input\n"},
      {"decode tests/data/unknown_type.xml " + kReply, "", 2,
       "tests/data/unknown_type.xml:5: field 'price': unknown type 'nubmer' (expected text, number, int16, "
       "int64, float, double or sint64)\n  (fix the definition; docs/definition-format.md describes the "
       "format)\n"},
      {"inspect " + kReply, "", 2, "blockproc: examples/current_price.reply:1: ", true},  // not XML
      {decodeIn, kSampleReply.substr(0, 100), 1,
       "standard input: block OutBlock1 needs 155 bytes for 5 records; 16 remain\n"
       "  likeliest: the data is cut short 16 bytes into a record (100% of sampled values read cleanly with "
       "it)" +
           hint},
      {decodeIn, tooManyTicks, 1,
       "standard input: block OutBlock1 holds at most 20 records (its repeat); the reply has 127 records\n"
       "  likeliest: the data ends before the records its counts promise (100% of sampled values read "
       "cleanly with it)" +
           hint},
      {decodeIn, kSampleReply + "xyz", 1, tooLong + hint},
      {"hexdump " + kDef + " -", kSampleReply + "xyz", 1,
       tooLong + "\n  (blockproc check examples/current_price.xml - names the likeliest layout change)\n"},
      {"", "", 2, "A subcommand is required", true},
      {kDecode + " --colour", "", 2, "--colour", true},
      {kDecode + " --format xml", "", 2, "xml", true},
      // The words a usage message repeats are shown printable, as names and values are.
      {kDecode + " --format \"$(printf 'x\\033[2J')\"", "", 2, "x\\x1B[2J not in", true},
      {kDecode + " \"$(printf -- '--x\\033')\"", "", 2, "--x\\x1B", true},
      {kDecode + " --block InBlock", "", 2,
       "no output block named 'InBlock'; the reply has OutBlock, OutBlock1\n"},
      {kDecode + " --encoding klingon", "", 2,
       "unknown encoding 'klingon'; use cp949, euc-kr, utf-8, ascii or latin1\n"},
      {encodeIn, "{\"InBlock\": ", 1,
       "standard input, line 1: not valid JSON: the input ends before the value of 'InBlock'\n"},
      {encodeIn, R"({"InBlock": {"shcode": "1234567"}})", 1,
       "standard input, line 1: block InBlock, record 0, field shcode: '1234567' takes 7 bytes; the field "
       "holds 6 "
       "bytes\n"},
      {encodeIn, R"({"OutBlock": {}})", 1,
       "standard input, line 1: OutBlock is an output block; give --reply to build a reply, or name input "
       "blocks\n"},
      {encodeIn, R"({"InBlock": [1]})", 1,
       "standard input, line 1: block InBlock, record 0 must be an object of field values\n"},
      {encodeIn, R"({"InBlock": [{}, {"shcode": true}]})", 1,
       "standard input, line 1: block InBlock, record 1, field shcode: must be a string, a number or null\n"},
      // Nothing a values file says is dropped unwritten.
      {encodeIn, R"({"InBlock": {"shcode": "005930", "shcode": "000660"}})", 1,
       "standard input, line 1: 'shcode' is given twice in one record\n"},
      {encodeIn, R"({"blocks": {"InBlock": {}}, "OutBlock": {}})", 1,
       "standard input, line 1: OutBlock stands beside \"blocks\"; give every block inside it\n"},
      {encodeIn, R"({"code": "Q99999", "InBlock": {}})", 1,
       "standard input, line 1: \"code\" is \"Q99999\"; the definition is for Q10100\n"},
      {"realtime " + kDef + " examples/current_price.stream", "", 2, "--block is required", true},
      {"realtime " + kDef + " examples/current_price.stream --block Ticks", "", 2,
       "no block named 'Ticks'; the definition has InBlock, OutBlock, OutBlock1\n"},
      {"realtime " + kDef + " - --block OutBlock1", std::string(40, ' '), 1,
       "standard input: the stream holds 40 bytes, not a whole number of 31-byte OutBlock1 records\n"
       "  likeliest: field `cvolume` is 1 byte shorter (100% of "
       "sampled "
       "values read cleanly with it; 0% of `cvolume` values as defined; the data would also be cut short)\n"
       "  (blockproc check examples/current_price.xml - --stream --block OutBlock1 shows the evidence)\n"}};
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

// `blockproc view` starts blockproc-view from its own folder to serve the page; a blockproc copied away
// from it says so, and how to have the page all the same.
TEST(BlockprocCli, SaysWhenTheViewServerIsMissing) {
  const std::filesystem::path tool = BLOCKPROC_CLI_PATH;
  if (!std::filesystem::exists(tool.parent_path() / "blockproc-view"))
    GTEST_SKIP() << "built without the server";
  const std::string dir = tempPath("alone");
  std::filesystem::create_directories(dir);
  std::filesystem::copy_file(tool, dir + "/blockproc", std::filesystem::copy_options::overwrite_existing);
  const std::string err = tempPath("alone.err");
  const std::string command =
      "cd '" + kSource + "' && '" + dir + "/blockproc' view " + kDef + " " + kReply + " 2>'" + err + "'";
  const int status = std::system(command.c_str());
  EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 2);
  EXPECT_EQ(readFile(err),
            "blockproc: cannot start " + dir +
                "/blockproc-view to serve the page: No such file or directory; install it beside "
                "blockproc, or write the page as a file with --html FILE\n");
}

// Each command's help lists the options it takes (the tuning --chunk-bytes left out) and exits 0; the
// version is the project's, not a placeholder.
TEST(BlockprocCli, AnswersHelpAndVersion) {
  const Outcome version = run("--version");
  EXPECT_EQ(version.code, 0);
  EXPECT_TRUE(version.out.starts_with("blockproc ") && version.out.ends_with("\n")) << version.out;
  EXPECT_EQ(version.out.find_first_not_of("0123456789.\n", 10), std::string::npos) << version.out;
  const std::pair<std::string, std::vector<std::string>> commands[] = {
      {"", {"inspect", "decode", "encode", "hexdump", "realtime", "check", "--version"}},
      {"decode",
       {"--format", "--block", "--output-dir", "--request", "--raw", "--encoding", "--jobs", "--quiet"}},
      {"encode", {"--output", "--reply", "--format", "--stream", "--strict", "--quiet"}},
      {"check", {"--block", "--request", "--stream", "--format"}},
      {"hexdump", {"--request", "--records", "--show-secrets"}},
      {"realtime", {"--block", "--keep", "--format", "--jobs", "--order", "--follow", "--show-secrets"}}};
  for (const auto& [command, options] : commands) {
    const Outcome help = run(command + " --help");
    EXPECT_EQ(help.code, 0) << command;
    for (const std::string& option : options)
      EXPECT_NE(help.out.find(option), std::string::npos) << command << " --help lacks " << option;
    EXPECT_EQ(help.out.find("--chunk-bytes"), std::string::npos) << command;
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

// A reply of one block with a field of every type; the tests write it to a file of their own.
const std::string kAllTypes = R"(<transaction code='T9'><input>
<block name='In'><field name='code' type='text' length='4'/><field name='qty' type='number' length='6' decimals='2'/></block>
</input><output>
<block name='Out'><field name='txt' type='text' length='3'/><field name='num' type='number' length='10' decimals='2'/>
  <field name='wide' type='number' length='21' decimals='2'/><field name='small' type='number' length='3' decimals='1'/>
  <field name='whole' type='number' length='8'/><field name='i16' type='int16'/><field name='totvol' type='sint64'/>
  <field name='f0' type='float'/><field name='f2' type='float' decimals='2'/><field name='d0' type='double'/></block>
<block name='Rows' repeat='10' count='rest'><field name='v' type='text' length='1'/></block>
</output></transaction>)";

std::string allTypesPath() {
  static const std::string path = [] {
    const std::string p = tempPath("all_types.xml");
    writeFile(p, kAllTypes);
    return p;
  }();
  return path;
}

// Values that fit come back exactly, and decode's JSON encodes back to the same bytes; values that do not
// are refused with block, record, field and why.
TEST(BlockprocCli, EncodesValuesExactlyOrRefusesThem) {
  const std::string def = allTypesPath();
  const std::string kNotAByte =
      "field num@attr: must be an attribute byte: 0 to 255, or hexadecimal text such as \"0x35\"";
  const struct {
    std::string field, value, decoded;  // decoded: the JSON member decode writes, or the refusal
  } cases[] = {{"totvol", "\"-42\"", "\"totvol\": -42"},
               {"num", "1234567.8", "\"num\": 1234567.80"},
               {"d0", "2.5e3", "\"d0\": 2500"},
               // A double takes every value it holds and shows the shortest text of it.
               {"d0", "288230376151711744", "\"d0\": 288230376151711740"},
               {"d0", "2305843009213693952", "\"d0\": 2305843009213694000"},
               {"d0", "1092378358114.84375", "\"d0\": 1092378358114.8438"},
               {"d0", "10300.921", "\"d0\": 10300.921"},
               {"f2", "1.005", "\"f2\": 1.005"},
               {"d0", "\"288230376151711745\"",
                "field d0: '288230376151711745' is not held exactly by a double (it would read back as "
                "288230376151711740)"},
               // No value: a number stays blank, and decodes as null again.
               {"whole", "null", "\"whole\": null"},
               {"num", "\"\"", "\"num\": null"},
               {"num", "\"0.125\"", "field num: '0.125' has 3 decimal places; the field holds 2"},
               {"txt", "\"ABCD\"", "field txt: 'ABCD' takes 4 bytes; the field holds 3 bytes"},
               {"num@attr", "\"0x100\"", kNotAByte},
               {"num@attr", "256", kNotAByte},
               {"num@attr", "-1", kNotAByte},
               {"num@attr", "\"+5\"", kNotAByte},
               {"num@attr", "53.0", kNotAByte}};
  for (const auto& c : cases) {
    const std::string values = "{\"Out\": {\"" + c.field + "\": " + c.value + "}}";
    const Outcome built = run("encode '" + def + "' - --reply", values);
    if (c.decoded.starts_with("field")) {
      EXPECT_EQ(built.code, 1) << values;
      EXPECT_EQ(built.err, "blockproc: standard input, line 1: block Out, record 0, " + c.decoded + "\n")
          << values;
      continue;
    }
    ASSERT_EQ(built.code, 0) << values << built.err;
    const Outcome json = run("decode '" + def + "' - --format json", built.out);
    EXPECT_EQ(json.code, 0) << values << json.err;
    EXPECT_NE(json.out.find(c.decoded), std::string::npos) << values << json.out;
    const Outcome again = run("encode '" + def + "' - --reply", json.out);
    EXPECT_EQ(again.out, built.out) << values << again.err;
  }
}

// Bytes that are not text in the encoding are shown escaped, never blanked; the output is complete, a
// warning names the place and the exit code is 1.
TEST(BlockprocCli, ShowsBadBytesAndExitsWithOne) {
  const std::string def = allTypesPath();
  const std::string reply = std::string(
                                "A\xFF"
                                "B") +
                            "0000000.00" + std::string(21 + 3 + 8, '0') +
                            std::string(2 + 8 + 4 + 4 + 8, '\0');
  const std::string warning = "blockproc: warning: block Out, record 0, field txt: byte 1 (0xFF) is not ";
  const struct {
    std::string args, part;
  } cases[] = {{"", "A\\xFFB\n"},
               {" --format csv --block Out", "\nA\\xFFB,0.00,"},
               {" --format json",
                "\"txt\": \"A\xEF\xBF\xBD"
                "B\",\n      \"txt@hex\": \"41ff42\""},
               {" --format jsonl",
                "\"txt\":\"A\xEF\xBF\xBD"
                "B\",\"txt@hex\":\"41ff42\""},
               {" --encoding ascii --format long", "Out,0,txt,A\\xFFB"}};
  for (const auto& c : cases) {
    const Outcome r = run("decode '" + def + "' -" + c.args, reply);
    EXPECT_EQ(r.code, 1) << c.args;
    EXPECT_NE(r.out.find(c.part), std::string::npos) << c.args << "\n" << r.out;
    EXPECT_TRUE(r.err.starts_with(warning)) << c.args << "\n" << r.err;
  }
  // Bytes 0x80 to 0xA0 are no EUC-KR text, though the C library's converter would pass them.
  std::string eucKr = reply;
  eucKr[1] = '\x80';
  const Outcome r = run("decode '" + def + "' - --encoding euc-kr --format long", eucKr);
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.out.find("Out,0,txt,A\\x80B"), std::string::npos) << r.out;
  EXPECT_TRUE(r.err.starts_with(
      "blockproc: warning: block Out, record 0, field txt: byte 1 (0x80) is not euc-kr text"))
      << r.err;
}

// A capture as a gateway writes it (computed averages and ratios, blank numbers, points left out, negatives,
// Hangul) decodes in every format without a warning, and its decoded JSON encodes back to the same bytes.
TEST(BlockprocCli, DecodesAComputedCaptureAndBuildsItsBytesAgain) {
  constexpr int kRecords = 3000;
  const std::string def = tempPath("quotes.xml"), capture = tempPath("quotes.bin");
  writeFile(def, blockproc::quote::definitionXml(kRecords, blockproc::quote::Values::Computed));
  blockproc::quote::Dice dice;
  std::string bytes;
  for (int i = 0; i < kRecords; ++i)
    bytes += blockproc::quote::quoteRecord(dice, blockproc::quote::Values::Computed);
  writeFile(capture, bytes);
  const std::string decode = "decode '" + def + "' '" + capture + "'";
  for (const char* format : {"table", "json", "jsonl", "csv", "long"}) {
    const Outcome r = run(decode + " --format " + format);
    EXPECT_EQ(r.code, 0) << format;
    EXPECT_EQ(r.err, "") << format;
  }
  const Outcome json = run(decode + " --format json");
  EXPECT_NE(json.out.find("\"volume\": null"), std::string::npos);
  const Outcome back = run("encode '" + def + "' - --reply", json.out);
  ASSERT_EQ(back.code, 0) << back.err;
  EXPECT_TRUE(back.out == bytes);  // 360,000 bytes: not printed when they differ
}

TEST(BlockprocCli, ChecksWhatItReadsAndWrites) {
  const std::string def = allTypesPath();
  const std::string reply =
      "ABC0000000.00" + std::string(21 + 3 + 8, '0') + std::string(2 + 8 + 4 + 4 + 8, '\0');
  const Outcome csv = run("decode '" + def + "' - --format csv", reply);
  EXPECT_EQ(csv.code, 2);
  EXPECT_EQ(
      csv.err,
      "blockproc: CSV holds one block, and the reply has 2; pick one with --block, or give --output-dir "
      "DIR for one file per block\n");
  // A failed write of the output is an error.
  for (const std::string& args :
       {kDecode, "hexdump " + kDef + " " + kReply, "inspect " + kDef,
        "realtime " + kDef + " examples/current_price.stream --block OutBlock1 --jobs 2 --chunk-bytes 200"}) {
    const std::string err = tempPath("err");
    const std::string command =
        "cd '" + kSource + "' && '" BLOCKPROC_CLI_PATH "' " + args + " >/dev/full 2>'" + err + "'";
    const int status = std::system(command.c_str());
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 1) << args;
    EXPECT_EQ(readFile(err), "blockproc: cannot write to standard output: No space left on device\n") << args;
  }
  // One file per block, and the definition from standard input.
  const std::string dir = tempPath("blocks");
  writeFile(tempPath("reply"), reply + "xy");
  const Outcome r =
      run("decode - '" + tempPath("reply") + "' --format csv --output-dir '" + dir + "'", kAllTypes);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(readFile(dir + "/Rows.csv"), "v\nx\ny\n");
  EXPECT_TRUE(
      readFile(dir + "/Out.csv").starts_with("txt,num,wide,small,whole,i16,totvol,f0,f2,d0\nABC,0.00,"));
}

// A stream of a one-record block's records is shown as records, newest first, in every format, with the
// same output from threads side by side (the definition itself is not made a repeated block for it).
TEST(BlockprocCli, ShowsTheStreamOfAOneRecordBlockAsRecords) {
  const std::string def = allTypesPath();
  const auto record = [](const std::string& txt) {
    return txt + "0000000.00" + std::string(21 + 3 + 8, '0') + std::string(2 + 8 + 4 + 4 + 8, '\0');
  };
  const std::string stream = tempPath("out_stream");
  writeFile(stream, record("ABC") + record("XYZ"));
  const std::string realtime = "realtime '" + def + "' '" + stream + "' --block Out --format ";
  const std::string rest = R"(,"num":0.00,"wide":0.00,"small":0.0,"whole":0,"i16":0,"totvol":0,"f0":0,)"
                           R"("f2":0.00,"d0":0})";
  const struct {
    std::string format, part;
  } cases[] = {{"jsonl", R"({"@block":"Out","@record":0,"txt":"XYZ")" + rest + "\n" +
                             R"({"@block":"Out","@record":1,"txt":"ABC")" + rest + "\n"},
               {"json", "\"Out\": [\n      {\n        \"txt\": \"XYZ\""},
               {"table", "Out: 2 records\n#  txt"}};
  for (const auto& c : cases) {
    const Outcome r = run(realtime + c.format);
    EXPECT_EQ(r.code, 0) << c.format << r.err;
    EXPECT_NE(r.out.find(c.part), std::string::npos) << c.format << "\n" << r.out;
    EXPECT_EQ(run(realtime + c.format + " --jobs 2 --chunk-bytes 71").out, r.out) << c.format;
  }
}

// A request built by encode is read back by decode and hexdump with --request.
TEST(BlockprocCli, ReadsRequestsBack) {
  const std::string def = allTypesPath();
  const Outcome built = run("encode '" + def + "' -", R"({"In": {"code": "AB", "qty": 12.5}})");
  ASSERT_EQ(built.code, 0) << built.err;
  EXPECT_EQ(built.out, "AB  012.50");
  const Outcome decoded = run("decode '" + def + "' - --request --format jsonl", built.out);
  EXPECT_EQ(decoded.out, "{\"@block\":\"In\",\"@record\":0,\"code\":\"AB\",\"qty\":12.50}\n") << decoded.err;
  const Outcome dump = run("hexdump '" + def + "' - --request", built.out);
  EXPECT_EQ(dump.code, 0) << dump.err;
  EXPECT_NE(dump.out.find("00000004  30 31 32 2e 35 30"), std::string::npos) << dump.out;
  EXPECT_TRUE(dump.out.ends_with("In.qty   12.50\n")) << dump.out;
}

// ---- names, secrets and CSV rows ----------------------------------------------------------------------

std::string definitionFile(const std::string& name, const std::string& xml) {
  const std::string path = tempPath(name);
  writeFile(path, xml);
  return path;
}

// --output-dir writes only inside the folder it is given: a name that would lead out is refused before any
// file is made, and a symbolic link of a block's file name is refused rather than followed.
TEST(BlockprocCli, KeepsEveryFileInsideTheOutputDirectory) {
  const std::string top = tempPath("od"), dir = top + "/sub";
  std::system(("rm -rf '" + top + "' && mkdir -p '" + dir + "'").c_str());
  const std::string escaping = definitionFile(
      "escape.xml",
      "<transaction code='T1'><output>\n<block name='../../escape'><field name='x' type='text' length='3'/>"
      "</block>\n</output></transaction>\n");
  const std::string outside = ::testing::TempDir() + "escape.csv";
  std::remove(outside.c_str());
  const Outcome refused = run("decode '" + escaping + "' - --format csv --output-dir '" + dir + "'", "abc");
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.err, "blockproc: " + escaping +
                             ":2: block name '../../escape' holds '/'; a block's name becomes a file name "
                             "(decode --output-dir), so names hold no / or \\\n  (fix the definition; "
                             "docs/definition-format.md describes the format)\n");
  EXPECT_EQ(readFile(outside), "");
  EXPECT_EQ(std::system(("test -z \"$(ls -A '" + top + "/sub')\"").c_str()), 0);

  const std::string def =
      definitionFile("one.xml",
                     "<transaction code='T1'><output><block name='B'><field name='x' type='text' length='3'/>"
                     "</block></output></transaction>");
  const std::string victim = tempPath("victim");
  writeFile(victim, "keep");
  ASSERT_EQ(::symlink(victim.c_str(), (dir + "/B.csv").c_str()), 0);
  const Outcome linked = run("decode '" + def + "' - --format csv --output-dir '" + dir + "'", "abc");
  EXPECT_EQ(linked.code, 1);
  EXPECT_EQ(linked.err, "blockproc: cannot write '" + dir +
                            "/B.csv': it is a symbolic link; blockproc writes only files of the directory "
                            "itself\n");
  EXPECT_EQ(readFile(victim), "keep");
  // A file of its own is written as always.
  const Outcome json = run("decode '" + def + "' - --format jsonl --output-dir '" + dir + "'", "abc");
  EXPECT_EQ(json.code, 0) << json.err;
  EXPECT_EQ(readFile(dir + "/B.jsonl"), "{\"@block\":\"B\",\"@record\":0,\"x\":\"abc\"}\n");
}

// A JSON line's own members hold '@', which no field name may: fields named block and record keep their
// values beside them, and nothing is lost to a repeated key.
TEST(BlockprocCli, KeepsJsonLinesKeysApartFromFields) {
  const std::string def = definitionFile(
      "keys.xml",
      "<transaction code='T1'><output><block name='B' repeat='3' count='rest'>"
      "<field name='block' type='text' length='4'/><field name='record' type='number' length='2'/>"
      "</block></output></transaction>");
  const Outcome r = run("decode '" + def + "' - --format jsonl", "abcd12wxyz34");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out,
            "{\"@block\":\"B\",\"@record\":0,\"block\":\"abcd\",\"record\":12}\n"
            "{\"@block\":\"B\",\"@record\":1,\"block\":\"wxyz\",\"record\":34}\n");
  for (const char* name : {"@block", "@record"}) {
    const std::string taken = definitionFile(
        "taken.xml", std::string("<transaction code='T1'><output><block name='B'><field name='") + name +
                         "' type='int16'/></block></output></transaction>");
    const Outcome refused = run("decode '" + taken + "' - --format jsonl", "ab");
    EXPECT_EQ(refused.code, 2) << name;
    EXPECT_NE(refused.err.find(std::string("field name '") + name + "' holds '@'"), std::string::npos)
        << refused.err;
  }
}

// A field flagged password shows as ******** wherever records are shown, whatever its type, unless
// --show-secrets; the mask is never encoded back as the password.
TEST(BlockprocCli, MasksPasswordsUnlessAskedToShowThem) {
  const std::string def = definitionFile(
      "secret.xml",
      "<transaction code='T1'><output><block name='Acct' repeat='5' count='rest'>"
      "<field name='acct' type='text' length='4'/><field name='pwd' type='text' length='6' password='true'/>"
      "<field name='pin' type='number' length='4' password='true'/></block></output></transaction>");
  const std::string reply =
      "A001secret1234A002\xFF"
      "bcdef0042";  // a bad byte in a password too
  const std::string stream = tempPath("secret.bin");
  writeFile(stream, reply);
  const std::string decode = "decode '" + def + "' - ", mask = "********";
  const struct {
    std::string args, masked, shown;  // a part of the output without and with --show-secrets
  } cases[] = {
      {decode, "0  A001  " + mask + "  " + mask + "\n", "0  A001  secret   1234\n"},
      {decode + "--raw", "0  A001  " + mask + "  " + mask + "\n", "0  A001  secret   1234\n"},
      {decode + "--format csv", "acct,pwd,pin\nA001," + mask + "," + mask + "\n", "A001,secret,1234\n"},
      {decode + "--format long", "Acct,0,pwd," + mask + "\nAcct,0,pin," + mask + "\n",
       "Acct,0,pwd,secret\nAcct,0,pin,1234\n"},
      {decode + "--format jsonl", "\"acct\":\"A001\",\"pwd\":\"" + mask + "\",\"pin\":\"" + mask + "\"}",
       "\"acct\":\"A001\",\"pwd\":\"secret\",\"pin\":1234}"},
      {decode + "--format json", "\"pwd\": \"" + mask + "\",\n        \"pin\": \"" + mask + "\"",
       "\"pwd\": \"secret\",\n        \"pin\": 1234"},
      {"hexdump '" + def + "' -", "00000004  ** ** ** ** ** **", "00000004  73 65 63 72 65 74"},
      {"hexdump '" + def + "' -", "Acct[0].pwd   " + mask + "\n", "Acct[0].pwd   secret\n"},
      {"realtime '" + def + "' '" + stream + "' --block Acct --format csv",
       "A001," + mask + "," + mask + "\n", "A001,secret,1234\n"}};
  for (const auto& c : cases) {
    const Outcome masked = run(c.args, reply), shown = run(c.args + " --show-secrets", reply);
    EXPECT_EQ(masked.code, 0) << c.args << "\n" << masked.err;
    EXPECT_EQ(masked.err, "") << c.args;  // the bad byte of a masked field is not told either
    EXPECT_NE(masked.out.find(c.masked), std::string::npos) << c.args << "\n" << masked.out;
    EXPECT_EQ(masked.out.find("secret"), std::string::npos) << c.args;
    EXPECT_EQ(masked.out.find("1234"), std::string::npos) << c.args;
    EXPECT_NE(shown.out.find(c.shown), std::string::npos) << c.args << "\n" << shown.out;
  }
  const std::string clean = reply.substr(0, 14);
  const Outcome json = run(decode + "--format json", clean);
  const Outcome back = run("encode '" + def + "' - --reply", json.out);
  EXPECT_EQ(back.code, 1);
  EXPECT_EQ(
      back.err,
      "blockproc: standard input, line 5: block Acct, record 0, field pwd: is the mask decode shows for a "
      "password, not the password; decode with --show-secrets to keep it\n");
  const Outcome secrets = run(decode + "--format json --show-secrets", clean);
  const Outcome same = run("encode '" + def + "' - --reply", secrets.out);
  EXPECT_EQ(same.code, 0) << same.err;
  EXPECT_EQ(same.out, clean);
}

// Every record is a line of its own in CSV: an empty value alone on its row is written "", and a value that
// holds a comma, a quote or a line break, or starts or ends with a space, is quoted.
TEST(BlockprocCli, WritesEveryCsvRecordAsALine) {
  const std::string def =
      definitionFile("column.xml",
                     "<transaction code='T1'><output><block name='B' repeat='9' count='rest'>"
                     "<field name='v' type='text' length='3'/></block></output></transaction>");
  const std::string reply = std::string("   a,bq\"x ab") + "x\ny" + "\t z" + "abc";
  const Outcome r = run("decode '" + def + "' - --format csv", reply);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "v\n\"\"\n\"a,b\"\n\"q\"\"x\"\n\" ab\"\n\"x\ny\"\n\"\t z\"\nabc\n");
  // Two columns: the empty value needs no quotes, the row is not blank.
  const std::string two = definitionFile(
      "two.xml",
      "<transaction code='T1'><output><block name='B' repeat='9' count='rest'>"
      "<field name='v' type='text' length='3'/><field name='n' type='number' length='3'/></block></output>"
      "</transaction>");
  EXPECT_EQ(run("decode '" + two + "' - --format csv", "      ").out, "v,n\n,\n");
  // Realtime writes the same rows; a long stream's rows are never blank lines either.
  const std::string blanks = tempPath("blanks.bin");
  writeFile(blanks, std::string(3 * 400000, ' '));
  const Outcome many = run("realtime '" + def + "' '" + blanks + "' --block B --format csv");
  EXPECT_EQ(many.code, 0) << many.err;
  std::string expected = "v\n";
  for (int i = 0; i < 400000; ++i) expected += "\"\"\n";
  EXPECT_EQ(many.out, expected);
}

}  // namespace
