// Handing the block's bytes out: the send buffer and the block as text.

#include <algorithm>
#include <cstring>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/RecordBuffer.h"
#include "blockproc/detail/TextCodec.h"

namespace blockproc {

namespace {

using internal::kSpace;

// memcpy for the short runs that fields mostly are: fixed-size, possibly overlapping moves the compiler
// inlines, instead of a library call per field, which packing a record otherwise spends most of its time
// in (BM_PackRequestRecord20Fields).
void copyField(uint8_t* to, const uint8_t* from, size_t n) noexcept {
  if (n >= 8 && n <= 16) {
    std::memcpy(to, from, 8);
    std::memcpy(to + n - 8, from + n - 8, 8);
  } else if (n >= 4 && n < 8) {
    std::memcpy(to, from, 4);
    std::memcpy(to + n - 4, from + n - 4, 4);
  } else if (n >= 2 && n < 4) {
    std::memcpy(to, from, 2);
    std::memcpy(to + n - 2, from + n - 2, 2);
  } else if (n == 1) {
    to[0] = from[0];
  } else {
    std::memcpy(to, from, n);
  }
}

}  // namespace

void KXBlockDataProc::getStructInputData(void* sendBuffer) const noexcept {
  if (sendBuffer == nullptr || m_oBlockInfo == nullptr || !buffer().data()) return;
  auto* out = static_cast<uint8_t*>(sendBuffer);
  try {
    const int32_t fields = m_oBlockInfo->getFieldCount();
    for (int32_t j = 0; j < fields; ++j) {
      const FieldInfo* f = m_oBlockInfo->getFieldInfoFromIndex(j);
      if (f == nullptr || f->nLength <= 0) continue;
      const int64_t pos = f->nDataPos, length = f->nLength;
      if (const uint8_t* bytes = span(pos, length)) {
        copyField(out, bytes, static_cast<size_t>(length));
      } else {
        // Part of the field lies outside the buffer (a short dynamic area): those bytes go as spaces.
        std::memset(out, kSpace, static_cast<size_t>(length));
        const int64_t from = std::clamp<int64_t>(pos, 0, buffer().size());
        const int64_t to = std::clamp<int64_t>(pos + length, 0, buffer().size());
        if (const uint8_t* inside = from < to ? span(from, to - from) : nullptr)
          std::memcpy(out + (from - pos), inside, static_cast<size_t>(to - from));
      }
      out += length;
    }
  } catch (...) {
  }
}

std::optional<std::string> KXBlockDataProc::getBlockData() const noexcept {
  if (!buffer().data()) return std::string();
  try {
    const bool repeated = m_oBlockInfo != nullptr && (m_oBlockInfo->m_nBlockType & kBlockTypeRepeat) != 0;
    const int64_t records = repeated ? buffer().validCount() : 1;
    const int64_t length = std::clamp<int64_t>(records * recordSize(), 0, buffer().size());
    const auto* bytes = reinterpret_cast<const char*>(span(0, length));
    if (bytes == nullptr) return std::string();
    std::string_view text(bytes, static_cast<size_t>(length));
    if (const void* zero = std::memchr(text.data(), 0, text.size()))
      text = text.substr(0, static_cast<size_t>(static_cast<const char*>(zero) - text.data()));
    if (auto utf8 = codec::decode(kTextEncodingUTF8, text)) return utf8;
    return codec::decode(kTextEncodingCP949, text);
  } catch (...) {
    return std::nullopt;
  }
}

}  // namespace blockproc
