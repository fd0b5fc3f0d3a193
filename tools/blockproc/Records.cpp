// Records as text, written as they come: aligned tables, JSON, JSON lines, CSV and the long form.
//
// Every cell is appended straight into the output buffer; only a value that needs quoting or escaping is
// copied aside and written again. The byte tables below make that check one load per byte: the find_first_of
// per CSV cell it replaces (a memchr per special character) took 13% of the CSV time on the quote layout.

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Cli.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/Utf8.h"

namespace blockproc::cli {

namespace {

// Bytes that make a CSV cell need quotes, and bytes a JSON string escapes.
constexpr std::array<bool, 256> byteTable(bool json) {
  std::array<bool, 256> table{};
  for (int c = 0; c < 256; ++c)
    table[c] = json ? (c < 0x20 || c == '"' || c == '\\') : (c == ',' || c == '"' || c == '\r' || c == '\n');
  return table;
}
constexpr std::array<bool, 256> kCsvSpecial = byteTable(false);
constexpr std::array<bool, 256> kJsonSpecial = byteTable(true);

bool anyOf(const std::array<bool, 256>& table, std::string_view text) {
  for (char c : text)
    if (table[static_cast<uint8_t>(c)]) return true;
  return false;
}

// Bytes anyOfBlocks may read past the text it is given.
constexpr size_t kBlockSlack = 16;

// anyOf of the table of `json` for text written into the record area, 16 bytes at a time: the bytes up to
// kBlockSlack past its end are the area's and may be read. A cell's scan a byte at a time took a sixth of
// the JSON Lines time on the quote layout.
bool anyOfBlocks(bool json, const char* text, size_t size) {
#if defined(__SSE2__)
  for (size_t at = 0; at < size; at += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + at));
    const auto is = [&v](char c) { return _mm_cmpeq_epi8(v, _mm_set1_epi8(c)); };
    const __m128i hit =
        json ? _mm_or_si128(_mm_or_si128(is('"'), is('\\')),
                            _mm_cmpeq_epi8(_mm_max_epu8(v, _mm_set1_epi8(0x1F)), _mm_set1_epi8(0x1F)))
             : _mm_or_si128(_mm_or_si128(is(','), is('"')), _mm_or_si128(is('\r'), is('\n')));
    const auto bits = static_cast<uint32_t>(_mm_movemask_epi8(hit));
    const size_t left = size - at;
    if ((left >= 16 ? bits : bits & ((1U << left) - 1)) != 0) return true;
  }
  return false;
#else
  return anyOf(json ? kJsonSpecial : kCsvSpecial, {text, size});
#endif
}

using num::appendInt;

size_t digitsOf(int64_t value) {
  std::array<char, num::kIntRoom> digits;
  return static_cast<size_t>(num::writeInt(digits.data(), value) - digits.data());
}

void trimLine(std::string& out) {
  while (!out.empty() && out.back() == ' ') out.pop_back();
  out += '\n';
}

// JSON string contents: quotes, backslashes and control characters escaped, UTF-8 kept.
void appendJsonEscaped(std::string& out, std::string_view text) {
  for (char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    if (!kJsonSpecial[byte]) {
      out += c;
    } else if (byte >= 0x20) {
      out += '\\';
      out += c;
    } else {
      out += "\\u00";
      internal::appendHexByte(out, byte, internal::kHexLower);
    }
  }
}

void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  appendJsonEscaped(out, text);
  out += '"';
}

// Whether a CSV cell needs quotes: it holds a comma, a quote or a line break, or it starts or ends with a
// space or a tab, which some readers drop from a cell left bare.
bool needsQuotes(std::string_view cell) {
  if (cell.empty()) return false;
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  return blank(cell.front()) || blank(cell.back()) || anyOf(kCsvSpecial, cell);
}

// needsQuotes of a cell written into the record area (see anyOfBlocks).
bool needsQuotesInArea(const char* cell, size_t size) {
  if (size == 0) return false;
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  return blank(cell[0]) || blank(cell[size - 1]) || anyOfBlocks(false, cell, size);
}

