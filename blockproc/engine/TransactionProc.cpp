// The transaction-level parent: splitting replies among the output blocks and building requests.

#include "blockproc/engine/TransactionProc.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "blockproc/detail/FieldTypes.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/engine/FieldCodec.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/parser/TBXML.h"

namespace blockproc {

namespace {

using internal::kInt32Max;
using internal::withThousands;

// A failure inside a build or a receive, turned into the result's message.
struct Refusal {
  std::string message;
};

std::string records(int64_t count) {
  return internal::counted(count, "record");
}

std::string bytes(int64_t count) {
  return internal::counted(count, "byte");
}

// Leading spaces, then one or more digits and nothing else: the value, or -1.
int64_t parseCount(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  const num::WholeInt count = num::parseWholeDigits(text, 0, std::numeric_limits<int64_t>::max());
  return count.isNumber ? count.value : -1;
}

// A record count read from a field's display value: spaces around, an optional '+', digits.
int64_t parseCountValue(std::string_view text) {
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  return text.empty() || text.front() == ' ' ? -1 : parseCount(text);
}

// Splits "Block.field".
std::pair<std::string_view, std::string_view> splitFieldRef(std::string_view ref) {
  const size_t dot = ref.find('.');
  if (dot == std::string_view::npos) return {ref, {}};
  return {ref.substr(0, dot), ref.substr(dot + 1)};
}

// Bytes of one record as a request sends it: the fields back to back, without attribute bytes.
// Not BlockInfo::getRecordFieldSize: that is the positional writer's stride, which m_nRecordIOSize may set
// apart from the fields and which stops at the 32-bit limit, while the send packing (getStructInputData)
// writes, and unpackRecords reads, exactly this sum; a smaller figure would let either run past a record.
int64_t sendRecordSize(const BlockInfo& block) {
  int64_t size = 0;
  for (int32_t j = 0; j < block.getFieldCount(); ++j)
    size += std::max(block.getFieldInfoFromIndex(j)->nLength, 0);
  return size;
}

// Blanks every byte of the block's buffer, then lays out exactly `records` records of defaults (one for a
// one-record block). A repeated block's repeat caps the records it takes, not the memory it starts with; the
// definition is only read, so parents on many threads may share it.
void layOutDefaults(KXBlockDataProc& proc, int32_t records) noexcept {
  proc.wipeBuffer();
  proc.layOutDefaults(proc.isOccursBlock() ? records : 1);
}

}  // namespace

// ---- creation ---------------------------------------------------------------------------------------------

TransactionProc::TransactionProc(TransactionDefinition& definition)
    : BaseDataProc(&definition.tran), m_definition(definition), m_encoding(definition.encoding) {
  TranInfo& tran = definition.tran;
  szTranCode = tran.getTrCode();
  for (const auto& block : tran.m_BlockInfokList) {
    auto proc = std::make_unique<KXBlockDataProc>(block.get());
    proc->setEncodingType(m_encoding);
    proc->setDataProc(this);
    // One default record: a repeated block's other records are laid out as they are received or built.
    layOutDefaults(*proc, std::min(block->m_nRepeatCount, 1));
    if (const auto& link = definition.extra(*block).link) proc->setXmlInfo(link->rootXMLElement());
    m_blockDPMap.emplace(block->m_szBlockName, proc.get());
    m_blockDPList.push_back(std::move(proc));
  }
  for (const BlockInfo* block : tran.m_InBlockList)
    m_InblockDPList.push_back(findBlockProc(block->m_szBlockName));
  for (const BlockInfo* block : tran.m_OutBlockList)
    m_OutblockDPList.push_back(findBlockProc(block->m_szBlockName));
}

TransactionProc::~TransactionProc() = default;

void TransactionProc::setEncodingType(uint32_t encoding) noexcept {
  m_encoding = encoding;
  m_plans.clear();  // the encoders were made for the old encoding
  for (const auto& proc : m_blockDPList) proc->setEncodingType(encoding);
}

KXBlockDataProc* TransactionProc::findBlockProc(std::string_view name) const noexcept {
  const auto it = m_blockDPMap.find(name);
  return it == m_blockDPMap.end() ? nullptr : it->second;
}

// ---- receiving a reply ------------------------------------------------------------------------------------

TransactionProc::ReplyResult TransactionProc::receiveReply(const void* data, int64_t size) noexcept {
  return receive(data, size, false, true);
}

TransactionProc::ReplyResult TransactionProc::receiveRequest(const void* data, int64_t size) noexcept {
  return receive(data, size, true, true);
}

TransactionProc::ReplyResult TransactionProc::receiveReplyHead(const void* data, int64_t size) noexcept {
  return receive(data, size, false, false);
}

std::string TransactionProc::checkRest(const BlockInfo& block, int64_t restBytes, bool input) {
  const std::string what = input ? "request" : "reply";
  const int64_t recordSize = input ? sendRecordSize(block) : block.getRecordMemSize();
  if (recordSize <= 0 || restBytes % recordSize != 0)
    return "block " + block.m_szBlockName + " takes the rest of the " + what + ", " + bytes(restBytes) +
           ", which is not a whole number of " + std::to_string(recordSize) + "-byte records";
  if (restBytes / recordSize > block.m_nRepeatCount)
    return "block " + block.m_szBlockName + " holds at most " + records(block.m_nRepeatCount) +
           " (its repeat); the " + what + " has " + records(restBytes / recordSize);
  return {};
}

namespace {

// Lays records sent fields back to back out as the block holds them in memory (fields at their positions,
// attribute bytes and gaps as spaces).
std::string unpackRecords(const BlockInfo& block, const uint8_t* sent, int64_t count) {
  const int64_t memSize = block.getRecordMemSize(), sendSize = sendRecordSize(block);
  std::string records(static_cast<size_t>(count * memSize), ' ');
  for (int64_t i = 0; i < count; ++i) {
    const uint8_t* from = sent + i * sendSize;
    for (int32_t j = 0; j < block.getFieldCount(); ++j) {
      const FieldInfo& f = *block.getFieldInfoFromIndex(j);
      if (f.nLength <= 0) continue;
      std::memcpy(records.data() + i * memSize + f.nDataPos, from, static_cast<size_t>(f.nLength));
      from += f.nLength;
    }
  }
  return records;
}

}  // namespace

// One side's blocks taking their records from received bytes, one block after another.
struct TransactionProc::Receiver {
  const TransactionDefinition& definition;
  const uint8_t* bytesIn;
  int64_t size;
  bool input;
  std::string what;
  ReplyResult& result;
  int64_t at = 0;

