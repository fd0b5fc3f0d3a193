// Handing the block's bytes out: the send buffer and the block as text.

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {

void KXBlockDataProc::getStructInputData(void*) const noexcept {}
std::optional<std::string> KXBlockDataProc::getBlockData() const noexcept { return std::string(); }

}  // namespace blockproc
