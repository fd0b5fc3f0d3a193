// The processor object: creation, accessors, lists, the record buffer, field lookup, and the helpers every
// family of operations shares.

#include "blockproc/data/KXBlockDataProc.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <limits>
#include <new>

#include "blockproc/codec/TextCodec.h"
#include "blockproc/codec/Utf8.h"
#include "blockproc/util/NumberFormat.h"
#include "blockproc/util/NumberParse.h"

namespace blockproc {

namespace {
constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();
constexpr uint8_t kSpace = 0x20;
}  // namespace

// ---- creation and destruction -----------------------------------------------------------------------

KXBlockDataProc::KXBlockDataProc(BlockInfo* blockInfo) : m_oBlockInfo(blockInfo) {
  if (blockInfo != nullptr) m_szBlockName = blockInfo->m_szBlockName;
}

KXBlockDataProc::~KXBlockDataProc() {
  m_FieldLinkInfoList.clear();
  m_RealAPLinkInfoList.clear();
  m_ConnCtlList.clear();
  m_szBlockName.clear();
  m_arrDynamicInput.clear();
  if (m_pBlockData) {
    clearData();
    m_pBlockData.reset();
  }
  m_nBlockBuffSize = 0;
}

// ---- accessors and lists ------------------------------------------------------------------------------

void KXBlockDataProc::setEncodingType(uint32_t encoding) noexcept {
  m_nEncodingType = encoding;
}
void KXBlockDataProc::setBlockInfo(BlockInfo* blockInfo) noexcept {
  m_oBlockInfo = blockInfo;
}
BlockInfo* KXBlockDataProc::getBlockInfo() const noexcept {
  return m_oBlockInfo;
}
void KXBlockDataProc::setDataProc(BaseDataProc* parent) noexcept {
  m_pParentDP = parent;
}
BaseDataProc* KXBlockDataProc::getDataProc() const noexcept {
  return m_pParentDP;
}
void KXBlockDataProc::setBlockName(std::string name) noexcept {
  m_szBlockName = std::move(name);
}
void KXBlockDataProc::setM_szBlockName(std::string name) noexcept {
  m_szBlockName = std::move(name);
}
const std::string& KXBlockDataProc::getBlockName() const noexcept {
  return m_szBlockName;
}
int32_t KXBlockDataProc::getValidCount() const noexcept {
  return m_nValidCount;
}
void KXBlockDataProc::setValidCount(int32_t count) noexcept {
  m_nValidCount = count;
}
const uint8_t* KXBlockDataProc::getData() const noexcept {
  return m_pBlockData.get();
}
int32_t KXBlockDataProc::getBlockRepCount() const noexcept {
  return m_oBlockInfo != nullptr ? m_oBlockInfo->m_nRepeatCount : 0;
}
void KXBlockDataProc::setReceived(bool received) noexcept {
  m_bReceived = received;
}
bool KXBlockDataProc::getReceived() const noexcept {
  return m_bReceived;
}
bool KXBlockDataProc::isOccursBlock() const noexcept {
  try {
    return m_oBlockInfo != nullptr && m_oBlockInfo->isOccursBlock();
  } catch (...) {
    return false;
  }
}

std::vector<std::shared_ptr<void>>& KXBlockDataProc::getConnCtlList() noexcept {
  return m_ConnCtlList;
}

void KXBlockDataProc::addConnCtl(std::shared_ptr<void> control) noexcept {
  if (!control) return;
  for (const auto& held : m_ConnCtlList)
    if (held.get() == control.get()) return;
  try {
    m_ConnCtlList.push_back(std::move(control));
  } catch (...) {
  }
}

void KXBlockDataProc::removeConnCtl(const void* control) noexcept {
  for (auto it = m_ConnCtlList.begin(); it != m_ConnCtlList.end(); ++it) {
    if (it->get() == control) {
      m_ConnCtlList.erase(it);
      return;
    }
  }
}

void KXBlockDataProc::addFieldLinkInfo(std::unique_ptr<FieldLinkInfo> link) noexcept {
  if (!link) return;
  try {
    m_FieldLinkInfoList.push_back(std::move(link));
  } catch (...) {
  }
}

FieldLinkInfo* KXBlockDataProc::getLinkInfo(int32_t position) const noexcept {
  if (position < 0 || static_cast<size_t>(position) >= m_FieldLinkInfoList.size()) return nullptr;
  return m_FieldLinkInfoList[static_cast<size_t>(position)].get();
}

int32_t KXBlockDataProc::getLinkCount() const noexcept {
  return static_cast<int32_t>(m_FieldLinkInfoList.size());
}

void KXBlockDataProc::addRealAPLinkInfo(std::unique_ptr<RealAPLinkInfo> link) noexcept {
  if (!link) return;
  try {
    m_RealAPLinkInfoList.push_back(std::move(link));
  } catch (...) {
  }
}

RealAPLinkInfo* KXBlockDataProc::getRealAPLinkInfo(int32_t position) const noexcept {
  if (position < 0 || static_cast<size_t>(position) >= m_RealAPLinkInfoList.size()) return nullptr;
  return m_RealAPLinkInfoList[static_cast<size_t>(position)].get();
}

int32_t KXBlockDataProc::getRealAPLinkCount() const noexcept {
  return static_cast<int32_t>(m_RealAPLinkInfoList.size());
}

void KXBlockDataProc::initRealBufferIndex() noexcept {
  m_nStartIndex = std::max(m_nBufCount, 0);
  m_nValidCount = 0;
}

uint32_t KXBlockDataProc::getEncodingType() const noexcept {
  return m_nEncodingType;
}
int32_t KXBlockDataProc::getBufCount() const noexcept {
  return m_nBufCount;
}
int32_t KXBlockDataProc::getStartIndex() const noexcept {
  return m_nStartIndex;
}
int32_t KXBlockDataProc::getBlockBuffSize() const noexcept {
  return m_nBlockBuffSize;
}
int64_t KXBlockDataProc::getBlockDataLen() const noexcept {
  return m_nBlockDataLen;
}

// ---- shared helpers -------------------------------------------------------------------------------------

int32_t KXBlockDataProc::recordSize() const noexcept {
  try {
    return m_oBlockInfo != nullptr ? m_oBlockInfo->getRecordMemSize() : 0;
  } catch (...) {
    return 0;
  }
}

bool KXBlockDataProc::carriesAttr(const FieldInfo& info) const noexcept {
  return info.nAttr != 0 || (m_oBlockInfo != nullptr && m_oBlockInfo->m_bAttribute);
}

int64_t KXBlockDataProc::recordOffset(int32_t index, int64_t pos) const {
  // The definition is asked directly: a record size it cannot give must end the operation, not make
  // every record record 0.
  const int64_t r = m_oBlockInfo != nullptr ? m_oBlockInfo->getRecordMemSize() : 0;
  return (int64_t{m_nStartIndex} + index) * r + pos;
}

const uint8_t* KXBlockDataProc::span(int64_t offset, int64_t length) const noexcept {
  if (!m_pBlockData || offset < 0 || length < 0 || offset + length > m_nBlockBuffSize) return nullptr;
  return m_pBlockData.get() + offset;
}

uint8_t* KXBlockDataProc::span(int64_t offset, int64_t length) noexcept {
  return const_cast<uint8_t*>(std::as_const(*this).span(offset, length));
}

std::unique_ptr<uint8_t[]> KXBlockDataProc::newSpaces(int64_t size) noexcept {
  if (size < 0 || size > kInt32Max) return nullptr;
  std::unique_ptr<uint8_t[]> area(new (std::nothrow) uint8_t[static_cast<size_t>(size) + 1]);
  if (area) {
    std::memset(area.get(), kSpace, static_cast<size_t>(size));
    area[static_cast<size_t>(size)] = 0;
  }
  return area;
}

void KXBlockDataProc::installBuffer(std::unique_ptr<uint8_t[]> area, int32_t size) noexcept {
  m_pBlockData = std::move(area);
  m_nBlockBuffSize = m_pBlockData ? size : 0;
  m_nBlockDataLen = std::min<int64_t>(m_nBlockDataLen, m_nBlockBuffSize);
}

const uint8_t* KXBlockDataProc::receivedBytes(const void* recvData, int64_t startPos, int64_t length,
                                              std::string& aside) const {
  const auto* from = static_cast<const uint8_t*>(recvData) + startPos;
  const uint8_t* buffer = m_pBlockData.get();
  const std::less<const uint8_t*> before;
  const bool overlaps =
      buffer != nullptr && before(from, buffer + m_nBlockBuffSize) && before(buffer, from + length);
  if (!overlaps) return from;
  aside.assign(reinterpret_cast<const char*>(from), static_cast<size_t>(length));
  return reinterpret_cast<const uint8_t*>(aside.data());
}

bool KXBlockDataProc::holdsRecords(int32_t records) const noexcept {
  return m_pBlockData && m_nBufCount >= records && int64_t{records} * recordSize() <= m_nBlockBuffSize;
}

bool KXBlockDataProc::replaceWithSpaces(int32_t records, int32_t recordLen) noexcept {
  const int64_t size = int64_t{records} * recordLen;
  auto area = newSpaces(size);
  if (!area) return false;
  if (m_pBlockData) wipeBuffer();
  installBuffer(std::move(area), static_cast<int32_t>(size));
  m_nBufCount = records;
  return true;
}

bool KXBlockDataProc::growRecords(int32_t index, int32_t stride, GrowWipe wipe) noexcept {
  if (index < 0 || stride <= 0) return false;
  const int64_t count = int64_t{index} + 1;
  const int64_t newSize = count * stride;
  if (newSize > kInt32Max) return false;
  const int32_t oldCount = std::max(m_nBufCount, 0);
  m_nBufCount = static_cast<int32_t>(count);  // raised first, so reSizeBytes copies what the old buffer held
  auto area = reSizeBytes(m_pBlockData.get(), static_cast<int32_t>(newSize));
  if (!area) {
    m_nBufCount = oldCount;
    return false;
  }
  if (wipe == GrowWipe::WipeLengthThenWipe)
    wipeBuffer(static_cast<int32_t>(std::min(int64_t{oldCount} * stride, kInt32Max)));
  if (wipe != GrowWipe::None && m_pBlockData) wipeBuffer();
  installBuffer(std::move(area), static_cast<int32_t>(newSize));
  const int64_t from = std::min(int64_t{oldCount} * stride, newSize);
  std::memset(m_pBlockData.get() + from, kSpace, static_cast<size_t>(newSize - from));
  return true;
}

bool KXBlockDataProc::isWebSocketJsonMode() const noexcept {
  try {
    if (m_pParentDP == nullptr) return false;
    const TranInfo* tran = m_pParentDP->getTranInfo();
    return tran != nullptr && (tran->m_strDataMode == ".WSKJson" || tran->m_strDataMode == ".WSKJsonFeed");
  } catch (...) {
    return false;
  }
}

bool KXBlockDataProc::encodeValue(std::string_view value, std::string& bytes) const noexcept {
  bytes.clear();
  return codec::encodeAppend(m_nEncodingType, value, bytes);
}

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

bool KXBlockDataProc::writeBinary(uint8_t* field, int32_t length, int32_t dataType,
                                  std::string_view value) noexcept {
  uint8_t bytes[8];
  size_t width;
  switch (dataType) {
    case kFieldInt16: {
      // Read as 32 bits, stored as its low 16 bits (two's complement).
      const auto v = static_cast<uint16_t>(static_cast<uint32_t>(num::parseInt32(value)));
      std::memcpy(bytes, &v, width = 2);
      break;
    }
    case kFieldInt64: {
      const int64_t v = num::parseInt64(value);
      std::memcpy(bytes, &v, width = 8);
      break;
    }
    case kFieldFloat: {
      const float v = num::narrowToFloat(num::parseLeadingDouble(value));
      std::memcpy(bytes, &v, width = 4);
      break;
    }
    case kFieldDouble: {
      const double v = num::parseLeadingDouble(value);
      std::memcpy(bytes, &v, width = 8);
      break;
    }
    default:
      return false;
  }
  static_assert(std::endian::native == std::endian::little, "binary fields are little-endian");
  if (length > 0) std::memcpy(field, bytes, std::min(width, static_cast<size_t>(length)));
  return true;
}

// ---- record buffer --------------------------------------------------------------------------------------

int32_t KXBlockDataProc::calcPacketSize() const noexcept {
  if (m_oBlockInfo == nullptr) return 0;
  const int64_t r = recordSize();
  const bool repeated =
      (m_oBlockInfo->m_nBlockType & kBlockTypeRepeat) != 0 && m_oBlockInfo->m_nRepeatCount != 0;
  const int64_t size = repeated ? r * m_oBlockInfo->m_nRepeatCount : r;
  return static_cast<int32_t>(std::clamp<int64_t>(size, 0, kInt32Max));
}

void KXBlockDataProc::DefaultMemory() noexcept {
  if (m_oBlockInfo == nullptr) return;
  const BlockInfo& block = *m_oBlockInfo;
  const int32_t count = (block.m_nBlockType & kBlockTypeRepeat) != 0 ? block.m_nRepeatCount : 1;
  const int32_t r = recordSize();
  const int64_t size = int64_t{count} * r;
  if (count <= 0 || r <= 0 || size > kInt32Max) {
    // Nothing to lay out: no record is readable, an existing buffer stays.
    m_nBufCount = m_nValidCount = 0;
    return;
  }
  if (!holdsRecords(count) && !replaceWithSpaces(count, r)) {
    m_nBufCount = m_nValidCount = 0;
    return;
  }
  m_nBufCount = m_nValidCount = count;
  try {
    const int32_t fields = block.getFieldCount();
    for (int32_t j = 0; j < fields; ++j) {
      const FieldInfo* f = block.getFieldInfoFromIndex(j);
      if (f == nullptr || f->nLength <= 0) continue;
      for (int32_t i = 0; i < count; ++i) {
        uint8_t* bytes = span(int64_t{i} * r + f->nDataPos, f->nLength);
        if (bytes == nullptr) continue;  // a field outside the record gets no default
        if (f->nDataType == kFieldNumText) {
          std::memset(bytes, '0', static_cast<size_t>(f->nLength));
          if (f->nDecimalLen > 0 && f->nLength > f->nDecimalLen) bytes[f->nLength - f->nDecimalLen - 1] = '.';
        } else {
          std::memset(bytes, kSpace, static_cast<size_t>(f->nLength));
        }
      }
    }
  } catch (...) {
  }
}

void KXBlockDataProc::clearData() noexcept {
  wipeBuffer();
}

void KXBlockDataProc::wipeBuffer() noexcept {
  if (m_pBlockData && m_nBlockBuffSize > 0) {
    std::memset(m_pBlockData.get(), kSpace, static_cast<size_t>(m_nBlockBuffSize));
  }
  // A buffer of recorded size 0 has no byte of its own to blank.
  m_arrDynamicInput.clear();
  m_nValidCount = 0;
}

void KXBlockDataProc::wipeBuffer(int32_t length) noexcept {
  length = std::min(length, m_nBlockBuffSize);
  if (m_pBlockData && length > 0) {
    int64_t width = std::min<int64_t>(m_nBlockDataLen, int64_t{recordSize()} * m_nBufCount);
    width = std::clamp<int64_t>(width, 0, m_nBlockBuffSize);
    std::memset(m_pBlockData.get(), kSpace, static_cast<size_t>(width));
  }
  m_arrDynamicInput.clear();
  m_nValidCount = 0;
}

std::unique_ptr<uint8_t[]> KXBlockDataProc::reSizeBytes(const uint8_t* oldBytes,
                                                        int32_t newLength) const noexcept {
  auto area = newSpaces(std::max(newLength, 0));
  if (!area || oldBytes == nullptr) return area;
  const int64_t records = int64_t{recordSize()} * m_nBufCount;
  int64_t keep = m_nBlockDataLen > 0 ? std::min<int64_t>(m_nBlockDataLen, records) : records;
  keep = std::clamp<int64_t>(keep, 0, m_nBlockBuffSize);
  // The old bytes are only known to span the recorded buffer size when they are the record buffer.
  if (oldBytes != m_pBlockData.get()) keep = 0;
  std::memcpy(area.get(), oldBytes, static_cast<size_t>(std::min<int64_t>(keep, std::max(newLength, 0))));
  return area;
}

// ---- field lookup and classification ----------------------------------------------------------------------

int32_t KXBlockDataProc::getFieldIndexFromName(std::string_view name) const noexcept {
  if (m_oBlockInfo == nullptr) return -1;
  try {
    const int32_t count = m_oBlockInfo->getFieldCount();
    for (int32_t i = 0; i < count; ++i) {
      const FieldInfo* f = m_oBlockInfo->getFieldInfoFromIndex(i);
      if (f != nullptr && f->szFieldName == name) return i;
    }
  } catch (...) {
  }
  return -1;
}

const FieldInfo* KXBlockDataProc::findFieldInfo(std::string_view name) const noexcept {
  try {
    return m_oBlockInfo != nullptr ? m_oBlockInfo->getFieldInfoFromName(name) : nullptr;
  } catch (...) {
    return nullptr;
  }
}

bool KXBlockDataProc::isAccountNoField(std::string_view name) const noexcept {
  const FieldInfo* f = findFieldInfo(name);
  try {
    return f != nullptr && f->isAccNoField();
  } catch (...) {
    return false;
  }
}

bool KXBlockDataProc::isItemCodeField(std::string_view name) const noexcept {
  const FieldInfo* f = findFieldInfo(name);
  try {
    return f != nullptr && f->isSTCodeField();
  } catch (...) {
    return false;
  }
}

bool KXBlockDataProc::isPasswordField(std::string_view name) const noexcept {
  const FieldInfo* f = findFieldInfo(name);
  try {
    return f != nullptr && f->isPasswordField();
  } catch (...) {
    return false;
  }
}

}  // namespace blockproc