  // The record count of a repeated block: its count prefix, the rest of the bytes or an earlier field.
  int64_t countOf(const BlockInfo& block, BlockSlice& slice, int64_t recordSize) {
    switch (block.m_nRecordLenApplyType) {
      case RCL_OCCURSLEN:
        return prefixCount(block, slice);
      case RCL_RESTDATA: {
        const std::string refusal = checkRest(block, size - at, input);
        if (!refusal.empty()) throw Refusal{refusal};
        return (size - at) / recordSize;
      }
      case RCL_BLOCKFIELD_ID:
      default:
        return fieldCount(block);
    }
  }

  int64_t prefixCount(const BlockInfo& block, BlockSlice& slice) {
    const std::string& name = block.m_szBlockName;
    const int32_t digits = definition.tran.m_nOccursLen;
    if (digits <= 0)
      throw Refusal{"block " + name + " counts its records with a prefix, but the occurs length is 0"};
    if (size - at < digits) {
      result.more = digits - (size - at);
      throw Refusal{"block " + name + " needs a " + std::to_string(digits) + "-digit record count; " +
                    withThousands(size - at) + " remain"};
    }
    const std::string_view prefix(reinterpret_cast<const char*>(bytesIn + at), static_cast<size_t>(digits));
    const int64_t count = parseCount(prefix);
    if (count < 0)
      throw Refusal{"block " + name + "'s record count '" + std::string(prefix) + "' (at byte " +
                    withThousands(at) + ") is not a number"};
    slice.countOffset = at;
    slice.countLength = digits;
    at += digits;
    return count;
  }

  int64_t fieldCount(const BlockInfo& block) const {
    const auto [countBlock, countField] = splitFieldRef(block.m_strRecordLenSubInfo);
    const auto reached =
        std::find_if(result.slices.begin(), result.slices.end(),
                     [wanted = countBlock](const BlockSlice& s) { return s.proc->getBlockName() == wanted; });
    if (reached == result.slices.end() || reached->proc->findFieldInfo(countField) == nullptr)
      throw Refusal{"block " + block.m_szBlockName + " takes its record count from " +
                    block.m_strRecordLenSubInfo + ", which is not a field of an earlier block of the " +
                    what};
    const std::string value = reached->proc->getFieldDataFromName(countField, 0);
    const int64_t count = parseCountValue(value);
    if (count < 0)
      throw Refusal{"block " + block.m_szBlockName + " takes its record count from " +
                    block.m_strRecordLenSubInfo + ", which reads '" + value + "', not a record count"};
    return count;
  }