// Quotes the CSV cell that starts at `from` in `out` when it needs quotes.
void quoteCsvTail(std::string& out, size_t from, std::string& scratch) {
  if (!needsQuotes(std::string_view(out).substr(from))) return;
  scratch.assign(out, from);
  out.resize(from);
  out += '"';
  for (char c : scratch) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

void appendCsvCell(std::string& out, std::string_view text, std::string& scratch) {
  const size_t from = out.size();
  out += text;
  quoteCsvTail(out, from, scratch);
}

bool isNumberColumn(const Column& c) {
  return !c.attr && c.decoder.kind() == value::ValueKind::Number;
}

size_t columnWidth(const Column& c) {
  size_t values = c.attr ? 4 : static_cast<size_t>(c.decoder.displayWidth());
  if (c.masked) values = std::max(values, kSecretMask.size());
  return std::max(values, utf8::displayWidth(c.shown));
}

// A record's text gathered on the stack and handed to the output text in one append: text appended to the
// output string piece by piece pays the string's size and capacity bookkeeping for every piece.
class Area {
 public:
  // Bytes a cell and what goes ahead of it may take at most.
  static constexpr size_t kSize = 4096;

  char* cursor() noexcept { return m_bytes.data() + m_used; }
  // The area's text now ends at `end` (between the cursor and the area's end).
  void advanceTo(char* end) noexcept { m_used = static_cast<size_t>(end - m_bytes.data()); }
  // Hands the text over to `t` when fewer than `room` bytes are free.
  void makeRoom(std::string& t, size_t room) {
    if (kSize - m_used < room) handTo(t);
  }
  void handTo(std::string& t) {
    t.append(m_bytes.data(), m_used);
    m_used = 0;
  }
  static char* put(char* dst, std::string_view text) noexcept {
    std::memcpy(dst, text.data(), text.size());
    return dst + text.size();
  }

 private:
  std::array<char, kSize> m_bytes;
  size_t m_used = 0;
};

}  // namespace

struct RecordWriter::State {
  State(Output& o, std::string c, const RenderOptions& r, Warnings& w)
      : out(o), code(std::move(c)), options(r), warnings(w) {}
  Output& out;
  std::string code;
  RenderOptions options;
  Warnings& warnings;
  std::string scratch, cell;
  Area area;
  // The block being written, and the records being written.
  const BlockInfo* block = nullptr;
  CellSource source;
  std::string blockShown;  // the block name as text output shows it
  std::vector<Column> columns;
  std::vector<size_t> widths;
  size_t indexWidth = 1;
  int64_t count = 0, written = 0;
  bool repeated = false;  // records shown as a repeated block's
  bool firstBlock = true;

  std::string& text() { return out.text(); }

  // Appends the cell, control characters shown as \xNN, padded to the width.
  void tableCell(const Column& c, int64_t index, int64_t record, size_t width, bool right) {
    cell.clear();
    const value::RenderResult r =
        appendCell(cell, source, c, index, value::BadByteStyle::Escaped, options.raw, &warnings, record);
    if (!options.raw && isNumberColumn(c) && r.issue == value::ValueIssue::None) {
      // A canonical number is ASCII digits, sign and point: one column a byte, no width to measure (the
      // measuring took a twelfth of the table time).
      const size_t fill = width > cell.size() ? width - cell.size() : 0;
      if (right) text().append(fill, ' ');
      text() += cell;
      if (!right) text().append(fill, ' ');
      return;
    }
    if (utf8::hasControl(cell))
      appendPadded(text(), printable(cell), width, right);
    else
      appendPadded(text(), cell, width, right);
  }

  void tableHeader() {
    std::string& t = text();
    appendPadded(t, "#", indexWidth, true);
    for (size_t j = 0; j < columns.size(); ++j) {
      t += "  ";
      appendPadded(t, columns[j].shown, widths[j], isNumberColumn(columns[j]));
    }
    trimLine(t);
  }

  void tableRecord(int64_t index, int64_t record) {
    scratch.clear();
    appendInt(scratch, record);
    appendPadded(text(), scratch, indexWidth, true);
    for (size_t j = 0; j < columns.size(); ++j) {
      text() += "  ";
      tableCell(columns[j], index, record, widths[j], isNumberColumn(columns[j]));
    }
    trimLine(text());
  }

