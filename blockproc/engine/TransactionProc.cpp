// The transaction-level parent: splitting replies among the output blocks and building requests.

#include "blockproc/engine/TransactionProc.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "blockproc/codec/TextCodec.h"
#include "blockproc/parser/TBXML.h"

namespace blockproc {

namespace {

constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();

// A failure inside a build or a receive, turned into the result's message.
struct Refusal {
  std::string message;
};

std::string records(int64_t count) {
  return withThousands(count) + (count == 1 ? " record" : " records");
}

std::string bytes(int64_t count) {
  return withThousands(count) + (count == 1 ? " byte" : " bytes");
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Leading spaces, then one or more digits and nothing else: the value, or -1.
int64_t parseCount(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  if (text.empty() || text.size() > 18) return -1;
  int64_t value = 0;
  for (char c : text) {
    if (!isDigit(c)) return -1;
    value = value * 10 + (c - '0');
  }
  return value;
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

// ---- checking a value before it is written ------------------------------------------------------------

struct NumberShape {
  bool ok = false;
  bool sign = false;
  int64_t integerBytes = 0;  // bytes ahead of the point, sign excluded
};

// Numeric text as the engine hands it to the writers (surrounding spaces already gone): an optional sign,
// digits with at most one point, and for floating-point types an optional exponent.
NumberShape numberShape(std::string_view text, bool exponent) {
  NumberShape shape;
  size_t i = 0;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    shape.sign = true;
    ++i;
  }
  int digits = 0;
  while (i < text.size() && isDigit(text[i])) ++i, ++digits;
  shape.integerBytes = static_cast<int64_t>(i - (shape.sign ? 1 : 0));
  if (i < text.size() && text[i] == '.') {
    ++i;
    while (i < text.size() && isDigit(text[i])) ++i, ++digits;
  }
  if (digits == 0) return shape;
  if (exponent && i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    size_t j = i + 1;
    if (j < text.size() && (text[j] == '+' || text[j] == '-')) ++j;
    if (j < text.size() && isDigit(text[j])) {
      while (j < text.size() && isDigit(text[j])) ++j;
      i = j;
    }
  }
  shape.ok = i == text.size();
  return shape;
}

// A number's text without the spaces around it: " 123.45" is the number 123.45, and the writers would
// otherwise take the spaces as digits.
std::string_view trimSpaces(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

bool isNumberType(int32_t dataType) {
  return dataType >= kFieldNumText && dataType <= kFieldSInt64;
}

// Why the value cannot be written into the field as it stands, or "".
std::string valueProblem(const FieldInfo& field, std::string_view value, uint32_t encoding) {
  const auto encoded = codec::encode(encoding, value);
  if (!encoded) return "cannot be written in " + std::string(codec::encodingName(encoding));
  if (field.getKeyEncState() || value.empty()) return {};
  const int64_t length = field.nLength;
  switch (field.nDataType) {
    case kFieldText:
      if (static_cast<int64_t>(encoded->size()) > length)
        return "takes " + bytes(static_cast<int64_t>(encoded->size())) + "; the field holds " + bytes(length);
      return {};
    case kFieldNumText: {
      const NumberShape shape = numberShape(value, false);
      if (!shape.ok) return "is not a number";
      const int64_t decimals =
          field.nDecimalLen > 0 && length > field.nDecimalLen ? field.nDecimalLen + 1 : 0;
      const int64_t room = length - decimals - (shape.sign ? 1 : 0);
      if (shape.integerBytes > room)
        return "does not fit: the field has room for " + std::to_string(std::max<int64_t>(room, 0)) +
               " digits before the point";
      return {};
    }
    case kFieldInt16: {
      const NumberShape shape = numberShape(value, false);
      if (!shape.ok || value.find('.') != std::string_view::npos) return "is not a whole number";
      const int64_t v = parseCountValue(value[0] == '-' ? value.substr(1) : value);
      if (v < 0 || v > (value[0] == '-' ? 32768 : 32767)) return "lies outside -32,768 to 32,767";
      return {};
    }
    case kFieldInt64:
    case kFieldSInt64: {
      const NumberShape shape = numberShape(value, false);
      if (!shape.ok || value.find('.') != std::string_view::npos) return "is not a whole number";
      int64_t v = 0;
      const std::string_view digits = value[0] == '+' ? value.substr(1) : value;
      const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v);
      if (ec != std::errc() || end != digits.data() + digits.size())
        return "lies outside -9,223,372,036,854,775,808 to 9,223,372,036,854,775,807";
      return {};
    }
    case kFieldFloat:
    case kFieldDouble:
      return numberShape(value, true).ok ? std::string() : "is not a number";
    default:
      return {};
  }
}

}  // namespace

std::string withThousands(int64_t value) {
  const bool negative = value < 0;
  // The magnitude as unsigned, so that the most negative value has one too.
  uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  std::string digits;
  int group = 0;
  do {
    if (group++ == 3) {
      digits.push_back(',');
      group = 1;
    }
    digits.push_back(static_cast<char>('0' + magnitude % 10));
    magnitude /= 10;
  } while (magnitude != 0);
  if (negative) digits.push_back('-');
  std::reverse(digits.begin(), digits.end());
  return digits;
}

// ---- creation ---------------------------------------------------------------------------------------------

TransactionProc::TransactionProc(TransactionDefinition& definition)
    : BaseDataProc(&definition.tran), m_definition(definition), m_encoding(definition.encoding) {
  TranInfo& tran = definition.tran;
  szTranCode = tran.getTrCode();
  for (const auto& block : tran.m_BlockInfokList) {
    auto proc = std::make_unique<KXBlockDataProc>(block.get());
    proc->setEncodingType(m_encoding);
    proc->setDataProc(this);
    proc->DefaultMemory();
    loadLinks(*proc, definition.extra(*block).linkXml);
    m_blockDPMap.emplace(block->m_szBlockName, proc.get());
    m_blockDPList.push_back(std::move(proc));
  }
  for (const BlockInfo* block : tran.m_InBlockList)
    m_InblockDPList.push_back(findBlockProc(block->m_szBlockName));
  for (const BlockInfo* block : tran.m_OutBlockList)
    m_OutblockDPList.push_back(findBlockProc(block->m_szBlockName));
}

TransactionProc::~TransactionProc() = default;

void TransactionProc::loadLinks(KXBlockDataProc& proc, const std::string& linkXml) noexcept {
  if (linkXml.empty()) return;
  try {
    const auto document = TBXML::newTBXMLWithXMLString(linkXml);
    if (document) proc.setXmlInfo(document->rootXMLElement());
  } catch (...) {
  }
}

void TransactionProc::setEncodingType(uint32_t encoding) noexcept {
  m_encoding = encoding;
  for (const auto& proc : m_blockDPList) proc->setEncodingType(encoding);
}

KXBlockDataProc* TransactionProc::findBlockProc(std::string_view name) const noexcept {
  const auto it = m_blockDPMap.find(name);
  return it == m_blockDPMap.end() ? nullptr : it->second;
}

// ---- receiving a reply ------------------------------------------------------------------------------------

TransactionProc::ReplyResult TransactionProc::receiveReply(const void* data, int64_t size) noexcept {
  ReplyResult result;
  try {
    for (KXBlockDataProc* proc : m_OutblockDPList) proc->setData(data, 0, 0);
    if (size < 0 || (data == nullptr && size > 0)) throw Refusal{"no reply bytes were given"};
    if (size > kInt32Max)
      throw Refusal{"a reply of " + bytes(size) + " is more than a transaction takes (" + bytes(kInt32Max) +
                    ")"};
    const auto* bytesIn = static_cast<const uint8_t*>(data);
    int64_t at = 0;
    for (KXBlockDataProc* proc : m_OutblockDPList) {
      const BlockInfo& block = *proc->getBlockInfo();
      const std::string& name = block.m_szBlockName;
      const int64_t recordSize = block.getRecordMemSize();
      BlockSlice slice;
      slice.proc = proc;
      int64_t count = 1;
      if (block.isOccursBlock()) {
        switch (block.m_nRecordLenApplyType) {
          case RCL_OCCURSLEN: {
            const int32_t digits = m_definition.tran.m_nOccursLen;
            if (digits <= 0)
              throw Refusal{"block " + name +
                            " counts its records with a prefix, but the occurs length is 0"};
            if (size - at < digits)
              throw Refusal{"block " + name + " needs a " + std::to_string(digits) + "-digit record count; " +
                            withThousands(size - at) + " remain"};
            const std::string_view prefix(reinterpret_cast<const char*>(bytesIn + at),
                                          static_cast<size_t>(digits));
            count = parseCount(prefix);
            if (count < 0)
              throw Refusal{"block " + name + "'s record count '" + std::string(prefix) + "' (at byte " +
                            withThousands(at) + ") is not a number"};
            slice.countOffset = at;
            slice.countLength = digits;
            at += digits;
            break;
          }
          case RCL_RESTDATA: {
            const int64_t rest = size - at;
            if (recordSize <= 0 || rest % recordSize != 0)
              throw Refusal{"block " + name + " takes the rest of the reply, " + bytes(rest) +
                            ", which is not a whole number of " + std::to_string(recordSize) +
                            "-byte records"};
            count = rest / recordSize;
            break;
          }
          case RCL_BLOCKFIELD_ID:
          default: {
            const auto [countBlock, countField] = splitFieldRef(block.m_strRecordLenSubInfo);
            const auto reached = std::find_if(
                result.slices.begin(), result.slices.end(),
                [wanted = countBlock](const BlockSlice& s) { return s.proc->getBlockName() == wanted; });
            if (reached == result.slices.end() || reached->proc->findFieldInfo(countField) == nullptr)
              throw Refusal{"block " + name + " takes its record count from " + block.m_strRecordLenSubInfo +
                            ", which is not a field of an earlier block of the reply"};
            const std::string value = reached->proc->getFieldDataFromName(countField, 0);
            count = parseCountValue(value);
            if (count < 0)
              throw Refusal{"block " + name + " takes its record count from " + block.m_strRecordLenSubInfo +
                            ", which reads '" + value + "', not a record count"};
            break;
          }
        }
      }
      // count * recordSize, held at the 64-bit limit: a count read from the data may be absurd.
      const int64_t need = recordSize > 0 && count > std::numeric_limits<int64_t>::max() / recordSize
                               ? std::numeric_limits<int64_t>::max()
                               : count * recordSize;
      if (need > size - at)
        throw Refusal{"block " + name + " needs " + bytes(need) + " for " + records(count) + "; " +
                      withThousands(size - at) + " remain"};
      proc->setData(data, static_cast<int32_t>(at), static_cast<int32_t>(need));
      slice.offset = at;
      slice.length = need;
      slice.records = static_cast<int32_t>(count);
      result.slices.push_back(slice);
      at += need;
      result.used = at;
    }
    if (at < size) {
      const std::string last =
          m_OutblockDPList.empty() ? "" : " after block " + m_OutblockDPList.back()->getBlockName();
      throw Refusal{"the reply has " + bytes(size) + ", but its blocks take " + withThousands(at) + "; " +
                    withThousands(size - at) + " remain" + last};
    }
    result.ok = true;
  } catch (const Refusal& refusal) {
    result.message = refusal.message;
  } catch (...) {
    result.message = "out of memory while splitting the reply";
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

void writeRecord(KXBlockDataProc& proc, const RecordValues& record, int32_t index) {
  const std::string& block = proc.getBlockName();
  for (const auto& [name, value] : record.fields) {
    const FieldInfo* field = proc.findFieldInfo(name);
    if (field == nullptr) throw Refusal{"block " + block + " has no field '" + name + "'"};
    const std::string_view written = isNumberType(field->nDataType) ? trimSpaces(value) : value;
    const std::string problem = valueProblem(*field, written, proc.getEncodingType());
    if (!problem.empty()) throw Refusal{block + "." + name + ": '" + value + "' " + problem};
    proc.setFieldDataFromInfo(field, index, written);
  }
  for (const auto& [name, attr] : record.attrs) {
    const FieldInfo* field = proc.findFieldInfo(name);
    if (field == nullptr) throw Refusal{"block " + block + " has no field '" + name + "'"};
    if (!proc.getBlockInfo()->carriesAttr(*field))
      throw Refusal{block + "." + name + " carries no attribute byte"};
    proc.setFieldAttrFromInfo(field, index, attr);
  }
}

// Makes sure record `index` exists in the buffer, so that a record given without values still has bytes.
void reachRecord(KXBlockDataProc& proc, int32_t index) {
  if (index < proc.getBufCount()) return;
  const FieldInfo* first = proc.getBlockInfo()->getFieldInfoFromIndex(0);
  proc.setFieldDataFromInfo(first, index, std::nullopt);
  if (index >= proc.getBufCount())
    throw Refusal{"block " + proc.getBlockName() + " cannot hold that many records"};
}

// Fresh default records: every byte blanked, then the defaults of the laid-out records.
void resetBlock(KXBlockDataProc& proc) {
  proc.wipeBuffer();
  proc.DefaultMemory();
}

std::string countPrefix(const std::string& block, int64_t count, int32_t digits) {
  std::string text = std::to_string(count);
  if (static_cast<int64_t>(text.size()) > digits)
    throw Refusal{"block " + block + " has " + records(count) + ", more than a " + std::to_string(digits) +
                  "-digit count holds"};
  return std::string(static_cast<size_t>(digits) - text.size(), '0') + text;
}

}  // namespace

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
      KXBlockDataProc& proc = *e.proc;
      const BlockInfo& block = *proc.getBlockInfo();
      if (e.count > kInt32Max) throw Refusal{"block " + block.m_szBlockName + " is given too many records"};
      if (block.isOccursBlock() && block.m_nRecordLenApplyType == RCL_OCCURSLEN)
        out += countPrefix(block.m_szBlockName, e.count, m_definition.tran.m_nOccursLen);
      static const RecordValues kNoValues;
      const auto recordAt = [&](int64_t i) -> const RecordValues& {
        return e.values != nullptr && static_cast<size_t>(i) < e.values->records.size()
                   ? e.values->records[static_cast<size_t>(i)]
                   : kNoValues;
      };
      if (input) {
        // Each record goes out through the send packing, which takes a block's first record.
        int64_t sendSize = 0;
        for (int32_t j = 0; j < block.getFieldCount(); ++j)
          sendSize += std::max(block.getFieldInfoFromIndex(j)->nLength, 0);
        for (int64_t i = 0; i < e.count; ++i) {
          resetBlock(proc);
          writeRecord(proc, recordAt(i), 0);
          if (i == 0) writeRecord(proc, e.extra, 0);
          std::string packed(static_cast<size_t>(sendSize), ' ');
          proc.getStructInputData(packed.data());
          out += packed;
        }
      } else {
        resetBlock(proc);
        for (int64_t i = 0; i < e.count; ++i) {
          reachRecord(proc, static_cast<int32_t>(i));
          writeRecord(proc, recordAt(i), static_cast<int32_t>(i));
        }
        if (e.count > 0) writeRecord(proc, e.extra, 0);
        const int64_t length = e.count * block.getRecordMemSize();
        if (length > proc.getBlockBuffSize())
          throw Refusal{"block " + block.m_szBlockName + " was not laid out"};
        out.append(reinterpret_cast<const char*>(proc.getData()), static_cast<size_t>(length));
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
