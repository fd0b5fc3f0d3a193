// Dynamic-length input values and dynamic receives.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/RecordBuffer.h"

namespace blockproc {

// ---- dynamic input list ---------------------------------------------------------------------------------

void KXBlockDataProc::setFieldDataDynamicLen(const FieldInfo* info, int32_t nIndex,
                                             std::optional<std::string_view> sValue) noexcept {
  if (info == nullptr || !sValue) return;
  try {
    const uint64_t key = info->hash();
    if (nIndex >= 0 && static_cast<size_t>(nIndex) < m_arrDynamicInput.size()) {
      m_arrDynamicInput[static_cast<size_t>(nIndex)][key] = std::string(*sValue);
      return;
    }
    // A new record goes at the end of the list whatever its index: list position and record index agree
    // only while indexes are set in order.
    std::unordered_map<uint64_t, std::string> record;
    record.emplace(key, std::string(*sValue));
    m_arrDynamicInput.push_back(std::move(record));
    // index + 1, held at the 32-bit limit for the largest index.
    if (nIndex >= 0)
      buffer().setValidCount(std::max(buffer().validCount(), nIndex < INT32_MAX ? nIndex + 1 : nIndex));
  } catch (...) {
  }
}

std::string KXBlockDataProc::getFieldDataDynamicLen(const FieldInfo* info, int32_t nIndex) const noexcept {
  if (info == nullptr || nIndex < 0 || static_cast<size_t>(nIndex) >= m_arrDynamicInput.size()) return {};
  try {
    const auto& record = m_arrDynamicInput[static_cast<size_t>(nIndex)];
    const auto it = record.find(info->hash());
    return it != record.end() ? it->second : std::string();
  } catch (...) {
    return {};
  }
}

bool KXBlockDataProc::getFieldDataDynamicLen(const FieldInfo* info, int32_t nIndex,
                                             FieldData& data) const noexcept {
  if (info == nullptr || !buffer().data() || nIndex < 0 || nIndex >= buffer().validCount()) return false;
  data.setData(getFieldDataDynamicLen(info, nIndex));
  data.setAttr(getFieldAttrFromInfo(info, nIndex));
  return true;
}

int64_t KXBlockDataProc::getDynamicInputCnt() const noexcept {
  return static_cast<int64_t>(m_arrDynamicInput.size());
}

void KXBlockDataProc::initDynamicRealBufferIndex() noexcept {
  buffer().setStartIndex(0);
  buffer().setValidCount(0);
}

// ---- dynamic receives -----------------------------------------------------------------------------------

bool KXBlockDataProc::setDataDynamic(const void* recvData, int32_t startPos, int32_t recvSize) noexcept {
  buffer().setValidCount(0);
  if (recvData == nullptr || recvSize <= 0) return true;
  const int64_t r = recordSize();
  int64_t records = r > 0 ? recvSize / r : 0;
  int64_t size = records * r;
  if (records <= 0) {
    // Fewer bytes than one record (or no record size): one short record of exactly the bytes received.
    records = 1;
    size = recvSize;
  }
  try {
    std::string aside;
    const uint8_t* from = receivedBytes(recvData, startPos, size, aside);
    const bool replace = !buffer().data() || buffer().bufCount() < records || size > buffer().dataLen() ||
                         span(0, size) == nullptr;
    if (replace) {
      // The old area goes without a wipe: the dynamic input list and the counts stay.
      if (!buffer().replace(size)) return true;
      buffer().setDataLen(size);
      buffer().setBufCount(static_cast<int32_t>(records));
    }
    // size never exceeds the received size: a remainder after whole records is dropped.
    std::memcpy(span(0, size), from, static_cast<size_t>(size));
    buffer().setValidCount(static_cast<int32_t>(records));
  } catch (...) {
    buffer().setValidCount(0);
  }
  return true;
}

bool KXBlockDataProc::resetDataDynamic(const void* data, int32_t nRecvSize) noexcept {
  buffer().setValidCount(0);
  if (data == nullptr || nRecvSize <= 0) {
    buffer().setDataLen(0);
    return true;
  }
  try {
    std::string aside;
    const uint8_t* from = receivedBytes(data, 0, nRecvSize, aside);
    // Another operation may have put a different area in place since the last dynamic receive: reuse only
    // what both the block data length and the area itself cover (the buffer keeps the one inside the other).
    const int64_t reusable = buffer().dataLen();
    if (reusable >= nRecvSize) {
      std::memset(span(0, reusable), internal::kSpace, static_cast<size_t>(reusable));
    } else {
      if (!buffer().replace(nRecvSize)) return true;  // the old area goes without a wipe
      buffer().setDataLen(nRecvSize);
    }
    std::memcpy(span(0, nRecvSize), from, static_cast<size_t>(nRecvSize));
    buffer().setBufCount(1);
    buffer().setValidCount(1);
  } catch (...) {
    buffer().setValidCount(0);
  }
  return true;
}

}  // namespace blockproc
