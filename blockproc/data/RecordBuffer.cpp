#include "blockproc/data/RecordBuffer.h"
#include "blockproc/util/Internal.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <utility>

namespace blockproc {

namespace {
using internal::kInt32Max;
using internal::kSpace;
}  // namespace

void RecordBuffer::setDataLen(int64_t length) noexcept {
  dataLen_ = std::clamp<int64_t>(length, 0, size_);
}

bool RecordBuffer::holds(int32_t records, int64_t recordLen) const noexcept {
  return bytes_ && bufCount_ >= records && records * recordLen <= size_;
}

const uint8_t* RecordBuffer::received(const void* data, int64_t startPos, int64_t length,
                                      std::string& aside) const {
  const auto* from = static_cast<const uint8_t*>(data) + startPos;
  const uint8_t* own = bytes_.get();
  const std::less<const uint8_t*> before;
  const bool overlaps = own != nullptr && before(from, own + size_) && before(own, from + length);
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
  bytes_ = std::move(area);
  size_ = bytes_ ? size : 0;
  dataLen_ = std::min<int64_t>(dataLen_, size_);
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
  if (bytes_) wipe();
  install(std::move(area), static_cast<int32_t>(size));
  bufCount_ = records;
  return true;
}

std::unique_ptr<uint8_t[]> RecordBuffer::resized(const uint8_t* oldBytes, int32_t newLength,
                                                 int64_t recordLen) const noexcept {
  auto area = newSpaces(std::max(newLength, 0));
  if (!area || oldBytes == nullptr) return area;
  const int64_t records = recordLen * bufCount_;
  int64_t keep = dataLen_ > 0 ? std::min<int64_t>(dataLen_, records) : records;
  keep = std::clamp<int64_t>(keep, 0, size_);
  // The old bytes are only known to span the recorded size when they are this buffer's own.
  if (oldBytes != bytes_.get()) keep = 0;
  std::memcpy(area.get(), oldBytes, static_cast<size_t>(std::min<int64_t>(keep, std::max(newLength, 0))));
  return area;
}

bool RecordBuffer::grow(int64_t count, int32_t stride, int64_t recordLen) noexcept {
  if (count <= 0 || stride <= 0) return false;
  const int64_t newSize = count * stride;
  if (newSize > kInt32Max) return false;
  const int32_t oldCount = bufCount_;
  bufCount_ = static_cast<int32_t>(count);  // raised first, so resized() copies what the old buffer held
  auto area = resized(bytes_.get(), static_cast<int32_t>(newSize), recordLen);
  if (!area) {
    bufCount_ = oldCount;  // as it was, a negative count included
    return false;
  }
  install(std::move(area), static_cast<int32_t>(newSize));
  const int64_t from = std::min(int64_t{std::max(oldCount, 0)} * stride, newSize);
  std::memset(bytes_.get() + from, kSpace, static_cast<size_t>(newSize - from));
  return true;
}

void RecordBuffer::wipe() noexcept {
  // A buffer of recorded size 0 has no byte of its own to blank.
  if (bytes_ && size_ > 0) std::memset(bytes_.get(), kSpace, static_cast<size_t>(size_));
  validCount_ = 0;
}

void RecordBuffer::wipe(int32_t length, int64_t recordLen) noexcept {
  length = std::min(length, size_);
  if (bytes_ && length > 0) {
    int64_t width = std::min<int64_t>(dataLen_, recordLen * bufCount_);
    width = std::clamp<int64_t>(width, 0, size_);
    std::memset(bytes_.get(), kSpace, static_cast<size_t>(width));
  }
  validCount_ = 0;
}

}  // namespace blockproc