  // A one-record block: one line per field with its names and value.
  void fieldTable() {
    size_t nameWidth = 5, korWidth = 4, valueWidth = 5;
    bool anyAttr = false;
    for (const Column& c : columns) {
      anyAttr = anyAttr || c.attr;
      if (c.attr) continue;
      nameWidth = std::max(nameWidth, utf8::displayWidth(c.shown));
      korWidth = std::max(korWidth, utf8::displayWidth(printable(c.field->szKorFieldName)));
      valueWidth = std::max(valueWidth, static_cast<size_t>(c.decoder.displayWidth()));
      if (c.masked) valueWidth = std::max(valueWidth, kSecretMask.size());
    }
    std::string& t = text();
    appendPadded(t, "field", nameWidth, false);
    t += "  ";
    appendPadded(t, "name", korWidth, false);
    t += "  ";
    appendPadded(t, "value", valueWidth, false);
    t += anyAttr ? "  attr" : "";
    trimLine(t);
    for (size_t j = 0; j < columns.size(); ++j) {
      const Column& c = columns[j];
      appendPadded(t, c.shown, nameWidth, false);
      t += "  ";
      appendPadded(t, printable(c.field->szKorFieldName), korWidth, false);
      t += "  ";
      tableCell(c, 0, 0, valueWidth, false);
      if (j + 1 < columns.size() && columns[j + 1].attr) {
        t += "  ";
        appendCell(t, source, columns[++j], 0, value::BadByteStyle::Escaped, options.raw, &warnings);
      }
      trimLine(t);
    }
  }

  // What goes ahead of each JSON member's value, made once a block: the separator, the indent and the
  // quoted name. Escaping the names on every record took a tenth of the JSON time.
  struct Member {
    std::string first, next, hexNext;
    bool number;
    // `first` and `next` in a fixed area, copied whole into the record's area (a copy of a length known
    // only at run time is a call to the C library for every member).
    struct Lead {
      static constexpr size_t kRoom = 48;
      std::array<char, kRoom> bytes{};
      size_t size = 0;
    } fastFirst{}, fastNext{};
  };
  std::vector<Member> members;
  std::string lineStart;  // JSON lines: what goes ahead of the record number

  // Members each on a line of its own at `indent` (pretty) or one after another (compact).
  void prepareMembers(std::string_view indent) {
    const std::string_view separator = indent.empty() ? "," : ",\n";
    const std::string_view colon = indent.empty() ? ":" : ": ";
    const auto key = [&](std::string_view name) {
      std::string text(indent);
      appendJsonString(text, name);
      text += colon;
      return text;
    };
    members.clear();
    for (const Column& c : columns) {
      Member m{key(c.name),
               {},
               std::string(separator) + key(c.name + "@hex"),
               !options.raw && !c.masked && isNumberColumn(c)};
      m.next = std::string(separator) + m.first;
      // A name too long for the fixed area goes through jsonMember.
      if (m.next.size() <= Member::Lead::kRoom) {
        std::memcpy(m.fastFirst.bytes.data(), m.first.data(), m.fastFirst.size = m.first.size());
        std::memcpy(m.fastNext.bytes.data(), m.next.data(), m.fastNext.size = m.next.size());
      } else {
        fast[members.size()] = false;
      }
      members.push_back(std::move(m));
    }
  }

  // One member of the record. Numbers are JSON numbers with the exact decimal text; an empty number is
  // null; undecodable bytes are U+FFFD in the string, with the field's bytes in hexadecimal under
  // "<field>@hex".
  void jsonMember(size_t j, int64_t index, int64_t record, bool first) {
    std::string& t = text();
    const Member& m = members[j];
    t += first ? m.first : m.next;
    const bool quoted = !m.number;
    if (quoted) t += '"';
    const size_t from = t.size();
    const value::RenderResult r = appendCell(t, source, columns[j], index, value::BadByteStyle::Replacement,
                                             options.raw, &warnings, record);
    if (!quoted && (r.issue == value::ValueIssue::None || r.issue == value::ValueIssue::MorePlaces)) {
      // The canonical number is the JSON number, or null when the field is blank.
      if (t.size() == from) t += "null";
    } else {
      if (!quoted || anyOf(kJsonSpecial, std::string_view(t).substr(from))) {
        scratch.assign(t, from);
        t.resize(from);
        if (!quoted) t += '"';
        appendJsonEscaped(t, scratch);
      }
      t += '"';
    }
    if (r.issue == value::ValueIssue::BadBytes || r.issue == value::ValueIssue::NotANumber) {
      t += m.hexNext;
      t += '"';
      value::appendHex(t, source.records.field(index, *columns[j].field));
      t += '"';
    }
  }