  // Hands the block its `count` records from the current position.
  void take(KXBlockDataProc& proc, BlockSlice& slice, int64_t count, int64_t recordSize) {
    const BlockInfo& block = *proc.getBlockInfo();
    // The block's repeat is the most records it takes, which also keeps a block within its bytes limit.
    if (block.isOccursBlock() && count > block.m_nRepeatCount)
      throw Refusal{"block " + block.m_szBlockName + " holds at most " + records(block.m_nRepeatCount) +
                    " (its repeat); the " + what + " has " + records(count)};
    // count * recordSize, held at the 64-bit limit: a count read from the data may be absurd.
    const int64_t need = recordSize > 0 && count > std::numeric_limits<int64_t>::max() / recordSize
                             ? std::numeric_limits<int64_t>::max()
                             : count * recordSize;
    if (need > size - at) {
      result.more = need - (size - at);
      throw Refusal{"block " + block.m_szBlockName + " needs " + bytes(need) + " for " + records(count) +
                    "; " + withThousands(size - at) + " remain"};
    }
    if (input) {
      const std::string laidOut = unpackRecords(block, bytesIn + at, count);
      proc.setData(laidOut.data(), 0, static_cast<int32_t>(laidOut.size()));
    } else {
      proc.setData(bytesIn, static_cast<int32_t>(at), static_cast<int32_t>(need));
    }
    slice.offset = at;
    slice.length = need;
    slice.records = static_cast<int32_t>(count);
    result.slices.push_back(slice);
    at += need;
    result.used = at;
  }
};

TransactionProc::ReplyResult TransactionProc::receive(const void* data, int64_t size, bool input,
                                                      bool complete) noexcept {
  ReplyResult result;
  const auto& procs = input ? m_InblockDPList : m_OutblockDPList;
  try {
    Receiver in{m_definition, static_cast<const uint8_t*>(data), size,
                input,        input ? "request" : "reply",       result};
    for (KXBlockDataProc* proc : procs) proc->setData(data, 0, 0);
    if (size < 0 || (data == nullptr && size > 0)) throw Refusal{"no " + in.what + " bytes were given"};
    if (size > kInt32Max)
      throw Refusal{"a " + in.what + " of " + bytes(size) + " is more than a transaction takes (" +
                    bytes(kInt32Max) + ")"};
    for (KXBlockDataProc* proc : procs) {
      const BlockInfo& block = *proc->getBlockInfo();
      const int64_t recordSize = input ? sendRecordSize(block) : block.getRecordMemSize();
      BlockSlice slice{proc, -1, 0, in.at, 0, 0, input, false};
      if (!complete && block.isOccursBlock() && block.m_nRecordLenApplyType == RCL_RESTDATA) {
        // The caller hands this block its records as they arrive.
        slice.open = true;
        result.slices.push_back(slice);
        result.ok = true;
        return result;
      }
      in.take(*proc, slice, block.isOccursBlock() ? in.countOf(block, slice, recordSize) : 1, recordSize);
    }
    if (in.at < size) {
      const std::string last = procs.empty() ? "" : " after block " + procs.back()->getBlockName();
      throw Refusal{"the " + in.what + " has " + bytes(size) + ", but its blocks take " +
                    withThousands(in.at) + "; " + withThousands(size - in.at) + " remain" + last};
    }
    result.ok = true;
  } catch (const Refusal& refusal) {
    result.message = refusal.message;
  } catch (...) {
    result.message = std::string("out of memory while splitting the ") + (input ? "request" : "reply");
  }
  return result;
}

// ---- building a request or a reply ------------------------------------------------------------------------

TransactionProc::BuildResult TransactionProc::buildRequest(const std::vector<BlockValues>& values) noexcept {
  return build(values, true);
}

TransactionProc::BuildResult TransactionProc::buildReply(const std::vector<BlockValues>& values) noexcept {
  return build(values, false);
}

// The blocks of one side of the transaction with the values given for them.
struct TransactionProc::Side {
  struct Entry {
    KXBlockDataProc* proc;
    const BlockValues* values;  // nullptr when the values leave the block out
    int64_t count;              // records to build
    RecordValues extra;         // count fields the values leave out, written into record 0
  };
  std::vector<Entry> entries;
  bool input;

  Entry* find(std::string_view name) {
    for (Entry& e : entries)
      if (e.proc->getBlockName() == name) return &e;
    return nullptr;
  }

  std::string names() const {
    std::string list;
    for (const Entry& e : entries) list += (list.empty() ? "" : ", ") + e.proc->getBlockName();
    return list.empty() ? "none" : list;
  }

