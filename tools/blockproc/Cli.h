#pragma once
// Shared pieces of the blockproc command-line tool: exit codes, failures, input and output, loading a
// definition, and rendering records as aligned tables, CSV and JSON.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "blockproc/engine/DefinitionLoader.h"
#include "blockproc/engine/TransactionProc.h"

namespace blockproc::cli {

enum ExitCode : int { kExitOk = 0, kExitData = 1, kExitUsage = 2 };

// Ends a command: the message goes to standard error, the code becomes the exit code.
struct Failure {
  int code;
  std::string message;
};

enum class Format { Table, Json, Csv };

// A definition and the parent that works on it.
struct Session {
  std::unique_ptr<TransactionDefinition> definition;
  std::unique_ptr<TransactionProc> proc;
};

// Options every subcommand that reads a definition shares.
struct CommonOptions {
  std::string definition;
  std::string encoding;  // "" keeps the definition's encoding
};

// Loads the definition and builds its parent; a definition error fails with kExitUsage.
Session openSession(const CommonOptions& options);
// The whole file, or standard input for "-"; a file that cannot be read fails with kExitUsage.
std::string readInput(const std::string& path, std::string_view what);
// The path as messages name it: "standard input" for "-".
std::string sourceName(const std::string& path);
// Writes the bytes to the file, or to standard output for "" or "-".
void writeOutput(const std::string& path, std::string_view bytes);

// ---- records as text --------------------------------------------------------------------------------------

// One column of a block's records: a field's value, or the attribute byte after it.
struct Column {
  const FieldInfo* field;
  bool attr;
  std::string name;  // the field name, "<field>@attr" for the attribute byte
};
std::vector<Column> columnsOf(const KXBlockDataProc& proc);
// The value of the column in record `index` as the processor reads it ("0x35" for an attribute byte).
std::string cellValue(const KXBlockDataProc& proc, const Column& column, int32_t index);
// Whether a column holds numbers (right-aligned in tables).
bool isNumeric(const Column& column);
// The text with control characters shown as \xNN, so that a value cannot break a table or the terminal.
std::string printable(std::string_view text);
// The text padded with spaces to `width` display columns (a Hangul syllable takes two).
std::string padded(std::string_view text, size_t width, bool right);

// Rows under a header line, each column as wide as its widest cell; no trailing spaces.
std::string renderTable(const std::vector<std::string>& header, const std::vector<bool>& right,
                        const std::vector<std::vector<std::string>>& rows);
// The records of the blocks in the chosen format. For tables, `title` is printed ahead of each block.
std::string renderBlocks(const std::string& code, const std::vector<const KXBlockDataProc*>& blocks,
                         Format format);

// ---- subcommands ------------------------------------------------------------------------------------------

struct DecodeOptions {
  CommonOptions common;
  std::string reply;
  std::string format = "table";
  std::string block;
};
struct EncodeOptions {
  CommonOptions common;
  std::string values;
  std::string output;
  bool reply = false;
};
struct HexdumpOptions {
  CommonOptions common;
  std::string reply;
};
struct RealtimeOptions {
  CommonOptions common;
  std::string stream;
  std::string block;
  std::string format = "table";
  int32_t keep = 0;  // 0: every record of the stream
};

int runInspect(const CommonOptions& options);
int runDecode(const DecodeOptions& options);
int runEncode(const EncodeOptions& options);
int runHexdump(const HexdumpOptions& options);
int runRealtime(const RealtimeOptions& options);

Format parseFormat(const std::string& name);

}  // namespace blockproc::cli
