// The field decoder against the paths it replaces.
//
// The input draws one field (every type, an unknown one too, lengths from 0, places from -1 past the
// length, every encoding and an unknown one) and the bytes of a few records: raw bytes, blanks and NULs,
// numeric text with and without its point, zero fill and signs, ASCII and Hangul text, whole and computed
// binary values. For each record:
//   - the decoder's fast writer, where it writes, gives the reference's text (value::appendValue) with no
//     issue, and the decoder's append gives exactly the reference's text and issue in both byte styles;
//   - a processor handed the same records (setData) reads the same bytes (fieldBytes) as the record view
//     over the caller's bytes, and the same display string (appendFieldDataFromInfo) as the decoder.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "blockproc/codec/TextEncoding.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/engine/FieldDecoder.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/engine/RecordView.h"

namespace blockproc::fuzz {
namespace {

FieldInfo drawField(FuzzInput& in) {
  static constexpr int32_t kTypes[] = {kFieldText,   kFieldNumText, kFieldInt16,   kFieldInt64, kFieldFloat,
                                       kFieldDouble, kFieldSInt64,  kFieldNumText, kFieldText,  7};
  const int32_t type = in.pick(kTypes);
  const uint8_t shape = in.byte();
  int32_t length = static_cast<int32_t>(in.byte() % 72);
  if ((shape & 3) != 0) {  // a binary field of its own width, mostly
    static constexpr int32_t kWidths[] = {0, 0, 2, 8, 4, 8, 8, 0, 0, 0};
    if (kWidths[type < 7 ? type : 9] > 0) length = kWidths[type < 7 ? type : 9];
  }
  const int32_t decimals = (shape & 4) != 0 ? static_cast<int32_t>(in.byte() % 21) - 1 : 0;
  return FieldInfo("f", type, length, decimals);
}

template <typename T>
void put(std::string& record, T value) {
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  record.replace(0, std::min(record.size(), sizeof value), bytes, std::min(record.size(), sizeof value));
}

// Numeric text as gateways send it: spaces, a sign, zero fill, digits, a point or none, trailing pads.
std::string numericText(FuzzInput& in) {
  static constexpr const char* kPieces[] = {" ",     "  ", "-", "+",  "0", "00",       "7", "12",    "305",
                                            "99999", ".",  "5", "\0", "x", "\xC7\xD1", "1", "000000"};
  std::string text;
  const size_t pieces = 1 + in.below(8);
  for (size_t i = 0; i < pieces; ++i) {
    const size_t at = in.below(std::size(kPieces));
    text += at == 12 ? std::string_view("\0", 1) : std::string_view(kPieces[at]);
  }
  return text;
}

std::string textValue(FuzzInput& in) {
  static constexpr const char* kPieces[] = {"A",       "POSCO", " ",  "\xC7\xD1", "\xB1\xDB", "\xED\x95\x9C",
                                            "\t",      ",",     "\"", "\xFF",     "\x80",     "S&P500",
                                            "\xA1\xA1"};
  std::string text;
  const size_t pieces = 1 + in.below(10);
  for (size_t i = 0; i < pieces; ++i) text += in.pick(kPieces);
  return text;
}

// One record of `length` bytes of the field's kind, or of anything.
std::string drawRecord(FuzzInput& in, const FieldInfo& field) {
  const auto length = static_cast<size_t>(std::max(field.nLength, 0));
  std::string record(length, in.flag() ? ' ' : '\0');
  switch (in.byte() % 8) {
    case 0: {
      const std::string_view raw = in.bytes(length);
      record.replace(0, raw.size(), raw);
      break;
    }
    case 1:
    case 2: {
      const std::string text = in.flag() ? numericText(in) : textValue(in);
      const size_t n = std::min(text.size(), length);
      record.replace(in.flag() ? length - n : 0, n, text.substr(0, n));  // right- or left-aligned
      break;
    }
    case 3:
      put(record, static_cast<int16_t>(in.u16()));
      break;
    case 4:
      put(record, static_cast<int64_t>(in.i32()) * (in.flag() ? 1000003 : 1));
      break;
    case 5:  // a whole float, sometimes past 2^24
      put(record, static_cast<float>(in.i32() >> (in.byte() % 32)));
      break;
    case 6: {  // a double of a few places, computed or exact
      const double places = std::pow(10.0, in.byte() % 19);
      const double v = static_cast<double>(in.i32()) * (in.flag() ? 1e6 : 1.0) / places;
      put(record, in.flag() ? v / 3.0 : v);
      break;
    }
    default:
      put(record, static_cast<uint64_t>(in.u32()) << 32 | in.u32());
      break;
  }
  return record;
}

void checkDecoder(const value::FieldDecoder& decoder, std::string_view bytes, const std::string& padded) {
  const FieldInfo& field = decoder.field();
  for (const auto style : {value::BadByteStyle::Escaped, value::BadByteStyle::Replacement}) {
    std::string reference, fast;
    const value::RenderResult want = value::appendValue(reference, field, bytes, decoder.encoding(), style);
    const value::RenderResult got = decoder.append(fast, bytes, style);
    if (fast != reference || got.issue != want.issue || got.offset != want.offset) {
      std::fprintf(stderr,
                   "type %d length %d places %d encoding %u\nreference '%s' (%d)\ndecoder '%s' (%d)\n",
                   field.nDataType, field.nLength, field.nDecimalLen, decoder.encoding(), reference.c_str(),
                   static_cast<int>(want.issue), fast.c_str(), static_cast<int>(got.issue));
      fail("the decoder and appendValue disagree");
    }
    if (bytes.size() != static_cast<size_t>(std::max(field.nLength, 0)) || bytes.empty()) continue;
    // The writer, also with the slack that lets it read by 16- and 64-byte blocks.
    char area[value::FieldDecoder::kRoom];
    const auto* at = reinterpret_cast<const uint8_t*>(padded.data());
    const char* end = decoder.write(at, static_cast<int64_t>(padded.size()), area);
    require(end == nullptr || (want.issue == value::ValueIssue::None &&
                               std::string_view(area, static_cast<size_t>(end - area)) == reference),
            "the decoder's writer and appendValue disagree");
  }
}

}  // namespace
}  // namespace blockproc::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace blockproc;
  fuzz::FuzzInput in(data, size);
  static constexpr uint32_t kEncodings[] = {kTextEncodingCP949,     kTextEncodingUTF8,  kTextEncodingASCII,
                                            kTextEncodingISOLatin1, kTextEncodingEUCKR, 999};
  BlockInfo block("B");
  block.m_nRepeatCount = 4;
  block.m_nRecordLenApplyType = RCL_RESTDATA;
  const FieldInfo& field = block.addField(std::make_unique<FieldInfo>(fuzz::drawField(in)));
  const uint32_t encoding = in.pick(kEncodings);
  const value::FieldDecoder decoder(field, encoding);
  const auto length = static_cast<size_t>(std::max(field.nLength, 0));
  std::string records;
  const size_t count = 1 + in.below(4);
  for (size_t r = 0; r < count && length > 0; ++r) {
    const std::string record = fuzz::drawRecord(in, field);
    std::string padded = record;
    padded.append(in.below(80), static_cast<char>(in.byte()));
    fuzz::checkDecoder(decoder, record, padded);
    records += record;
  }
  if (records.empty()) return 0;
  // The processor's read of the same records against the view and the decoder's display string.
  KXBlockDataProc proc(&block);
  proc.setEncodingType(encoding);
  proc.setData(records.data(), 0, static_cast<int32_t>(records.size()));
  const RecordView view(block, records.data(), static_cast<int64_t>(records.size()));
  const RecordView held = RecordView::of(proc);
  fuzz::require(view.count() == proc.getValidCount() && held.count() == view.count(),
                "the view and the processor hold different records");
  for (int32_t i = 0; i < proc.getValidCount(); ++i) {
    const std::string_view bytes = view.field(i, field);
    fuzz::require(bytes == value::fieldBytes(proc, field, i) && held.field(i, field) == bytes,
                  "the view and the processor read different bytes");
    std::string display, byProc;
    const int64_t readable = held.size() - held.recordOffset(i);
    const bool shown = decoder.appendDisplay(display, bytes, readable, proc.getDisplayEncoding());
    const bool procShown = proc.appendFieldDataFromInfo(&field, i, byProc);
    fuzz::require(shown == procShown && display == byProc, "the display string and the processor's differ");
  }
  return 0;
}