  void assign(const std::vector<BlockValues>& values, const std::string& code) {
    for (const BlockValues& v : values) {
      Entry* e = find(v.block);
      if (e == nullptr)
        throw Refusal{"'" + v.block + "' is not an " + (input ? "input" : "output") + " block of " + code +
                      " (its " + (input ? "input" : "output") + " blocks: " + names() + ")"};
      if (e->values != nullptr) throw Refusal{"values for block " + v.block + " are given twice"};
      e->values = &v;
      const bool repeated = e->proc->isOccursBlock();
      const auto given = static_cast<int64_t>(v.records.size());
      if (!repeated && given > 1)
        throw Refusal{"block " + v.block + " holds one record; " + withThousands(given) + " were given"};
      e->count = repeated ? given : 1;
    }
  }

  // Count fields: filled in when left out, checked against the records when given.
  void resolveCountFields() {
    for (Entry& e : entries) {
      const BlockInfo& block = *e.proc->getBlockInfo();
      if (!block.isOccursBlock() || block.m_nRecordLenApplyType != RCL_BLOCKFIELD_ID) continue;
      const auto [countBlock, countField] = splitFieldRef(block.m_strRecordLenSubInfo);
      Entry* holder = find(countBlock);
      if (holder == nullptr || holder->proc->findFieldInfo(countField) == nullptr)
        throw Refusal{"block " + block.m_szBlockName + " takes its record count from " +
                      block.m_strRecordLenSubInfo + ", which is not a field of this transaction"};
      const std::string* given = nullptr;
      if (holder->values != nullptr && !holder->values->records.empty())
        for (const auto& [field, value] : holder->values->records.front().fields)
          if (field == countField) given = &value;
      if (given == nullptr) {
        holder->extra.fields.emplace_back(std::string(countField), std::to_string(e.count));
      } else if (parseCountValue(*given) != e.count) {
        throw Refusal{block.m_strRecordLenSubInfo + " says '" + *given + "', but block " +
                      block.m_szBlockName + " is given " + records(e.count)};
      }
    }
  }
};

namespace {

std::string placeOf(const KXBlockDataProc& proc, int64_t record, std::string_view field) {
  std::string where;
  value::appendWhere(where, proc.getBlockName(), record, field);
  return where;
}

// Writes one value through the field's writer, then reads it back: a value that does not come back exactly
// is refused rather than sent changed.
void writeValue(KXBlockDataProc& proc, const FieldInfo& field, int32_t index, int64_t record,
                const std::string& text) {
  value::PreparedValue prepared;
  std::string why;
  if (!value::prepareValue(field, text, proc.getEncodingType(), prepared, why))
    throw Refusal{placeOf(proc, record, field.szFieldName) + ": " + why};
  const std::optional<std::string_view> write =
      prepared.blank ? std::nullopt : std::optional<std::string_view>(prepared.write);
  if (prepared.writeType < 0 || prepared.writeType == field.nDataType) {
    proc.setFieldDataFromInfo(&field, index, write);
  } else {
    // Only a value the field's own type would lay out wrongly pays for a descriptor of the write type: the
    // place and size are all the writer reads (a key-encrypted field never gets here).
    FieldInfo asType(field.szFieldName, prepared.writeType, field.nLength, field.nDecimalLen);
    asType.nDataPos = field.nDataPos;
    proc.setFieldDataFromInfo(&asType, index, write);
  }
  std::string back;
  value::appendValue(back, field, value::fieldBytes(proc, field, index), proc.getEncodingType(),
                     value::BadByteStyle::Escaped);
  if (back != prepared.expected)
    throw Refusal{placeOf(proc, record, field.szFieldName) + ": '" + text + "' would read back as '" + back +
                  "'"};
}

bool isBinary(const FieldInfo& field) {
  return ftype::binaryWidth(field.nDataType) > 0;
}

}  // namespace

bool blankWhenNull(const FieldInfo& field) noexcept {
  return !isBinary(field);
}

namespace {

// Whether a field the values leave out must be written 0 over its laid-out default: a binary field's
// default, spaces, is no number, and a number field's zeros are laid out with a point, which a field that
// leaves its point out must not carry ("000000000.00" where a reader takes twelve digits).
bool zeroOverDefault(const FieldInfo& field) {
  if (field.getKeyEncState()) return false;
  return isBinary(field) ||
         (ftype::rulesOf(field.nDataType).layout == ftype::Layout::NumberText && field.bImpliedPoint &&
          field.nDecimalLen > 0 && field.nLength > field.nDecimalLen);
}

// Writes the values of record `record` of the caller's values into buffer record `index`, each once. With
// `zeroLeftOut`, a field the values leave out whose default is not its zero (zeroOverDefault) is written 0;
// the zeros go first, so a field the values do give is never overwritten by them.
void writeRecord(KXBlockDataProc& proc, const RecordValues& values, int32_t index, int64_t record,
                 bool zeroLeftOut) {
  const std::string& block = proc.getBlockName();
  const BlockInfo& info = *proc.getBlockInfo();
  std::vector<const FieldInfo*> fields;
  fields.reserve(values.fields.size());
  std::vector<bool> given(zeroLeftOut ? static_cast<size_t>(info.getFieldCount()) : 0);
  for (const auto& [name, text] : values.fields) {
    const FieldInfo* field = proc.findFieldInfo(name);
    if (field == nullptr) throw Refusal{"block " + block + " has no field '" + name + "'"};
    fields.push_back(field);
    if (field->nIndex >= 0 && static_cast<size_t>(field->nIndex) < given.size())
      given[static_cast<size_t>(field->nIndex)] = true;
  }
  for (const std::string& name : values.nulls) {  // a field blanked is given too
    const FieldInfo* field = proc.findFieldInfo(name);
    if (field != nullptr && blankWhenNull(*field) && field->nIndex >= 0 &&
        static_cast<size_t>(field->nIndex) < given.size())
      given[static_cast<size_t>(field->nIndex)] = true;
  }
  for (size_t j = 0; j < given.size(); ++j) {
    const FieldInfo& field = *info.getFieldInfoFromIndex(static_cast<int32_t>(j));
    if (!given[j] && zeroOverDefault(field)) writeValue(proc, field, index, record, "0");
  }
  for (size_t k = 0; k < fields.size(); ++k)
    writeValue(proc, *fields[k], index, record, values.fields[k].second);
  for (const std::string& name : values.nulls) {
    const FieldInfo* field = proc.findFieldInfo(name);
    if (field == nullptr) throw Refusal{"block " + block + " has no field '" + name + "'"};
    // No value: a text or number field blank (a number's laid-out default is zeros, which read as 0).
    if (blankWhenNull(*field)) writeValue(proc, *field, index, record, "");
  }
  for (const auto& [name, attr] : values.attrs) {
    const FieldInfo* field = proc.findFieldInfo(name);
    if (field == nullptr) throw Refusal{"block " + block + " has no field '" + name + "'"};
    if (!proc.getBlockInfo()->carriesAttr(*field))
      throw Refusal{placeOf(proc, record, name) + " carries no attribute byte"};
    proc.setFieldAttrFromInfo(field, index, attr);
  }
}

std::string countPrefix(const std::string& block, int64_t count, int32_t digits) {
  std::string text = std::to_string(count);
  if (static_cast<int64_t>(text.size()) > digits)
    throw Refusal{"block " + block + " has " + records(count) + ", more than a " + std::to_string(digits) +
                  "-digit count holds"};
  return std::string(static_cast<size_t>(digits) - text.size(), '0') + text;
}

// The caller's values for record i of a block, or none when they give fewer records.
const RecordValues& recordValues(const BlockValues* values, int64_t i) {
  static const RecordValues kNoValues;
  return values != nullptr && static_cast<size_t>(i) < values->records.size()
             ? values->records[static_cast<size_t>(i)]
             : kNoValues;
}

// A request's records of one block: each record is built in buffer record 0 and goes out through the send
// packing (the fields back to back), which takes a block's first record.
void appendSentRecords(std::string& out, KXBlockDataProc& proc, const BlockValues* values, int64_t count,
                       const RecordValues& countFields) {
  const int64_t sendSize = sendRecordSize(*proc.getBlockInfo());
  for (int64_t i = 0; i < count; ++i) {
    layOutDefaults(proc, 1);
    writeRecord(proc, recordValues(values, i), 0, i, true);
    if (i == 0) writeRecord(proc, countFields, 0, 0, false);
    std::string packed(static_cast<size_t>(sendSize), ' ');
    proc.getStructInputData(packed.data());
    out += packed;
  }
}

// A reply's records of one block, as laid out in memory: exactly `count` default records (at most the
// block's repeat), each overwritten with its values.
void appendLaidOutRecords(std::string& out, KXBlockDataProc& proc, const BlockValues* values, int64_t count,
                          const RecordValues& countFields) {
  const BlockInfo& block = *proc.getBlockInfo();
  layOutDefaults(proc, static_cast<int32_t>(count));
  if (count > proc.getBufCount())
    throw Refusal{"block " + block.m_szBlockName + " cannot hold that many records"};
  for (int64_t i = 0; i < count; ++i)
    writeRecord(proc, recordValues(values, i), static_cast<int32_t>(i), i, true);
  if (count > 0) writeRecord(proc, countFields, 0, 0, false);
  const int64_t length = count * block.getRecordMemSize();
  if (length > proc.getBlockBuffSize()) throw Refusal{"block " + block.m_szBlockName + " was not laid out"};
  out.append(reinterpret_cast<const char*>(proc.getData()), static_cast<size_t>(length));
}

}  // namespace

// ---- records built straight into output bytes ------------------------------------------------------------

// What building a block's records needs, worked out once per block: its record of defaults, with 0 written
// over the fields whose default is not their zero (zeroOverDefault), and one encoder per field. Each record
// starts as the defaults, then each value's encoder writes the field's bytes in place, so no processor holds
// the records and nothing is read back. A block with a field or attribute byte outside its record is built
// through its processor instead (`direct` false).
struct TransactionProc::RecordPlan {
  std::string defaults;
  std::unordered_map<const FieldInfo*, value::FieldEncoder> encoders;
  std::vector<std::pair<const FieldInfo*, std::string>> zeroRefusals;  // fields that refuse that 0
  // The field and encoder of the k-th value of the last record: records written from the same columns
  // find theirs without a lookup.
  struct Slot {
    std::string name;
    const FieldInfo* field = nullptr;
    value::FieldEncoder* encoder = nullptr;
  };
  std::vector<Slot> byPosition;
  // By field index: the field and its encoder (of a plan that is direct, every field's).
  std::vector<std::pair<const FieldInfo*, value::FieldEncoder*>> byIndex;
  std::vector<value::FieldEncoder*> current;  // the encoder of each value of the record being written
  std::vector<uint8_t> given;                 // by field index: whether the values give the field
  std::string record;                         // a request's record before it is packed
  bool direct = false;
  bool made = false;  // worked out

