#pragma once
// The block data processor: holds the records of one data block of a transaction, takes received bytes
// into them, reads any field of any record as a display string, formats caller values into fields for
// sending, keeps attribute bytes, and loads real-time and default-value links from the block's XML element.
//
// Record i of the block lies at buffer record (start index + i); its field f at byte
// (start index + i) * R + f.nDataPos, R being the block definition's getRecordMemSize. No operation reads or
// writes outside the record buffer whatever the definition, the counters or the arguments say: a field
// whose bytes would fall outside reads as the empty string and is not written. Nothing is thrown and
// nothing is logged. A processor is used by one thread at a time; a write or a receive may replace the
// record buffer, so no pointer into it may outlive such a call.
//
// Usage:
//
//   BlockInfo block("OutBlock1");
//   block.setRepeat(20);
//   block.addField("price", kFieldNumText, 8);
//   KXBlockDataProc proc(&block);
//   proc.setData(reply, 0, replySize);                  // the reply's records
//   for (int32_t i = 0; i < proc.getValidCount(); ++i)
//     show(proc.getFieldDataFromName("price", i));      // "" when it cannot be read

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "blockproc/codec/TextEncoding.h"
#include "blockproc/data/BaseDataProc.h"
#include "blockproc/data/BlockInfo.h"
#include "blockproc/data/FieldData.h"
#include "blockproc/data/FieldInfo.h"
#include "blockproc/data/FieldLinkInfo.h"
#include "blockproc/data/RealAPLinkInfo.h"
#include "blockproc/data/TranInfo.h"

namespace blockproc {

struct TBXMLElement;

namespace detail {
class RecordBuffer;
// A processor's record buffer: its bytes and the counters that describe them, reached only through the
// library's detail::RecordBuffer view.
struct RecordBufferState {
  std::unique_ptr<uint8_t[]> bytes;
  int32_t size = 0;
  int32_t bufCount = 0;
  int32_t validCount = 0;
  int32_t startIndex = 0;
  int64_t dataLen = 0;
};
}  // namespace detail

class KXBlockDataProc {
 public:
  // A processor for the block (not owned; may be nullptr): no record buffer yet, encoding code page 949,
  // the block's name, no parent.
  explicit KXBlockDataProc(BlockInfo* blockInfo);
  // Blanks the record bytes, then frees them with everything else the processor owns.
  ~KXBlockDataProc();
  KXBlockDataProc(const KXBlockDataProc&) = delete;
  KXBlockDataProc& operator=(const KXBlockDataProc&) = delete;

  // ---- object, accessors, lists -------------------------------------------------------------------
  // Sets the text encoding identifier used to decode and encode text fields (passed through unchanged).
  void setEncodingType(uint32_t encoding) noexcept;
  // Replaces the block definition (not owned); the record buffer is not laid out again.
  void setBlockInfo(BlockInfo* blockInfo) noexcept;
  // The block definition, or nullptr.
  BlockInfo* getBlockInfo() const noexcept;
  // Links the parent data processor (not owned; it decides the web-socket JSON data mode).
  void setDataProc(BaseDataProc* parent) noexcept;
  // The parent data processor, or nullptr when never set.
  BaseDataProc* getDataProc() const noexcept;
  // Replaces the block name.
  void setBlockName(std::string name) noexcept;
  // Replaces the block name (property writer; same as setBlockName).
  void setM_szBlockName(std::string name) noexcept;
  // The block name.
  const std::string& getBlockName() const noexcept;
  // The valid record count: readers accept record indexes 0 to this - 1.
  int32_t getValidCount() const noexcept;
  // Sets the valid record count unchecked; reads of records outside the buffer still read nothing.
  void setValidCount(int32_t count) noexcept;
  // The record buffer itself (the processor's), or nullptr when there is none.
  const uint8_t* getData() const noexcept;
  // The block definition's m_nRepeatCount unchanged (also for a one-record block); 0 without definition.
  int32_t getBlockRepCount() const noexcept;
  // Sets the received flag (never tested by the processor).
  void setReceived(bool received) noexcept;
  // The received flag.
  bool getReceived() const noexcept;
  // The block definition's isOccursBlock; false without definition.
  bool isOccursBlock() const noexcept;
  // The live connected-control list (empty, never absent, on a new processor).
  std::vector<std::shared_ptr<void>>& getConnCtlList() noexcept;
  // Appends the control unless that very object (same pointer) is already listed; nullptr is ignored.
  void addConnCtl(std::shared_ptr<void> control) noexcept;
  // Removes that very object from the list; nothing when it is not there.
  void removeConnCtl(const void* control) noexcept;
  // Appends a field link record (nullptr is ignored).
  void addFieldLinkInfo(std::unique_ptr<FieldLinkInfo> link) noexcept;
  // The field link record at that position, or nullptr outside 0 to count - 1.
  FieldLinkInfo* getLinkInfo(int32_t position) const noexcept;
  // Number of field link records.
  int32_t getLinkCount() const noexcept;
  // Appends a real-time link record (nullptr is ignored).
  void addRealAPLinkInfo(std::unique_ptr<RealAPLinkInfo> link) noexcept;
  // The real-time link record at that position, or nullptr outside 0 to count - 1.
  RealAPLinkInfo* getRealAPLinkInfo(int32_t position) const noexcept;
  // Number of real-time link records.
  int32_t getRealAPLinkCount() const noexcept;
  // Prepares real-time inserts: start index := buffer record count (0 if negative), valid record count 0.
  void initRealBufferIndex() noexcept;

