#pragma once
// The field definition: one field of a block's record, as the block definition lays it out.
//
// Usage:
//
//   FieldInfo& qty = block.addField("qty", kFieldNumText, 10, 2);  // owned by the block
//   qty.bKeyEnc = false;                                            // the flags the virtuals read
//   proc.getFieldDataFromInfo(&qty, 0);

#include <cstdint>
#include <string>

namespace blockproc {

// Data type codes held in FieldInfo::nDataType. Binary values are little-endian.
enum FieldDataType : int32_t {
  kFieldText = 0,     // text, left-aligned, padded with spaces
  kFieldNumText = 1,  // a number as text with an explicit '.' ahead of the last nDecimalLen digits
  kFieldInt16 = 2,    // 2-byte signed integer
  kFieldInt64 = 3,    // 8-byte integer
  kFieldFloat = 4,    // 4-byte IEEE 754 float (read divided by 10^nDecimalLen)
  kFieldDouble = 5,   // 8-byte IEEE 754 double
  kFieldSInt64 = 6,   // 8-byte signed integer (the main writer writes it as digit text)
};

class FieldInfo {
 public:
  std::string szKorFieldName, szEngFieldName, szFieldName;
  int32_t nLength = 0, nDecimalLen = 0, nDataType = 0, nDataPos = 0, nIndex = 0, nAttr = 0, nEnc = 0;
  int8_t nExtraType = 0;
  std::string sHiddenValue;

  // Settings read by the default implementations below; an engine may subclass instead.
  bool bKeyEnc = false;      // a written value goes to the block's key-encryption dictionary
  bool bAccountNo = false;   // the field holds an account number
  bool bItemCode = false;    // the field holds an item code
  bool bPassword = false;    // the field holds a password
  std::string szAttrRefKey;  // non-empty: the attribute comes from the source field under this key
  // A number written without its point: sign, zero fill and the digits, the last nDecimalLen of them the
  // fraction ("000007125050" is 71250.50 in 12 bytes with 2 places). Reading takes either form; the
  // engine's writer writes this one.
  bool bImpliedPoint = false;

  FieldInfo() = default;
  // A field of the given name, data type, length and decimal places at position 0.
  FieldInfo(std::string name, int32_t dataType, int32_t length, int32_t decimals = 0);
  FieldInfo(const FieldInfo&) = default;
  FieldInfo& operator=(const FieldInfo&) = default;
  virtual ~FieldInfo();

  // Whether a value written to this field goes to the key-encryption dictionary (bKeyEnc).
  virtual bool getKeyEncState() const;
  // Whether the attribute is derived from a source field (szAttrRefKey is not empty).
  virtual bool isUseAttr() const;
  // The key to hand to BlockInfo::getAttrRefSourceFieldInfo (szAttrRefKey).
  virtual std::string getAttrRefDicKey() const;
  virtual bool isAccNoField() const;     // bAccountNo
  virtual bool isSTCodeField() const;    // bItemCode
  virtual bool isPasswordField() const;  // bPassword
  // The object's address: the same on every call for one object, different for distinct live objects.
  virtual uint64_t hash() const;
};

}  // namespace blockproc
