// The data behind the inspector: the file seen as groups of records, each window decoded when asked for.
//
// A reply or request of a few MiB is received whole, as decode receives it; its blocks keep their records in
// their processors. A stream (--stream), and a large reply's count="rest" block, are "paged": the model
// keeps only where the records lie, and a window reads its records with pread into a processor of its own,
// so that the memory used does not grow with the file.

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "View.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/engine/FieldDecoder.h"
#include "blockproc/engine/LayoutCheck.h"
#include "blockproc/engine/RecordView.h"

namespace blockproc::cli {

namespace {

using Json = nlohmann::json;
using internal::counted;

// A reply or request at most this large is read whole.
constexpr int64_t kWholeBytes = int64_t{8} << 20;
// Bytes of records one call of find reads.
constexpr int64_t kFindBytes = int64_t{16} << 20;
// Bytes shown past the last record when a window reaches bytes no block reads.
constexpr int64_t kTailBytes = 1024;

// Where one field of a record lies, relative to the record's first byte.
struct Slot {
  const FieldInfo* field;
  int64_t pos;
  int64_t attrPos;  // -1: no attribute byte
};

// The records of one block in the data.
struct Group {
  KXBlockDataProc* proc = nullptr;  // the processor holding the records (a paged group's own)
  std::unique_ptr<KXBlockDataProc> own;
  int64_t offset = 0, count = 0;
  int64_t recordSize = 0;
  int64_t countOffset = -1;
  int32_t countLength = 0;
  int32_t repeat = 0;  // the block's repeat as the definition gives it
  bool packed = false, paged = false, input = false;
  std::vector<Slot> slots;
  std::vector<value::FieldDecoder> decoders;  // one per slot, in the encoding the page reads in
  int64_t pagedFirst = -1, pagedCount = 0;    // records the own processor holds now

  void makeDecoders(uint32_t encoding) {
    decoders.clear();
    for (const Slot& slot : slots) decoders.emplace_back(*slot.field, encoding);
  }

  int64_t end() const { return offset + count * recordSize; }
};

std::vector<Slot> slotsOf(const BlockInfo& block, bool packed) {
  std::vector<Slot> slots;
  int64_t sent = 0;
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo* f = block.getFieldInfoFromIndex(j);
    const int64_t pos = packed ? sent : f->nDataPos;
    sent += std::max(f->nLength, 0);
    slots.push_back({f, pos, !packed && block.carriesAttr(*f) ? f->nDataPos + f->nLength : -1});
  }
  return slots;
}

bool endsInRest(const TransactionDefinition& def) {
  const auto& blocks = def.tran.m_OutBlockList;
  return !blocks.empty() && blocks.back()->isOccursBlock() &&
         blocks.back()->m_nRecordLenApplyType == RCL_RESTDATA;
}

std::string kindName(const FieldInfo& f) {
  return value::valueKind(f) == value::ValueKind::Number ? "number" : "text";
}

}  // namespace

struct ViewModel::Impl {
  Session session;
  InputStream in;
  std::string name;  // the data file as messages name it
  std::string head;  // the bytes received whole (all of a small reply)
  bool stream = false, request = false;
  int64_t size = 0, covered = 0;  // bytes the groups and count prefixes account for
  std::vector<Group> groups;
  Json warnings = Json::array();
  Json findings = Json::array();
  std::string checkError;  // why the layout check could not be made, else ""
  std::string chunk, scratch;

  explicit Impl(const ViewOptions& o)
      : session(openSession(o.common, o.data)),
        in(o.data),
        name(sourceName(o.data)),
        stream(o.stream),
        request(o.request) {
    in.makeSeekable();
    size = in.size();
    // The check comes first: paging a block lays it out with a repeat of one window.
    runCheck(stream ? streamBlock(o.block).getBlockName() : "");
    if (stream)
      openStream(o.block);
    else
      openReply();
  }