  // ---- read-only views of the buffer state ---------------------------------------------------------
  uint32_t getEncodingType() const noexcept;  // the text encoding identifier
  // The encoding text fields are read in by getFieldDataFromInfo: UTF-8 when the parent's transaction is in
  // the web-socket JSON data mode, else getEncodingType().
  uint32_t getDisplayEncoding() const noexcept;
  int32_t getBufCount() const noexcept;       // buffer record count
  int32_t getStartIndex() const noexcept;     // start index
  int32_t getBlockBuffSize() const noexcept;  // recorded buffer size: bytes of the buffer, 0 without one
  int64_t getBlockDataLen() const noexcept;   // block data length (dynamic receives); never above the buffer

  // ---- record buffer --------------------------------------------------------------------------------
  // R * m_nRepeatCount for a repeated block whose count is not 0, else R; 0 without definition. A product
  // beyond the 32-bit range gives INT32_MAX, a negative one 0.
  int32_t calcPacketSize() const noexcept;
  // Lays out C records (the repeat count, or 1) with every field's default contents, reusing a buffer that
  // holds C records already. C of 0 or below, R of 0 or below, or C * R beyond 32 bits lays out nothing
  // (an existing buffer stays) and sets both counts to 0.
  void DefaultMemory() noexcept;
  // As DefaultMemory with C = `count` whatever the block's repeat: lays out exactly the records a caller is
  // about to fill, leaving the block definition (which other processors and threads may share) untouched.
  void layOutDefaults(int32_t count) noexcept;
  // Same as wipeBuffer().
  void clearData() noexcept;
  // Blanks every byte of the buffer to spaces, empties the dynamic input list, valid record count 0.
  void wipeBuffer() noexcept;
  // Blanks the first min(block data length, R * buffer record count) bytes when there is a buffer and
  // length > 0; empties the dynamic input list and sets the valid record count to 0 whatever the length.
  void wipeBuffer(int32_t length) noexcept;
  // A new area of newLength + 1 bytes (spaces and a final zero) holding the first bytes of oldBytes as the
  // buffer counters describe them, never more than the recorded buffer size; a negative length counts as 0.
  // Bytes other than the record buffer itself are not copied: their size is unknown.
  // nullptr only when allocation fails.
  std::unique_ptr<uint8_t[]> reSizeBytes(const uint8_t* oldBytes, int32_t newLength) const noexcept;

  // ---- field lookup and classification --------------------------------------------------------------
  // Position of the first field of exactly that name in block order, or -1.
  int32_t getFieldIndexFromName(std::string_view name) const noexcept;
  // The block definition's field of that name, or nullptr.
  const FieldInfo* findFieldInfo(std::string_view name) const noexcept;
  // Whether the named field holds an account number; false for a name not in the block.
  bool isAccountNoField(std::string_view name) const noexcept;
  // Whether the named field holds an item code; false for a name not in the block.
  bool isItemCodeField(std::string_view name) const noexcept;
  // Whether the named field holds a password; false for a name not in the block.
  bool isPasswordField(std::string_view name) const noexcept;

  // ---- XML block definition -------------------------------------------------------------------------
  // Takes the block name from every "name" attribute of the element and appends a real-time link record for
  // each "REALAP" child and a field link record for every other child; nullptr changes nothing.
  // A "deflink" with fewer than three items leaves pLinkIndex none; the running indexes stop at INT32_MAX.
  void setXmlInfo(const TBXMLElement* element) noexcept;
  // The text with &lt; &gt; &amp; &quot; &apos; replaced, one pass each in that order.
  static std::string Entity2Ref(std::string_view text) noexcept;
  // The attribute function a "REALAP" child's "attrfunc" value (as written in the XML) makes its link call:
  // its index, or FUNC_BASE_INDEX when the link calls none (no attr_NAME(PARAMS), an unknown NAME, no
  // PARAMS).
  static int32_t attrFunctionIndex(std::string_view attrfunc) noexcept;

