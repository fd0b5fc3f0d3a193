#pragma once
// A real-time link record from the block's XML definition: where a real-time value goes and how its
// attribute is worked out.
//
// Usage (the processor makes these from a block's XML element; see KXBlockDataProc::setXmlInfo):
//
//   for (int32_t k = 0; k < proc.getRealAPLinkCount(); ++k) use(proc.getRealAPLinkInfo(k)->sJsonPath());

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace blockproc {

class RealAPLinkInfo {
 public:
  // A record whose nFieldIndex starts as the given index, triple 0, 0, 0, function index -1, no parameters.
  explicit RealAPLinkInfo(int32_t index) noexcept : m_nFieldIndex(index) {}

  int32_t* pFieldInfo() { return m_nFieldInfo.data(); }  // the three integers of the index triple
  const int32_t* pFieldInfo() const { return m_nFieldInfo.data(); }
  int32_t nFieldIndex() const { return m_nFieldIndex; }
  void setNFieldIndex(int32_t value) { m_nFieldIndex = value; }
  const std::string& sFieldName() const { return m_sFieldName; }
  void setSFieldName(std::string value) { m_sFieldName = std::move(value); }
  const std::string& sExpression() const { return m_sExpression; }
  void setSExpression(std::string value) { m_sExpression = std::move(value); }
  const std::string& sJsonPath() const { return m_sJsonPath; }
  void setSJsonPath(std::string value) { m_sJsonPath = std::move(value); }
  bool bRealAttr() const { return m_bRealAttr; }
  void setBRealAttr(bool value) { m_bRealAttr = value; }
  int32_t nFuncIndex() const { return m_nFuncIndex; }
  void setNFuncIndex(int32_t value) { m_nFuncIndex = value; }
  const std::optional<std::string>& sFuncParam() const { return m_sFuncParam; }
  void setSFuncParam(std::optional<std::string> value) { m_sFuncParam = std::move(value); }

 private:
  std::array<int32_t, 3> m_nFieldInfo{};
  int32_t m_nFieldIndex;
  std::string m_sFieldName, m_sExpression, m_sJsonPath;
  bool m_bRealAttr = false;
  int32_t m_nFuncIndex = -1;
  std::optional<std::string> m_sFuncParam;
};

}  // namespace blockproc
