// Input, output, definitions and rendering shared by the subcommands.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>

#include "Cli.h"
#include "blockproc/codec/TextCodec.h"
#include "blockproc/codec/Utf8.h"

namespace blockproc::cli {

namespace {

// Output is written in chunks of this size: a few large writes instead of one per value or line.
constexpr size_t kChunk = size_t{1} << 20;
constexpr int64_t kShownWarnings = 100;

std::string readStdin(const std::string& what) {
  std::string bytes((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
  if (std::cin.bad()) throw Failure{kExitData, "cannot read the " + what + " from standard input"};
  return bytes;
}

}  // namespace

Session openSession(const CommonOptions& options, const std::string& dataPath) {
  if (options.definition == "-" && dataPath == "-")
    throw Failure{kExitUsage, "the definition and the data cannot both come from standard input"};
  DefinitionResult loaded = options.definition == "-"
                                ? DefinitionLoader::loadString(readStdin("definition"), "standard input")
                                : DefinitionLoader::loadFile(options.definition);
  if (!loaded) {
    std::string hint = loaded.status == DefinitionStatus::FileError
                           ? "give the path of a transaction definition file"
                           : "fix the definition; docs/definition-format.md describes the format";
    throw Failure{kExitUsage, loaded.description() + "\n  (" + hint + ")"};
  }
  Session session;
  session.definition = std::move(loaded.definition);
  if (!options.encoding.empty()) {
    const auto encoding = codec::encodingFromName(options.encoding);
    if (!encoding)
      throw Failure{kExitUsage,
                    "unknown encoding '" + options.encoding + "'; use cp949, euc-kr, utf-8, ascii or latin1"};
    session.definition->encoding = *encoding;
  }
  session.proc = std::make_unique<TransactionProc>(*session.definition);
  return session;
}

std::string readInput(const std::string& path) {
  if (path == "-") return readStdin("data");
  std::string bytes, error;
  if (!readFileBytes(path, bytes, error))
    throw Failure{kExitUsage, path + ": " + error + "\n  (check the path, or give - to read standard input)"};
  return bytes;
}

std::string sourceName(const std::string& path) {
  return path == "-" ? "standard input" : path;
}

// ---- output -----------------------------------------------------------------------------------------------

Output::Output(const std::string& path) {
  if (path.empty() || path == "-") {
    m_fd = STDOUT_FILENO;
    m_name = "standard output";
  } else {
    m_fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    m_own = true;
    m_name = "'" + path + "'";
    if (m_fd < 0) throw Failure{kExitData, "cannot write " + m_name + ": " + std::strerror(errno)};
  }
  m_text.reserve(kChunk + kChunk / 4);
}

Output::~Output() {
  if (m_own && m_fd >= 0) ::close(m_fd);
}

void Output::writeAll() {
  const char* at = m_text.data();
  size_t left = m_text.size();
  while (left > 0) {
    const ssize_t n = ::write(m_fd, at, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw Failure{kExitData, "cannot write to " + m_name + ": " + std::strerror(errno)};
    at += n;
    left -= static_cast<size_t>(n);
  }
  m_text.clear();
}

void Output::spill() {
  if (m_text.size() >= kChunk) writeAll();
}

void Output::finish() {
  writeAll();
  if (m_own) {
    const int fd = m_fd;
    m_fd = -1;
    if (::close(fd) != 0) throw Failure{kExitData, "cannot write to " + m_name + ": " + std::strerror(errno)};
  }
}

void Warnings::add(const std::string& message) {
  if (++m_count <= kShownWarnings) std::cerr << "blockproc: warning: " << message << "\n";
}

void Warnings::close() const {
  if (m_count > kShownWarnings)
    std::cerr << "blockproc: warning: " << withThousands(m_count - kShownWarnings) << " more not shown\n";
}

// ---- cells ------------------------------------------------------------------------------------------------

std::vector<Column> columnsOf(const KXBlockDataProc& proc) {
  std::vector<Column> columns;
  const BlockInfo& block = *proc.getBlockInfo();
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo* field = block.getFieldInfoFromIndex(j);
    columns.push_back({field, false, field->szFieldName});
    if (block.carriesAttr(*field)) columns.push_back({field, true, field->szFieldName + "@attr"});
  }
  return columns;
}

value::RenderResult appendCell(std::string& out, const KXBlockDataProc& proc, const Column& column,
                               int32_t index, value::BadByteStyle style, bool raw, Warnings* warnings) {
  if (column.attr) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    const uint8_t attr = proc.getFieldAttrFromInfo(column.field, index);
    out += "0x";
    out += kHex[attr >> 4];
    out += kHex[attr & 15];
    return {};
  }
  const std::string_view bytes = value::fieldBytes(proc, *column.field, index);
  value::RenderResult result;
  if (raw) {
    // The display string as it stands; the canonical rendering still finds what it hides.
    std::string canonical;
    result = value::appendValue(canonical, *column.field, bytes, proc.getEncodingType(), style);
    out += proc.getFieldDataFromInfo(column.field, index);
  } else {
    result = value::appendValue(out, *column.field, bytes, proc.getEncodingType(), style);
  }
  if (result.issue != value::ValueIssue::None && warnings != nullptr) {
    std::string message;
    value::appendWhere(message, proc.getBlockName(), index, column.name);
    message += ": ";
    value::appendIssue(message, result, *column.field, bytes, proc.getEncodingType());
    warnings->add(message);
  }
  return result;
}

std::string printable(std::string_view text) {
  std::string out;
  for (char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    if (byte < 0x20 || byte == 0x7F) {
      static constexpr char kHex[] = "0123456789ABCDEF";
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    } else {
      out += c;
    }
  }
  return out;
}

void appendPadded(std::string& out, std::string_view text, size_t width, bool right) {
  const size_t used = utf8::displayWidth(text);
  const size_t fill = width > used ? width - used : 0;
  if (right) out.append(fill, ' ');
  out += text;
  if (!right) out.append(fill, ' ');
}

std::string padded(std::string_view text, size_t width, bool right) {
  std::string out;
  appendPadded(out, text, width, right);
  return out;
}

std::string renderTable(const std::vector<std::string>& header, const std::vector<bool>& right,
                        const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths(header.size(), 0);
  const auto measure = [&](const std::vector<std::string>& row) {
    for (size_t j = 0; j < row.size() && j < widths.size(); ++j)
      widths[j] = std::max(widths[j], utf8::displayWidth(row[j]));
  };
  measure(header);
  for (const auto& row : rows) measure(row);
  std::string out;
  const auto line = [&](const std::vector<std::string>& row) {
    for (size_t j = 0; j < row.size() && j < widths.size(); ++j) {
      if (j > 0) out += "  ";
      appendPadded(out, row[j], widths[j], right[j]);
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    out += '\n';
  };
  line(header);
  for (const auto& row : rows) line(row);
  return out;
}

// ---- formats ----------------------------------------------------------------------------------------------

namespace {

void appendInt(std::string& out, int64_t value) {
  char digits[24];
  out.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

void trimLine(std::string& out) {
  while (!out.empty() && out.back() == ' ') out.pop_back();
  out += '\n';
}

// Appends the cell, printable, padded to the width; cells wider than their column push the line on.
void appendTableCell(std::string& out, std::string& scratch, const KXBlockDataProc& proc, const Column& c,
                     int32_t index, size_t width, bool raw, Warnings& warnings) {
  scratch.clear();
  appendCell(scratch, proc, c, index, value::BadByteStyle::Escaped, raw, &warnings);
  const bool right = !c.attr && value::valueKind(*c.field) == value::ValueKind::Number;
  appendPadded(out, printable(scratch), width, right);
}

size_t columnWidth(const Column& c) {
  const size_t values = c.attr ? 4 : static_cast<size_t>(value::displayWidth(*c.field));
  return std::max(values, utf8::displayWidth(c.name));
}

// A one-record block: one line per field with its names and value.
void fieldTable(Output& out, const KXBlockDataProc& proc, bool raw, Warnings& warnings) {
  const std::vector<Column> columns = columnsOf(proc);
  size_t nameWidth = 5, korWidth = 4, valueWidth = 5;
  bool anyAttr = false;
  for (const Column& c : columns) {
    anyAttr = anyAttr || c.attr;
    if (c.attr) continue;
    nameWidth = std::max(nameWidth, utf8::displayWidth(c.name));
    korWidth = std::max(korWidth, utf8::displayWidth(printable(c.field->szKorFieldName)));
    valueWidth = std::max(valueWidth, static_cast<size_t>(value::displayWidth(*c.field)));
  }
  std::string& text = out.text();
  appendPadded(text, "field", nameWidth, false);
  text += "  ";
  appendPadded(text, "name", korWidth, false);
  text += "  ";
  appendPadded(text, "value", valueWidth, false);
  text += anyAttr ? "  attr" : "";
  trimLine(text);
  std::string scratch;
  for (size_t j = 0; j < columns.size(); ++j) {
    const Column& c = columns[j];
    appendPadded(text, c.name, nameWidth, false);
    text += "  ";
    appendPadded(text, printable(c.field->szKorFieldName), korWidth, false);
    text += "  ";
    scratch.clear();
    appendCell(scratch, proc, c, 0, value::BadByteStyle::Escaped, raw, &warnings);
    appendPadded(text, printable(scratch), valueWidth, false);
    if (j + 1 < columns.size() && columns[j + 1].attr) {
      text += "  ";
      appendCell(text, proc, columns[++j], 0, value::BadByteStyle::Escaped, raw, &warnings);
    }
    trimLine(text);
  }
}

// A repeated block: one line per record, one column per field, widths from the definition.
void recordTable(Output& out, const KXBlockDataProc& proc, bool raw, Warnings& warnings) {
  const std::vector<Column> columns = columnsOf(proc);
  std::vector<size_t> widths;
  for (const Column& c : columns) widths.push_back(columnWidth(c));
  char digits[24];
  const size_t indexWidth = std::max<size_t>(
      1, static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, proc.getValidCount() - 1).ptr -
                             digits));
  std::string& text = out.text();
  appendPadded(text, "#", indexWidth, true);
  for (size_t j = 0; j < columns.size(); ++j) {
    text += "  ";
    const bool right = !columns[j].attr && value::valueKind(*columns[j].field) == value::ValueKind::Number;
    appendPadded(text, columns[j].name, widths[j], right);
  }
  trimLine(text);
  std::string scratch;
  for (int32_t i = 0; i < proc.getValidCount(); ++i) {
    scratch.clear();
    appendInt(scratch, i);
    appendPadded(text, scratch, indexWidth, true);
    for (size_t j = 0; j < columns.size(); ++j) {
      text += "  ";
      appendTableCell(text, scratch, proc, columns[j], i, widths[j], raw, warnings);
    }
    trimLine(text);
    out.spill();
  }
}

void appendRecordCount(std::string& out, int64_t count) {
  out += withThousands(count);
  out += count == 1 ? " record" : " records";
}

void tableOf(Output& out, const std::vector<const KXBlockDataProc*>& blocks, bool raw, Warnings& warnings) {
  bool first = true;
  for (const KXBlockDataProc* proc : blocks) {
    std::string& text = out.text();
    if (!first) text += '\n';
    first = false;
    text += proc->getBlockName();
    text += ": ";
    appendRecordCount(text, proc->getValidCount());
    text += '\n';
    if (proc->getValidCount() == 0) continue;
    if (proc->isOccursBlock())
      recordTable(out, *proc, raw, warnings);
    else
      fieldTable(out, *proc, raw, warnings);
    out.spill();
  }
}

// JSON string contents: quotes, backslashes and control characters escaped, UTF-8 kept.
void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  for (char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20) {
      static constexpr char kHex[] = "0123456789abcdef";
      out += "\\u00";
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    } else {
      out += c;
    }
  }
  out += '"';
}

// The record's members, each on a line of its own at `indent` (pretty) or one after another (compact).
// Numbers are JSON numbers with the exact decimal text; an empty number is null; undecodable bytes are
// U+FFFD in the string, with the field's bytes in hexadecimal under "<field>@hex".
void appendJsonMembers(std::string& out, std::string& scratch, const KXBlockDataProc& proc,
                       const std::vector<Column>& columns, int32_t index, std::string_view indent, bool raw,
                       bool first, Warnings& warnings) {
  const char* separator = indent.empty() ? "," : ",\n";
  const char* colon = indent.empty() ? ":" : ": ";
  for (const Column& c : columns) {
    const auto member = [&](std::string_view name) {
      if (!first) out += separator;
      first = false;
      out += indent;
      appendJsonString(out, name);
      out += colon;
    };
    member(c.name);
    scratch.clear();
    const value::RenderResult r =
        appendCell(scratch, proc, c, index, value::BadByteStyle::Replacement, raw, &warnings);
    const bool number = !raw && !c.attr && value::valueKind(*c.field) == value::ValueKind::Number &&
                        (r.issue == value::ValueIssue::None || r.issue == value::ValueIssue::MorePlaces);
    if (number) {
      out += scratch.empty() ? std::string_view("null") : std::string_view(scratch);
    } else {
      appendJsonString(out, scratch);
    }
    if (r.issue == value::ValueIssue::BadBytes || r.issue == value::ValueIssue::NotANumber) {
      member(c.name + "@hex");
      out += '"';
      value::appendHex(out, value::fieldBytes(proc, *c.field, index));
      out += '"';
    }
  }
}

void jsonOf(Output& out, const std::string& code, const std::vector<const KXBlockDataProc*>& blocks, bool raw,
            Warnings& warnings) {
  std::string& text = out.text();
  text += "{\n  \"code\": ";
  appendJsonString(text, code);
  text += ",\n  \"blocks\": {";
  std::string scratch;
  for (size_t b = 0; b < blocks.size(); ++b) {
    const KXBlockDataProc& proc = *blocks[b];
    const std::vector<Column> columns = columnsOf(proc);
    text += b == 0 ? "\n    " : ",\n    ";
    appendJsonString(text, proc.getBlockName());
    if (!proc.isOccursBlock() && proc.getValidCount() > 0) {
      text += ": {\n";
      appendJsonMembers(text, scratch, proc, columns, 0, "      ", raw, true, warnings);
      text += "\n    }";
      continue;
    }
    text += proc.getValidCount() == 0 ? ": [" : ": [\n";
    for (int32_t i = 0; i < proc.getValidCount(); ++i) {
      text += i == 0 ? "      {\n" : ",\n      {\n";
      appendJsonMembers(text, scratch, proc, columns, i, "        ", raw, true, warnings);
      text += "\n      }";
      out.spill();
    }
    text += proc.getValidCount() == 0 ? "]" : "\n    ]";
  }
  text += blocks.empty() ? "}\n}\n" : "\n  }\n}\n";
}

void jsonlOf(Output& out, const std::vector<const KXBlockDataProc*>& blocks, bool raw, Warnings& warnings) {
  std::string scratch;
  for (const KXBlockDataProc* proc : blocks) {
    const std::vector<Column> columns = columnsOf(*proc);
    for (int32_t i = 0; i < proc->getValidCount(); ++i) {
      std::string& text = out.text();
      text += "{\"block\":";
      appendJsonString(text, proc->getBlockName());
      text += ",\"record\":";
      appendInt(text, i);
      appendJsonMembers(text, scratch, *proc, columns, i, "", raw, false, warnings);
      text += "}\n";
      out.spill();
    }
  }
}

void appendCsvCell(std::string& out, std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
    out += text;
    return;
  }
  out += '"';
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
}

