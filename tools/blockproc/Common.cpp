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
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/detail/Utf8.h"

namespace blockproc::cli {

namespace {

// Output is written in chunks of this size: a few large writes instead of one per value or line.
constexpr size_t kChunk = size_t{1} << 20;
constexpr int64_t kShownWarnings = 100;

}  // namespace

Session openSession(const CommonOptions& options, const std::string& dataPath) {
  if (options.definition == "-" && dataPath == "-")
    throw Failure{kExitUsage, "the definition and the data cannot both come from standard input"};
  DefinitionResult loaded = options.definition == "-"
                                ? DefinitionLoader::loadString(readInput("-"), "standard input")
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
  InputStream in(path);
  std::string bytes;
  if (in.size() > 0) bytes.reserve(static_cast<size_t>(in.size()));
  while (!in.atEnd()) in.read(bytes, size_t{1} << 20);
  return bytes;
}

namespace {
char kProgramName[] = "blockproc";
char* g_noArguments[] = {kProgramName, nullptr};
char** g_commandLine = g_noArguments;
}  // namespace

void keepCommandLine(char** argv) noexcept {
  if (argv != nullptr && argv[0] != nullptr) g_commandLine = argv;
}

char** keptCommandLine() noexcept {
  return g_commandLine;
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

Output::Output(int dirFd, const std::string& name, const std::string& shown)
    : m_own(true), m_name("'" + printable(shown) + "'") {
  if (name.empty() || name == "." || name == ".." ||
      name.find_first_of(std::string_view("/\0", 2)) != std::string::npos)
    throw Failure{kExitUsage,
                  "cannot write " + m_name + ": its name is not the name of a file in the directory"};
  m_fd = ::openat(dirFd, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0666);
  if (m_fd < 0 && errno == ELOOP)
    throw Failure{kExitData,
                  "cannot write " + m_name +
                      ": it is a symbolic link; blockproc writes only files of the directory itself"};
  if (m_fd < 0) throw Failure{kExitData, "cannot write " + m_name + ": " + std::strerror(errno)};
  m_text.reserve(kChunk + kChunk / 4);
}

Output::~Output() {
  if (m_own && m_fd >= 0) ::close(m_fd);
}

void writeAll(int fd, std::string_view bytes, const std::string& name) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw Failure{kExitData, "cannot write to " + name + ": " + std::strerror(errno)};
    bytes.remove_prefix(static_cast<size_t>(n));
  }
}

void Output::writeAll() {
  cli::writeAll(m_fd, m_text, m_name);
  m_text.clear();
}

void Output::spill() {
  if (m_fd >= 0 && m_text.size() >= kChunk) writeAll();
}

void Output::write(std::string_view text) {
  if (m_fd < 0) {
    m_text += text;
    return;
  }
  if (!m_text.empty()) writeAll();
  cli::writeAll(m_fd, text, m_name);
}

void Output::finish() {
  if (m_fd < 0) return;
  writeAll();
  if (m_own) {
    const int fd = m_fd;
    m_fd = -1;
    if (::close(fd) != 0) throw Failure{kExitData, "cannot write to " + m_name + ": " + std::strerror(errno)};
  }
}

void Warnings::add(const std::string& message) {
  if (++m_count > kShownWarnings) return;
  if (m_hold) {
    m_held.push_back(message);
    return;
  }
  Progress::clearShown();
  std::cerr << "blockproc: warning: " << printable(message) << "\n";
}

void Warnings::absorb(const Warnings& piece) {
  for (const std::string& message : piece.m_held) add(message);
  m_count += piece.m_count - static_cast<int64_t>(piece.m_held.size());
}

void Warnings::close() const {
  if (m_count <= kShownWarnings) return;
  Progress::clearShown();
  std::cerr << "blockproc: warning: " << withThousands(m_count - kShownWarnings) << " more not shown\n";
}

// ---- cells ------------------------------------------------------------------------------------------------

std::vector<Column> columnsOf(const KXBlockDataProc& proc, bool showSecrets) {
  std::vector<Column> columns;
  const BlockInfo& block = *proc.getBlockInfo();
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo* field = block.getFieldInfoFromIndex(j);
    const std::string& name = field->szFieldName;
    const value::FieldDecoder decoder(*field, proc.getEncodingType());
    columns.push_back({field, false, name, printable(name), field->bPassword && !showSecrets, decoder});
    if (block.carriesAttr(*field))
      columns.push_back({field, true, name + "@attr", printable(name + "@attr"), false, decoder});
  }
  return columns;
}

CellSource cellSource(const KXBlockDataProc& proc) {
  return {RecordView::of(proc), proc.getBlockName(), proc.getDisplayEncoding()};
}

value::RenderResult appendCell(std::string& out, const CellSource& source, const Column& column,
                               int64_t index, value::BadByteStyle style, bool raw, Warnings* warnings,
                               int64_t record) {
  if (column.masked) {
    out += kSecretMask;
    return {};
  }
  if (column.attr) {
    out += "0x";
    internal::appendHexByte(out, source.records.attr(index, *column.field));
    return {};
  }
  const std::string_view bytes = source.records.field(index, *column.field);
  value::RenderResult result;
  if (raw) {
    // The display string as it stands; the canonical rendering still finds what it hides.
    thread_local std::string canonical;  // kept: no allocation per cell
    canonical.clear();
    result = column.decoder.append(canonical, bytes, style);
    const int64_t readable = bytes.data() == nullptr
                                 ? 0
                                 : source.records.size() - (reinterpret_cast<const uint8_t*>(bytes.data()) -
                                                            source.records.bytes());
    column.decoder.appendDisplay(out, bytes, readable,
                                 source.displayEncoding);  // nothing shown when it fails
  } else {
    result = column.decoder.append(out, bytes, style);
  }
  if (result.issue != value::ValueIssue::None && warnings != nullptr) {
    std::string message;
    value::appendWhere(message, source.block, record < 0 ? index : record, column.name);
    message += ": ";
    value::appendIssue(message, result, *column.field, bytes, column.decoder.encoding());
    warnings->add(message);
  }
  return result;
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

Format parseFormat(const std::string& name) {
  if (name == "table") return Format::Table;
  if (name == "json") return Format::Json;
  if (name == "jsonl") return Format::Jsonl;
  if (name == "csv") return Format::Csv;
  if (name == "long") return Format::Long;
  throw Failure{kExitUsage, "unknown format '" + name + "'; use table, json, jsonl, csv or long"};
}

}  // namespace blockproc::cli
