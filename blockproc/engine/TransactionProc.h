#pragma once
// The transaction-level parent: one block processor per block of a loaded transaction. It splits a received
// reply among the output blocks, and builds request bytes (or reply bytes, for tools and tests) from values.
//
// The three ways a repeated block's record count reaches the reader of a reply:
//   RCL_OCCURSLEN      a count of the transaction's occurs-length digits stands right before the block;
//   RCL_RESTDATA       the block takes the rest of the data (whole records only);
//   RCL_BLOCKFIELD_ID  the count is the value of a field of an earlier one-record block ("Block.field").
// A one-record block always takes exactly one record. Nothing is read past the end of the given bytes.
//
// Usage:
//
//   TransactionProc parent(definition);                      // one processor per block
//   auto reply = parent.receiveReply(bytes, size);
//   if (!reply.ok) return fail(reply.message);               // names the block and the byte counts
//   KXBlockDataProc* ticks = parent.findBlockProc("OutBlock1");
//   auto request = parent.buildRequest({{"InBlock", {{{{"shcode", "005930"}}, {}}}}});

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "blockproc/data/BaseDataProc.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/engine/DefinitionLoader.h"

namespace blockproc {

// Values for the records of one block, by field name, as callers write them.
struct RecordValues {
  std::vector<std::pair<std::string, std::string>> fields;  // field name and value, written in this order
  std::vector<std::pair<std::string, uint8_t>> attrs;       // field name and attribute byte
  // Fields given no value (JSON null, Python None): a number or text field is written blank, as a blank
  // one reads; any other field keeps its default. A count field given none is filled in.
  std::vector<std::string> nulls = {};
};

// One record's values as views of the caller's text, valid during the call that takes them: RecordValues
// without a copy of each name and value, for a caller that reads records out of a buffer.
struct RecordValueViews {
  std::span<const std::pair<std::string_view, std::string_view>> fields;
  std::span<const std::pair<std::string_view, uint8_t>> attrs = {};
  std::span<const std::string_view> nulls = {};
  // When not empty, the field of each of `fields`, as the block's processor found it by name: a caller that
  // has looked the names up already (to check them) spares the second lookup. A field that is not one of
  // the block's own is looked up by name after all.
  std::span<const FieldInfo* const> found = {};
};

// Whether a field given no value is written blank (a text or number field) rather than left at its default
// (a binary field, which has no blank).
bool blankWhenNull(const FieldInfo& field) noexcept;

struct BlockValues {
  std::string block;                  // block name
  std::vector<RecordValues> records;  // one for a one-record block
};

class TransactionProc : public BaseDataProc {
 public:
  // Where one output block was found in a reply.
  struct BlockSlice {
    KXBlockDataProc* proc = nullptr;
    int64_t countOffset = -1;  // the count prefix's first byte, or -1 when the block has none
    int32_t countLength = 0;   // digits of the count prefix
    int64_t offset = 0;        // the block's first record
    int64_t length = 0;        // bytes of its records
    int32_t records = 0;
    bool packed = false;  // records as a request sends them: the fields back to back, no attribute bytes
    bool open = false;    // a count="rest" block left to the caller by receiveReplyHead (no record yet)
  };
  struct ReplyResult {
    bool ok = false;
    std::string message;             // what is wrong ("" when ok)
    std::vector<BlockSlice> slices;  // the blocks handed their records, in order (also before a failure)
    int64_t used = 0;                // bytes accounted for by the slices
    int64_t more = 0;  // when the bytes ended inside a block: at least this many more were needed, else 0
  };
  struct BuildResult {
    bool ok = false;
    std::string message;  // what is wrong ("" when ok)
    std::string bytes;    // the built bytes (empty unless ok)
  };

  // One processor per block of the definition (not owned; it must outlive this parent), in the
  // definition's encoding, laid out with one record of default contents (a repeated block's repeat caps
  // the records it takes; they are laid out as they are received or built), linked to this parent, with
  // the block's link element loaded. Throws only std::bad_alloc. Neither making a parent nor using it
  // changes the definition (a key-encrypted value, which would go into it, is refused): parents on many
  // threads may share one definition.
  explicit TransactionProc(TransactionDefinition& definition);
  ~TransactionProc() override;
  TransactionProc(const TransactionProc&) = delete;
  TransactionProc& operator=(const TransactionProc&) = delete;

