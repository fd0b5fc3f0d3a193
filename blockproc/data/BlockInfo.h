#pragma once
// The block definition: the fields of one block's record in block order, and how many records it holds.
//
// Usage:
//
//   BlockInfo block("OutBlock1");
//   block.setRepeat(20);                                     // up to 20 records; one without it
//   block.addField("time", kFieldText, 6);                   // at byte 0
//   block.addField("price", kFieldNumText, 10, 2);           // right behind it, at byte 6
//   int32_t recordBytes = block.getRecordMemSize();          // 16
//   const FieldInfo* price = block.getFieldInfoFromName("price");

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "blockproc/data/FieldInfo.h"

namespace blockproc {

class TranInfo;
class FieldNameIndex;  // the library's own name index

enum RCL_TYPE : int32_t { RCL_OCCURSLEN = 0, RCL_RESTDATA = 1, RCL_BLOCKFIELD_ID = 2 };
using KeyEncDict = std::map<std::string, std::string>;  // the key-encryption dictionary

inline constexpr int32_t FUNC_BASE_INDEX = -1, FUNC_COMPARE_INDEX = 0, FUNC_COMPARETO_INDEX = 1,
                         FUNC_FLUCTBIT_INDEX = 2, FUNC_TIMEVOLUME_INDEX = 3, FUNC_UNITVOLUME_INDEX = 4,
                         FUNC_TRDBIT_INDEX = 5, FUNC_ZERO_INDEX = 6, FUNC_MAKECOLOR_INDEX = 7,
                         FUNC_USEPCLOSE_INDEX = 8;

// The repeat bit of m_nBlockType: set, the block holds m_nRepeatCount records; clear, one.
inline constexpr int8_t kBlockTypeRepeat = 4;

class BlockInfo {
 public:
  std::string m_szBlockName;
  int8_t m_nBlockType = 0;
  int32_t m_nRepeatCount = 0;
  bool m_bAttribute = false;  // every field carries an attribute byte after its data
  RCL_TYPE m_nRecordLenApplyType = RCL_OCCURSLEN;
  TranInfo* m_oTranInfo = nullptr;                          // the transaction it belongs to; not owned
  std::vector<std::unique_ptr<FieldInfo>> m_FieldInfoList;  // block order
  std::unique_ptr<FieldNameIndex> m_FieldMap;               // first field of each name (made by addField)
  int32_t m_nRecordIOSize = -1;     // record field size when 0 or more; below 0 it is worked out
  int32_t m_nRecordIOMemSize = -1;  // record memory size when 0 or more; below 0 it is worked out
  int32_t m_nRecordSendSize = 0;    // unused by the processor
  int32_t m_nFieldCount = 0;        // kept equal to m_FieldInfoList.size()
  int32_t m_nBlockIndex = 0;        // position of the block in its transaction
  std::map<std::string, const FieldInfo*, std::less<>> m_dicAttrFieldInfo;  // attribute-source key → field
  std::string m_strRecordLenSubInfo;  // RCL_BLOCKFIELD_ID: "Block.Field" whose value is the record count

  BlockInfo();
  // An empty one-record block of that name.
  explicit BlockInfo(std::string name);
  BlockInfo(const BlockInfo&) = delete;
  BlockInfo& operator=(const BlockInfo&) = delete;
  virtual ~BlockInfo();

  // Appends a field; a negative position places it right after the previous field's data and attribute byte
  // (set m_bAttribute first). Returns the new field, owned by the block.
  FieldInfo& addField(std::string name, int32_t dataType, int32_t length, int32_t decimals = 0,
                      int32_t position = -1);
  // Appends a field made by the caller (a subclass, say), keeping its nDataPos. Returns it.
  FieldInfo& addField(std::unique_ptr<FieldInfo> field);
  // Sets the repeat bit and the record count.
  void setRepeat(int32_t count) noexcept;
  // Registers the field that an attribute-source key names (by default a key names the field itself).
  void setAttrSource(std::string key, const FieldInfo* source);
  // Whether this field carries an attribute byte (m_bAttribute or its nAttr).
  bool carriesAttr(const FieldInfo& field) const noexcept { return m_bAttribute || field.nAttr != 0; }

