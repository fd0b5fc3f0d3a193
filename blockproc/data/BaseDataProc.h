#pragma once
// The parent data processor: holds the block data processors of one transaction.
//
// Usage:
//
//   TranInfo tran;
//   BaseDataProc parent(&tran);
//   proc.setDataProc(&parent);  // the processor asks the parent's transaction for its data mode

#include <cstdint>
#include <string>

namespace blockproc {

class TranInfo;

class BaseDataProc {
 public:
  std::string szTranID, szTranCode;
  TranInfo* m_oTranInfo = nullptr;  // not owned
  int32_t m_nTranIndex = 0;
  bool m_isReject = false;

  BaseDataProc() = default;
  // A parent whose transaction definition is tranInfo (not owned).
  explicit BaseDataProc(TranInfo* tranInfo) noexcept : m_oTranInfo(tranInfo) {}
  BaseDataProc(const BaseDataProc&) = delete;
  BaseDataProc& operator=(const BaseDataProc&) = delete;
  virtual ~BaseDataProc();

  // The transaction definition (m_oTranInfo), or nullptr when there is none.
  virtual TranInfo* getTranInfo() const;
};

}  // namespace blockproc
