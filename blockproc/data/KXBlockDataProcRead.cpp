// Reading fields as display strings.

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {

std::string KXBlockDataProc::readField(const FieldInfo*, int32_t, bool) const noexcept { return {}; }
std::string KXBlockDataProc::getFieldDataFromInfo(const FieldInfo*, int32_t) const noexcept { return {}; }
std::string KXBlockDataProc::getFieldDataFromIndex(int32_t, int32_t) const noexcept { return {}; }
std::string KXBlockDataProc::getFieldDataFromName(std::string_view, int32_t) const noexcept { return {}; }
std::string KXBlockDataProc::getFieldDataFromInfoEX(const FieldInfo*, int32_t) const noexcept { return {}; }
std::string KXBlockDataProc::getFieldDataFromNameEX(std::string_view, int32_t) const noexcept { return {}; }
std::string KXBlockDataProc::getFieldDataAllIdxFromInfo(const FieldInfo*) const noexcept { return {}; }
std::string KXBlockDataProc::getDataValueAllIdxFromName(std::string_view) const noexcept { return {}; }

}  // namespace blockproc