  // The record's members: each usual value written straight into the area by its decoder, any other by
  // jsonMember.
  void jsonMembers(int64_t index, int64_t record, bool first) {
    std::string& t = text();
    for (size_t j = 0; j < columns.size(); ++j, first = false) {
      const Member& m = members[j];
      if (const uint8_t* field = fastField(j, index)) {
        const Member::Lead& lead = first ? m.fastFirst : m.fastNext;
        area.makeRoom(t, Member::Lead::kRoom + value::FieldDecoder::kRoom + kBlockSlack);
        std::memcpy(area.cursor(), lead.bytes.data(), Member::Lead::kRoom);
        char* at = area.cursor() + lead.size;
        if (!m.number) *at++ = '"';
        char* end = columns[j].decoder.write(field, source.records.readable(field), at);
        if (end != nullptr && (m.number || !anyOfBlocks(true, at, static_cast<size_t>(end - at)))) {
          if (!m.number) *end++ = '"';
          area.advanceTo(end == at ? Area::put(end, "null") : end);
          continue;
        }
      }
      area.handTo(t);
      jsonMember(j, index, record, first);
    }
    area.handTo(t);
  }

  // Whether the column's cells may be written by its decoder straight into the area: a field's value
  // (not an attribute byte, a masked one or a display string).
  std::vector<bool> fast;

  // The first byte of the column's field in record `index` when its value may be written straight into
  // the area and the field lies inside the records, else nullptr.
  const uint8_t* fastField(size_t j, int64_t index) const {
    if (!fast[j]) return nullptr;
    const FieldInfo& f = *columns[j].field;
    const int64_t at = source.records.recordOffset(index) + f.nDataPos;
    return at + f.nLength <= source.records.size() ? source.records.bytes() + at : nullptr;
  }

  // One CSV cell through appendCell, quoted when it needs quotes.
  void csvCell(size_t j, int64_t index, int64_t record) {
    std::string& t = text();
    const size_t from = t.size();
    const value::RenderResult r = appendCell(t, source, columns[j], index, value::BadByteStyle::Escaped,
                                             options.raw, &warnings, record);
    // A canonical number never needs quotes; only the other cells are scanned.
    if (options.raw || !isNumberColumn(columns[j]) || r.issue != value::ValueIssue::None)
      quoteCsvTail(t, from, scratch);
  }

  void csvRecord(int64_t index, int64_t record) {
    std::string& t = text();
    const size_t rowStart = t.size();
    for (size_t j = 0; j < columns.size(); ++j) {
      area.makeRoom(t, value::FieldDecoder::kRoom + 1 + kBlockSlack);
      if (j > 0) area.advanceTo(Area::put(area.cursor(), ","));
      if (const uint8_t* field = fastField(j, index)) {
        char* const at = area.cursor();
        char* const end = columns[j].decoder.write(field, source.records.readable(field), at);
        if (end != nullptr &&
            (isNumberColumn(columns[j]) || !needsQuotesInArea(at, static_cast<size_t>(end - at)))) {
          area.advanceTo(end);
          continue;
        }
      }
      area.handTo(t);
      csvCell(j, index, record);
    }
    area.handTo(t);
    // A row of one empty cell would be a blank line, which CSV readers skip: the record is kept as "".
    if (t.size() == rowStart) t += "\"\"";
    t += '\n';
  }

  void longRecord(int64_t index, int64_t record) {
    std::string& t = text();
    for (const Column& c : columns) {
      appendCsvCell(t, blockShown, scratch);
      t += ',';
      appendInt(t, record);
      t += ',';
      appendCsvCell(t, c.shown, scratch);
      t += ',';
      const size_t from = t.size();
      appendCell(t, source, c, index, value::BadByteStyle::Escaped, options.raw, &warnings, record);
      quoteCsvTail(t, from, scratch);
      t += '\n';
    }
  }

  void jsonRecord(int64_t index, int64_t record) {
    std::string& t = text();
    if (!repeated) {
      t += ": {\n";
      jsonMembers(index, record, true);
      t += "\n    }";
      return;
    }
    t += record == 0 ? "\n      {\n" : ",\n      {\n";
    jsonMembers(index, record, true);
    t += "\n      }";
  }

