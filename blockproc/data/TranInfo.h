#pragma once
// The transaction definition: the blocks of one request and its reply.
//
// Usage:
//
//   const TranInfo& tran = definition.tran;                  // as a loader made it
//   for (const BlockInfo* block : tran.m_OutBlockList) show(block->m_szBlockName);
//   const BlockInfo* ticks = tran.findBlock("OutBlock1");    // nullptr when there is none

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "blockproc/data/BlockInfo.h"

namespace blockproc {

class TranInfo {
 public:
  bool bAttribute = false, bCompress = false, bEncryption = false, bBlockMode = false, bRealMode = false,
       bOrder = false;
  std::string sTrCode;  // the transaction code
  int32_t nDataHeaderType = 0;
  std::string m_strSvrDest;
  std::string m_strDataMode;  // empty: no data mode; ".WSKJson" and ".WSKJsonFeed" read text as UTF-8
  int32_t m_nOccursLen = 0;   // digits of the record-count prefix ahead of a repeated reply block
  std::map<std::string, std::string> m_DicTranInfoItems;
  bool m_isUseKeyEnc = false;
  int32_t m_nKeyEncCount = 0;
  std::vector<std::unique_ptr<BlockInfo>> m_BlockInfokList;       // every block, owned, in definition order
  std::map<std::string, BlockInfo*, std::less<>> m_blockInfoMap;  // by block name
  std::vector<BlockInfo*> m_InBlockList, m_OutBlockList;          // input and output blocks, in order

  TranInfo() = default;
  TranInfo(const TranInfo&) = delete;
  TranInfo& operator=(const TranInfo&) = delete;
  virtual ~TranInfo();

  const std::string& getTrCode() const noexcept { return sTrCode; }
  void setTrCode(std::string code) { sTrCode = std::move(code); }

  // Takes the block, links it to this transaction and lists it as an input or output block. Returns it.
  BlockInfo& addBlock(std::unique_ptr<BlockInfo> block, bool input);
  // The block of that name, or nullptr.
  BlockInfo* findBlock(std::string_view name) const;
};

}  // namespace blockproc
