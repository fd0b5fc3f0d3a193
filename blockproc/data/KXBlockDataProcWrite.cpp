// Writing caller values into fields: the main writer, the positional writer and the raw-text writer.

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/FieldTypes.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/NumericText.h"
#include "blockproc/detail/RecordBuffer.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/detail/Utf8.h"

namespace blockproc {

namespace {

using internal::kSpace;

// The encoded bytes of the value being written. A write's descriptor calls may write into other
// processors, or this one, on the same thread: each write in progress on a thread takes its own string,
// one level deeper than the write it runs inside, so no nested write can change its bytes. The strings
// are kept and reused, so that a write allocates only for a value longer than the ones before it (an
// unusually long value's storage is let go afterwards); writes nested deeper than the kept levels use a
// string of their own. Kept strings save an allocation per converted value, a few percent of a converted
// text write (BM_WriteHangulText40Cp949); values that fit a short string gain nothing.
class ScratchBytes {
 public:
  ScratchBytes() noexcept : bytes_(depth() < kLevels ? levels()[depth()] : own_) { ++depth(); }
  ~ScratchBytes() {
    --depth();
    if (bytes_.capacity() > kKeep) std::string().swap(bytes_);
  }
  ScratchBytes(const ScratchBytes&) = delete;
  ScratchBytes& operator=(const ScratchBytes&) = delete;
  std::string& get() noexcept { return bytes_; }