  // ---- receiving --------------------------------------------------------------------------------------
  // Takes recvSize bytes from recvData + startPos as records in received order from buffer record 0; valid
  // record count := the record count. Always true. A size of 0 or below, no bytes, or R of 0 or below empty
  // the block for readers (valid record count 0) and copy nothing. Bytes taken from the record buffer itself
  // are copied aside first, so a block may receive its own bytes.
  bool setData(const void* recvData, int32_t startPos, int32_t recvSize) noexcept;
  // As setData with the records in reverse order (the last received becomes record 0); the rest of a short
  // record becomes spaces. Always true.
  bool setDataReverse(const void* recvData, int32_t startPos, int32_t recvSize) noexcept;
  // Puts the received record in front of the held ones (record 0 is always the newest): the start index
  // moves back one record and the valid count rises by N. A size of 0: valid record count 0, true. Makes its
  // own 99-record buffer when there is none and then tests no valid count. False, changing nothing, when the
  // records do not fit: no free record before the first valid one (start index 0), the buffer too short for
  // start index - 1 + valid count + N (an existing buffer) or for the bytes, no bytes, a negative size, or R
  // of 0 or below. A buffer it had to make stays, with the start index at its end (99), when refused.
  bool insertRealData(const void* recvData, int32_t starPos, int32_t recvSize) noexcept;

  // ---- outgoing ---------------------------------------------------------------------------------------
  // Packs the first record's fields back to back in block order (no attribute bytes, no gaps) into the
  // caller's buffer, which must hold the sum of the field lengths. Bytes a field would take from outside the
  // record buffer are sent as spaces; a field of length 0 or below adds nothing. No buffer: nothing written.
  void getStructInputData(void* sendBuffer) const noexcept;
  // The block's records as text: UTF-8 first, code page 949 when that fails, cut at the first zero byte;
  // "" without a buffer; nullopt when neither decodes.
  std::optional<std::string> getBlockData() const noexcept;

  // ---- dynamic-length input ---------------------------------------------------------------------------
  // Stores the value under the field's hash in record nIndex of the dynamic input list, appending a new
  // record when nIndex is not an existing one (valid record count raised to nIndex + 1 unless negative).
  // No field or no value: nothing is stored and no record is made.
  void setFieldDataDynamicLen(const FieldInfo* info, int32_t nIndex,
                              std::optional<std::string_view> sValue) noexcept;
  // The dynamic value of the field in that record, or "" (looks at the dynamic input list only).
  std::string getFieldDataDynamicLen(const FieldInfo* info, int32_t nIndex) const noexcept;
  // Fills strData with the dynamic value and bAttrValue with the stored attribute byte; false, leaving data
  // untouched, without field, without buffer or outside the valid records.
  bool getFieldDataDynamicLen(const FieldInfo* info, int32_t nIndex, FieldData& data) const noexcept;
  // Number of records in the dynamic input list.
  int64_t getDynamicInputCnt() const noexcept;
  // Takes received bytes into an area sized to them (exactly the bytes when fewer than one record), without
  // wiping a replaced area; block data length := the area's size when replaced. Always true. A size of 0
  // or below or no bytes: valid record count 0. R of 0 or below: one record of exactly the bytes received.
  bool setDataDynamic(const void* recvData, int32_t startPos, int32_t recvSize) noexcept;
  // Takes the whole block as record 0, growing the area to the largest block so far (never shrinking; the
  // tail is spaces). Size 0 or below, or no bytes: valid count and block data length 0. Always true. The
  // area is reused only when both the block data length and the area itself hold the block.
  bool resetDataDynamic(const void* data, int32_t nRecvSize) noexcept;
  // Start index 0 and valid record count 0; the dynamic input list and the buffer stay.
  void initDynamicRealBufferIndex() noexcept;