  // The caller's values as views (RecordValues converted, without copying its text).
  std::vector<std::pair<std::string_view, std::string_view>> viewFields;
  std::vector<std::pair<std::string_view, uint8_t>> viewAttrs;
  std::vector<std::string_view> viewNulls;

  const FieldInfo& fieldOf(const KXBlockDataProc& proc, std::string_view name) const {
    const FieldInfo* field = proc.findFieldInfo(name);
    if (field == nullptr)
      throw Refusal{"block " + proc.getBlockName() + " has no field '" + std::string(name) + "'"};
    return *field;
  }

  RecordValueViews viewsOf(const RecordValues& values) {
    viewFields.assign(values.fields.begin(), values.fields.end());
    viewAttrs.assign(values.attrs.begin(), values.attrs.end());
    viewNulls.assign(values.nulls.begin(), values.nulls.end());
    return {viewFields, viewAttrs, viewNulls};
  }

  value::FieldEncoder& encoderOf(const KXBlockDataProc& proc, const FieldInfo& field) {
    return encoders.try_emplace(&field, field, proc.getEncodingType()).first->second;
  }

  const Slot& slotOf(const KXBlockDataProc& proc, size_t k, std::string_view name) {
    if (k < byPosition.size() && internal::sameName(byPosition[k].name, name)) return byPosition[k];
    const FieldInfo& field = fieldOf(proc, name);
    if (k >= byPosition.size()) byPosition.resize(k + 1);
    byPosition[k] = {std::string(name), &field, &encoderOf(proc, field)};
    return byPosition[k];
  }