  const TransactionDefinition& definition() const noexcept { return m_definition; }
  // Sets the text encoding of every block processor.
  void setEncodingType(uint32_t encoding) noexcept;
  uint32_t getEncodingType() const noexcept { return m_encoding; }

  // The processor of the block of that name, or nullptr.
  KXBlockDataProc* findBlockProc(std::string_view name) const noexcept;
  const std::vector<KXBlockDataProc*>& inputProcs() const noexcept { return m_InblockDPList; }
  const std::vector<KXBlockDataProc*>& outputProcs() const noexcept { return m_OutblockDPList; }

  // Splits a reply among the output blocks, in order, and hands each its records with setData. Blocks the
  // reply does not reach hold no record. A repeated block takes at most its repeat of records. A reply
  // shorter or longer than its blocks need is refused with a message naming the block and the byte counts;
  // the blocks before the problem keep their records.
  ReplyResult receiveReply(const void* data, int64_t size) noexcept;

  // As receiveReply for the first `size` bytes of a reply that may go on: a count="rest" block is not
  // handed records but comes back as the last slice, marked open, its records starting at its offset, for
  // the caller to hand over piece by piece (setData) and check with checkRest. Without a rest block the
  // bytes must hold the whole reply. When they end inside a block, the refusal says so in `more`.
  ReplyResult receiveReplyHead(const void* data, int64_t size) noexcept;
  // Why a count="rest" block cannot take `restBytes` (not whole records, or more than its repeat), in the
  // words of receiveReply, or "" when it can.
  static std::string checkRest(const BlockInfo& block, int64_t restBytes, bool input);

  // The request's counterpart of receiveReply: splits request bytes (as buildRequest makes them) among the
  // input blocks, each record's sent fields laid out at their positions in the block's records.
  ReplyResult receiveRequest(const void* data, int64_t size) noexcept;

  // The request: for every input block in order, its count prefix when it has one, then each record's
  // fields back to back (getStructInputData). A block the values leave out sends one record of defaults
  // (no record when it is repeated). A count field left out is filled with its block's record count. Every
  // value goes through its field's encoder (value::FieldEncoder, the rules of value::prepareValue), which
  // writes it straight into the output bytes: one the field cannot hold exactly is refused with block,
  // record, field and reason. A repeated block takes at most its repeat.
  BuildResult buildRequest(const std::vector<BlockValues>& values) noexcept;
  // The reply that receiveReply would split into these values: for every output block in order, its count
  // prefix when it has one, then its records as laid out in memory (attribute bytes included).
  BuildResult buildReply(const std::vector<BlockValues>& values) noexcept;

  // Appends to `out` one record of the block built from `values`, as buildRequest (`input`: the sent fields
  // back to back) or buildReply (the record as laid out in memory) writes each record of a block, for a
  // caller that writes a block's records as they come; a one-record block takes any number of them, one
  // after another, as a real-time stream holds them. Messages number the record `record`. Returns "" when
  // the record was appended, else why the values were refused (block, record, field and reason), `out`
  // then unchanged. A count field is written only when the values give it.
  std::string appendRecord(std::string& out, KXBlockDataProc& proc, const RecordValues& values,
                           int64_t record, bool input) noexcept;
  // The same for values given as views.
  std::string appendRecord(std::string& out, KXBlockDataProc& proc, const RecordValueViews& values,
                           int64_t record, bool input) noexcept;

 private:
  struct Side;
  struct Receiver;
  struct RecordPlan;
  // The plan for building the block's records straight into output bytes, made on first use.
  RecordPlan& planFor(KXBlockDataProc& proc);
  BuildResult build(const std::vector<BlockValues>& values, bool input) noexcept;
  ReplyResult receive(const void* data, int64_t size, bool input, bool complete) noexcept;

  TransactionDefinition& m_definition;
  uint32_t m_encoding;
  std::vector<std::unique_ptr<KXBlockDataProc>> m_blockDPList;  // every block, in definition order
  std::vector<KXBlockDataProc*> m_InblockDPList, m_OutblockDPList;
  std::map<std::string, KXBlockDataProc*, std::less<>> m_blockDPMap;
  std::unordered_map<const KXBlockDataProc*, std::unique_ptr<RecordPlan>> m_plans;
  // The plan used last, found without a lookup: a block's records are built one after another.
  const KXBlockDataProc* m_lastPlanProc = nullptr;
  RecordPlan* m_lastPlan = nullptr;
};

}  // namespace blockproc
