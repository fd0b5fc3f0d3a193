// Writing caller values into fields.

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {

bool KXBlockDataProc::setFieldDataFromName(std::string_view, int32_t, std::optional<std::string_view>) noexcept {
  return false;
}
bool KXBlockDataProc::setFieldDataFromInfo(const FieldInfo*, int32_t, std::optional<std::string_view>) noexcept {
  return false;
}
int32_t KXBlockDataProc::findIndex(std::string_view, std::string_view) noexcept { return -1; }
int32_t KXBlockDataProc::setFieldDataExFromInfo(const FieldInfo*, int32_t, std::optional<std::string_view>,
                                                int32_t) noexcept {
  return 0;
}
bool KXBlockDataProc::setFieldDataFromNameEX(std::string_view, int32_t, const char*) noexcept { return false; }
bool KXBlockDataProc::setFieldDataFromInfoEX(const FieldInfo*, int32_t, const char*) noexcept { return false; }

}  // namespace blockproc
