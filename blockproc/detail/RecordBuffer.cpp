#include "blockproc/detail/RecordBuffer.h"
#include "blockproc/detail/Internal.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <utility>

namespace blockproc::detail {

namespace {
using internal::kInt32Max;
using internal::kSpace;
}  // namespace

void RecordBuffer::setDataLen(int64_t length) noexcept {
  s_.dataLen = std::clamp<int64_t>(length, 0, s_.size);
}

bool RecordBuffer::holds(int32_t records, int64_t recordLen) const noexcept {
  return s_.bytes && s_.bufCount >= records && records * recordLen <= s_.size;
}

const uint8_t* RecordBuffer::received(const void* data, int64_t startPos, int64_t length,
                                      std::string& aside) const {
  const auto* from = static_cast<const uint8_t*>(data) + startPos;
  const uint8_t* own = s_.bytes.get();
  const std::less<const uint8_t*> before;
  const bool overlaps = own != nullptr && before(from, own + s_.size) && before(own, from + length);
  if (!overlaps) return from;
  aside.assign(reinterpret_cast<const char*>(from), static_cast<size_t>(length));
  return reinterpret_cast<const uint8_t*>(aside.data());
}

std::unique_ptr<uint8_t[]> RecordBuffer::newSpaces(int64_t size) noexcept {
  if (size < 0 || size > kInt32Max) return nullptr;
  std::unique_ptr<uint8_t[]> area(new (std::nothrow) uint8_t[static_cast<size_t>(size) + 1]);
  if (area) {
    std::memset(area.get(), kSpace, static_cast<size_t>(size));
    area[static_cast<size_t>(size)] = 0;
  }
  return area;
}

void RecordBuffer::install(std::unique_ptr<uint8_t[]> area, int32_t size) noexcept {
  s_.bytes = std::move(area);
  s_.size = s_.bytes ? size : 0;
  s_.dataLen = std::min<int64_t>(s_.dataLen, s_.size);
}

bool RecordBuffer::replace(int64_t size) noexcept {
  auto area = newSpaces(size);
  if (!area) return false;
  install(std::move(area), static_cast<int32_t>(size));
  return true;
}

bool RecordBuffer::replaceWithRecords(int32_t records, int32_t recordLen) noexcept {
  const int64_t size = int64_t{records} * recordLen;
  auto area = newSpaces(size);
  if (!area) return false;
  if (s_.bytes) wipe();
  install(std::move(area), static_cast<int32_t>(size));
  s_.bufCount = records;
  return true;
}

std::unique_ptr<uint8_t[]> RecordBuffer::resized(const uint8_t* oldBytes, int32_t newLength,
                                                 int64_t recordLen) const noexcept {
  auto area = newSpaces(std::max(newLength, 0));
  if (!area || oldBytes == nullptr) return area;
  const int64_t records = recordLen * s_.bufCount;
  int64_t keep = s_.dataLen > 0 ? std::min<int64_t>(s_.dataLen, records) : records;
  keep = std::clamp<int64_t>(keep, 0, s_.size);
  // The old bytes are only known to span the recorded size when they are this buffer's own.
  if (oldBytes != s_.bytes.get()) keep = 0;
  std::memcpy(area.get(), oldBytes, static_cast<size_t>(std::min<int64_t>(keep, std::max(newLength, 0))));
  return area;
}

bool RecordBuffer::grow(int64_t count, int32_t stride, int64_t recordLen) noexcept {
  if (count <= 0 || stride <= 0) return false;
  const int64_t newSize = count * stride;
  if (newSize > kInt32Max) return false;
  const int32_t oldCount = s_.bufCount;
  s_.bufCount = static_cast<int32_t>(count);  // raised first, so resized() copies what the old buffer held
  auto area = resized(s_.bytes.get(), static_cast<int32_t>(newSize), recordLen);
  if (!area) {
    s_.bufCount = oldCount;  // as it was, a negative count included
    return false;
  }
  install(std::move(area), static_cast<int32_t>(newSize));
  const int64_t from = std::min(int64_t{std::max(oldCount, 0)} * stride, newSize);
  std::memset(s_.bytes.get() + from, kSpace, static_cast<size_t>(newSize - from));
  return true;
}

void RecordBuffer::wipe() noexcept {
  // A buffer of recorded size 0 has no byte of its own to blank.
  if (s_.bytes && s_.size > 0) std::memset(s_.bytes.get(), kSpace, static_cast<size_t>(s_.size));
  s_.validCount = 0;
}

void RecordBuffer::wipe(int32_t length, int64_t recordLen) noexcept {
  length = std::min(length, s_.size);
  if (s_.bytes && length > 0) {
    int64_t width = std::min<int64_t>(s_.dataLen, recordLen * s_.bufCount);
    width = std::clamp<int64_t>(width, 0, s_.size);
    std::memset(s_.bytes.get(), kSpace, static_cast<size_t>(width));
  }
  s_.validCount = 0;
}

}  // namespace blockproc::detail