// One row per record under a header of the field names.
void csvOf(Output& out, const KXBlockDataProc& proc, bool raw, Warnings& warnings) {
  const std::vector<Column> columns = columnsOf(proc);
  std::string& text = out.text();
  for (size_t j = 0; j < columns.size(); ++j) {
    if (j > 0) text += ',';
    appendCsvCell(text, columns[j].name);
  }
  text += '\n';
  std::string scratch;
  for (int32_t i = 0; i < proc.getValidCount(); ++i) {
    for (size_t j = 0; j < columns.size(); ++j) {
      if (j > 0) text += ',';
      scratch.clear();
      appendCell(scratch, proc, columns[j], i, value::BadByteStyle::Escaped, raw, &warnings);
      appendCsvCell(text, scratch);
    }
    text += '\n';
    out.spill();
  }
}

// block,record,field,value: one line per value of every block.
void longOf(Output& out, const std::vector<const KXBlockDataProc*>& blocks, bool raw, Warnings& warnings) {
  out.text() += "block,record,field,value\n";
  std::string scratch;
  for (const KXBlockDataProc* proc : blocks) {
    const std::vector<Column> columns = columnsOf(*proc);
    for (int32_t i = 0; i < proc->getValidCount(); ++i) {
      std::string& text = out.text();
      for (const Column& c : columns) {
        appendCsvCell(text, proc->getBlockName());
        text += ',';
        appendInt(text, i);
        text += ',';
        appendCsvCell(text, c.name);
        text += ',';
        scratch.clear();
        appendCell(scratch, *proc, c, i, value::BadByteStyle::Escaped, raw, &warnings);
        appendCsvCell(text, scratch);
        text += '\n';
      }
      out.spill();
    }
  }
}

}  // namespace

void renderBlocks(Output& out, const std::string& code, const std::vector<const KXBlockDataProc*>& blocks,
                  const RenderOptions& options, Warnings& warnings) {
  switch (options.format) {
    case Format::Json:
      return jsonOf(out, code, blocks, options.raw, warnings);
    case Format::Jsonl:
      return jsonlOf(out, blocks, options.raw, warnings);
    case Format::Csv:
      for (const KXBlockDataProc* proc : blocks) csvOf(out, *proc, options.raw, warnings);
      return;
    case Format::Long:
      return longOf(out, blocks, options.raw, warnings);
    case Format::Table:
    default:
      return tableOf(out, blocks, options.raw, warnings);
  }
}

Format parseFormat(const std::string& name) {
  if (name == "table") return Format::Table;
  if (name == "json") return Format::Json;
  if (name == "jsonl") return Format::Jsonl;
  if (name == "csv") return Format::Csv;
  if (name == "long") return Format::Long;
  throw Failure{kExitUsage, "unknown format '" + name + "'; use table, json, jsonl, csv or long"};
}

}  // namespace blockproc::cli