  // ---- reading ----------------------------------------------------------------------------------------
  // The display string of the field in record `index`, or "" (no field, no buffer, index outside the valid
  // records, length 0 or below, unknown type, undecodable text, bytes outside the buffer, more than 1,100
  // decimal places). Binary types 2, 3, 4 and 6 take min(length, width) bytes, zero-extended; type 5 takes
  // 8 bytes from the field's start, fewer (zero-extended) where the buffer ends first.
  std::string getFieldDataFromInfo(const FieldInfo* info, int32_t index) const noexcept;
  // Appends to `out` exactly the bytes getFieldDataFromInfo returns and gives true; false, with `out` left as
  // it was, where that read fails (the cases above, or memory running out). Once `out` has the capacity and
  // the text encoding has been used once, it allocates nothing (but for a float or double shown with more
  // than 200 places): the way to read many fields into one buffer.
  bool appendFieldDataFromInfo(const FieldInfo* info, int32_t index, std::string& out) const noexcept;
  // Appends the display strings of `fields` in record `index` to `out`, one after another, each exactly what
  // getFieldDataFromInfo gives, and sets ends[i] to the size of `out` after field i: field i is
  // out[ends[i - 1], ends[i]), the first starting at the old size. The record is located once and the usual
  // fields are written without a call of their own: the way to read whole records. True when every field
  // reads; a field whose read fails (the cases above, a null field) adds nothing. False, with `out` as it
  // was and every end at its size, outside the valid records, without buffer, with fewer ends than fields,
  // or when memory runs out. Allocates only as `out` grows, and where the one-field read would.
  bool appendRecordDataFromInfo(int32_t index, std::span<const FieldInfo* const> fields, std::string& out,
                                std::span<size_t> ends) const noexcept;
  // getFieldDataFromInfo for the field at that position in block order ("" outside the block).
  std::string getFieldDataFromIndex(int32_t fieldPosition, int32_t index) const noexcept;
  // getFieldDataFromInfo for the field of that name ("" for a name not in the block).
  std::string getFieldDataFromName(std::string_view name, int32_t index) const noexcept;
  // As getFieldDataFromInfo, never in the web-socket JSON data mode: text always in the processor's encoding.
  std::string getFieldDataFromInfoEX(const FieldInfo* info, int32_t index) const noexcept;
  // getFieldDataFromInfoEX for the field of that name.
  std::string getFieldDataFromNameEX(std::string_view name, int32_t index) const noexcept;
  // The field's bytes of every valid record joined and decoded untrimmed (types 0, 1), or the first valid
  // record's binary value (type 3 as "%06li"); "" without valid records for every type, and "" when a valid
  // record's field lies outside the buffer; "" for text whose joined bytes would outgrow the buffer (a field
  // overlapping the next record). A binary value takes min(width, joined bytes), zero-extended.
  std::string getFieldDataAllIdxFromInfo(const FieldInfo* info) const noexcept;
  // getFieldDataAllIdxFromInfo for the field of that name.
  std::string getDataValueAllIdxFromName(std::string_view name) const noexcept;

  // ---- writing ----------------------------------------------------------------------------------------
  // setFieldDataFromInfo for the field of that name. Always false.
  bool setFieldDataFromName(std::string_view name, int32_t index,
                            std::optional<std::string_view> value) noexcept;
  // Formats the value into the field of record `index`, growing the buffer to index + 1 records when needed
  // and raising the valid record count to index + 1. Always false. A negative index, R of 0 or below, a size
  // beyond 32 bits, or field bytes outside the buffer after growth write nothing and leave the valid count;
  // numeric text too long for the field is cut at the field's end; a binary field shorter than its type's
  // width receives the low-order bytes.
  bool setFieldDataFromInfo(const FieldInfo* info, int32_t index,
                            std::optional<std::string_view> value) noexcept;
  // Position in UTF-16 code units of the first occurrence of findString in text, or -1 (an empty findString
  // is found at 0).
  static int32_t findIndex(std::string_view text, std::string_view findString) noexcept;
  // Writes the value at byte nPos of the buffer (text types as the number rounded to the field's places,
  // binary types as setFieldDataFromInfo) and returns nPos + length (0 without field); the index decides
  // growth only (a negative one grows nothing). Bytes that would pass the buffer, a length of 0 or below,
  // and for text types negative places or more than 1,100 places write nothing.
  int32_t setFieldDataExFromInfo(const FieldInfo* info, int32_t index, std::optional<std::string_view> value,
                                 int32_t nPos) noexcept;
  // setFieldDataFromInfoEX for the field of that name. Always false.
  bool setFieldDataFromNameEX(std::string_view name, int32_t index, const char* value) noexcept;
  // Copies the zero-terminated bytes as they are into a type-0 field (other types stay spaces); valid record
  // count := index + 1. Always false. A negative index, R of 0 or below, or field bytes outside the buffer
  // after growth write nothing and leave the valid count.
  bool setFieldDataFromInfoEX(const FieldInfo* info, int32_t index, const char* value) noexcept;