  void jsonlRecord(int64_t index, int64_t record) {
    std::string& t = text();
    t += lineStart;
    appendInt(t, record);
    jsonMembers(index, record, false);
    t += "}\n";
  }
};

RecordWriter::RecordWriter(Output& out, std::string code, const RenderOptions& options, Warnings& warnings)
    : m_state(std::make_unique<State>(out, std::move(code), options, warnings)) {
  State& s = *m_state;
  if (options.format == Format::Json) {
    s.text() += "{\n  \"code\": ";
    appendJsonString(s.text(), s.code);
    s.text() += ",\n  \"blocks\": {";
  } else if (options.format == Format::Long) {
    s.text() += "block,record,field,value\n";
  }
}

RecordWriter::RecordWriter(std::unique_ptr<State> state) : m_state(std::move(state)) {}

RecordWriter::~RecordWriter() = default;

void RecordWriter::beginBlock(const KXBlockDataProc& proc, int64_t count) {
  beginBlock(proc, count, proc.isOccursBlock());
}

void RecordWriter::beginBlock(const KXBlockDataProc& proc, int64_t count, bool repeated) {
  State& s = *m_state;
  std::string& t = s.text();
  s.block = proc.getBlockInfo();
  s.source = {RecordView(), proc.getBlockName(), proc.getDisplayEncoding()};
  s.blockShown = printable(proc.getBlockName());
  s.repeated = repeated;
  s.columns = columnsOf(proc, s.options.showSecrets);
  s.fast.clear();
  for (const Column& c : s.columns) s.fast.push_back(!c.attr && !c.masked && !s.options.raw);
  s.count = count;
  s.written = 0;
  const bool first = s.firstBlock;
  s.firstBlock = false;
  switch (s.options.format) {
    case Format::Table:
      if (!first) t += '\n';
      t += s.blockShown;
      t += ':';
      if (count >= 0) {
        t += ' ';
        t += internal::counted(count, "record");
      }
      t += '\n';
      if (count == 0 || !repeated) return;
      s.widths.clear();
      for (const Column& c : s.columns) s.widths.push_back(columnWidth(c));
      // Without a count, the widest record number the block can hold.
      s.indexWidth =
          std::max<size_t>(1, digitsOf((count >= 0 ? count : proc.getBlockInfo()->m_nRepeatCount) - 1));
      s.tableHeader();
      return;
    case Format::Json:
      t += first ? "\n    " : ",\n    ";
      appendJsonString(t, proc.getBlockName());
      if (repeated || count == 0) t += ": [";
      s.prepareMembers(repeated ? "        " : "      ");
      return;
    case Format::Csv:
      for (size_t j = 0; j < s.columns.size(); ++j) {
        if (j > 0) t += ',';
        appendCsvCell(t, s.columns[j].shown, s.scratch);
      }
      t += '\n';
      return;
    case Format::Jsonl:
      s.prepareMembers("");
      s.lineStart = "{\"" + std::string(kJsonlBlockKey) + "\":";
      appendJsonString(s.lineStart, proc.getBlockName());
      s.lineStart += ",\"" + std::string(kJsonlRecordKey) + "\":";
      return;
    case Format::Long:
      return;
  }
}

void RecordWriter::records(const RecordView& records, int64_t first) {
  State& s = *m_state;
  s.source.records = records;
  const int64_t valid = records.count();
  if (s.options.format == Format::Table && !s.repeated) {
    if (valid > 0) s.fieldTable();
    s.written += valid;
    return;
  }
  for (int64_t i = 0; i < valid; ++i) {
    const int64_t record = first + i;
    switch (s.options.format) {
      case Format::Table:
        s.tableRecord(i, record);
        break;
      case Format::Json:
        s.jsonRecord(i, record);
        break;
      case Format::Jsonl:
        s.jsonlRecord(i, record);
        break;
      case Format::Csv:
        s.csvRecord(i, record);
        break;
      case Format::Long:
        s.longRecord(i, record);
        break;
    }
    ++s.written;
    s.out.spill();
  }
}

