#include "blockproc/data/FieldInfo.h"

#include <utility>

namespace blockproc {

FieldInfo::FieldInfo(std::string name, int32_t dataType, int32_t length, int32_t decimals)
    : szFieldName(std::move(name)), nLength(length), nDecimalLen(decimals), nDataType(dataType) {}

FieldInfo::~FieldInfo() = default;

bool FieldInfo::getKeyEncState() const {
  return bKeyEnc;
}
bool FieldInfo::isUseAttr() const {
  return !szAttrRefKey.empty();
}
std::string FieldInfo::getAttrRefDicKey() const {
  return szAttrRefKey;
}
bool FieldInfo::isAccNoField() const {
  return bAccountNo;
}
bool FieldInfo::isSTCodeField() const {
  return bItemCode;
}
bool FieldInfo::isPasswordField() const {
  return bPassword;
}
uint64_t FieldInfo::hash() const {
  return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(this));
}

}  // namespace blockproc
