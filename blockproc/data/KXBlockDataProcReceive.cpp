// Receiving record data: normal, reverse and real-time receives.
//
// Each receive splits the received size into N records of R bytes (at least one; a remainder of less than
// one record after the last whole record is dropped) and copies min(N * R, size) bytes. Every copy goes
// through span(), so a buffer laid out with another stride is never written past its end.

#include <algorithm>
#include <cstring>
#include <string>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/RecordBuffer.h"

namespace blockproc {

namespace {

using internal::kSpace;
constexpr int32_t kRealBufferRecords = 99;  // a real-time block without a buffer makes this many records

// How a receive of `size` bytes divides into records of `recordLen` (> 0) bytes.
struct RecordSplit {
  int32_t records;  // N: whole records, at least 1
  int64_t copied;   // bytes taken: min(N * R, size)
};

RecordSplit splitRecords(int32_t size, int32_t recordLen) noexcept {
  const int32_t records = std::max(size / recordLen, 1);
  return {records, std::min<int64_t>(int64_t{records} * recordLen, size)};
}

}  // namespace

// The steps a normal and a reverse receive share: split the size into records, set the received bytes
// aside when they lie in this buffer, keep or replace the buffer, then copy(from, N, bytes, R); the valid
// count becomes N when the copy succeeds, else 0.
template <typename Copy>
void KXBlockDataProc::receiveRecords(const void* recvData, int32_t startPos, int32_t recvSize,
                                     Copy copy) noexcept {
  buffer().setValidCount(0);
  const int32_t r = recordSize();
  if (recvData == nullptr || recvSize <= 0 || r <= 0) return;
  const RecordSplit split = splitRecords(recvSize, r);
  try {
    std::string aside;
    const uint8_t* from = receivedBytes(recvData, startPos, split.copied, aside);
    if (!buffer().holds(split.records, r) && !replaceWithSpaces(split.records, r)) return;
    if (copy(from, split.records, split.copied, r)) buffer().setValidCount(split.records);
  } catch (...) {
    buffer().setValidCount(0);
  }
}

bool KXBlockDataProc::setData(const void* recvData, int32_t startPos, int32_t recvSize) noexcept {
  receiveRecords(recvData, startPos, recvSize, [this](const uint8_t* from, int32_t, int64_t copied, int32_t) {
    uint8_t* to = span(0, copied);
    if (to != nullptr) std::memcpy(to, from, static_cast<size_t>(copied));
    return to != nullptr;
  });
  return true;
}

bool KXBlockDataProc::setDataReverse(const void* recvData, int32_t startPos, int32_t recvSize) noexcept {
  receiveRecords(recvData, startPos, recvSize,
                 [this](const uint8_t* from, int32_t records, int64_t copied, int32_t r) {
                   uint8_t* to = span(0, int64_t{records} * r);
                   if (to == nullptr) return false;
                   // Received record k becomes buffer record N - 1 - k. Only a receive shorter than one
                   // record (N = 1) has a short record; the rest of it becomes spaces.
                   const int64_t last = records - 1;
                   for (int64_t k = 0; k <= last; ++k) {
                     const int64_t have = std::min<int64_t>(copied - k * r, r);
                     uint8_t* record = to + (last - k) * r;
                     std::memcpy(record, from + k * r, static_cast<size_t>(have));
                     std::memset(record + have, kSpace, static_cast<size_t>(r - have));
                   }
                   return true;
                 });
  return true;
}

bool KXBlockDataProc::insertRealData(const void* recvData, int32_t starPos, int32_t recvSize) noexcept {
  if (recvSize == 0) {
    buffer().setValidCount(0);  // as every receive: an empty one hides the records and keeps everything else
    return true;
  }
  const int32_t r = recordSize();
  if (recvData == nullptr || recvSize < 0 || r <= 0) return false;
  const RecordSplit split = splitRecords(recvSize, r);
  try {
    std::string aside;
    const uint8_t* from = receivedBytes(recvData, starPos, split.copied, aside);
    // A block without a buffer makes its own, with the start index at its end as initRealBufferIndex
    // leaves it, and takes the record whatever valid count it held; a refused insert keeps the new buffer.
    const bool made = buffer().data() == nullptr;
    if (made) {
      if (!replaceWithSpaces(kRealBufferRecords, r)) return false;
      buffer().setStartIndex(kRealBufferRecords);
    }
    // No record is free before the first valid one: refused rather than writing before the buffer.
    if (buffer().startIndex() <= 0) return false;
    const int32_t start = buffer().startIndex() - 1;
    const int64_t held = buffer().validCount();
    if (!made && int64_t{buffer().bufCount()} < start + held + split.records) return false;
    uint8_t* to = span(int64_t{start} * r, split.copied);
    if (to == nullptr) return false;
    std::memcpy(to, from, static_cast<size_t>(split.copied));
    buffer().setStartIndex(start);
    buffer().setValidCount(static_cast<int32_t>(std::min<int64_t>(held + split.records, INT32_MAX)));
  } catch (...) {
    return false;
  }
  return true;
}

}  // namespace blockproc
