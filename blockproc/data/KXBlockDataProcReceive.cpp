// Receiving record data: normal, reverse and real-time receives.

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {

bool KXBlockDataProc::setData(const void*, int32_t, int32_t) noexcept { return true; }
bool KXBlockDataProc::setDataReverse(const void*, int32_t, int32_t) noexcept { return true; }
bool KXBlockDataProc::insertRealData(const void*, int32_t, int32_t) noexcept { return false; }

}  // namespace blockproc
