// The hexdump subcommand: every byte of a reply with the block, record and field it belongs to.

#include <algorithm>

#include "Cli.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/Utf8.h"

namespace blockproc::cli {

namespace {

constexpr int64_t kBytesPerLine = 16;
constexpr size_t kHexWidth = kBytesPerLine * 3 - 1;

// A labelled byte range of the reply.
struct Range {
  int64_t offset;
  int64_t length;
  std::string label;
  std::string value;
  bool masked = false;  // a password's bytes: shown as ** each, the value as the mask
};

std::string cellText(const KXBlockDataProc& proc, const Column& column, int32_t index) {
  std::string text;
  appendCell(text, cellSource(proc), column, index, value::BadByteStyle::Escaped, false, nullptr);
  return text;
}

// The fields, attribute bytes and unused bytes of one record, in byte order. A packed record (as a request
// sends it) holds the fields back to back in definition order, without attribute bytes.
void addRecord(std::vector<Range>& out, const KXBlockDataProc& proc, int64_t base, int32_t index, bool packed,
               bool showSecrets) {
  const BlockInfo& block = *proc.getBlockInfo();
  const std::string prefix = printable(block.m_szBlockName) +
                             (proc.isOccursBlock() ? "[" + std::to_string(index) + "]" : std::string());
  std::vector<Range> ranges;
  int64_t sent = 0;
  for (const Column& c : columnsOf(proc, showSecrets)) {
    if (packed && c.attr) continue;
    const int64_t pos = packed ? sent : c.field->nDataPos + (c.attr ? c.field->nLength : 0);
    if (packed) sent += std::max(c.field->nLength, 0);
    ranges.push_back({base + pos, c.attr ? 1 : c.field->nLength, prefix + "." + c.shown,
                      cellText(proc, c, index), c.masked});
  }
  std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.offset < b.offset; });
  int64_t at = base;
  const int64_t end = base + (packed ? sent : block.getRecordMemSize());
  for (Range& r : ranges) {
    if (r.offset > at) out.push_back({at, r.offset - at, prefix + " (unused)", ""});
    at = std::max(at, r.offset + r.length);
    out.push_back(std::move(r));
  }
  if (at < end) out.push_back({at, end - at, prefix + " (unused)", ""});
}

// Ranges of the records of a block, at most `limit` of them from `offset` (`whole` records there), then a
// line saying how many were left out. The processor holds the shown records from its record 0.
void addRecords(std::vector<Range>& out, const KXBlockDataProc& proc, int64_t offset, int64_t recordSize,
                int64_t shown, int64_t whole, bool packed, bool showSecrets) {
  for (int64_t i = 0; i < shown; ++i)
    addRecord(out, proc, offset + i * recordSize, static_cast<int32_t>(i), packed, showSecrets);
  if (whole > shown)
    out.push_back(
        {offset + shown * recordSize, 0,
         "... " + internal::counted(whole - shown, "more " + printable(proc.getBlockName()) + " record") +
             " (" + internal::counted((whole - shown) * recordSize, "byte") +
             ") not shown; --records N shows more",
         ""});
}

// The bytes past the whole records, if any.
void addLeftOver(std::vector<Range>& out, int64_t from, int64_t size, const std::string& what) {
  if (from < size) out.push_back({from, size - from, what, ""});
}

std::vector<Range> rangesOf(const TransactionProc::ReplyResult& received, std::string_view data,
                            int64_t limit, bool showSecrets) {
  std::vector<Range> out;
  const auto size = static_cast<int64_t>(data.size());
  int64_t used = received.used;
  for (const auto& slice : received.slices) {
    KXBlockDataProc& proc = *slice.proc;
    if (slice.countOffset >= 0)
      out.push_back({slice.countOffset, slice.countLength, printable(proc.getBlockName()) + " (record count)",
                     std::to_string(slice.records)});
    if (!slice.open) {
      const int64_t recordSize = slice.records > 0 ? slice.length / slice.records : 0;
      addRecords(out, proc, slice.offset, recordSize, std::min<int64_t>(slice.records, limit), slice.records,
                 slice.packed, showSecrets);
      continue;
    }
    // A rest block that is not whole records: its first whole records, labelled all the same.
    const int64_t recordSize = proc.getBlockInfo()->getRecordMemSize();
    if (recordSize <= 0) continue;
    const int64_t whole = (size - slice.offset) / recordSize;
    const int64_t shown = std::min({whole, limit, int64_t{proc.getBlockInfo()->m_nRepeatCount}});
    proc.setData(data.data(), static_cast<int32_t>(slice.offset), static_cast<int32_t>(shown * recordSize));
    addRecords(out, proc, slice.offset, recordSize, shown, whole, false, showSecrets);
    used = slice.offset + whole * recordSize;
    addLeftOver(out, used, size, "(left over: not a whole " + printable(proc.getBlockName()) + " record)");
    return out;
  }
  addLeftOver(out, used, size, "(not read)");
  return out;
}

