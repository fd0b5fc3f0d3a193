#pragma once
// A field link record from the block's XML definition: where a field's default value comes from.
//
// Usage (the processor makes these from a block's XML element; see KXBlockDataProc::setXmlInfo):
//
//   for (int32_t k = 0; k < proc.getLinkCount(); ++k) use(proc.getLinkInfo(k)->szDefaultValue);

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace blockproc {

class FieldLinkInfo {
 public:
  // A record whose nFieldIndex starts as the given index.
  explicit FieldLinkInfo(int32_t index) noexcept : nFieldIndex(index) {}
  int32_t nFieldIndex;
  std::optional<std::array<int32_t, 3>> pLinkIndex;  // none until set
  std::string szDefaultValue;
  void setSzDefaultValue(std::string value) { szDefaultValue = std::move(value); }
};

}  // namespace blockproc
