#pragma once
// Shared pieces of the blockproc command-line tool: exit codes, failures, input and output, loading a
// definition, and rendering records as aligned tables, CSV and JSON.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "blockproc/engine/DefinitionLoader.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/engine/TransactionProc.h"
#include "blockproc/util/Internal.h"

namespace blockproc::cli {

using internal::withThousands;

enum ExitCode : int { kExitOk = 0, kExitData = 1, kExitUsage = 2 };

// Ends a command: the message goes to standard error, the code becomes the exit code.
struct Failure {
  int code;
  std::string message;
};

enum class Format { Table, Json, Jsonl, Csv, Long };

// A definition and the parent that works on it.
struct Session {
  std::unique_ptr<TransactionDefinition> definition;
  std::unique_ptr<TransactionProc> proc;
};

// Options every subcommand that reads a definition shares.
struct CommonOptions {
  std::string definition;  // a path, or - for standard input
  std::string encoding;    // "" keeps the definition's encoding
};

// Loads the definition (standard input for "-") and builds its parent; a definition that cannot be read or
// is not valid fails with kExitUsage. `dataPath` is the data's path, which may not also be "-".
Session openSession(const CommonOptions& options, const std::string& dataPath = "");
// The whole file, or standard input for "-"; a file that cannot be read (a directory, a missing file)
// fails with kExitUsage.
std::string readInput(const std::string& path);
// The path as messages name it: "standard input" for "-".
std::string sourceName(const std::string& path);

// Output text gathered in one buffer and written in large chunks to a file or standard output. A failed
// open, write or close ends the command with kExitData and a message naming the file.
class Output {
 public:
  // Standard output for "" or "-", else the file, created or truncated.
  explicit Output(const std::string& path);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  std::string& text() noexcept { return m_text; }
  // Writes the buffer out once it holds a chunk; called between records.
  void spill();
  // Writes everything gathered and, for a file, closes it.
  void finish();

 private:
  void writeAll();
  int m_fd = -1;
  bool m_own = false;
  std::string m_name;
  std::string m_text;
};

// Problems found in the data while rendering it: each goes to standard error as it is found (the first
// hundred of them), and any of them makes the command exit with kExitData after its output is complete.
class Warnings {
 public:
  void add(const std::string& message);
  int64_t count() const noexcept { return m_count; }
  // Says how many were not shown, if any.
  void close() const;

 private:
  int64_t m_count = 0;
};

// ---- records as text --------------------------------------------------------------------------------------

// One column of a block's records: a field's value, or the attribute byte after it.
struct Column {
  const FieldInfo* field;
  bool attr;
  std::string name;  // the field name, "<field>@attr" for the attribute byte
};
std::vector<Column> columnsOf(const KXBlockDataProc& proc);

// How records are rendered.
struct RenderOptions {
  Format format = Format::Table;
  bool raw = false;  // the processor's display strings instead of canonical values
};

// Appends the column's value in record `index`: canonical (or the processor's display string when raw),
// "0x35" for an attribute byte. Returns what kept the value from being plain; `warnings`, when given, is
// told of it with block, record, field and byte offset.
value::RenderResult appendCell(std::string& out, const KXBlockDataProc& proc, const Column& column,
                               int32_t index, value::BadByteStyle style, bool raw, Warnings* warnings);
// The text with control characters shown as \xNN, so that a value cannot break a table or the terminal.
std::string printable(std::string_view text);
// The text padded with spaces to `width` display columns (a Hangul syllable takes two).
std::string padded(std::string_view text, size_t width, bool right);
// Appends `text` padded to `width` display columns.
void appendPadded(std::string& out, std::string_view text, size_t width, bool right);

// Rows under a header line, each column as wide as its widest cell; no trailing spaces.
std::string renderTable(const std::vector<std::string>& header, const std::vector<bool>& right,
                        const std::vector<std::vector<std::string>>& rows);
// Writes the records of the blocks in the chosen format, a record at a time; for tables and long form a
// block title goes ahead of each block.
void renderBlocks(Output& out, const std::string& code, const std::vector<const KXBlockDataProc*>& blocks,
                  const RenderOptions& options, Warnings& warnings);

// ---- subcommands ------------------------------------------------------------------------------------------

struct DecodeOptions {
  CommonOptions common;
  std::string reply;
  std::string format = "table";
  std::string block;
  std::string outputDir;  // one file per block
  bool raw = false;
  bool request = false;  // the data is a request: the input blocks
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
  bool request = false;
};
struct RealtimeOptions {
  CommonOptions common;
  std::string stream;
  std::string block;
  std::string format = "table";
  bool raw = false;
  int32_t keep = 0;  // 0: every record of the stream
};

int runInspect(const CommonOptions& options);
int runDecode(const DecodeOptions& options);
int runEncode(const EncodeOptions& options);
int runHexdump(const HexdumpOptions& options);
int runRealtime(const RealtimeOptions& options);

Format parseFormat(const std::string& name);

}  // namespace blockproc::cli