// ---- pieces decoded side by side ------------------------------------------------------------------------
//
// The pieces go round a ring of slots, each with its bytes, its text and its warnings (kept from piece to
// piece, so that their buffers are allocated once). The caller fills slot `filled`, the threads take the
// slots from `taken` on in turn, and the caller writes the slots from `written` on as they are done. A slot
// is filled again only once its text is written, so the text comes out in the order the pieces went in
// and memory stays at the ring's size whatever the input's. The threads live as long as the block: starting
// a thread a round and waiting for the slower of each round's pieces left a core idle a third of the time.
// The caller is one of the `jobs` threads: when every slot is filled it decodes the next piece itself
// rather than wait, so that `jobs` threads, not one more, share the cores.

// Pieces in the ring per thread: besides the one it decodes, pieces filled ahead for it and pieces done
// behind it that wait for an older one to be written.
constexpr size_t kSlotsPerThread = 4;

struct RecordWriter::Pieces::Slot {
  std::unique_ptr<char[]> own;  // room for the piece's bytes, unless they lie elsewhere
  size_t room = 0;
  const char* data = nullptr;
  int64_t size = 0, first = 0;
  bool reverse = false, done = false;
  Output out;  // its text, once decoded
  Warnings warnings{true};
  std::exception_ptr failure;
};

struct RecordWriter::Pieces::Shared {
  std::mutex mutex;
  std::condition_variable work, done;
  std::vector<Slot> slots;
  uint64_t filled = 0, taken = 0, written = 0;
  bool stop = false;
  Slot& at(uint64_t k) { return slots[k % slots.size()]; }
};

// What decodes pieces on one thread: a writer of its own, set up for the block as the caller's is, writing
// into its own text, which goes to each piece's slot in turn.
struct RecordWriter::Pieces::Decoder {
  Output out;
  Warnings warnings{true};
  std::unique_ptr<RecordWriter> writer;
  std::exception_ptr setUp;  // each piece fails with it

  explicit Decoder(const State& s) {
    try {
      State state(out, s.code, s.options, warnings);
      state.block = s.block;
      state.source = s.source;
      state.columns = s.columns;
      state.fast = s.fast;
      state.blockShown = s.blockShown;
      state.widths = s.widths;
      state.members = s.members;
      state.lineStart = s.lineStart;
      state.indexWidth = s.indexWidth;
      state.repeated = s.repeated;
      state.count = s.count;
      writer.reset(new RecordWriter(std::make_unique<State>(std::move(state))));
    } catch (...) {
      setUp = std::current_exception();
    }
  }

  void decode(Slot& slot, const BlockInfo& block) {
    try {
      if (setUp) std::rethrow_exception(setUp);
      writer->records(RecordView(block, slot.data, slot.size, slot.reverse), slot.first);
    } catch (...) {
      slot.failure = std::current_exception();
    }
    // The text goes to the slot and the slot's emptied buffer comes back, so that no text is copied.
    out.text().swap(slot.out.text());
    out.text().clear();
    std::swap(warnings, slot.warnings);
    warnings.clear();
  }
};

RecordWriter::Pieces::Pieces(RecordWriter& writer, int32_t jobs)
    : m_writer(writer),
      m_shared(std::make_unique<Shared>()),
      m_mine(std::make_unique<Decoder>(*writer.m_state)) {
  m_shared->slots = std::vector<Slot>(static_cast<size_t>(jobs) * kSlotsPerThread);
  try {
    for (int32_t k = 1; k < jobs; ++k) m_threads.emplace_back([this] { work(); });
  } catch (...) {
    stop();  // a thread the system would not start: those started are stopped before the failure goes on
    throw;
  }
}

RecordWriter::Pieces::~Pieces() {
  stop();
}

void RecordWriter::Pieces::stop() noexcept {
  {
    const std::lock_guard lock(m_shared->mutex);
    m_shared->stop = true;
  }
  m_shared->work.notify_all();
  for (std::thread& thread : m_threads)
    if (thread.joinable()) thread.join();
}

char* RecordWriter::Pieces::buffer(size_t size) {
  Slot& slot = room();
  if (slot.room < size) {
    slot.own = std::make_unique_for_overwrite<char[]>(size);
    slot.room = size;
  }
  return slot.own.get();
}

void RecordWriter::Pieces::submit(int64_t size, int64_t first, bool reverse) {
  Slot& slot = m_shared->at(m_shared->filled);
  hand(slot, slot.own.get(), size, first, reverse);
}

