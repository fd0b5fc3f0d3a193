#pragma once
// Small helpers shared by the tests: blocks built in code and raw byte views.

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc::testing {

// A field "f" of the type, length and decimals at position 0, its point left out when `implied`.
inline FieldInfo fieldOf(int32_t type, int32_t length, int32_t decimals = 0, bool implied = false) {
  FieldInfo field("f", type, length, decimals);
  field.bImpliedPoint = implied;
  return field;
}

// The bytes [offset, offset + length) of the processor's record buffer as a string.
inline std::string bufferBytes(const KXBlockDataProc& proc, int64_t offset, int64_t length) {
  if (proc.getData() == nullptr || offset < 0 || offset + length > proc.getBlockBuffSize())
    return "<outside>";
  return std::string(reinterpret_cast<const char*>(proc.getData()) + offset, static_cast<size_t>(length));
}

// The whole recorded buffer as a string.
inline std::string bufferBytes(const KXBlockDataProc& proc) {
  return bufferBytes(proc, 0, proc.getBlockBuffSize());
}

// A block definition whose record size can be made unavailable: getRecordMemSize then throws.
class FailingSizeBlock : public BlockInfo {
 public:
  using BlockInfo::BlockInfo;
  bool failSize = false;
  int32_t getRecordMemSize() const override {
    if (failSize) throw std::runtime_error("record size unavailable");
    return BlockInfo::getRecordMemSize();
  }
};

// A parent data processor whose transaction has the given data mode.
struct ParentWithMode {
  TranInfo tran;
  BaseDataProc parent{&tran};
  explicit ParentWithMode(std::string mode) { tran.m_strDataMode = std::move(mode); }
};

}  // namespace blockproc::testing
