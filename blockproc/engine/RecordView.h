#pragma once
// Records of a block read where they lie: the caller's bytes, the block's definition and the distance from
// one record to the next. Nothing is copied; the view is valid while the bytes are.
//
// Usage:
//
//   RecordView records(*block, bytes, size);               // whole records of the block's size
//   const FieldInfo& price = *block->getFieldInfoFromName("price");
//   value::FieldDecoder decode(price, kTextEncodingCP949);
//   for (int64_t i = 0; i < records.count(); ++i) decode.append(text, records.field(i, price));

#include <cstdint>
#include <cstring>
#include <string_view>

#include "blockproc/data/BlockInfo.h"
#include "blockproc/data/FieldInfo.h"

namespace blockproc {

class KXBlockDataProc;

class RecordView {
 public:
  // No records.
  RecordView() = default;
  // The whole records of `stride` bytes in `size` bytes at `bytes` (a stride below 1 gives none); with
  // `newestFirst`, record 0 is the last of them, as a real-time stream read backwards shows them. The
  // block must outlive the view.
  RecordView(const BlockInfo& block, const void* bytes, int64_t size, int64_t stride,
             bool newestFirst = false) noexcept;
  // The same with the block's record size as the stride.
  RecordView(const BlockInfo& block, const void* bytes, int64_t size, bool newestFirst = false) noexcept
      : RecordView(block, bytes, size, block.getRecordMemSize(), newestFirst) {}
  // The valid records the processor holds, read in its buffer (valid until it receives again); none when it
  // has no block or no buffer.
  static RecordView of(const KXBlockDataProc& proc) noexcept;

  const BlockInfo* block() const noexcept { return m_block; }
  int64_t count() const noexcept { return m_count; }
  int64_t stride() const noexcept { return m_stride; }

  // Where record `i` (0 <= i < count()) starts, from the first byte of the view.
  int64_t recordOffset(int64_t i) const noexcept { return (m_newestFirst ? m_count - 1 - i : i) * m_stride; }
  // The bytes and their size: the field at `offset` of a record may be read up to bytes() + size().
  const uint8_t* bytes() const noexcept { return m_bytes; }
  int64_t size() const noexcept { return m_size; }

  // Bytes readable from `at`, a byte of the view, to the end of its bytes.
  int64_t readable(const uint8_t* at) const noexcept { return m_size - (at - m_bytes); }

  // The field's bytes in record `i`, or an empty view (null data) when `i` is not a record of the view or
  // the field does not lie inside the bytes.
  std::string_view field(int64_t i, const FieldInfo& field) const noexcept {
    if (i < 0 || i >= m_count || field.nLength <= 0 || field.nDataPos < 0) return {};
    const int64_t at = recordOffset(i) + field.nDataPos;
    if (at + field.nLength > m_size) return {};
    return {reinterpret_cast<const char*>(m_bytes + at), static_cast<size_t>(field.nLength)};
  }
  // The attribute byte after the field in record `i`, or 0 when the field carries none or it lies outside.
  uint8_t attr(int64_t i, const FieldInfo& field) const noexcept;

 private:
  const BlockInfo* m_block = nullptr;
  const uint8_t* m_bytes = nullptr;
  int64_t m_size = 0;    // bytes readable from m_bytes (a processor's buffer may hold more than its records)
  int64_t m_stride = 0;  // bytes from one record to the next
  int64_t m_count = 0;
  bool m_newestFirst = false;
};

}  // namespace blockproc
