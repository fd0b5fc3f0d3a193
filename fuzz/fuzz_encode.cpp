// encode from arbitrary CSV and JSON Lines, against its own decode.
//
// The first byte picks the form (CSV rows of the rest block, or JSON Lines of any block); the rest is the
// text of a reply's records. Whatever encode refuses, it refuses with a
// message and no crash. What it builds must decode without a warning, and the decoded text must encode back
// to the very same bytes: encode's own form is a fixed point.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "../tools/blockproc/Cli.h"
#include "FuzzCheck.h"

namespace blockproc::fuzz {
namespace {

// Every kind of field, a one-record block with an attribute byte, and a block that takes the rest.
const char* const kDefinition = R"(<transaction code='FE' occurslen='2' encoding='cp949'><input/><output>
<block name='Head'><field name='name' type='text' length='6'/><field name='px' type='number' length='9' decimals='2' attr='true'/>
  <field name='n' type='int16'/><field name='d' type='double' decimals='2'/></block>
<block name='Rows' repeat='50' count='rest'><field name='w' type='text' length='4'/><field name='q' type='number' length='5'/>
  <field name='v' type='sint64'/><field name='f' type='float' decimals='1'/><field name='big' type='int64'/></block>
</output></transaction>)";

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

const std::string& scratch() {
  static const std::string dir = [] {
    std::string d = "/tmp/fuzz_encode_" + std::to_string(::getpid());
    std::filesystem::create_directories(d);
    writeFile(d + "/def.xml", kDefinition);
    return d;
  }();
  return dir;
}

// encode of `values` into `output`: false when it refused them.
bool encode(const std::string& values, const std::string& output, const std::string& format) {
  cli::EncodeOptions options;
  options.common.definition = scratch() + "/def.xml";
  options.values = values;
  options.output = output;
  options.format = format;
  options.reply = true;
  options.block = format == "csv" ? "Rows" : "";
  options.quiet = true;
  options.chunkBytes = 5;  // many pieces, to cross every boundary
  try {
    return cli::runEncode(options) == cli::kExitOk;
  } catch (const cli::Failure& failure) {
    require(!failure.message.empty(), "a refusal without a message");
    return false;
  }
}

// The decoded text of `bytes` in `format`, as encode reads it back.
std::string decode(const std::string& bytes, const std::string& format) {
  const std::string dir = scratch() + "/decoded";
  std::filesystem::remove_all(dir);
  cli::DecodeOptions options;
  options.common.definition = scratch() + "/def.xml";
  options.reply = bytes;
  options.format = format;
  options.outputDir = dir;
  options.quiet = true;
  if (format == "csv") options.block = "Rows";
  int code = cli::kExitData;
  try {
    code = cli::runDecode(options);
  } catch (const cli::Failure&) {
    fail("decode refused what encode built");
  }
  require(code == cli::kExitOk, "decode warned about what encode built");
  std::string text;
  for (const char* block : {"Head", "Rows"})
    text += readFile(dir + "/" + block + "." + (format == "csv" ? "csv" : "jsonl"));
  return text;
}

}  // namespace
}  // namespace blockproc::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace blockproc::fuzz;
  if (size < 1 || size > 4096) return 0;
  const std::string format = (data[0] & 1) != 0 ? "csv" : "jsonl";
  const std::string dir = scratch();
  writeFile(dir + "/in.txt", std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1));
  if (!encode(dir + "/in.txt", dir + "/out1.bin", format)) return 0;
  const std::string built = readFile(dir + "/out1.bin");
  writeFile(dir + "/again.txt", decode(dir + "/out1.bin", format));
  require(encode(dir + "/again.txt", dir + "/out2.bin", format), "encode refused its own decoded text");
  require(readFile(dir + "/out2.bin") == built, "decode -> encode changed the bytes encode wrote");
  return 0;
}
