#pragma once
// Shared pieces of the blockproc command-line tool: exit codes, failures, input and output, loading a
// definition, and rendering records as aligned tables, CSV and JSON.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Progress.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/engine/DefinitionLoader.h"
#include "blockproc/engine/FieldDecoder.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/engine/LayoutCheck.h"
#include "blockproc/engine/RecordView.h"
#include "blockproc/engine/TransactionProc.h"

namespace blockproc::cli {

using internal::printable;
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
// The whole file, or standard input for "-", read through InputStream; a file that cannot be opened (a
// directory, a missing file) fails with kExitUsage.
std::string readInput(const std::string& path);
// Writes all the bytes to the descriptor, again after an interruption; fails with kExitData, naming `name`.
void writeAll(int fd, std::string_view bytes, const std::string& name);
// The path as messages name it: "standard input" for "-".
std::string sourceName(const std::string& path);
// The arguments main() got (argv, ending in a null pointer), kept for a program started in this one's place;
// a program name alone until main() keeps them.
void keepCommandLine(char** argv) noexcept;
char** keptCommandLine() noexcept;

// Output text gathered in one buffer and written in large chunks to a file or standard output. A failed
// open, write or close ends the command with kExitData and a message naming the file.
class Output {
 public:
  // Standard output for "" or "-", else the file, created or truncated.
  explicit Output(const std::string& path);
  // The file `name` of the open directory `dirFd`, created or truncated; `shown` names it in messages. The
  // name is one component of a path (never "/", "." or ".."), and a symbolic link of that name is refused
  // rather than followed, so that the file written is in that directory whatever the name holds.
  Output(int dirFd, const std::string& name, const std::string& shown);
  // Text kept in memory only, for a caller that writes it out elsewhere: spill and finish do nothing.
  Output() = default;
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  std::string& text() noexcept { return m_text; }
  // Writes the buffer out once it holds a chunk; called between records.
  void spill();
  // Writes everything gathered now, whatever its size (a followed feed shows each record as it comes).
  void flush() {
    if (m_fd >= 0 && !m_text.empty()) writeAll();
  }
  // Adds text gathered elsewhere after the text gathered here: written out straight from `text` (no copy)
  // when this writes to a file or standard output, else appended.
  void write(std::string_view text);
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
  Warnings() = default;
  // Keeps the messages (held()) instead of showing them, for a thread that decodes a piece.
  explicit Warnings(bool hold) : m_hold(hold) {}
  void add(const std::string& message);
  const std::vector<std::string>& held() const noexcept { return m_held; }
  // Adds a piece's warnings as if they had been added here: its held messages, then the rest of its count.
  void absorb(const Warnings& piece);
  // Forgets the held messages and the count.
  void clear() noexcept {
    m_held.clear();
    m_count = 0;
  }
  int64_t count() const noexcept { return m_count; }
  // Says how many were not shown, if any.
  void close() const;

 private:
  int64_t m_count = 0;
  bool m_hold = false;
  std::vector<std::string> m_held;
};

// ---- records as text --------------------------------------------------------------------------------------

// What a field flagged `password` shows instead of its value, whatever its length or bytes.
constexpr std::string_view kSecretMask = "********";

// One column of a block's records: a field's value, or the attribute byte after it.
struct Column {
  const FieldInfo* field;
  bool attr;
  std::string name;             // the field name, "<field>@attr" for the attribute byte
  std::string shown;            // the name as text output shows it (printable)
  bool masked;                  // a password's value, shown as kSecretMask
  value::FieldDecoder decoder;  // the field's decoder in the block's encoding
};
// The block's columns; a password field's value is masked unless `showSecrets`.
std::vector<Column> columnsOf(const KXBlockDataProc& proc, bool showSecrets);

// The members JSON Lines puts ahead of a record's fields: its block's name and its number in the block. They
// hold '@', which no field name may, so that no field can take their place.
constexpr std::string_view kJsonlBlockKey = "@block";
constexpr std::string_view kJsonlRecordKey = "@record";

// How records are rendered.
struct RenderOptions {
  Format format = Format::Table;
  bool raw = false;          // the processor's display strings instead of canonical values
  bool showSecrets = false;  // password fields in clear instead of kSecretMask
};

// Where a block's cells are read: its records where they lie, its name for messages, and the encoding the
// processor's display strings read text in (--raw).
struct CellSource {
  RecordView records;
  std::string block;
  uint32_t displayEncoding = 0;
};
// The records the processor holds, read in its buffer.
CellSource cellSource(const KXBlockDataProc& proc);

// Appends the column's value in record `index`: canonical (or the processor's display string when raw),
// "0x35" for an attribute byte, kSecretMask for a masked column (which never warns). Returns what kept the
// value from being plain; `warnings`, when given, is told of it with block, record, field and byte offset.
// `record` is the number messages give the record (record `index` of a piece of a longer block); -1 gives
// `index`.
value::RenderResult appendCell(std::string& out, const CellSource& source, const Column& column,
                               int64_t index, value::BadByteStyle style, bool raw, Warnings* warnings,
                               int64_t record = -1);
// The text padded with spaces to `width` display columns (a Hangul syllable takes two).
std::string padded(std::string_view text, size_t width, bool right);
// Appends `text` padded to `width` display columns.
void appendPadded(std::string& out, std::string_view text, size_t width, bool right);

// Rows under a header line, each column as wide as its widest cell; no trailing spaces.
std::string renderTable(const std::vector<std::string>& header, const std::vector<bool>& right,
                        const std::vector<std::vector<std::string>>& rows);
// Writes blocks' records in the chosen format as they come, a piece of a block at a time, so that nothing
// holds the whole output: table columns are as wide as the field's widest value, from the definition. JSON
// opens at construction and closes at finish(); for tables and long form a block title goes ahead of each
// block.
class RecordWriter {
 public:
  RecordWriter(Output& out, std::string code, const RenderOptions& options, Warnings& warnings);
  ~RecordWriter();
  RecordWriter(const RecordWriter&) = delete;
  RecordWriter& operator=(const RecordWriter&) = delete;