  // Bytes of one record including attribute bytes: m_nRecordIOMemSize when set, else the furthest field end
  // (nDataPos + nLength, plus its attribute byte), capped at INT32_MAX; 0 for a block without fields. The
  // worked-out size is kept until a field is added or m_bAttribute changes (a definition's size is fixed for
  // its life, so a field edited in place after the first call is not seen).
  virtual int32_t getRecordMemSize() const;
  // What BlockInfo::getRecordMemSize gives, inline while the worked-out size is kept: for a caller that has
  // checked the object is a BlockInfo and no subclass (a subclass's override must be asked instead).
  int32_t baseRecordMemSize() const {
    if (m_nRecordIOMemSize >= 0) return m_nRecordIOMemSize;
    int32_t kept = 0;
    if (m_memSize.peek(m_FieldInfoList.size(), m_bAttribute, kept)) return kept;
    return BlockInfo::getRecordMemSize();
  }
  // The record stride of the positional writer: m_nRecordIOSize when set, else the sum of the field lengths
  // (fields back to back, no attribute bytes), capped at INT32_MAX; kept as getRecordMemSize keeps its own.
  virtual int32_t getRecordFieldSize() const;
  virtual int32_t getFieldCount() const;
  // The field at that position in block order, or nullptr outside 0 to count - 1.
  virtual const FieldInfo* getFieldInfoFromIndex(int32_t position) const;
  // The first field of that exact name (case and all), or nullptr.
  virtual const FieldInfo* getFieldInfoFromName(std::string_view name) const;
  // The dictionary of a key-encrypted field of this block (made on first use), or nullptr when the block
  // has no key-encrypted field of that name.
  virtual KeyEncDict* getKeyEncValue(std::string_view fieldName);
  // The field registered under the key with setAttrSource, else the field named by the key, else nullptr.
  virtual const FieldInfo* getAttrRefSourceFieldInfo(std::string_view key) const;
  // Whether the repeat bit (value 4) of m_nBlockType is set.
  virtual bool isOccursBlock() const;
  // 0 to 8 for compare, compareto, fluctbit, timevolume, unitvolume, trdbit, zero, makecolor, usepclose
  // (exact names); -1 for any other name.
  static int32_t getAttrFunctionIndex(std::string_view functionName);

  // The key-encryption dictionary of a field if one was made, or nullptr (read-only view for callers).
  const KeyEncDict* findKeyEncValue(std::string_view fieldName) const;

 private:
  // A worked-out size with the field count and attribute flag it was worked out for, packed in one word so
  // that readers on several threads see a consistent pair: (count * 2 + attribute) << 32 | size. Every field
  // read and write asks for the record size; keeping it saves the walk over the fields, about half of a
  // binary field's read or write (BM_ReadInt64, BM_WriteInt64/sizeCarried:0).
  class SizeCache {
   public:
    template <typename Compute>
    int32_t get(size_t fieldCount, bool attribute, Compute compute) const;
    // Whether a size is kept for that field count and attribute flag; `size` gets it.
    bool peek(size_t fieldCount, bool attribute, int32_t& size) const noexcept {
      if (fieldCount == 0 || fieldCount > (uint64_t{1} << 30)) return false;
      const uint64_t packed = m_packed.load(std::memory_order_relaxed);
      if ((packed & ~uint64_t{0xFFFFFFFF}) != keyOf(fieldCount, attribute)) return false;
      size = static_cast<int32_t>(packed & 0x7FFFFFFF);
      return true;
    }
    static uint64_t keyOf(size_t fieldCount, bool attribute) noexcept {
      return (uint64_t{fieldCount} * 2 + (attribute ? 1 : 0)) << 32;
    }

   private:
    mutable std::atomic<uint64_t> m_packed{0};  // 0: nothing kept (a key is never 0 once a field exists)
  };

  std::map<std::string, KeyEncDict, std::less<>> m_keyEncValues;
  SizeCache m_memSize;
  SizeCache m_fieldSize;
};

}  // namespace blockproc
