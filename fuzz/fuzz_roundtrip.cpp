// decode -> encode -> decode over arbitrary definitions and bytes.
//
// The front of the input draws a definition (up to three output blocks of up to six fields of any type,
// length and decimals, in any encoding, one-record or repeated with any count rule); the rest is a reply.
// When the reply splits and every value renders without an issue, the values as shown (a blank number as no
// value, as JSON shows it null) are built into a reply again: the build must succeed, the new reply must
// split and render to the very same values, and building those again must give the very same bytes (what the
// encoder writes comes back byte for byte).

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "blockproc/engine/DefinitionLoader.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/engine/TransactionProc.h"

namespace blockproc::fuzz {
namespace {

const char* const kTypes[] = {"text", "number", "int16", "int64", "float", "double", "sint64"};
const char* const kEncodings[] = {"cp949", "euc-kr", "utf-8", "ascii", "latin1"};

// One field: a type, and a length and decimals that the format allows.
std::string fieldXml(FuzzInput& in, int index) {
  const size_t type = in.below(7);
  std::string xml = "<field name='f" + std::to_string(index) + "' type='" + kTypes[type] + "'";
  if (type <= 1) {
    const int length = 1 + static_cast<int>(in.below(24));
    const int decimals = in.flag() ? static_cast<int>(in.below(static_cast<size_t>(std::min(length, 6)))) : 0;
    xml += " length='" + std::to_string(length) + "' decimals='" + std::to_string(decimals) + "'";
    // A number field writes its point, or leaves it out when told so.
    static const char* const kPoints[] = {"", " point='implied'", " point='explicit'"};
    if (type == 1 || decimals > 0) xml += in.pick(kPoints);
  } else if (type == 4 || type == 5) {
    xml += " decimals='" + std::to_string(in.below(5)) + "'";
  }
  if (in.below(8) == 0) xml += " attr='true'";
  return xml + "/>";
}

std::string definitionXml(FuzzInput& in) {
  std::string xml =
      std::string("<transaction code='F' occurslen='2' encoding='") + in.pick(kEncodings) + "'><output>";
  const size_t blocks = 1 + in.below(3);
  for (size_t b = 0; b < blocks; ++b) {
    const bool last = b + 1 == blocks;
    xml += "<block name='B" + std::to_string(b) + "'";
    // Repeated blocks count by a prefix, or take the rest when last; a count field needs the first block to
    // be a one-record block whose first field is an int16.
    switch (in.below(4)) {
      case 1:
        xml += " repeat='" + std::to_string(1 + in.below(6)) + "' count='prefix'";
        break;
      case 2:
        if (last) xml += " repeat='" + std::to_string(1 + in.below(6)) + "' count='rest'";
        break;
      case 3:
        if (b > 0) xml += " repeat='" + std::to_string(1 + in.below(6)) + "' count='C0.n'";
        break;
      default:
        break;
    }
    xml += ">";
    if (b == 0) xml += "<field name='n' type='int16'/>";
    const size_t fields = 1 + in.below(6);
    for (size_t j = 0; j < fields; ++j) xml += fieldXml(in, static_cast<int>(j));
    xml += "</block>";
  }
  xml += "</output></transaction>";
  // The first block is named C0 when a later one counts by its field.
  const size_t c = xml.find("count='C0.n'");
  if (c != std::string::npos) xml.replace(xml.find("name='B0'"), 9, "name='C0'");
  return xml;
}

// Every value of every received output block as shown, or false when one of them has an issue.
bool decodeAll(const TransactionProc& parent, std::vector<BlockValues>& values) {
  for (const KXBlockDataProc* proc : parent.outputProcs()) {
    BlockValues block{proc->getBlockName(), {}};
    const BlockInfo& info = *proc->getBlockInfo();
    for (int32_t i = 0; i < proc->getValidCount(); ++i) {
      RecordValues record;
      for (int32_t j = 0; j < info.getFieldCount(); ++j) {
        const FieldInfo& f = *info.getFieldInfoFromIndex(j);
        std::string text;
        const auto r = value::appendValue(text, f, value::fieldBytes(*proc, f, i), proc->getEncodingType(),
                                          value::BadByteStyle::Escaped);
        if (r.issue != value::ValueIssue::None) return false;
        if (text.empty() && value::valueKind(f) == value::ValueKind::Number) {
          record.nulls.push_back(f.szFieldName);
        } else {
          record.fields.emplace_back(f.szFieldName, std::move(text));
        }
        if (info.carriesAttr(f)) record.attrs.emplace_back(f.szFieldName, proc->getFieldAttrFromInfo(&f, i));
      }
      block.records.push_back(std::move(record));
    }
    values.push_back(std::move(block));
  }
  return true;
}

bool same(const std::vector<BlockValues>& a, const std::vector<BlockValues>& b) {
  if (a.size() != b.size()) return false;
  for (size_t k = 0; k < a.size(); ++k) {
    if (a[k].block != b[k].block || a[k].records.size() != b[k].records.size()) return false;
    for (size_t i = 0; i < a[k].records.size(); ++i)
      if (a[k].records[i].fields != b[k].records[i].fields ||
          a[k].records[i].attrs != b[k].records[i].attrs || a[k].records[i].nulls != b[k].records[i].nulls)
        return false;
  }
  return true;
}

void run(FuzzInput& in) {
  const std::string xml = definitionXml(in);
  const std::string_view reply = in.rest();
  // BLOCKPROC_FUZZ_TRACE=1 in the environment prints how far each input got.
  static const bool trace = std::getenv("BLOCKPROC_FUZZ_TRACE") != nullptr;
  DefinitionResult loaded = DefinitionLoader::loadString(xml, "fuzz.xml");
  if (trace) std::fprintf(stderr, "load: %s\n", loaded.description().c_str());
  if (!loaded) return;  // a draw the format refuses (a count field of another type, for one)
  TransactionProc parent(*loaded.definition);
  if (!parent.receiveReply(reply.data(), static_cast<int64_t>(reply.size())).ok) return;
  std::vector<BlockValues> first;
  if (!decodeAll(parent, first)) return;
  if (trace) std::fprintf(stderr, "round trip of %zu blocks\n", first.size());
  const auto built = parent.buildReply(first);
  if (!built.ok) {
    std::fprintf(stderr, "%s\n%s\n", xml.c_str(), built.message.c_str());
    fail("values decode showed were refused by encode");
  }
  require(parent.receiveReply(built.bytes.data(), static_cast<int64_t>(built.bytes.size())).ok,
          "a reply built from decoded values does not split");
  std::vector<BlockValues> second;
  require(decodeAll(parent, second), "a reply built from decoded values renders with an issue");
  require(same(first, second), "the second decode differs from the first");
  const auto again = parent.buildReply(second);
  require(again.ok && again.bytes == built.bytes, "the encoder's own bytes do not come back byte for byte");
}

}  // namespace
}  // namespace blockproc::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  blockproc::fuzz::FuzzInput in(data, size);
  blockproc::fuzz::run(in);
  return 0;
}