  // The layout check's findings, most likely first. The data is mapped rather than read: the check reads
  // only a sample of its records, so only those pages are touched, and the mapping goes when it is done.
  void runCheck(const std::string& block) {
    if (size == 0) return;
    check::CheckOptions options;
    options.kind = stream    ? check::DataKind::Stream
                   : request ? check::DataKind::Request
                             : check::DataKind::Reply;
    options.block = block;
    options.encoding = session.proc->getEncodingType();
    void* mapped = ::mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE, in.descriptor(), 0);
    if (mapped == MAP_FAILED) {  // the page works without findings
      checkError = std::string("cannot map the data for the layout check: ") + std::strerror(errno);
      return;
    }
    const std::string_view data(static_cast<const char*>(mapped), static_cast<size_t>(size));
    const check::CheckResult result = check::checkLayout(*session.definition, data, options);
    ::munmap(mapped, static_cast<size_t>(size));
    addFindings(result);
  }

  void addFindings(const check::CheckResult& result) {
    checkError = result.error;
    if (!result.error.empty() || result.ok) return;
    int rank = 0;
    for (const check::Finding& f : result.findings) {
      if (f.kind == check::FindingKind::Fits || rank == 3) break;
      Json ranges = Json::array();
      for (const check::ByteRange& r : f.ranges)
        ranges.push_back({{"offset", r.offset}, {"length", r.length}});
      std::string message = check::describe(f);
      if (!f.evidence.empty()) message += (message.empty() ? "" : ": ") + f.evidence;
      Json finding = {{"rank", ++rank},   {"kind", check::kindName(f.kind)},
                      {"block", f.block}, {"delta", f.delta},
                      {"score", f.score}, {"message", message},
                      {"ranges", ranges}};
      if (!f.field.empty()) finding["field"] = f.field;
      if (!f.ranges.empty()) {
        finding["offset"] = f.ranges.front().offset;
        finding["length"] = f.ranges.front().length;
      }
      findings.push_back(std::move(finding));
    }
  }

  void warn(std::string message, int64_t offset, int64_t length) {
    warnings.push_back({{"message", std::move(message)}, {"offset", offset}, {"length", length}});
  }

  KXBlockDataProc& streamBlock(const std::string& wanted) {
    const auto& outs = session.proc->outputProcs();
    if (!wanted.empty()) {
      KXBlockDataProc* proc = session.proc->findBlockProc(wanted);
      if (proc == nullptr) throw Failure{kExitUsage, "no block named '" + wanted + "' in the definition"};
      return *proc;
    }
    if (outs.empty()) throw Failure{kExitUsage, "the definition has no output block; give --block"};
    // The first output block whose records make the stream whole, else the first.
    for (KXBlockDataProc* proc : outs) {
      const int64_t rs = proc->getBlockInfo()->getRecordMemSize();
      if (rs > 0 && size % rs == 0) return *proc;
    }
    return *outs.front();
  }

  // A paged group of `count` records of the block from `offset`, read into a processor of its own.
  Group& addPaged(KXBlockDataProc& model, int64_t offset, int64_t count, bool input) {
    BlockInfo& block = *model.getBlockInfo();
    Group& g = groups.emplace_back();
    g.repeat = block.isOccursBlock() ? block.m_nRepeatCount : 1;
    g.recordSize = block.getRecordMemSize();
    g.slots = slotsOf(block, false);
    g.makeDecoders(session.proc->getEncodingType());
    // The block is laid out as repeated, one window of records at most.
    block.setRepeat(kViewMaxRecords);
    g.own = std::make_unique<KXBlockDataProc>(&block);
    g.own->setEncodingType(session.proc->getEncodingType());
    g.own->setDataProc(model.getDataProc());
    g.own->DefaultMemory();
    g.proc = g.own.get();
    g.offset = offset;
    g.count = count;
    g.paged = true;
    g.input = input;
    return g;
  }

  void openStream(const std::string& wanted) {
    KXBlockDataProc& model = streamBlock(wanted);
    const int64_t rs = model.getBlockInfo()->getRecordMemSize();
    if (rs <= 0) throw Failure{kExitData, "block " + model.getBlockName() + " has no bytes to a record"};
    addPaged(model, 0, size / rs, false);
    covered = size / rs * rs;
    if (covered < size)
      warn("the stream holds " + withThousands(size) + " bytes, not a whole number of " + withThousands(rs) +
               "-byte " + model.getBlockName() + " records; the last " + counted(size - covered, "byte") +
               " are not read (blockproc check tells which layout fits)",
           covered, size - covered);
  }

  void addSlices(const TransactionProc::ReplyResult& received) {
    for (const auto& slice : received.slices) {
      if (slice.open) continue;
      Group& g = groups.emplace_back();
      g.proc = slice.proc;
      const BlockInfo& block = *slice.proc->getBlockInfo();
      g.repeat = block.isOccursBlock() ? block.m_nRepeatCount : 1;
      g.offset = slice.offset;
      g.count = slice.records;
      g.recordSize = slice.records > 0
                         ? slice.length / slice.records
                         : (slice.packed ? block.getRecordFieldSize() : block.getRecordMemSize());
      g.countOffset = slice.countOffset;
      g.countLength = slice.countLength;
      g.packed = slice.packed;
      g.input = request;
      g.slots = slotsOf(block, slice.packed);
      g.makeDecoders(session.proc->getEncodingType());
    }
  }

  void openReply() {
    TransactionProc::ReplyResult received;
    if (size <= kWholeBytes) {
      head.resize(static_cast<size_t>(size));
      if (size > 0) in.readAt(head.data(), head.size(), 0);
      received = request ? session.proc->receiveRequest(head.data(), size)
                         : session.proc->receiveReply(head.data(), size);
      addSlices(received);
    } else if (!request && endsInRest(*session.definition)) {
      received = receiveHead();
    } else {
      throw Failure{kExitUsage, name + ": " + withThousands(size) + " bytes; view reads a " +
                                    (request ? "request" : "reply") + " of up to " +
                                    withThousands(kWholeBytes) +
                                    " bytes, or a stream of any size (--stream)"};
    }
    covered = received.used;
    if (!received.ok) warn(received.message, received.used, size - received.used);
    if (received.ok && received.used < size)
      warn(counted(size - received.used, "byte") + " after the last block are not read", received.used,
           size - received.used);
  }

  // The blocks ahead of a large reply's count="rest" block, received from the first bytes; the rest block
  // becomes a paged group.
  TransactionProc::ReplyResult receiveHead() {
    int64_t want = std::min<int64_t>(size, kWholeBytes);
    TransactionProc::ReplyResult received;
    for (;;) {
      head.resize(static_cast<size_t>(want));
      in.readAt(head.data(), head.size(), 0);
      received = session.proc->receiveReplyHead(head.data(), want);
      if (received.ok || received.more <= 0 || want == size) break;
      want = std::min(size, want + std::max(received.more, kWholeBytes));
    }
    addSlices(received);
    if (!received.ok || received.slices.empty() || !received.slices.back().open) return received;
    const auto& open = received.slices.back();
    const int64_t rs = open.proc->getBlockInfo()->getRecordMemSize();
    if (rs <= 0) return received;
    const int64_t count = (size - open.offset) / rs;
    Group& g = addPaged(*open.proc, open.offset, count, false);
    received.used = g.end();
    if (received.used < size) {
      received.ok = false;
      received.message = "block " + open.proc->getBlockName() + ": " + counted(size - open.offset, "byte") +
                         " are not a whole number of " + withThousands(rs) + "-byte records";
    }
    return received;
  }

  // ---- meta ---------------------------------------------------------------------------------------------

  Json groupMeta(const Group& g) const {
    const BlockInfo& block = *g.proc->getBlockInfo();
    Json fields = Json::array();
    for (const Slot& s : g.slots) {
      const FieldInfo& f = *s.field;
      fields.push_back({{"name", f.szFieldName},
                        {"kor", f.szKorFieldName},
                        {"eng", f.szEngFieldName},
                        {"type", dataTypeName(f.nDataType)},
                        {"kind", kindName(f)},
                        {"decimals", f.nDecimalLen},
                        {"pos", s.pos},
                        {"length", std::max(f.nLength, 0)},
                        {"attrPos", s.attrPos}});
    }
    return {{"block", block.m_szBlockName},
            {"side", g.input ? "input" : "output"},
            {"offset", g.offset},
            {"count", g.count},
            {"recordSize", g.recordSize},
            {"countOffset", g.countOffset},
            {"countLength", g.countLength},
            {"repeat", g.repeat},
            {"packed", g.packed},
            {"paged", g.paged},
            {"fields", fields}};
  }

  Json meta() const {
    const TransactionDefinition& def = *session.definition;
    Json groupList = Json::array();
    for (const Group& g : groups) groupList.push_back(groupMeta(g));
    const auto slash = name.find_last_of('/');
    return {{"code", def.tran.getTrCode()},
            {"title", def.title},
            {"file", slash == std::string::npos ? name : name.substr(slash + 1)},
            {"size", size},
            {"mode", stream    ? "stream"
                     : request ? "request"
                               : "reply"},
            {"encoding", codec::encodingName(session.proc->getEncodingType())},
            {"encodings", {"cp949", "euc-kr", "utf-8", "ascii", "latin1"}},
            {"covered", covered},
            {"groups", groupList},
            {"warnings", warnings},
            {"findings", findings},
            {"checkError", checkError},
            {"maxRecords", kViewMaxRecords}};
  }

  // ---- windows ------------------------------------------------------------------------------------------

  // Makes the paged group's processor hold records [first, first + count) and returns the index of record
  // `first` in it.
  void loadPaged(Group& g, int64_t first, int64_t count) {
    if (g.pagedFirst == first && g.pagedCount == count) return;
    chunk.resize(static_cast<size_t>(count * g.recordSize));
    if (!chunk.empty()) in.readAt(chunk.data(), chunk.size(), g.offset + first * g.recordSize);
    g.proc->setData(chunk.data(), 0, static_cast<int32_t>(chunk.size()));
    g.pagedFirst = first;
    g.pagedCount = count;
  }

  // Record `number` of the group, held at `index` of its processor.
  Json record(const Group& g, size_t groupIndex, int32_t index, int64_t number) {
    const KXBlockDataProc& proc = *g.proc;
    const RecordView view = RecordView::of(proc);
    const int64_t at = g.offset + number * g.recordSize;
    Json values = Json::array(), raws = Json::array(), attrs = Json::array(), issues = Json::array();
    for (size_t j = 0; j < g.slots.size(); ++j) {
      const FieldInfo& f = *g.slots[j].field;
      const std::string_view bytes = view.field(index, f);
      scratch.clear();
      const value::RenderResult r = g.decoders[j].append(scratch, bytes, value::BadByteStyle::Replacement);
      values.push_back(scratch);
      scratch.clear();
      proc.appendFieldDataFromInfo(&f, index, scratch);
      raws.push_back(scratch);
      if (g.slots[j].attrPos >= 0) {
        scratch = "0x";
        internal::appendHexByte(scratch, proc.getFieldAttrFromInfo(&f, index));
        attrs.push_back(scratch);
      } else {
        attrs.push_back(nullptr);
      }
      if (r.issue == value::ValueIssue::None) continue;
      scratch.clear();
      value::appendWhere(scratch, proc.getBlockName(), number, f.szFieldName);
      scratch += ": ";
      value::appendIssue(scratch, r, f, bytes, proc.getEncodingType());
      issues.push_back(
          {{"field", j}, {"offset", at + g.slots[j].pos + std::max(r.offset, 0)}, {"message", scratch}});
    }
    return {{"group", groupIndex}, {"record", number}, {"offset", at},    {"values", values},
            {"raw", raws},         {"attrs", attrs},   {"issues", issues}};
  }

  // Index of the group whose records hold the byte, or of the first group after it; groups.size() past
  // them all.
  size_t groupAt(int64_t offset) const {
    for (size_t k = 0; k < groups.size(); ++k)
      if (offset < groups[k].end() || (groups[k].count == 0 && offset <= groups[k].offset)) return k;
    return groups.size();
  }

  int64_t snap(int64_t offset) const {
    offset = std::clamp<int64_t>(offset, 0, std::max<int64_t>(size - 1, 0));
    const size_t k = groupAt(offset);
    if (k == groups.size()) return offset;
    const Group& g = groups[k];
    if (offset < g.offset || g.count == 0) return offset;
    return g.offset + (offset - g.offset) / g.recordSize * g.recordSize;
  }

  Json page(int64_t offset, int32_t wanted) {
    wanted = std::clamp(wanted, 1, kViewMaxRecords);
    const int64_t start = snap(offset);
    int64_t end = start;
    Json records = Json::array();
    int32_t left = wanted;
    for (size_t k = groupAt(start); k < groups.size() && left > 0; ++k) {
      Group& g = groups[k];
      if (g.count == 0) continue;
      const int64_t first = start > g.offset ? (start - g.offset) / g.recordSize : 0;
      int64_t take = std::min<int64_t>(left, g.count - first);
      take = std::min(take, std::max<int64_t>(1, (kViewMaxBytes - (end - start)) / g.recordSize));
      if (take <= 0 || (end > start && end - start + g.recordSize > kViewMaxBytes)) break;
      if (g.paged) loadPaged(g, first, take);
      for (int64_t i = first; i < first + take; ++i)
        records.push_back(record(g, k, static_cast<int32_t>(g.paged ? i - first : i), i));
      left -= static_cast<int32_t>(take);
      end = g.offset + (first + take) * g.recordSize;
    }
    // Bytes no record holds: the count prefix ahead of a block, the bytes after the last one.
    if (records.empty()) end = std::min(size, start + kTailBytes);
    if (end >= covered && left > 0) end = std::min(size, std::max(end, covered) + kTailBytes);
    end = std::min(end, size);
    // A record larger than a window shows its first bytes only; the next window starts after it.
    const int64_t next = end;
    end = std::min(end, start + kViewMaxBytes);
    return {{"start", start}, {"end", end}, {"next", next}, {"hex", hexAt(start, end)}, {"records", records}};
  }

  // The bytes [from, to) of the data in hexadecimal.
  std::string hexAt(int64_t from, int64_t to) {
    chunk.resize(static_cast<size_t>(std::max<int64_t>(to - from, 0)));
    if (!chunk.empty()) in.readAt(chunk.data(), chunk.size(), from);
    std::string hex;
    value::appendHex(hex, chunk);
    return hex;
  }

  // ---- find ---------------------------------------------------------------------------------------------

  Json find(std::string_view text, int64_t from) {
    if (text.empty()) return {{"done", true}};
    int64_t budget = kFindBytes;
    for (size_t k = groupAt(std::max<int64_t>(from, 0)); k < groups.size(); ++k) {
      Group& g = groups[k];
      int64_t i = from > g.offset ? (from - g.offset + g.recordSize - 1) / g.recordSize : 0;
      while (i < g.count) {
        if (budget <= 0) return {{"next", g.offset + i * g.recordSize}};
        const int64_t take = g.paged ? std::min<int64_t>(kViewMaxRecords, g.count - i) : g.count - i;
        if (g.paged) loadPaged(g, i, take);
        const RecordView view = RecordView::of(*g.proc);
        for (int64_t n = i; n < i + take; ++n) {
          const auto index = static_cast<int32_t>(g.paged ? n - i : n);
          for (size_t j = 0; j < g.slots.size(); ++j) {
            scratch.clear();
            g.decoders[j].append(scratch, view.field(index, *g.slots[j].field),
                                 value::BadByteStyle::Replacement);
            if (scratch.find(text) == std::string::npos) continue;
            const int64_t at = g.offset + n * g.recordSize;
            return {{"found", {{"group", k}, {"record", n}, {"field", j}, {"offset", at}}}};
          }
        }
        budget -= take * g.recordSize;
        i += take;
      }
    }
    return {{"done", true}};
  }

  bool setEncoding(std::string_view encodingName, std::string& why) {
    const auto encoding = codec::encodingFromName(encodingName);
    if (!encoding) {
      why = "unknown encoding; use cp949, euc-kr, utf-8, ascii or latin1";
      return false;
    }
    session.proc->setEncodingType(*encoding);
    for (Group& g : groups) {
      if (g.own) g.own->setEncodingType(*encoding);
      g.makeDecoders(*encoding);
    }
    return true;
  }
};

ViewModel::ViewModel(const ViewOptions& options) : m_impl(std::make_unique<Impl>(options)) {}
ViewModel::~ViewModel() = default;

nlohmann::json ViewModel::meta() const {
  return m_impl->meta();
}

nlohmann::json ViewModel::page(int64_t offset, int32_t records) {
  return m_impl->page(offset, records);
}

nlohmann::json ViewModel::bytes(int64_t offset, int64_t length) {
  const int64_t from = std::clamp<int64_t>(offset, 0, m_impl->size);
  const int64_t to = from + std::clamp<int64_t>(length, 0, std::min(kViewMaxBytes, m_impl->size - from));
  return {{"offset", from}, {"hex", m_impl->hexAt(from, to)}};
}

nlohmann::json ViewModel::find(std::string_view text, int64_t from) {
  return m_impl->find(text, from);
}

bool ViewModel::setEncoding(std::string_view name, std::string& why) {
  return m_impl->setEncoding(name, why);
}

}  // namespace blockproc::cli
