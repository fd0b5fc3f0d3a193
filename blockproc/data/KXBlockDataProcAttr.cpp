// Attribute bytes and derived attributes.

#include <string_view>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/RecordBuffer.h"

namespace blockproc {

namespace {

// The attribute value of attribute text: "0x" (lower-case x only) and hexadecimal digits, else a decimal
// integer with optional sign; its low 8 bits. No text, and text without digits, give 0.
uint8_t attrFromText(std::optional<std::string_view> text) noexcept {
  if (!text) return 0;
  if (text->starts_with("0x")) return static_cast<uint8_t>(num::parseHex(text->substr(2)));
  return static_cast<uint8_t>(static_cast<uint32_t>(num::parseInt32(*text)));
}

}  // namespace

// Whether the field carries an attribute byte (the block's m_bAttribute or the field's nAttr).
bool KXBlockDataProc::carriesAttr(const FieldInfo& info) const noexcept {
  return info.nAttr != 0 || (m_oBlockInfo != nullptr && m_oBlockInfo->m_bAttribute);
}

// ---- stored attribute bytes -----------------------------------------------------------------------------

uint8_t KXBlockDataProc::getFieldAttrFromInfo(const FieldInfo* info, int32_t index) const noexcept {
  if (info == nullptr || !buffer().data() || index < 0 || index >= buffer().validCount()) return 0;
  try {
    if (!carriesAttr(*info)) return 0;
    const uint8_t* attr = span(recordOffset(index, int64_t{info->nDataPos} + info->nLength), 1);
    return attr != nullptr ? *attr : 0;
  } catch (...) {
    return 0;
  }
}

void KXBlockDataProc::setFieldAttrFromInfo(const FieldInfo* info, int32_t index, uint8_t value) noexcept {
  if (info == nullptr || index < 0 || index >= buffer().validCount()) return;
  // Without an attribute byte the position would be the next field's first byte: leave it alone.
  if (!carriesAttr(*info)) return;
  try {
    uint8_t* attr = span(recordOffset(index, int64_t{info->nDataPos} + info->nLength), 1);
    if (attr != nullptr) *attr = value;
  } catch (...) {
  }
}

void KXBlockDataProc::setFieldAttrFromName(std::string_view name, int32_t index, uint8_t value) noexcept {
  setFieldAttrFromInfo(findFieldInfo(name), index, value);
}

void KXBlockDataProc::setFieldAttrHexa(const FieldInfo* info, int32_t index,
                                       std::optional<std::string_view> attrHex) noexcept {
  // Any laid-out record, valid or not.
  if (info == nullptr || index < 0 || index >= buffer().bufCount()) return;
  if (!carriesAttr(*info)) return;
  try {
    uint8_t* attr = span(recordOffset(index, int64_t{info->nDataPos} + info->nLength), 1);
    if (attr != nullptr) *attr = attrFromText(attrHex);
  } catch (...) {
  }
}

// ---- derived attributes ---------------------------------------------------------------------------------

uint8_t KXBlockDataProc::getAttrValueFromData(char byte) noexcept {
  switch (byte) {
    case '+':
    case '1':
    case '2':
      return '1';
    case '3':
      return '3';
    case '-':
    case '4':
    case '5':
      return '5';
    default:
      return 0;
  }
}

bool KXBlockDataProc::getFieldAttrFromInfo(const FieldInfo* info, int32_t index,
                                           FieldData& data) const noexcept {
  if (info == nullptr || !buffer().data() || index < 0 || index >= buffer().validCount()) return false;
  data.setData(getFieldDataFromInfo(info, index));
  try {
    const FieldInfo* source = info->isUseAttr() && m_oBlockInfo != nullptr
                                  ? m_oBlockInfo->getAttrRefSourceFieldInfo(info->getAttrRefDicKey())
                                  : nullptr;
    if (source == nullptr) {
      data.setAttrAble(0);
      return true;
    }
    // A source field without bytes, or whose first byte lies outside the buffer, has no attribute.
    const uint8_t* first = source->nLength > 0 ? span(recordOffset(index, source->nDataPos), 1) : nullptr;
    data.setAttr(first != nullptr ? getAttrValueFromData(static_cast<char>(*first)) : 0);
    return true;
  } catch (...) {
    return false;
  }
}

bool KXBlockDataProc::getFieldDataFromInfo(const FieldInfo* info, int32_t index,
                                           FieldData& data) const noexcept {
  try {
    data.setData(getFieldDataFromInfo(info, index));
    getFieldAttrFromInfo(info, index, data);
    return true;
  } catch (...) {
    return false;
  }
}

uint8_t KXBlockDataProc::getFieldAttrFromName(std::string_view name, int32_t index) const noexcept {
  FieldData data;
  getFieldAttrFromInfo(findFieldInfo(name), index, data);
  return data.getAttr();
}

std::string KXBlockDataProc::getFieldEnableFromName(std::string_view name, int32_t index) const noexcept {
  FieldData data;
  getFieldAttrFromInfo(findFieldInfo(name), index, data);
  try {
    std::string text;
    num::appendInt(text, data.getAttrAble());
    return text;
  } catch (...) {
    return {};
  }
}

}  // namespace blockproc