  // The encoder of the k-th value: by the field the caller found when that is one of the block's own, else
  // by its name.
  value::FieldEncoder& encoderAt(const KXBlockDataProc& proc, const RecordValueViews& values, size_t k) {
    if (k < values.found.size()) {
      const FieldInfo* field = values.found[k];
      if (field != nullptr && field->nIndex >= 0 && static_cast<size_t>(field->nIndex) < byIndex.size()) {
        const auto& [own, encoder] = byIndex[static_cast<size_t>(field->nIndex)];
        if (own == field) return *encoder;
      }
    }
    return *slotOf(proc, k, values.fields[k].first).encoder;
  }

  static void put(const KXBlockDataProc& proc, uint8_t* rec, value::FieldEncoder& encoder, int64_t number,
                  std::string_view text) {
    std::string why;
    const FieldInfo& field = encoder.field();
    if (!encoder.encode(text, rec + field.nDataPos, why))
      throw Refusal{placeOf(proc, number, field.szFieldName) + ": " + why};
  }

  // Writes the values of record `number` into `rec`, which holds the defaults, in the order the processor
  // would: the fields named, a refused 0 of a field left out, the values, the blanks, the attributes. Which
  // fields are given matters only to a block with a refused 0, so only such a block marks them.
  void write(const KXBlockDataProc& proc, uint8_t* rec, const RecordValueViews& values, int64_t number,
             bool zeroBinary) {
    const bool marks = zeroBinary && !zeroRefusals.empty();
    if (marks) std::fill(given.begin(), given.end(), uint8_t{0});
    const auto markGiven = [&](const FieldInfo& field) {
      if (marks && field.nIndex >= 0 && static_cast<size_t>(field.nIndex) < given.size())
        given[static_cast<size_t>(field.nIndex)] = 1;
    };
    current.resize(values.fields.size());
    for (size_t k = 0; k < values.fields.size(); ++k) {
      current[k] = &encoderAt(proc, values, k);
      markGiven(current[k]->field());
    }
    for (const std::string_view name : values.nulls)
      if (const FieldInfo& field = fieldOf(proc, name); blankWhenNull(field)) markGiven(field);
    if (marks)
      for (const auto& [field, why] : zeroRefusals)
        if (given[static_cast<size_t>(field->nIndex)] == 0)
          throw Refusal{placeOf(proc, number, field->szFieldName) + ": " + why};
    for (size_t k = 0; k < values.fields.size(); ++k)
      put(proc, rec, *current[k], number, values.fields[k].second);
    for (const std::string_view name : values.nulls) {
      const FieldInfo& field = fieldOf(proc, name);
      if (blankWhenNull(field)) put(proc, rec, encoderOf(proc, field), number, "");
    }
    for (const auto& [name, attr] : values.attrs) {
      const FieldInfo& field = fieldOf(proc, name);
      if (!proc.getBlockInfo()->carriesAttr(field))
        throw Refusal{placeOf(proc, number, name) + " carries no attribute byte"};
      rec[field.nDataPos + field.nLength] = attr;
    }
  }