  // Starts a block of `count` records, or of records up to the end of the input when `count` is -1 (a table
  // then gives the count after them).
  void beginBlock(const KXBlockDataProc& proc, int64_t count);
  // As beginBlock, the records shown as a repeated block's when `repeated` (a real-time stream's records,
  // say), one record's fields otherwise, whatever the block definition says.
  void beginBlock(const KXBlockDataProc& proc, int64_t count, bool repeated);
  // The records of the block begun, read where they lie, numbered from `first`.
  void records(const RecordView& records, int64_t first);
  // The processor's valid records (the block begun), numbered from `first`.
  void records(const KXBlockDataProc& proc, int64_t first) { records(RecordView::of(proc), first); }
  // Records of the block begun decoded a piece at a time on `jobs` threads kept for the whole block (the
  // caller's among them), and written in the order the pieces were handed over: the same text as records()
  // of each piece in turn. While the other threads decode, the caller fills the next pieces; the pieces
  // decoded are written out each time it asks for a buffer, and when every buffer is taken it decodes one
  // itself. A thread's failure is thrown by the call that would write its piece.
  class Pieces {
   public:
    Pieces(RecordWriter& writer, int32_t jobs);
    // Stops the threads; pieces not yet written are dropped (finish() writes them).
    ~Pieces();
    Pieces(const Pieces&) = delete;
    Pieces& operator=(const Pieces&) = delete;

    // Room for the next piece's `size` bytes, kept from piece to piece and not cleared, once a buffer is
    // free.
    char* buffer(size_t size);
    // Hands over the first `size` bytes of the buffer buffer() gave, whole records numbered from `first`;
    // with `reverse`, the last record of the piece comes first (a stream read newest first).
    void submit(int64_t size, int64_t first, bool reverse);
    // The same for `size` bytes at `bytes`, which must stay valid until finish() returns.
    void submit(const char* bytes, int64_t size, int64_t first, bool reverse);
    // Writes every piece handed over, in order.
    void finish();

   private:
    struct Slot;
    struct Shared;
    struct Decoder;
    Slot& room();
    void hand(Slot& slot, const char* bytes, int64_t size, int64_t first, bool reverse);
    bool decodeOne();
    void writeDone(bool wait);
    void stop() noexcept;
    void work();
    RecordWriter& m_writer;
    std::unique_ptr<Shared> m_shared;
    std::unique_ptr<Decoder> m_mine;  // the caller's
    std::vector<std::thread> m_threads;
  };
  void endBlock();
  void finish();

 private:
  struct State;
  explicit RecordWriter(std::unique_ptr<State> state);
  std::unique_ptr<State> m_state;
};

// Writes every valid record of the blocks through one RecordWriter.
void renderBlocks(Output& out, const std::string& code, const std::vector<const KXBlockDataProc*>& blocks,
                  const RenderOptions& options, Warnings& warnings);

// Bytes of a file or of standard input, read a piece at a time.
class InputStream {
 public:
  // Opens the file, or standard input for "-"; one that cannot be opened fails with kExitUsage.
  explicit InputStream(const std::string& path);
  ~InputStream();
  InputStream(const InputStream&) = delete;
  InputStream& operator=(const InputStream&) = delete;

