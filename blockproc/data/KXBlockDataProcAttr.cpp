// Attribute bytes and derived attributes.

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {

uint8_t KXBlockDataProc::getFieldAttrFromInfo(const FieldInfo*, int32_t) const noexcept { return 0; }
void KXBlockDataProc::setFieldAttrFromInfo(const FieldInfo*, int32_t, uint8_t) noexcept {}
void KXBlockDataProc::setFieldAttrFromName(std::string_view, int32_t, uint8_t) noexcept {}
void KXBlockDataProc::setFieldAttrHexa(const FieldInfo*, int32_t, std::optional<std::string_view>) noexcept {}
uint8_t KXBlockDataProc::getAttrValueFromData(char) noexcept { return 0; }
bool KXBlockDataProc::getFieldAttrFromInfo(const FieldInfo*, int32_t, FieldData&) const noexcept { return false; }
bool KXBlockDataProc::getFieldDataFromInfo(const FieldInfo*, int32_t, FieldData&) const noexcept { return true; }
uint8_t KXBlockDataProc::getFieldAttrFromName(std::string_view, int32_t) const noexcept { return 0; }
std::string KXBlockDataProc::getFieldEnableFromName(std::string_view, int32_t) const noexcept { return "0"; }

}  // namespace blockproc
