#include "blockproc/data/TranInfo.h"

namespace blockproc {

TranInfo::~TranInfo() = default;

BlockInfo& TranInfo::addBlock(std::unique_ptr<BlockInfo> block, bool input) {
  BlockInfo* raw = block.get();
  raw->m_oTranInfo = this;
  raw->m_nBlockIndex = static_cast<int32_t>(m_BlockInfokList.size());
  m_BlockInfokList.push_back(std::move(block));
  m_blockInfoMap.emplace(raw->m_szBlockName, raw);
  (input ? m_InBlockList : m_OutBlockList).push_back(raw);
  return *raw;
}

BlockInfo* TranInfo::findBlock(std::string_view name) const {
  const auto it = m_blockInfoMap.find(name);
  return it == m_blockInfoMap.end() ? nullptr : it->second;
}

}  // namespace blockproc