void RecordWriter::Pieces::submit(const char* bytes, int64_t size, int64_t first, bool reverse) {
  hand(room(), bytes, size, first, reverse);
}

// The slot for the next piece, once the pieces decoded are written and, when every slot is taken, the
// oldest is decoded and written.
RecordWriter::Pieces::Slot& RecordWriter::Pieces::room() {
  Shared& sh = *m_shared;
  writeDone(false);
  while (sh.filled - sh.written == sh.slots.size()) writeDone(!decodeOne());
  return sh.at(sh.filled);
}

// Decodes the next piece no thread has taken, on the caller's thread; false when there is none.
bool RecordWriter::Pieces::decodeOne() {
  Shared& sh = *m_shared;
  Slot* slot = nullptr;
  {
    const std::lock_guard lock(sh.mutex);
    if (sh.taken == sh.filled) return false;
    slot = &sh.at(sh.taken++);
  }
  m_mine->decode(*slot, *m_writer.m_state->block);
  const std::lock_guard lock(sh.mutex);
  slot->done = true;
  return true;
}

void RecordWriter::Pieces::hand(Slot& slot, const char* bytes, int64_t size, int64_t first, bool reverse) {
  Shared& sh = *m_shared;
  slot.data = bytes;
  slot.size = size;
  slot.first = first;
  slot.reverse = reverse;
  slot.done = false;
  slot.failure = nullptr;
  {
    const std::lock_guard lock(sh.mutex);
    ++sh.filled;
  }
  sh.work.notify_one();
}

void RecordWriter::Pieces::finish() {
  while (m_shared->written < m_shared->filled) writeDone(!decodeOne());
}

// Writes the pieces decoded, in order, from the oldest not yet written; with `wait`, waits for that one
// first.
void RecordWriter::Pieces::writeDone(bool wait) {
  Shared& sh = *m_shared;
  State& s = *m_writer.m_state;
  for (;;) {
    {
      std::unique_lock lock(sh.mutex);
      if (sh.written == sh.filled) return;
      if (wait) sh.done.wait(lock, [&] { return sh.at(sh.written).done; });
      if (!sh.at(sh.written).done) return;
    }
    wait = false;
    Slot& slot = sh.at(sh.written);
    if (slot.failure) std::rethrow_exception(slot.failure);
    s.warnings.absorb(slot.warnings);
    slot.warnings.clear();
    s.out.write(slot.out.text());
    slot.out.text().clear();
    s.written += slot.size / s.block->getRecordMemSize();
    ++sh.written;
  }
}

// One thread besides the caller's: decodes the pieces handed over in turn.
void RecordWriter::Pieces::work() {
  Shared& sh = *m_shared;
  Decoder decoder(*m_writer.m_state);
  for (;;) {
    Slot* slot = nullptr;
    {
      std::unique_lock lock(sh.mutex);
      sh.work.wait(lock, [&] { return sh.stop || sh.taken < sh.filled; });
      if (sh.stop) return;
      slot = &sh.at(sh.taken++);
    }
    decoder.decode(*slot, *m_writer.m_state->block);
    {
      const std::lock_guard lock(sh.mutex);
      slot->done = true;
    }
    sh.done.notify_one();
  }
}

void RecordWriter::endBlock() {
  State& s = *m_state;
  std::string& t = s.text();
  if (s.options.format == Format::Json && (s.repeated || s.count == 0)) t += s.written == 0 ? "]" : "\n    ]";
  if (s.options.format == Format::Table && s.count < 0) {
    t += internal::counted(s.written, "record");
    t += '\n';
  }
  s.out.spill();
}

void RecordWriter::finish() {
  State& s = *m_state;
  if (s.options.format == Format::Json) s.text() += s.firstBlock ? "}\n}\n" : "\n  }\n}\n";
}

void renderBlocks(Output& out, const std::string& code, const std::vector<const KXBlockDataProc*>& blocks,
                  const RenderOptions& options, Warnings& warnings) {
  RecordWriter writer(out, code, options, warnings);
  for (const KXBlockDataProc* proc : blocks) {
    writer.beginBlock(*proc, proc->getValidCount());
    writer.records(*proc, 0);
    writer.endBlock();
  }
  writer.finish();
}

}  // namespace blockproc::cli
