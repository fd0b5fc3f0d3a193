// Input, output, definitions and rendering shared by the subcommands.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include <nlohmann/json.hpp>

#include "Cli.h"
#include "blockproc/codec/TextCodec.h"
#include "blockproc/codec/Utf8.h"

namespace blockproc::cli {

Format parseFormat(const std::string& name) {
  if (name == "table") return Format::Table;
  if (name == "json") return Format::Json;
  if (name == "csv") return Format::Csv;
  throw Failure{kExitUsage, "unknown format '" + name + "'; use table, json or csv"};
}

Session openSession(const CommonOptions& options) {
  DefinitionResult loaded = DefinitionLoader::loadFile(options.definition);
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

std::string readInput(const std::string& path, std::string_view what) {
  if (path == "-") {
    std::string bytes((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    if (std::cin.bad())
      throw Failure{kExitData, "cannot read the " + std::string(what) + " from standard input"};
    return bytes;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw Failure{kExitUsage, "cannot open the " + std::string(what) + " '" + path +
                                  "': " + std::strerror(errno) +
                                  "\n  (check the path, or give - to read standard input)"};
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) throw Failure{kExitData, "cannot read the " + std::string(what) + " '" + path + "'"};
  return bytes;
}

std::string sourceName(const std::string& path) {
  return path == "-" ? "standard input" : path;
}

void writeOutput(const std::string& path, std::string_view bytes) {
  if (path.empty() || path == "-") {
    std::cout.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    std::cout.flush();
    if (!std::cout) throw Failure{kExitData, "cannot write to standard output"};
    return;
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (out) out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (out) out.close();
  if (!out) throw Failure{kExitUsage, "cannot write '" + path + "': " + std::strerror(errno)};
}

// ---- records as text --------------------------------------------------------------------------------------

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

std::string cellValue(const KXBlockDataProc& proc, const Column& column, int32_t index) {
  if (!column.attr) return proc.getFieldDataFromInfo(column.field, index);
  static constexpr char kHex[] = "0123456789ABCDEF";
  const uint8_t attr = proc.getFieldAttrFromInfo(column.field, index);
  return std::string("0x") + kHex[attr >> 4] + kHex[attr & 15];
}

bool isNumeric(const Column& column) {
  return !column.attr && column.field->nDataType != kFieldText;
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

std::string padded(std::string_view text, size_t width, bool right) {
  const size_t used = utf8::displayWidth(text);
  const std::string fill(width > used ? width - used : 0, ' ');
  return right ? fill + std::string(text) : std::string(text) + fill;
}

namespace {

std::string rightTrimmed(std::string line) {
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

std::string recordCount(int64_t count) {
  return withThousands(count) + (count == 1 ? " record" : " records");
}

// A one-record block: one line per field with its names and value.
std::string fieldTable(const KXBlockDataProc& proc) {
  const std::vector<Column> columns = columnsOf(proc);
  bool anyAttr = false;
  for (const Column& c : columns) anyAttr = anyAttr || c.attr;
  std::vector<std::vector<std::string>> rows;
  for (const Column& c : columns) {
    if (c.attr) {
      rows.back().back() = cellValue(proc, c, 0);
      continue;
    }
    rows.push_back({c.name, printable(c.field->szKorFieldName), printable(cellValue(proc, c, 0))});
    if (anyAttr) rows.back().push_back("");
  }
  std::vector<std::string> header{"field", "name", "value"};
  if (anyAttr) header.push_back("attr");
  return renderTable(header, std::vector<bool>(header.size(), false), rows);
}

// A repeated block: one line per record, one column per field.
std::string recordTable(const KXBlockDataProc& proc) {
  const std::vector<Column> columns = columnsOf(proc);
  std::vector<std::string> header{"#"};
  std::vector<bool> right{true};
  for (const Column& c : columns) {
    header.push_back(c.name);
    right.push_back(isNumeric(c));
  }
  std::vector<std::vector<std::string>> rows;
  for (int32_t i = 0; i < proc.getValidCount(); ++i) {
    rows.push_back({std::to_string(i)});
    for (const Column& c : columns) rows.back().push_back(printable(cellValue(proc, c, i)));
  }
  return renderTable(header, right, rows);
}

std::string tableOf(const std::vector<const KXBlockDataProc*>& blocks) {
  std::string out;
  for (const KXBlockDataProc* proc : blocks) {
    if (!out.empty()) out += "\n";
    out += proc->getBlockName() + ": " + recordCount(proc->getValidCount()) + "\n";
    if (proc->getValidCount() == 0) continue;
    out += proc->isOccursBlock() ? recordTable(*proc) : fieldTable(*proc);
  }
  return out;
}

nlohmann::ordered_json recordJson(const KXBlockDataProc& proc, const std::vector<Column>& columns,
                                  int32_t index) {
  nlohmann::ordered_json record = nlohmann::ordered_json::object();
  for (const Column& c : columns) record[c.name] = cellValue(proc, c, index);
  return record;
}

std::string jsonOf(const std::string& code, const std::vector<const KXBlockDataProc*>& blocks) {
  nlohmann::ordered_json root;
  root["code"] = code;
  nlohmann::ordered_json& out = root["blocks"] = nlohmann::ordered_json::object();
  for (const KXBlockDataProc* proc : blocks) {
    const std::vector<Column> columns = columnsOf(*proc);
    if (!proc->isOccursBlock() && proc->getValidCount() > 0) {
      out[proc->getBlockName()] = recordJson(*proc, columns, 0);
      continue;
    }
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (int32_t i = 0; i < proc->getValidCount(); ++i) list.push_back(recordJson(*proc, columns, i));
    out[proc->getBlockName()] = std::move(list);
  }
  return root.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string csvCell(std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(text);
  std::string out = "\"";
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  return out + "\"";
}

std::string csvOf(const std::vector<const KXBlockDataProc*>& blocks) {
  std::string out = "block,record,field,value\n";
  for (const KXBlockDataProc* proc : blocks) {
    const std::vector<Column> columns = columnsOf(*proc);
    for (int32_t i = 0; i < proc->getValidCount(); ++i)
      for (const Column& c : columns)
        out += csvCell(proc->getBlockName()) + "," + std::to_string(i) + "," + csvCell(c.name) + "," +
               csvCell(cellValue(*proc, c, i)) + "\n";
  }
  return out;
}

}  // namespace

std::string renderTable(const std::vector<std::string>& header, const std::vector<bool>& right,
                        const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths(header.size(), 0);
  const auto measure = [&](const std::vector<std::string>& row) {
    for (size_t j = 0; j < row.size() && j < widths.size(); ++j)
      widths[j] = std::max(widths[j], utf8::displayWidth(row[j]));
  };
  measure(header);
  for (const auto& row : rows) measure(row);
  const auto line = [&](const std::vector<std::string>& row) {
    std::string text;
    for (size_t j = 0; j < row.size() && j < widths.size(); ++j) {
      if (j > 0) text += "  ";
      text += padded(row[j], widths[j], right[j]);
    }
    return rightTrimmed(std::move(text)) + "\n";
  };
  std::string out = line(header);
  for (const auto& row : rows) out += line(row);
  return out;
}

std::string renderBlocks(const std::string& code, const std::vector<const KXBlockDataProc*>& blocks,
                         Format format) {
  switch (format) {
    case Format::Json:
      return jsonOf(code, blocks);
    case Format::Csv:
      return csvOf(blocks);
    case Format::Table:
    default:
      return tableOf(blocks);
  }
}

}  // namespace blockproc::cli