  // Appends the record's sent fields back to back, as the send packing takes them.
  static void pack(const BlockInfo& block, const std::string& rec, std::string& out) {
    for (int32_t j = 0; j < block.getFieldCount(); ++j) {
      const FieldInfo& f = *block.getFieldInfoFromIndex(j);
      if (f.nLength > 0) out.append(rec, static_cast<size_t>(f.nDataPos), static_cast<size_t>(f.nLength));
    }
  }

  void appendSent(std::string& out, const KXBlockDataProc& proc, const RecordValueViews& values,
                  int64_t number, const RecordValues* countFields) {
    record = defaults;
    write(proc, bytesOf(record), values, number, true);
    if (countFields != nullptr) write(proc, bytesOf(record), viewsOf(*countFields), 0, false);
    pack(*proc.getBlockInfo(), record, out);
  }

  // Appends `count` records, record 0 also taking `countFields`.
  void appendLaidOut(std::string& out, const KXBlockDataProc& proc, const BlockValues* values, int64_t count,
                     const RecordValues* countFields) {
    const auto size = defaults.size();
    if (count > 0 && static_cast<int64_t>(size) > kInt32Max / count)
      throw Refusal{"block " + proc.getBlockName() + " cannot hold that many records"};
    const size_t start = out.size();
    out.reserve(start + size * static_cast<size_t>(count));
    for (int64_t i = 0; i < count; ++i) {
      out += defaults;
      write(proc, bytesOf(out) + start + static_cast<size_t>(i) * size, viewsOf(recordValues(values, i)), i,
            true);
    }
    if (count > 0 && countFields != nullptr)
      write(proc, bytesOf(out) + start, viewsOf(*countFields), 0, false);
  }

  static uint8_t* bytesOf(std::string& text) { return reinterpret_cast<uint8_t*>(text.data()); }
};

TransactionProc::RecordPlan& TransactionProc::planFor(KXBlockDataProc& proc) {
  if (m_lastPlanProc == &proc) return *m_lastPlan;
  std::unique_ptr<RecordPlan>& slot = m_plans[&proc];
  if (!slot) slot = std::make_unique<RecordPlan>();
  m_lastPlanProc = &proc;
  m_lastPlan = slot.get();
  if (m_lastPlan->made) return *m_lastPlan;
  m_lastPlan->made = true;
  RecordPlan& plan = *slot;
  const BlockInfo& block = *proc.getBlockInfo();
  const int64_t size = block.getRecordMemSize();
  layOutDefaults(proc, 1);
  if (size <= 0 || size > proc.getBlockBuffSize() || proc.getData() == nullptr) return plan;
  plan.defaults.assign(reinterpret_cast<const char*>(proc.getData()), static_cast<size_t>(size));
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& f = *block.getFieldInfoFromIndex(j);
    const int64_t end = int64_t{f.nDataPos} + f.nLength + (block.carriesAttr(f) ? 1 : 0);
    if (f.nIndex != j || f.nDataPos < 0 || f.nLength < 0 || end > size) return plan;
    value::FieldEncoder& encoder = plan.encoderOf(proc, f);
    plan.byIndex.emplace_back(&f, &encoder);
    std::string why;
    if (zeroOverDefault(f) && !encoder.encode("0", RecordPlan::bytesOf(plan.defaults) + f.nDataPos, why))
      plan.zeroRefusals.emplace_back(&f, why);
  }
  plan.given.resize(static_cast<size_t>(block.getFieldCount()));
  plan.direct = true;
  return plan;
}

