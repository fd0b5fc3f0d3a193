#pragma once
// Records read back from the text decode writes, one at a time, for encode: CSV rows of one block, JSON
// Lines, the JSON document (or a values file) and the long form. Each reader holds one piece of its input at
// a time, so that a capture of any size is read in constant memory.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Cli.h"

namespace blockproc::cli {

// The keys of a JSON Lines record that say where it belongs; every other key is a field.
namespace jsonl_keys {
inline constexpr std::string_view kBlock = "@block";
inline constexpr std::string_view kRecord = "@record";
}  // namespace jsonl_keys

// One record as the input gives it.
struct InputRecord {
  std::string block;        // the block's name
  int64_t record = -1;      // the record number the input gives, or -1 when it gives none
  int64_t line = 0;         // the input line the record starts on
  RecordValues values;      // fields in the order given; a JSON null is the empty value
  std::vector<bool> nulls;  // per field of `values`: it was a JSON null
  size_t fieldCount = 0;    // values.fields[0 .. fieldCount) are this record's (the rest are kept for reuse)
  size_t attrCount = 0;     // likewise values.attrs
};

// Bytes of an input held a piece at a time, with the line the reader stands on.
class ByteSource {
 public:
  // Reads `chunk` bytes at a time.
  ByteSource(InputStream& in, size_t chunk) : m_in(in), m_chunk(chunk) {}
  // The next byte without taking it, or -1 at the end of the input.
  int peek() {
    if (m_pos < m_buf.size()) return static_cast<uint8_t>(m_buf[m_pos]);
    return refill() ? static_cast<uint8_t>(m_buf[m_pos]) : -1;
  }
  // Takes the byte peek() gave (not the end), counting lines.
  void take() {
    if (m_buf[m_pos++] == '\n') ++m_line;
  }
  int64_t line() const noexcept { return m_line; }
  const std::string& name() const noexcept { return m_in.name(); }
  // The bytes held from the current one on, for a reader that scans a run of them at once.
  std::string_view held() const noexcept { return std::string_view(m_buf).substr(m_pos); }
  // Takes `n` held bytes holding no line break.
  void skip(size_t n) noexcept { m_pos += n; }
  // Reads more of the input; false at its end.
  bool refill();

 private:
  InputStream& m_in;
  size_t m_chunk;
  std::string m_buf;
  size_t m_pos = 0;
  int64_t m_line = 1;
};

// Gives the records of an input in order; a reader refuses malformed input with a Failure (kExitData) naming
// the input and its line.
class RecordReader {
 public:
  virtual ~RecordReader() = default;
  // Fills `record` with the next record; false at the end of the input.
  virtual bool next(InputRecord& record) = 0;
};

// What a reader is told besides its input.
struct ReaderOptions {
  std::string csvBlock;            // the block of CSV rows
  std::string code;                // the transaction code a JSON document's "code", when it has one, must be
  std::string defaultBlock;        // the block of JSON lines without a block key ("" refuses them)
  size_t chunk = size_t{1} << 20;  // bytes read at a time
};

// The reader of `format` (not Table).
std::unique_ptr<RecordReader> makeRecordReader(Format format, InputStream& in, const ReaderOptions& options);

}  // namespace blockproc::cli