// The records of a stream of one block, at most `limit` of them, then what is past the whole records.
std::vector<Range> streamRanges(KXBlockDataProc& proc, std::string_view data, int64_t limit,
                                bool showSecrets) {
  std::vector<Range> out;
  const BlockInfo& block = *proc.getBlockInfo();
  const int64_t recordSize = block.getRecordMemSize(), size = static_cast<int64_t>(data.size());
  if (recordSize <= 0) throw Failure{kExitData, "block " + block.m_szBlockName + " has no bytes to a record"};
  const int64_t whole = size / recordSize, shown = std::min(whole, limit);
  proc.layOutDefaults(static_cast<int32_t>(std::max<int64_t>(shown, 1)));  // the definition stays as loaded
  proc.setData(data.data(), 0, static_cast<int32_t>(shown * recordSize));
  addRecords(out, proc, 0, recordSize, shown, whole, false, showSecrets);
  addLeftOver(out, whole * recordSize, size,
              "(left over: not a whole " + printable(block.m_szBlockName) + " record)");
  return out;
}

std::string hexOf(std::string_view bytes, bool masked) {
  std::string text;
  for (char c : bytes) {
    if (!text.empty()) text += ' ';
    if (masked)
      text += "**";
    else
      internal::appendHexByte(text, static_cast<uint8_t>(c), internal::kHexLower);
  }
  return text;
}

// The offset in hexadecimal, at least 8 digits (more past 4 GiB).
std::string offsetOf(int64_t offset) {
  std::string text;
  for (auto rest = static_cast<uint64_t>(offset); rest > 0 || text.size() < 8; rest >>= 4)
    text.insert(text.begin(), internal::kHexLower[rest & 15]);
  return text;
}

std::string lineOf(int64_t offset, std::string_view bytes, bool masked, const std::string& label,
                   size_t labelWidth, const std::string& value) {
  std::string line = offsetOf(offset) + "  " + padded(hexOf(bytes, masked), kHexWidth, false) + "  " +
                     padded(label, labelWidth, false) + "  " + printable(value);
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line + "\n";
}

}  // namespace

int runHexdump(const HexdumpOptions& options) {
  const Session session = openSession(options.common, options.reply);
  KXBlockDataProc* streamProc = nullptr;
  if (options.stream) {
    streamProc = session.proc->findBlockProc(options.block);
    if (streamProc == nullptr)
      throw Failure{kExitUsage, "no block named '" + printable(options.block) + "' for --stream"};
  }
  InputStream in(options.reply);
  const std::string_view data = in.map();
  const auto size = static_cast<int64_t>(data.size());
  const int64_t limit = options.records;
  TransactionProc::ReplyResult received;
  std::vector<Range> ranges;
  if (streamProc != nullptr) {
    ranges = streamRanges(*streamProc, data, limit, options.showSecrets);
    received.ok = size % streamProc->getBlockInfo()->getRecordMemSize() == 0;
    if (!received.ok)
      received.message = "the stream holds " + withThousands(size) + " bytes, not a whole number of " +
                         withThousands(streamProc->getBlockInfo()->getRecordMemSize()) + "-byte " +
                         streamProc->getBlockName() + " records";
  } else {
    received = options.request ? session.proc->receiveRequest(data.data(), size)
                               : session.proc->receiveReply(data.data(), size);
    // A rest block that is not whole records still has its first records labelled.
    const TransactionProc::ReplyResult head =
        received.ok || options.request ? received : session.proc->receiveReplyHead(data.data(), size);
    ranges = rangesOf(head.ok ? head : received, data, limit, options.showSecrets);
  }

  size_t labelWidth = utf8::displayWidth("field");
  for (const Range& r : ranges)
    if (r.length > 0) labelWidth = std::max(labelWidth, utf8::displayWidth(r.label));
  Output out("");
  std::string& text = out.text();
  text += printable(session.definition->tran.getTrCode()) +
          (options.stream    ? " stream: "
           : options.request ? " request: "
                             : " reply: ") +
          internal::counted(size, "byte") + "\n\n";
  text += padded("offset", 8, false) + "  " + padded("bytes", kHexWidth, false) + "  " +
          padded("field", labelWidth, false) + "  value\n";
  for (const Range& r : ranges) {
    if (r.length == 0) text += r.label + "\n";
    for (int64_t at = 0; at < r.length; at += kBytesPerLine) {
      const int64_t n = std::min(kBytesPerLine, r.length - at);
      const std::string_view bytes(data.data() + r.offset + at, static_cast<size_t>(n));
      text += at == 0 ? lineOf(r.offset, bytes, r.masked, r.label, labelWidth, r.value)
                      : lineOf(r.offset + at, bytes, r.masked, "", labelWidth, "");
    }
    out.spill();
  }
  out.finish();
  if (!received.ok) {
    const check::DataKind kind = options.stream    ? check::DataKind::Stream
                                 : options.request ? check::DataKind::Request
                                                   : check::DataKind::Reply;
    bool cutShort = false;
    throw Failure{kExitData,
                  sourceName(options.reply) + ": " + received.message +
                      layoutAdvice(session, data, kind, options.stream ? options.block : "", cutShort) +
                      "\n  (" +
                      checkCommand(options.common, options.reply, kind, options.stream ? options.block : "") +
                      " names the likeliest layout change)"};
  }
  return kExitOk;
}

}  // namespace blockproc::cli