std::string TransactionProc::appendRecord(std::string& out, KXBlockDataProc& proc, const RecordValues& values,
                                          int64_t record, bool input) noexcept {
  try {
    return appendRecord(out, proc, planFor(proc).viewsOf(values), record, input);
  } catch (...) {
    return "out of memory while building the data";
  }
}

namespace {

RecordValues ownedValues(const RecordValueViews& values) {
  RecordValues owned;
  for (const auto& [name, text] : values.fields) owned.fields.emplace_back(name, text);
  for (const auto& [name, attr] : values.attrs) owned.attrs.emplace_back(name, attr);
  for (const std::string_view name : values.nulls) owned.nulls.emplace_back(name);
  return owned;
}

}  // namespace

std::string TransactionProc::appendRecord(std::string& out, KXBlockDataProc& proc,
                                          const RecordValueViews& values, int64_t record,
                                          bool input) noexcept {
  const size_t size = out.size();
  try {
    RecordPlan& plan = planFor(proc);
    if (plan.direct) {
      if (input) {
        plan.appendSent(out, proc, values, record, nullptr);
      } else {
        out += plan.defaults;
        plan.write(proc, RecordPlan::bytesOf(out) + size, values, record, true);
      }
      return {};
    }
    layOutDefaults(proc, 1);
    writeRecord(proc, ownedValues(values), 0, record, true);
    if (input) {
      out.resize(size + static_cast<size_t>(sendRecordSize(*proc.getBlockInfo())), ' ');
      proc.getStructInputData(out.data() + size);
    } else {
      const int64_t length = proc.getBlockInfo()->getRecordMemSize();
      if (length > proc.getBlockBuffSize()) return "block " + proc.getBlockName() + " was not laid out";
      out.append(reinterpret_cast<const char*>(proc.getData()), static_cast<size_t>(length));
    }
    return {};
  } catch (const Refusal& refusal) {
    out.resize(size);
    return refusal.message;
  } catch (...) {
    out.resize(size);
    return "out of memory while building the data";
  }
}

TransactionProc::BuildResult TransactionProc::build(const std::vector<BlockValues>& values,
                                                    bool input) noexcept {
  BuildResult result;
  try {
    Side side;
    side.input = input;
    for (KXBlockDataProc* proc : input ? m_InblockDPList : m_OutblockDPList)
      side.entries.push_back({proc, nullptr, proc->isOccursBlock() ? 0 : 1, {}});
    side.assign(values, m_definition.tran.getTrCode());
    side.resolveCountFields();

    std::string out;
    for (Side::Entry& e : side.entries) {
      const BlockInfo& block = *e.proc->getBlockInfo();
      if (block.isOccursBlock() && e.count > block.m_nRepeatCount)
        throw Refusal{"block " + block.m_szBlockName + " holds at most " + records(block.m_nRepeatCount) +
                      " (its repeat); " + withThousands(e.count) + " were given"};
      if (block.isOccursBlock() && block.m_nRecordLenApplyType == RCL_OCCURSLEN)
        out += countPrefix(block.m_szBlockName, e.count, m_definition.tran.m_nOccursLen);
      RecordPlan& plan = planFor(*e.proc);
      if (plan.direct && input) {
        for (int64_t i = 0; i < e.count; ++i)
          plan.appendSent(out, *e.proc, plan.viewsOf(recordValues(e.values, i)), i,
                          i == 0 ? &e.extra : nullptr);
      } else if (plan.direct) {
        plan.appendLaidOut(out, *e.proc, e.values, e.count, &e.extra);
      } else if (input) {
        appendSentRecords(out, *e.proc, e.values, e.count, e.extra);
      } else {
        appendLaidOutRecords(out, *e.proc, e.values, e.count, e.extra);
      }
    }
    result.bytes = std::move(out);
    result.ok = true;
  } catch (const Refusal& refusal) {
    result.message = refusal.message;
  } catch (...) {
    result.message = "out of memory while building the data";
  }
  return result;
}

}  // namespace blockproc
