// The hexdump subcommand: every byte of a reply with the block, record and field it belongs to.

#include <algorithm>

#include "Cli.h"
#include "blockproc/codec/Utf8.h"
#include "blockproc/util/Internal.h"

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
  appendCell(text, proc, column, index, value::BadByteStyle::Escaped, false, nullptr);
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

std::vector<Range> rangesOf(const TransactionProc::ReplyResult& received, int64_t size, bool showSecrets) {
  std::vector<Range> out;
  for (const auto& slice : received.slices) {
    const KXBlockDataProc& proc = *slice.proc;
    if (slice.countOffset >= 0)
      out.push_back({slice.countOffset, slice.countLength, printable(proc.getBlockName()) + " (record count)",
                     std::to_string(slice.records)});
    const int64_t recordSize = slice.records > 0 ? slice.length / slice.records : 0;
    for (int32_t i = 0; i < slice.records; ++i)
      addRecord(out, proc, slice.offset + i * recordSize, i, slice.packed, showSecrets);
  }
  if (received.used < size) out.push_back({received.used, size - received.used, "(not read)", ""});
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
  const std::string data = readInput(options.reply);
  const auto size = static_cast<int64_t>(data.size());
  const auto received = options.request ? session.proc->receiveRequest(data.data(), size)
                                        : session.proc->receiveReply(data.data(), size);
  const std::vector<Range> ranges = rangesOf(received, size, options.showSecrets);

  size_t labelWidth = utf8::displayWidth("field");
  for (const Range& r : ranges) labelWidth = std::max(labelWidth, utf8::displayWidth(r.label));
  Output out("");
  std::string& text = out.text();
  text += printable(session.definition->tran.getTrCode()) + (options.request ? " request: " : " reply: ") +
          internal::counted(size, "byte") + "\n\n";
  text += padded("offset", 8, false) + "  " + padded("bytes", kHexWidth, false) + "  " +
          padded("field", labelWidth, false) + "  value\n";
  for (const Range& r : ranges) {
    for (int64_t at = 0; at < r.length; at += kBytesPerLine) {
      const int64_t n = std::min(kBytesPerLine, r.length - at);
      const std::string_view bytes(data.data() + r.offset + at, static_cast<size_t>(n));
      text += at == 0 ? lineOf(r.offset, bytes, r.masked, r.label, labelWidth, r.value)
                      : lineOf(r.offset + at, bytes, r.masked, "", labelWidth, "");
    }
    out.spill();
  }
  out.finish();
  if (!received.ok) throw Failure{kExitData, sourceName(options.reply) + ": " + received.message};
  return kExitOk;
}

}  // namespace blockproc::cli