  // Appends `n` bytes to `buf`, fewer only at the end of the input; returns how many. Fails with kExitData.
  size_t read(std::string& buf, size_t n);
  // Reads `n` bytes to `to`, fewer only at the end of the input; returns how many. Fails with kExitData.
  size_t read(char* to, size_t n);
  // Copies standard input into an unnamed temporary file, so that it can be read at any offset.
  void makeSeekable();
  // Appends what arrives within `waitMs` milliseconds, at most `n` bytes, from one read; returns how many (0
  // when nothing came in time or a signal came). A pipe that closes ends the input; a regular file never
  // does, for it may still be growing. Fails with kExitData.
  size_t readArrived(std::string& buf, size_t n, int waitMs);
  // Reads `n` bytes at `offset` of a seekable input into `to`; fails with kExitData.
  void readAt(char* to, size_t n, int64_t offset);
  // The whole of a seekable input mapped into memory (pages are read as they are touched), valid while this
  // stream lives; fails with kExitData.
  std::string_view map();
  bool atEnd() const noexcept { return m_end; }
  int64_t size() const noexcept { return m_size; }  // a regular file's size, else -1
  int descriptor() const noexcept { return m_fd; }
  const std::string& name() const noexcept { return m_name; }

 private:
  int m_fd = -1;
  bool m_own = false, m_end = false;
  int64_t m_size = -1;
  std::string m_name;
  void* m_map = nullptr;
};

// Bytes read at a time from a block read to the end of its input, unless --chunk-bytes says otherwise.
constexpr int64_t kDefaultChunkBytes = int64_t{4} << 20;
// With --jobs, the most bytes of records in one piece: a piece and its text stay in the core's cache until
// the text is written out, and small pieces keep both threads busy from the first one to the last
// (docs/benchmarks.md, "decode --jobs", has the sizes tried).
constexpr int64_t kMaxPieceBytes = int64_t{128} << 10;

// Bytes of whole `recordSize`-byte records read at a time: a chunk for one job; for `jobs` threads, a piece
// of the chunk shared among them, at most kMaxPieceBytes.
inline int64_t pieceBytes(int64_t chunk, int32_t jobs, int64_t recordSize) {
  const int64_t share = jobs > 1 ? std::min(chunk / jobs, kMaxPieceBytes) : chunk;
  return std::max<int64_t>(share / recordSize, 1) * recordSize;
}

// ---- subcommands ------------------------------------------------------------------------------------------

struct DecodeOptions {
  CommonOptions common;
  std::string reply;
  std::string format = "table";
  std::string block;
  std::string outputDir;  // one file per block
  bool raw = false;
  bool showSecrets = false;
  bool request = false;    // the data is a request: the input blocks
  bool quiet = false;      // no progress line
  int64_t chunkBytes = 0;  // bytes read at a time from a count="rest" block; 0: the default
  int32_t jobs = 1;        // threads decoding pieces of a count="rest" block side by side
};
struct EncodeOptions {
  CommonOptions common;
  std::string values;
  std::string output;
  std::string format = "json";
  std::string
      block;  // CSV's block; with stream, the stream's block; else the block of JSON lines without one
  bool reply = false;
  bool stream = false;     // a real-time stream: the records of `block` back to back
  bool quiet = false;      // no line naming the fields that took their defaults
  bool strict = false;     // refuse a record or block that leaves a field out
  int64_t chunkBytes = 0;  // bytes of input read at a time; 0: the default
};
struct HexdumpOptions {
  CommonOptions common;
  std::string reply;
  bool request = false;
  bool stream = false;    // the data is real-time records of `block` back to back
  std::string block;      // the stream's block
  int64_t records = 100;  // records shown of each block; a line says how many more there are
  bool showSecrets = false;
};
struct RealtimeOptions {
  CommonOptions common;
  std::string stream;
  std::string block;
  std::string format = "table";
  bool raw = false;
  bool showSecrets = false;
  int32_t keep = 0;              // 0: every record of the stream
  std::string order = "newest";  // or "arrival": the records in the order they were received
  bool orderGiven = false;       // --order was given
  bool follow = false;           // print each record as it arrives, until the feed closes or Ctrl-C
  bool quiet = false;
  int64_t chunkBytes = 0;
  int32_t jobs = 1;
};

struct CheckOptionsCli {
  CommonOptions common;
  std::string data;
  std::string block;
  std::string format = "text";
  bool request = false;
  bool stream = false;
};

int runInspect(const CommonOptions& options);
int runCheck(const CheckOptionsCli& options);
int runDecode(const DecodeOptions& options);
int runEncode(const EncodeOptions& options);
int runHexdump(const HexdumpOptions& options);
int runRealtime(const RealtimeOptions& options);

Format parseFormat(const std::string& name);

// The command line of `blockproc check` for the data, escaped for a terminal.
std::string checkCommand(const CommonOptions& common, const std::string& data, check::DataKind kind,
                         const std::string& block);
// For data that is not whole records: "; 81-byte records would make it exactly 100,000 records" when a
// record size near the defined one does, then a line naming the likeliest explanation the layout check
// finds; `cutShort` says whether that is the data ending inside a record. "" when the check cannot be made.
std::string layoutAdvice(const Session& session, std::string_view data, check::DataKind kind,
                         const std::string& block, bool& cutShort);

}  // namespace blockproc::cli
