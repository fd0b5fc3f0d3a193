// Dynamic-length input values and dynamic receives.

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {

void KXBlockDataProc::setFieldDataDynamicLen(const FieldInfo*, int32_t, std::optional<std::string_view>) noexcept {}
std::string KXBlockDataProc::getFieldDataDynamicLen(const FieldInfo*, int32_t) const noexcept { return {}; }
bool KXBlockDataProc::getFieldDataDynamicLen(const FieldInfo*, int32_t, FieldData&) const noexcept { return false; }
int64_t KXBlockDataProc::getDynamicInputCnt() const noexcept { return 0; }
bool KXBlockDataProc::setDataDynamic(const void*, int32_t, int32_t) noexcept { return true; }
bool KXBlockDataProc::resetDataDynamic(const void*, int32_t) noexcept { return true; }
void KXBlockDataProc::initDynamicRealBufferIndex() noexcept {}

}  // namespace blockproc