  // ---- attributes -------------------------------------------------------------------------------------
  // The stored attribute byte after the field's data in record `index`, or 0 (no field, no buffer, index
  // outside the valid records, a field that carries no attribute byte).
  uint8_t getFieldAttrFromInfo(const FieldInfo* info, int32_t index) const noexcept;
  // Writes the attribute byte of a valid record; a field that carries no attribute byte is skipped, so the
  // next field is never touched.
  void setFieldAttrFromInfo(const FieldInfo* info, int32_t index, uint8_t value) noexcept;
  // setFieldAttrFromInfo for the field of that name.
  void setFieldAttrFromName(std::string_view name, int32_t index, uint8_t value) noexcept;
  // Writes the low 8 bits of "0x..." hexadecimal or decimal text as the attribute byte of a laid-out record
  // (index below the buffer record count); skipped for a field that carries no attribute byte.
  void setFieldAttrHexa(const FieldInfo* info, int32_t index,
                        std::optional<std::string_view> attrHex) noexcept;
  // '1' for '+', '1', '2'; '3' for '3'; '5' for '-', '4', '5'; 0 for any other byte.
  static uint8_t getAttrValueFromData(char byte) noexcept;
  // Fills data with the display value and the derived attribute of the source field's first byte (enable
  // byte 0 when there is no source field); false, data untouched, outside the valid records. A source field
  // without bytes or whose first byte lies outside the buffer gives the attribute 0.
  bool getFieldAttrFromInfo(const FieldInfo* info, int32_t index, FieldData& data) const noexcept;
  // Stores the display value in data, then fills its attribute part as above. True.
  bool getFieldDataFromInfo(const FieldInfo* info, int32_t index, FieldData& data) const noexcept;
  // The derived attribute of the named field, or the initial attribute byte of a new FieldData (0).
  uint8_t getFieldAttrFromName(std::string_view name, int32_t index) const noexcept;
  // "%d" of the enable byte after the fill: "0" without a source field.
  std::string getFieldEnableFromName(std::string_view name, int32_t index) const noexcept;

 private:
  // Helpers of the operations, each described where it is defined (the file named in its group).
  // -- shared helpers (KXBlockDataProc.cpp) --
  // The record buffer's operations (defined with detail::RecordBuffer).
  detail::RecordBuffer buffer() noexcept;
  const detail::RecordBuffer buffer() const noexcept;
  int32_t recordSize() const noexcept;
  int64_t recordOffset(int32_t index, int64_t pos) const;
  const uint8_t* span(int64_t offset, int64_t length) const noexcept;
  uint8_t* span(int64_t offset, int64_t length) noexcept;
  const uint8_t* receivedBytes(const void* recvData, int64_t startPos, int64_t length,
                               std::string& aside) const;
  bool replaceWithSpaces(int32_t records, int32_t recordLen) noexcept;

  // -- receiving (KXBlockDataProcReceive.cpp) --
  template <typename Copy>
  void receiveRecords(const void* recvData, int32_t startPos, int32_t recvSize, Copy copy) noexcept;

  // -- reading (KXBlockDataProcRead.cpp) --
  bool isWebSocketJsonMode() const noexcept;
  bool appendField(const FieldInfo* info, int32_t index, bool askMode, std::string& out) const noexcept;

  // -- writing (KXBlockDataProcWrite.cpp) --
  // How a growing write treats the old buffer before releasing it.
  enum class GrowWipe { None, Wipe, WipeLengthThenWipe };
  bool growRecords(int32_t index, int32_t stride, GrowWipe wipe) noexcept;
  bool encodeValue(std::string_view value, std::string& bytes) const noexcept;
  void routeKeyEncrypted(const FieldInfo& info, std::string_view value) noexcept;

  // -- attributes (KXBlockDataProcAttr.cpp) --
  bool carriesAttr(const FieldInfo& info) const noexcept;

  std::string m_szBlockName;
  bool m_bReceived = false;
  BlockInfo* m_oBlockInfo = nullptr;
  std::vector<std::unique_ptr<FieldLinkInfo>> m_FieldLinkInfoList;
  std::vector<std::shared_ptr<void>> m_ConnCtlList;
  std::vector<std::unique_ptr<RealAPLinkInfo>> m_RealAPLinkInfoList;
  detail::RecordBufferState m_bufferState;  // the bytes and their counters, through buffer()
  uint32_t m_nEncodingType = kTextEncodingCP949;
  std::vector<std::unordered_map<uint64_t, std::string>> m_arrDynamicInput;
  BaseDataProc* m_pParentDP = nullptr;
};

}  // namespace blockproc
