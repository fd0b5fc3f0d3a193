#pragma once
// A value-and-attribute record: a field's display value with its attribute bytes.
//
// Usage:
//
//   FieldData data;
//   if (proc.getFieldDataFromInfo(field, 0, data)) show(data.strData);

#include <cstdint>
#include <string>
#include <utility>

namespace blockproc {

class FieldData {
 public:
  std::string strData;
  uint8_t bAttrValue = 0;      // a fresh record has no attribute
  uint8_t bAttrBgValue = 0;    // never touched by the processor
  uint8_t bAttrErrValue = 0;   // never touched by the processor
  uint8_t bAttrAbleValue = 1;  // a fresh record is enabled; the fill sets 0 for a field without source

  const std::string& getData() const { return strData; }
  void setData(std::string value) { strData = std::move(value); }
  uint8_t getAttr() const { return bAttrValue; }
  void setAttr(uint8_t value) { bAttrValue = value; }
  uint8_t getAttrBg() const { return bAttrBgValue; }
  void setAttrBg(uint8_t value) { bAttrBgValue = value; }
  uint8_t getAttrErr() const { return bAttrErrValue; }
  void setAttrErr(uint8_t value) { bAttrErrValue = value; }
  uint8_t getAttrAble() const { return bAttrAbleValue; }
  void setAttrAble(uint8_t value) { bAttrAbleValue = value; }
};

}  // namespace blockproc
