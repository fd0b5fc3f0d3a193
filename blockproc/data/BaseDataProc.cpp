#include "blockproc/data/BaseDataProc.h"

namespace blockproc {

BaseDataProc::~BaseDataProc() = default;

TranInfo* BaseDataProc::getTranInfo() const {
  return m_oTranInfo;
}

}  // namespace blockproc
