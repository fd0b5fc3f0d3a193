// The processor object: creation, accessors, lists, the record buffer's layout and wiping, field lookup,
// and the helpers every family of operations shares.

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/FieldTypes.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/RecordBuffer.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace blockproc {

namespace {
using internal::kInt32Max;
using internal::kSpace;
}  // namespace

// ---- creation and destruction -----------------------------------------------------------------------

KXBlockDataProc::KXBlockDataProc(BlockInfo* blockInfo) : m_oBlockInfo(blockInfo) {
  if (blockInfo != nullptr) m_szBlockName = blockInfo->m_szBlockName;
}

// The members free themselves; the record bytes are blanked first, so that no value (a password field
// included) stays behind in freed memory.
KXBlockDataProc::~KXBlockDataProc() {
  buffer().wipe();
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
  return buffer().validCount();
}
void KXBlockDataProc::setValidCount(int32_t count) noexcept {
  buffer().setValidCount(count);
}
const uint8_t* KXBlockDataProc::getData() const noexcept {
  return buffer().data();
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
  buffer().setStartIndex(std::max(buffer().bufCount(), 0));
  buffer().setValidCount(0);
}

uint32_t KXBlockDataProc::getEncodingType() const noexcept {
  return m_nEncodingType;
}
int32_t KXBlockDataProc::getBufCount() const noexcept {
  return buffer().bufCount();
}
int32_t KXBlockDataProc::getStartIndex() const noexcept {
  return buffer().startIndex();
}
int32_t KXBlockDataProc::getBlockBuffSize() const noexcept {
  return buffer().size();
}
int64_t KXBlockDataProc::getBlockDataLen() const noexcept {
  return buffer().dataLen();
}

// ---- shared helpers -------------------------------------------------------------------------------------

// The record size R, or 0 without block definition or when the definition cannot give it.
int32_t KXBlockDataProc::recordSize() const noexcept {
  try {
    return m_oBlockInfo != nullptr ? m_oBlockInfo->getRecordMemSize() : 0;
  } catch (...) {
    return 0;
  }
}

// Byte offset (start index + index) * R + pos in 64 bits (the caller bounds-checks it). Throws what
// getRecordMemSize throws, so that the operation's catch gives its no-value result.
int64_t KXBlockDataProc::recordOffset(int32_t index, int64_t pos) const {
  // The definition is asked directly: a record size it cannot give must end the operation, not make
  // every record record 0.
  const int64_t r = m_oBlockInfo != nullptr ? m_oBlockInfo->getRecordMemSize() : 0;
  return buffer().recordOffset(index, pos, r);
}

// The buffer bytes [offset, offset + length), or nullptr when any of them lies outside the buffer.
const uint8_t* KXBlockDataProc::span(int64_t offset, int64_t length) const noexcept {
  return buffer().span(offset, length);
}

uint8_t* KXBlockDataProc::span(int64_t offset, int64_t length) noexcept {
  return buffer().span(offset, length);
}

// The `length` received bytes at recvData + startPos, through which every receive takes its bytes: when
// they lie in the record buffer itself (a caller handing a block its own bytes) they are copied into
// `aside` first, since the receive may replace, blank or overwrite that buffer. Throws bad_alloc.
const uint8_t* KXBlockDataProc::receivedBytes(const void* recvData, int64_t startPos, int64_t length,
                                              std::string& aside) const {
  return buffer().received(recvData, startPos, length, aside);
}

// Wipes (wipeBuffer) and frees the current buffer, then installs `records` records of R spaces.
// False, changing nothing, when the size does not fit 32 bits or allocation fails.
bool KXBlockDataProc::replaceWithSpaces(int32_t records, int32_t recordLen) noexcept {
  const bool wipes = buffer().data() != nullptr;
  if (!buffer().replaceWithRecords(records, recordLen)) return false;
  if (wipes) m_arrDynamicInput.clear();  // wiping the old buffer empties the dynamic input list too
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
  layOutDefaults((block.m_nBlockType & kBlockTypeRepeat) != 0 ? block.m_nRepeatCount : 1);
}

void KXBlockDataProc::layOutDefaults(int32_t count) noexcept {
  if (m_oBlockInfo == nullptr) return;
  const BlockInfo& block = *m_oBlockInfo;
  const int32_t r = recordSize();
  const int64_t size = int64_t{count} * r;
  if (count <= 0 || r <= 0 || size > kInt32Max) {
    // Nothing to lay out: no record is readable, an existing buffer stays.
    buffer().setBufCount(0);
    buffer().setValidCount(0);
    return;
  }
  if (!buffer().holds(count, r) && !replaceWithSpaces(count, r)) {
    buffer().setBufCount(0);
    buffer().setValidCount(0);
    return;
  }
  buffer().setBufCount(count);
  buffer().setValidCount(count);
  try {
    const int32_t fields = block.getFieldCount();
    for (int32_t j = 0; j < fields; ++j) {
      const FieldInfo* f = block.getFieldInfoFromIndex(j);
      if (f == nullptr || f->nLength <= 0) continue;
      for (int32_t i = 0; i < count; ++i) {
        uint8_t* bytes = span(int64_t{i} * r + f->nDataPos, f->nLength);
        if (bytes == nullptr) continue;  // a field outside the record gets no default
        if (ftype::rulesOf(f->nDataType).layout == ftype::Layout::NumberText) {
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
  buffer().wipe();
  m_arrDynamicInput.clear();
}

void KXBlockDataProc::wipeBuffer(int32_t length) noexcept {
  buffer().wipe(length, recordSize());
  m_arrDynamicInput.clear();
}

std::unique_ptr<uint8_t[]> KXBlockDataProc::reSizeBytes(const uint8_t* oldBytes,
                                                        int32_t newLength) const noexcept {
  return buffer().resized(oldBytes, newLength, recordSize());
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