 private:
  static constexpr size_t kKeep = 4096;
  static constexpr size_t kLevels = 4;
  static std::array<std::string, kLevels>& levels() noexcept {
    thread_local std::array<std::string, kLevels> strings;
    return strings;
  }
  static size_t& depth() noexcept {
    thread_local size_t writesInProgress = 0;
    return writesInProgress;
  }
  std::string own_;
  std::string& bytes_;
};

// nPos + length, wrapping like the 32-bit sum it stands for instead of overflowing.
int32_t positionAfter(int32_t nPos, int32_t length) noexcept {
  return static_cast<int32_t>(static_cast<uint32_t>(nPos) + static_cast<uint32_t>(length));
}

}  // namespace

// ---- helpers -------------------------------------------------------------------------------------------

// Grows the buffer to exactly index + 1 records of `stride` bytes (old bytes kept by reSizeBytes, new
// records spaces). False, changing nothing, for a negative index, a stride of 0 or below or a size beyond
// 32 bits.
bool KXBlockDataProc::growRecords(int32_t index, int32_t stride, GrowWipe wipe) noexcept {
  if (index < 0) return false;
  const bool had = buffer().data() != nullptr;
  if (!buffer().grow(int64_t{index} + 1, stride, recordSize())) return false;
  // The old buffer's wipe leaves, of all it does, an empty dynamic input list and a valid count of 0; the
  // raw-text writer's length wipe does so even without an old buffer.
  if (wipe == GrowWipe::WipeLengthThenWipe || (wipe == GrowWipe::Wipe && had)) {
    buffer().setValidCount(0);
    m_arrDynamicInput.clear();
  }
  return true;
}

// Converts a value to the processor's encoding; false when it cannot be represented.
bool KXBlockDataProc::encodeValue(std::string_view value, std::string& bytes) const noexcept {
  bytes.clear();
  return codec::encodeAppend(m_nEncodingType, value, bytes);
}

// Stores "size" and "data" of a key-encrypted value in the block definition's dictionary, if it has one.
void KXBlockDataProc::routeKeyEncrypted(const FieldInfo& info, std::string_view value) noexcept {
  try {
    KeyEncDict* dict = m_oBlockInfo != nullptr ? m_oBlockInfo->getKeyEncValue(info.szFieldName) : nullptr;
    if (dict == nullptr) return;
    // The length in UTF-16 code units, narrowed to 32 bits; text that is not UTF-8 counts its bytes.
    const int64_t units =
        utf8::isValid(value) ? utf8::utf16Length(value) : static_cast<int64_t>(value.size());
    std::string size;
    num::appendZeroPadded(size, static_cast<int32_t>(units), 4);
    (*dict)["size"] = std::move(size);
    (*dict)["data"] = std::string(value);
  } catch (...) {
  }
}

// ---- main writer ----------------------------------------------------------------------------------------

bool KXBlockDataProc::setFieldDataFromName(std::string_view name, int32_t index,
                                           std::optional<std::string_view> value) noexcept {
  return setFieldDataFromInfo(findFieldInfo(name), index, value);
}

bool KXBlockDataProc::setFieldDataFromInfo(const FieldInfo* info, int32_t index,
                                           std::optional<std::string_view> value) noexcept {
  if (info == nullptr || index < 0) return false;
  try {
    const int32_t r = recordSize();
    if (r <= 0) return false;
    if (index >= buffer().bufCount() && !growRecords(index, r, GrowWipe::None)) return false;
    const int32_t length = std::max(info->nLength, 0);
    const int64_t offset = recordOffset(index, info->nDataPos);
    uint8_t* field = span(offset, length);
    if (field == nullptr) return false;  // the record lies past the buffer (a start index beyond it)
    std::memset(field, kSpace, static_cast<size_t>(length));
    buffer().setValidCount(std::max(buffer().validCount(), index + 1));
    if (!value) return false;
    ScratchBytes scratch;
    std::string& bytes = scratch.get();
    if (!encodeValue(*value, bytes)) return false;
    if (info->getKeyEncState()) {
      routeKeyEncrypted(*info, *value);
      return false;
    }
    // The descriptor's call may have written into this processor and replaced its buffer.
    field = span(offset, length);
    if (field == nullptr) return false;
    ftype::layOut(field, length, info->nDataType, info->nDecimalLen, *value, bytes);
  } catch (...) {
  }
  return false;
}

int32_t KXBlockDataProc::findIndex(std::string_view text, std::string_view findString) noexcept {
  return num::findUtf16Index(text, findString);
}

// ---- positional writer ------------------------------------------------------------------------------------

int32_t KXBlockDataProc::setFieldDataExFromInfo(const FieldInfo* info, int32_t index,
                                                std::optional<std::string_view> value,
                                                int32_t nPos) noexcept {
  if (info == nullptr) return 0;
  const int32_t length = info->nLength;
  const int32_t next = positionAfter(nPos, length);
  try {
    // Growth looks at the record index alone; a negative one is below every count and grows nothing.
    if (index >= 0 && index >= buffer().bufCount()) {
      const int32_t stride = m_oBlockInfo != nullptr ? m_oBlockInfo->getRecordFieldSize() : 0;
      if (!growRecords(index, stride, GrowWipe::Wipe)) return next;
    }
    if (!value) return next;
    ScratchBytes scratch;
    std::string& bytes = scratch.get();
    const bool converted = encodeValue(*value, bytes);
    if (info->getKeyEncState()) {
      routeKeyEncrypted(*info, *value);  // even a value the encoding cannot represent
      return next;
    }
    if (!converted || length <= 0) return next;
    const ftype::Rules& rules = ftype::rulesOf(info->nDataType);
    if (ftype::isText(info->nDataType)) {
      const int32_t places = info->nDecimalLen;
      if (places < 0 || places > num::kMaxDecimalPlaces) return next;
      const std::string text = num::roundedFixedText(num::parseLeadingDouble(*value), places);
      if (!encodeValue(text, bytes)) return next;
      const auto n = static_cast<int32_t>(std::min(bytes.size(), static_cast<size_t>(length)));
      if (uint8_t* at = span(nPos, n)) std::memcpy(at, bytes.data(), static_cast<size_t>(n));
    } else if (rules.write == ftype::Write::Binary) {  // an sint64, written as digits elsewhere, is left
      const int32_t width = std::min(rules.width, length);
      if (uint8_t* at = width > 0 ? span(nPos, width) : nullptr)
        ftype::storeBinary(at, width, rules.binary, *value);
    }
  } catch (...) {
  }
  return next;
}

// ---- raw-text writer --------------------------------------------------------------------------------------

bool KXBlockDataProc::setFieldDataFromNameEX(std::string_view name, int32_t index,
                                             const char* value) noexcept {
  return setFieldDataFromInfoEX(findFieldInfo(name), index, value);
}

bool KXBlockDataProc::setFieldDataFromInfoEX(const FieldInfo* info, int32_t index,
                                             const char* value) noexcept {
  if (info == nullptr || index < 0) return false;
  try {
    const int32_t r = recordSize();
    if (r <= 0) return false;
    if (index >= buffer().bufCount() && !growRecords(index, r, GrowWipe::WipeLengthThenWipe)) return false;
    const int32_t length = std::max(info->nLength, 0);
    uint8_t* field = span(recordOffset(index, info->nDataPos), length);
    if (field == nullptr) return false;
    std::memset(field, kSpace, static_cast<size_t>(length));
    buffer().setValidCount(index + 1);
    if (value == nullptr || ftype::rulesOf(info->nDataType).layout != ftype::Layout::Text) return false;
    std::memcpy(field, value, strnlen(value, static_cast<size_t>(length)));
  } catch (...) {
  }
  return false;
}

}  // namespace blockproc
