// The field encoder against the path it replaces.
//
// The input draws one field (every type, an unknown one too, lengths from 0, places from -1 past the
// length, the point implied or written, key-encrypted or not, every encoding and an unknown one) and a
// value, pieced together from fragments of numbers and text or taken raw. The value goes the old way
// (prepareValue, the processor's main writer through a descriptor of the write type, the field read back
// and compared) and through the encoder: both refuse with the same reason, or both take it with the same
// bytes. The encoder's reference way must agree as well.

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "blockproc/codec/TextEncoding.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/engine/FieldCodec.h"
#include "blockproc/engine/FieldValue.h"

namespace blockproc::fuzz {
namespace {

// The old way: the value prepared, written by the processor, read back.
bool writeThroughProcessor(const FieldInfo& shape, std::string_view text, uint32_t encoding,
                           std::string& bytes, std::string& why) {
  BlockInfo block("B");
  auto owned = std::make_unique<FieldInfo>(shape);
  owned->nDataPos = 0;
  const FieldInfo& field = block.addField(std::move(owned));
  KXBlockDataProc proc(&block);
  proc.setEncodingType(encoding);
  proc.wipeBuffer();
  proc.DefaultMemory();
  value::PreparedValue prepared;
  if (!value::prepareValue(field, text, encoding, prepared, why)) return false;
  const std::optional<std::string_view> write =
      prepared.blank ? std::nullopt : std::optional<std::string_view>(prepared.write);
  if (prepared.writeType < 0 || prepared.writeType == field.nDataType) {
    proc.setFieldDataFromInfo(&field, 0, write);
  } else {
    FieldInfo asType(field.szFieldName, prepared.writeType, field.nLength, field.nDecimalLen);
    asType.nDataPos = field.nDataPos;
    proc.setFieldDataFromInfo(&asType, 0, write);
  }
  bytes.assign(value::fieldBytes(proc, field, 0));
  std::string back;
  value::appendValue(back, field, bytes, encoding, value::BadByteStyle::Escaped);
  if (back == prepared.expected) return true;
  why = "'" + std::string(text) + "' would read back as '" + back + "'";
  return false;
}

constexpr const char* kFragments[] = {
    "0",
    "1",
    "9",
    "12",
    "007",
    "-",
    "+",
    ".",
    "5",
    "e",
    "E5",
    "e-3",
    " ",
    "00",
    "3",
    "25",
    "1e",
    "999",
    "0.1",
    "-0",
    "1.5",
    "inf",
    "nan",
    "0x1",
    "\xED\x95\x9C",
    "A",
    "z",
    "\0",
    "\xFF",
    "\xC3\xA9",
    "32767",
    "32768",
    "-32768",
    "9223372036854775807",
    "9223372036854775808",
    "340282346638528859811704183484516925440",
    "16777217",
    "0.3000001",
    "0.30000001",
    "1e-45",
    "1e400",
    "2.5e-324",
    "288230376151711744",
    "4.9406564584124654e-324",
};

std::string drawValue(FuzzInput& in) {
  std::string value;
  if (in.byte() % 4 == 0) {
    const size_t n = in.below(24);
    for (size_t i = 0; i < n; ++i) value.push_back(static_cast<char>(in.byte()));
    return value;
  }
  const size_t pieces = 1 + in.below(7);
  for (size_t i = 0; i < pieces; ++i) {
    const size_t at = in.below(std::size(kFragments));
    value += at == 27 ? std::string_view("\0", 1) : std::string_view(kFragments[at]);
  }
  return value;
}

FieldInfo drawField(FuzzInput& in) {
  static constexpr int32_t kTypes[] = {kFieldText,   kFieldNumText, kFieldInt16,   kFieldInt64, kFieldFloat,
                                       kFieldDouble, kFieldSInt64,  kFieldNumText, kFieldText,  7};
  const int32_t type = in.pick(kTypes);
  const uint8_t shape = in.byte();
  int32_t length = static_cast<int32_t>(in.byte() % 48);
  if ((shape & 3) == 0) {  // a binary field of its own width, mostly
    static constexpr int32_t kWidths[] = {0, 0, 2, 8, 4, 8, 8, 0, 0, 0};
    if (type >= 0 && type < 10 && kWidths[type] > 0) length = kWidths[type];
  }
  const int32_t decimals = (shape & 4) != 0 ? static_cast<int32_t>(in.byte() % 10) - 1 : 0;
  FieldInfo field("f", type, length, decimals);
  field.bImpliedPoint = (shape & 8) != 0;
  field.bKeyEnc = (shape & 16) != 0 && (shape & 32) != 0;
  return field;
}

}  // namespace
}  // namespace blockproc::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace blockproc;
  fuzz::FuzzInput in(data, size);
  static constexpr uint32_t kEncodings[] = {kTextEncodingCP949,     kTextEncodingUTF8,  kTextEncodingASCII,
                                            kTextEncodingISOLatin1, kTextEncodingEUCKR, 999};
  const FieldInfo field = fuzz::drawField(in);
  const uint32_t encoding = in.pick(kEncodings);
  value::FieldEncoder encoder(field, encoding);
  for (int round = 0; round < 4 && !in.empty(); ++round) {
    const std::string text = fuzz::drawValue(in);
    std::string oldBytes, oldWhy, newWhy, refWhy;
    const bool oldOk = fuzz::writeThroughProcessor(field, text, encoding, oldBytes, oldWhy);
    const auto length = static_cast<size_t>(std::max(field.nLength, 0));
    std::string newBytes(length, '#'), refBytes(length, '#');
    const bool newOk = encoder.encode(text, reinterpret_cast<uint8_t*>(newBytes.data()), newWhy);
    const bool refOk = encoder.encodeReference(text, reinterpret_cast<uint8_t*>(refBytes.data()), refWhy);
    if (newOk != oldOk || (oldOk && newBytes != oldBytes) || (!oldOk && newWhy != oldWhy)) {
      std::fprintf(stderr, "type %d length %d places %d implied %d keyenc %d encoding %u value '%s'\n",
                   field.nDataType, field.nLength, field.nDecimalLen, field.bImpliedPoint ? 1 : 0,
                   field.bKeyEnc ? 1 : 0, encoding, text.c_str());
      std::fprintf(stderr, "old %d '%s' [%s]\nnew %d '%s' [%s]\n", oldOk, oldBytes.c_str(), oldWhy.c_str(),
                   newOk, newBytes.c_str(), newWhy.c_str());
      fuzz::fail("the encoder and the processor's writer disagree");
    }
    fuzz::require(refOk == oldOk && (!oldOk || refBytes == oldBytes) && (oldOk || refWhy == oldWhy),
                  "the encoder's reference way and the processor's writer disagree");
  }
  return 0;
}
