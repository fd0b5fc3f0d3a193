#include "blockproc/data/BlockInfo.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "blockproc/detail/FieldNameIndex.h"
#include "blockproc/detail/Internal.h"

namespace blockproc {

namespace {
using internal::kInt32Max;
}

BlockInfo::BlockInfo() = default;
BlockInfo::BlockInfo(std::string name) : m_szBlockName(std::move(name)) {}

BlockInfo::~BlockInfo() = default;

FieldInfo& BlockInfo::addField(std::string name, int32_t dataType, int32_t length, int32_t decimals,
                               int32_t position) {
  auto field = std::make_unique<FieldInfo>(std::move(name), dataType, length, decimals);
  if (position >= 0) {
    field->nDataPos = position;
  } else if (!m_FieldInfoList.empty()) {
    const FieldInfo& last = *m_FieldInfoList.back();
    const int64_t next =
        int64_t{last.nDataPos} + std::max(last.nLength, 0) + (carriesAttr(last) && last.nLength > 0 ? 1 : 0);
    field->nDataPos = static_cast<int32_t>(std::clamp<int64_t>(next, 0, kInt32Max));
  }
  return addField(std::move(field));
}

FieldInfo& BlockInfo::addField(std::unique_ptr<FieldInfo> field) {
  field->nIndex = static_cast<int32_t>(m_FieldInfoList.size());
  if (!m_FieldMap) m_FieldMap = std::make_unique<FieldNameIndex>();
  m_FieldMap->insert(field->szFieldName, field.get());  // keeps the first field of a name
  m_FieldInfoList.push_back(std::move(field));
  m_nFieldCount = static_cast<int32_t>(m_FieldInfoList.size());
  return *m_FieldInfoList.back();
}

void BlockInfo::setRepeat(int32_t count) noexcept {
  m_nBlockType = static_cast<int8_t>(m_nBlockType | kBlockTypeRepeat);
  m_nRepeatCount = count;
}

void BlockInfo::setAttrSource(std::string key, const FieldInfo* source) {
  m_dicAttrFieldInfo[std::move(key)] = source;
}

template <typename Compute>
int32_t BlockInfo::SizeCache::get(size_t fieldCount, bool attribute, Compute compute) const {
  int32_t size = 0;
  if (peek(fieldCount, attribute, size)) return size;
  size = compute();
  if (fieldCount == 0 || fieldCount > (uint64_t{1} << 30)) return size;
  m_packed.store(keyOf(fieldCount, attribute) | static_cast<uint32_t>(size), std::memory_order_relaxed);
  return size;
}

int32_t BlockInfo::getRecordMemSize() const {
  if (m_nRecordIOMemSize >= 0) return m_nRecordIOMemSize;
  return m_memSize.get(m_FieldInfoList.size(), m_bAttribute, [this] {
    int64_t size = 0;
    for (const auto& f : m_FieldInfoList) {
      if (f->nLength <= 0) continue;
      size = std::max(size, int64_t{f->nDataPos} + f->nLength + (carriesAttr(*f) ? 1 : 0));
    }
    return static_cast<int32_t>(std::min(size, kInt32Max));
  });
}

int32_t BlockInfo::getRecordFieldSize() const {
  if (m_nRecordIOSize >= 0) return m_nRecordIOSize;
  return m_fieldSize.get(m_FieldInfoList.size(), m_bAttribute, [this] {
    int64_t size = 0;
    for (const auto& f : m_FieldInfoList) size += std::max(f->nLength, 0);
    return static_cast<int32_t>(std::min(size, kInt32Max));
  });
}

int32_t BlockInfo::getFieldCount() const {
  return static_cast<int32_t>(m_FieldInfoList.size());
}

const FieldInfo* BlockInfo::getFieldInfoFromIndex(int32_t position) const {
  if (position < 0 || static_cast<size_t>(position) >= m_FieldInfoList.size()) return nullptr;
  return m_FieldInfoList[static_cast<size_t>(position)].get();
}

const FieldInfo* BlockInfo::getFieldInfoFromName(std::string_view name) const {
  return m_FieldMap ? m_FieldMap->find(name) : nullptr;
}

KeyEncDict* BlockInfo::getKeyEncValue(std::string_view fieldName) {
  const FieldInfo* field = getFieldInfoFromName(fieldName);
  if (field == nullptr || !field->getKeyEncState()) return nullptr;
  auto it = m_keyEncValues.find(fieldName);
  if (it == m_keyEncValues.end()) it = m_keyEncValues.emplace(std::string(fieldName), KeyEncDict{}).first;
  return &it->second;
}

const KeyEncDict* BlockInfo::findKeyEncValue(std::string_view fieldName) const {
  const auto it = m_keyEncValues.find(fieldName);
  return it == m_keyEncValues.end() ? nullptr : &it->second;
}

const FieldInfo* BlockInfo::getAttrRefSourceFieldInfo(std::string_view key) const {
  const auto it = m_dicAttrFieldInfo.find(key);
  if (it != m_dicAttrFieldInfo.end()) return it->second;
  return getFieldInfoFromName(key);
}

bool BlockInfo::isOccursBlock() const {
  return (m_nBlockType & kBlockTypeRepeat) != 0;
}

int32_t BlockInfo::getAttrFunctionIndex(std::string_view functionName) {
  static constexpr std::array<std::string_view, 9> kNames{"compare",    "compareto",  "fluctbit",
                                                          "timevolume", "unitvolume", "trdbit",
                                                          "zero",       "makecolor",  "usepclose"};
  for (size_t i = 0; i < kNames.size(); ++i)
    if (kNames[i] == functionName) return static_cast<int32_t>(i);
  return FUNC_BASE_INDEX;
}

}  // namespace blockproc
