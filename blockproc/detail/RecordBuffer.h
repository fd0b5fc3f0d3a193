#pragma once
// The record buffer of one block processor: its bytes and the counters that describe them (recorded size,
// buffer record count, valid record count, start index, block data length). Private to the processor: the
// processor holds the state (RecordBufferState, declared with it) and reaches it only through this view.
//
// Record i lies at buffer record (start index + i). The counters may say anything a caller set them to;
// the bytes are only ever reached through span(), which refuses whatever lies outside the recorded size.
// The record size R is always handed in, so the buffer never asks the block definition itself.

#include <cstdint>
#include <memory>
#include <string>

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc::detail {

// The operations on a processor's record buffer state; a view holding a reference to it, made for each use
// and costing nothing once inlined.
class RecordBuffer {
 public:
  explicit RecordBuffer(RecordBufferState& state) noexcept : s_(state) {}

  // The bytes, or nullptr when there is no buffer.
  const uint8_t* data() const noexcept { return s_.bytes.get(); }
  // Recorded size: the bytes of the buffer, 0 without one.
  int32_t size() const noexcept { return s_.size; }
  int32_t bufCount() const noexcept { return s_.bufCount; }
  void setBufCount(int32_t count) noexcept { s_.bufCount = count; }
  int32_t validCount() const noexcept { return s_.validCount; }
  void setValidCount(int32_t count) noexcept { s_.validCount = count; }
  int32_t startIndex() const noexcept { return s_.startIndex; }
  void setStartIndex(int32_t index) noexcept { s_.startIndex = index; }
  // Block data length: bytes a dynamic receive put in; never below 0 nor above the recorded size.
  int64_t dataLen() const noexcept { return s_.dataLen; }
  void setDataLen(int64_t length) noexcept;

  // The bytes and their size as plain values, for a loop of many reads: its span() is the buffer's, with
  // the two held in registers instead of reloaded after every byte the loop writes elsewhere. Valid until
  // the buffer is replaced.
  struct View {
    const uint8_t* data;
    int64_t size;
    // The bytes [offset, offset + length), or nullptr when any of them lies outside the buffer.
    const uint8_t* span(int64_t offset, int64_t length) const noexcept {
      if (data == nullptr || offset < 0 || length < 0 || offset + length > size) return nullptr;
      return data + offset;
    }
  };
  View view() const noexcept { return {s_.bytes.get(), s_.size}; }

  // The bytes [offset, offset + length), or nullptr when any of them lies outside the buffer. Inline: every
  // field read and write passes here.
  const uint8_t* span(int64_t offset, int64_t length) const noexcept { return view().span(offset, length); }
  uint8_t* span(int64_t offset, int64_t length) noexcept {
    return const_cast<uint8_t*>(static_cast<const RecordBuffer&>(*this).span(offset, length));
  }
  // Byte offset (start index + index) * recordLen + pos in 64 bits (span() bounds-checks it).
  int64_t recordOffset(int32_t index, int64_t pos, int64_t recordLen) const noexcept {
    return (int64_t{s_.startIndex} + index) * recordLen + pos;
  }
  // Whether the buffer exists and holds `records` records of recordLen bytes inside its recorded size.
  bool holds(int32_t records, int64_t recordLen) const noexcept;

  // The `length` bytes at data + startPos; when they lie in this buffer they are copied into `aside`
  // first and the copy is returned, since the caller is about to replace, blank or overwrite the buffer.
  // Throws bad_alloc.
  const uint8_t* received(const void* data, int64_t startPos, int64_t length, std::string& aside) const;

  // A new area of `size` spaces and one zero byte after them; nullptr for a size outside 0 to INT32_MAX or
  // when allocation fails.
  static std::unique_ptr<uint8_t[]> newSpaces(int64_t size) noexcept;
  // Puts `size` spaces in place of the bytes, without wiping the old ones; the counters other than the
  // recorded size stay (the block data length kept inside it). False, changing nothing, when the area
  // cannot be made.
  bool replace(int64_t size) noexcept;
  // Wipes the old bytes (valid record count 0), then puts records * recordLen spaces in their place with
  // buffer record count `records`. False, changing nothing, when the area cannot be made.
  bool replaceWithRecords(int32_t records, int32_t recordLen) noexcept;
  // A new area of newLength + 1 bytes (spaces and a final zero) holding the first bytes of oldBytes as the
  // counters describe them for records of recordLen bytes, never more than the recorded size; a negative
  // length counts as 0. Bytes other than this buffer's own are not copied. nullptr when allocation fails.
  std::unique_ptr<uint8_t[]> resized(const uint8_t* oldBytes, int32_t newLength,
                                     int64_t recordLen) const noexcept;
  // Grows to exactly `count` records of `stride` bytes: the old bytes as resized() keeps them (records of
  // recordLen bytes), every byte from the old records' end on a space. False, changing nothing, for a
  // stride of 0 or below or a size beyond 32 bits.
  bool grow(int64_t count, int32_t stride, int64_t recordLen) noexcept;

  // Blanks every byte to spaces; valid record count 0.
  void wipe() noexcept;
  // Blanks the first min(block data length, recordLen * buffer record count) bytes when length > 0 (at most
  // the recorded size); valid record count 0 whatever the length.
  void wipe(int32_t length, int64_t recordLen) noexcept;

 private:
  // Installs the area as the bytes and records its size; the block data length is kept inside it.
  void install(std::unique_ptr<uint8_t[]> area, int32_t size) noexcept;

  RecordBufferState& s_;
};

}  // namespace blockproc::detail

namespace blockproc {

inline detail::RecordBuffer KXBlockDataProc::buffer() noexcept {
  return detail::RecordBuffer(m_bufferState);
}

// Only the const operations of the view are reachable through the const view.
inline const detail::RecordBuffer KXBlockDataProc::buffer() const noexcept {
  return detail::RecordBuffer(const_cast<detail::RecordBufferState&>(m_bufferState));
}

}  // namespace blockproc
