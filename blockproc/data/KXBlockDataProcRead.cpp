// Reading fields as display strings: one field of one record, and one field of every valid record.
//
// Field bytes are taken through span() only. Text types are trimmed and decoded (or get their implied
// decimal point); binary types are little-endian values of 2, 8, 4, 8 and 8 bytes, zero-extended when the
// field holds fewer bytes than the value's width.

#include <algorithm>
#include <array>
#include <cstring>
#include <typeinfo>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/DisplayValue.h"
#include "blockproc/detail/FieldTypes.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/NumericText.h"
#include "blockproc/detail/RecordBuffer.h"
#include "blockproc/detail/ShortText.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/detail/Utf8.h"

namespace blockproc {

namespace {

// The all-records read prints an int64 at least this wide, zero-padded after any sign.
constexpr int32_t kJoinedInt64Width = 6;

std::string_view asText(const uint8_t* bytes, int64_t length) noexcept {
  return {reinterpret_cast<const char*>(bytes), static_cast<size_t>(length)};
}

// The record size R as the definition gives it (0 without one); throws what its getRecordMemSize throws.
//
// A plain BlockInfo is asked inline, without the virtual call; a subclass is asked through its override.
// The quote record's 14 reads spent 12% of their time locating the field through out-of-line calls and
// the virtual call; inline, they spend next to none (BM_RecordByAppend).
int64_t readRecordSize(const BlockInfo* block) {
  if (block == nullptr) return 0;
  // The type_info objects compared by address (two loads; by name, three, and slower: BM_RecordByAppend).
  // Two copies of BlockInfo's type_info (from two shared libraries) compare unequal and take the virtual
  // call, which gives the same size.
  if (&typeid(*block) == &typeid(BlockInfo)) return block->baseRecordMemSize();
  return block->getRecordMemSize();
}

bool isBinaryType(int32_t dataType) noexcept {
  return ftype::isBinary(dataType);
}

// Bytes a binary value is read from, from its field's start: a double always 8, as many of them as the
// `readable` bytes to the data's end hold; any other type its width, as many as the field's `length` holds.
int64_t binaryTake(const ftype::Rules& rules, int64_t length, int64_t readable) noexcept {
  if (rules.binary == ftype::Binary::Double) return std::min<int64_t>(8, readable);
  return std::min<int64_t>(length, rules.width);
}

// Up to 8 little-endian bytes as the low-order bytes of a zeroed 8-byte value.
struct RawValue {
  std::array<uint8_t, 8> bytes{};
  explicit RawValue(std::string_view from) noexcept {
    std::memcpy(bytes.data(), from.data(), std::min(from.size(), bytes.size()));
  }
  template <typename T>
  T as() const noexcept {
    T value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
  }
};

// Appends the display form of a binary value; `int64Width` is the zero-padded width of a type-3 value
// (0 for none). False for places the readers refuse.
bool appendBinary(std::string& out, int32_t dataType, int32_t places, const RawValue& value,
                  int32_t int64Width) {
  return ftype::appendShown(out, dataType, value.bytes.data(), places, int64Width);
}

// Appended text (from `from` on) that ends in an ideographic space loses its space separators and TABs at
// both ends; the bytes before `from` are the caller's and stay.
[[gnu::always_inline]] inline void trimIdeographicPadding(std::string& out, size_t from) {
  const std::string_view text = std::string_view(out).substr(from);
  if (!utf8::endsWithIdeographicSpace(text)) return;
  const std::string_view kept = utf8::trimSpaceSeparators(text);
  const auto keptFrom = static_cast<size_t>(kept.data() - out.data());
  out.erase(keptFrom + kept.size());
  out.erase(from, keptFrom - from);
}

// Appends the display form of a text field (types 0 and 1): numeric text gets its implied point, other text
// is decoded with the encoding `textEncoding()` gives. False when nothing can be shown.
//
// The encoding is asked for only when the text needs decoding: the implied point and ASCII text in an
// encoding the library knows give the same bytes in every encoding, so those reads skip the parent's
// data-mode question (a virtual call and two string compares) and the decoder's dispatch, about a quarter
// of a short ASCII field's read (BM_ReadAsciiText).
template <typename TextEncoding>
bool appendFieldText(std::string& out, std::string_view field, int32_t places, TextEncoding textEncoding,
                     uint32_t ownEncoding) {
  const std::string_view trimmed = internal::trimTrailing(field);
  if (places > 0 && trimmed.find('.') == std::string_view::npos) {
    if (places > num::kMaxDecimalPlaces) return false;
    num::appendDecimalInserted(out, trimmed, places);
    return true;
  }
  if (trimmed.empty()) return true;
  if (utf8::isAscii(trimmed) && codec::isKnownEncoding(ownEncoding)) {
    out.append(trimmed);
    return true;
  }
  const size_t from = out.size();
  if (!codec::decodeAppend(textEncoding(), trimmed, out)) {
    // Undecodable bytes at the very end of an untrimmed field are a double-byte character cut by the
    // field's end: decode once more, in the processor's own encoding, without the last byte.
    if (trimmed.size() != field.size()) return false;
    if (!codec::decodeAppend(ownEncoding, trimmed.substr(0, trimmed.size() - 1), out)) return false;
  }
  trimIdeographicPadding(out, from);
  return true;
}

// Appends the joined text of every record untrimmed; a double-byte character cut at the end of the last
// record is dropped by one retry without the last byte.
bool appendJoinedText(std::string& out, std::string_view joined, uint32_t encoding) {
  return codec::decodeAppend(encoding, joined, out) ||
         codec::decodeAppend(encoding, joined.substr(0, joined.size() - 1), out);
}

// ---- the record read's writers ----
//
// A whole record is read into a stack area rather than field by field into the caller's string: the record
// is located once, each usual field is written straight into the area by the number and text writers, and
// the area goes to the string in one append. Anything unusual (text the table does not decode, an
// ideographic space at the end, numbers of unusual places, text over 64 bytes or in the last bytes of the
// buffer) is left to the one-field read, so the record read never decides a value of its own. A record
// read this way is the fastest of the three ways to read one (BM_RecordByRecordRead against
// BM_RecordByAppend and BM_RecordByGet).

// Bytes writeUsualField may write, whatever the field: a number's text, a short field's 16-byte copy, a long
// one's 64-byte copy, its point put in, or its decoded text.
constexpr int64_t kUsualRoom = 128;
static_assert(num::kIntRoom <= kUsualRoom && num::kFixedRoom <= kUsualRoom &&
              codec::decodeRoom(text::LongText::kWidth) <= kUsualRoom);

// Writes the display form of a text field read by blocks at dst and gives the end, or nullptr (see above).
template <int Blocks, typename TextEncoding>
char* writeBlockText(char* dst, const text::BlockText<Blocks>& text, const uint8_t* field, int32_t places,
                     TextEncoding textEncoding, bool ownKnown) noexcept {
  if (places > 0) {
    char* end = nullptr;
    if constexpr (Blocks == 1) {
      end = text.writeDecimalInserted(dst, places);
    } else {
      end = num::writeDecimalInserted(dst, asText(field, text.size()), places);
    }
    if (end != nullptr) return end;
    if (!text.hasPoint()) return nullptr;
  }
  if (text.isAscii()) return ownKnown ? text.write(dst) : nullptr;
  char* const end = codec::decodeInto(textEncoding(), asText(field, text.size()), dst);
  if (end == nullptr || utf8::endsWithIdeographicSpace({dst, static_cast<size_t>(end - dst)})) return nullptr;
  return end;
}

// Writes the display form of a usual text field at dst and gives the end, or nullptr (see above): fields of
// up to 16 and 64 bytes read by blocks, where the buffer has the blocks' bytes.
template <typename TextEncoding>
char* writeUsualText(char* dst, const uint8_t* field, int32_t length, int64_t readable, int32_t places,
                     TextEncoding textEncoding, bool ownKnown) noexcept {
  using text::LongText, text::ShortText;
  if (length <= ShortText::kWidth && readable >= ShortText::kWidth)
    return writeBlockText(dst, ShortText(field, length), field, places, textEncoding, ownKnown);
  if (length <= LongText::kWidth && readable >= LongText::kWidth)
    return writeBlockText(dst, LongText(field, length), field, places, textEncoding, ownKnown);
  return nullptr;
}

// Writes the display form of the field's bytes (`readable` bytes from the field's start to the buffer's end)
// at dst, which has kUsualRoom bytes free, and gives the end, or nullptr (see above).
template <typename TextEncoding>
char* writeUsualField(char* dst, const FieldInfo& info, const uint8_t* field, int64_t readable,
                      TextEncoding textEncoding, bool ownKnown) noexcept {
  const int32_t length = info.nLength;
  const int32_t places = info.nDecimalLen;
  const ftype::Rules& rules = ftype::rulesOf(info.nDataType);
  switch (rules.layout) {
    case ftype::Layout::Text:
    case ftype::Layout::NumberText:
      return writeUsualText(dst, field, length, readable, places, textEncoding, ownKnown);
    case ftype::Layout::Binary:
      // The usual binary value lies whole in the field (a double's 8 bytes in the buffer), a float's places
      // within what the fixed writer takes.
      if (rules.binary == ftype::Binary::Double ? readable < 8 : length < rules.width) return nullptr;
      if (rules.binary == ftype::Binary::Float && (places < 0 || places > 18)) return nullptr;
      return ftype::writeShown(dst, rules.binary, field, places);
    case ftype::Layout::Unknown:
    default:
      return nullptr;
  }
}

}  // namespace

// Whether the parent's transaction is in the web-socket JSON data mode.
bool KXBlockDataProc::isWebSocketJsonMode() const noexcept {
  try {
    if (m_pParentDP == nullptr) return false;
    const TranInfo* tran = m_pParentDP->getTranInfo();
    return tran != nullptr && (tran->m_strDataMode == ".WSKJson" || tran->m_strDataMode == ".WSKJsonFeed");
  } catch (...) {
    return false;
  }
}

// ---- one field of one record ----------------------------------------------------------------------------

// The read of getFieldDataFromInfo appended to `out` (left as it was on failure); `askMode` false reads as
// getFieldDataFromInfoEX, never in the web-socket JSON data mode.
bool KXBlockDataProc::appendField(const FieldInfo* info, int32_t index, bool askMode,
                                  std::string& out) const noexcept {
  if (info == nullptr || !buffer().data() || index < 0 || index >= buffer().validCount()) return false;
  const int32_t length = info->nLength;
  const int32_t type = info->nDataType;
  if (length <= 0 || !ftype::isKnown(type)) return false;
  const size_t oldSize = out.size();
  try {
    const int64_t offset = buffer().recordOffset(index, info->nDataPos, readRecordSize(m_oBlockInfo));
    const uint8_t* field = buffer().span(offset, length);
    if (field == nullptr) return false;
    bool shown;
    if (isBinaryType(type)) {
      const int64_t take = binaryTake(ftype::rulesOf(type), length, buffer().size() - offset);
      shown = appendBinary(out, type, info->nDecimalLen, RawValue(asText(field, take)), 0);
    } else {
      const auto textEncoding = [this, askMode] {
        return askMode && isWebSocketJsonMode() ? kTextEncodingUTF8 : m_nEncodingType;
      };
      shown = appendFieldText(out, asText(field, length), info->nDecimalLen, textEncoding, m_nEncodingType);
    }
    if (shown) return true;
  } catch (...) {
  }
  out.resize(oldSize);
  return false;
}

bool KXBlockDataProc::appendFieldDataFromInfo(const FieldInfo* info, int32_t index,
                                              std::string& out) const noexcept {
  return appendField(info, index, true, out);
}

bool KXBlockDataProc::appendRecordDataFromInfo(int32_t index, std::span<const FieldInfo* const> fields,
                                               std::string& out, std::span<size_t> ends) const noexcept {
  const size_t oldSize = out.size();
  const auto refuse = [&] {
    out.resize(oldSize);
    std::fill(ends.begin(), ends.end(), oldSize);
    return false;
  };
  if (ends.size() < fields.size() || !buffer().data() || index < 0 || index >= buffer().validCount())
    return refuse();
  try {
    const int64_t record = buffer().recordOffset(index, 0, readRecordSize(m_oBlockInfo));
    const bool ownKnown = codec::isKnownEncoding(m_nEncodingType);
    int64_t asked = -1;  // the text encoding, asked of the parent once, when text first needs decoding
    const auto textEncoding = [this, &asked] {
      if (asked < 0) asked = isWebSocketJsonMode() ? kTextEncodingUTF8 : m_nEncodingType;
      return static_cast<uint32_t>(asked);
    };
    // The fields go into a stack area, handed to the caller's string when it fills up and at the end; the
    // area's cursor and the buffer's bytes are locals, kept in registers while the writers store text.
    constexpr int64_t kArea = 1024;
    std::array<char, kArea> area;
    char* cursor = area.data();
    size_t handed = out.size();  // the string's size when the area was last handed over
    const auto handOver = [&] {
      out.append(area.data(), cursor);
      cursor = area.data();
      handed = out.size();
    };
    const detail::RecordBuffer::View bytes = buffer().view();
    bool every = true;
    for (size_t i = 0; i < fields.size(); ++i) {
      const FieldInfo* info = fields[i];
      char* end = nullptr;
      if (info != nullptr && info->nLength > 0) {
        const int64_t offset = record + info->nDataPos;
        if (const uint8_t* field = bytes.span(offset, info->nLength)) {
          if (area.data() + kArea - cursor < kUsualRoom) handOver();
          end = writeUsualField(cursor, *info, field, bytes.size - offset, textEncoding, ownKnown);
        }
      }
      if (end != nullptr) {
        cursor = end;
      } else {
        handOver();
        every = appendField(info, index, true, out) && every;
        handed = out.size();
      }
      ends[i] = handed + static_cast<size_t>(cursor - area.data());
    }
    handOver();
    return every;
  } catch (...) {
    return refuse();
  }
}

std::string KXBlockDataProc::getFieldDataFromInfo(const FieldInfo* info, int32_t index) const noexcept {
  std::string out;
  appendField(info, index, true, out);
  return out;
}

std::string KXBlockDataProc::getFieldDataFromIndex(int32_t fieldPosition, int32_t index) const noexcept {
  const FieldInfo* info = nullptr;
  try {
    if (m_oBlockInfo != nullptr) info = m_oBlockInfo->getFieldInfoFromIndex(fieldPosition);
  } catch (...) {
    return {};
  }
  return getFieldDataFromInfo(info, index);
}

std::string KXBlockDataProc::getFieldDataFromName(std::string_view name, int32_t index) const noexcept {
  return getFieldDataFromInfo(findFieldInfo(name), index);
}

std::string KXBlockDataProc::getFieldDataFromInfoEX(const FieldInfo* info, int32_t index) const noexcept {
  std::string out;
  appendField(info, index, false, out);
  return out;
}

std::string KXBlockDataProc::getFieldDataFromNameEX(std::string_view name, int32_t index) const noexcept {
  return getFieldDataFromInfoEX(findFieldInfo(name), index);
}

// ---- one field of every valid record ----------------------------------------------------------------------

std::string KXBlockDataProc::getFieldDataAllIdxFromInfo(const FieldInfo* info) const noexcept {
  std::string out;
  if (info == nullptr || !buffer().data() || buffer().validCount() <= 0) return out;
  const int64_t length = info->nLength;
  const int32_t type = info->nDataType;
  if (length <= 0 || !ftype::isKnown(type)) return out;
  // The records lie at offsets linear in their index: when the first and the last valid record hold the
  // field inside the buffer, every record between them does too.
  try {
    const int64_t first = recordOffset(0, info->nDataPos);
    const int64_t stride = recordOffset(1, info->nDataPos) - first;
    const int64_t last = buffer().validCount() - 1;
    if (span(first, length) == nullptr || span(first + last * stride, length) == nullptr) return out;
    // Joined text longer than the whole buffer means the field overlaps the next record (or records have
    // no size at all), and the same bytes would be repeated, up to billions of times: refused.
    if (!isBinaryType(type) && buffer().validCount() > buffer().size() / length) [[unlikely]]
      return out;
    // Binary types need only the first value's bytes of the joined run; text needs all of it.
    const int64_t wanted = isBinaryType(type) ? ftype::binaryWidth(type) : length * buffer().validCount();
    std::string joined;
    joined.reserve(static_cast<size_t>(wanted));
    for (int64_t i = 0; i <= last && static_cast<int64_t>(joined.size()) < wanted; ++i) {
      const int64_t take = std::min<int64_t>(length, wanted - static_cast<int64_t>(joined.size()));
      joined.append(asText(span(first + i * stride, take), take));
    }
    const bool shown = isBinaryType(type)
                           ? appendBinary(out, type, info->nDecimalLen, RawValue(joined), kJoinedInt64Width)
                           : appendJoinedText(out, joined, m_nEncodingType);
    if (!shown) out.clear();
  } catch (...) {
    out.clear();
  }
  return out;
}

std::string KXBlockDataProc::getDataValueAllIdxFromName(std::string_view name) const noexcept {
  return getFieldDataAllIdxFromInfo(findFieldInfo(name));
}

// ---- display strings of bytes outside a processor ----------------------------------------------------

bool detail::appendDisplayValue(std::string& out, const FieldInfo& info, std::string_view bytes,
                                int64_t readable, uint32_t textEncoding, uint32_t ownEncoding) noexcept {
  const int32_t type = info.nDataType;
  const ftype::Rules& rules = ftype::rulesOf(type);
  if (info.nLength <= 0 || rules.layout == ftype::Layout::Unknown || bytes.data() == nullptr ||
      static_cast<int64_t>(bytes.size()) < info.nLength || readable < info.nLength)
    return false;
  const size_t oldSize = out.size();
  try {
    bool shown;
    if (rules.width > 0) {
      const int64_t take = binaryTake(rules, info.nLength, readable);
      shown =
          appendBinary(out, type, info.nDecimalLen, RawValue({bytes.data(), static_cast<size_t>(take)}), 0);
    } else {
      shown = appendFieldText(
          out, bytes.substr(0, static_cast<size_t>(info.nLength)), info.nDecimalLen,
          [textEncoding] { return textEncoding; }, ownEncoding);
    }
    if (shown) return true;
  } catch (...) {
  }
  out.resize(oldSize);
  return false;
}

uint32_t KXBlockDataProc::getDisplayEncoding() const noexcept {
  return isWebSocketJsonMode() ? kTextEncodingUTF8 : m_nEncodingType;
}

}  // namespace blockproc
