#pragma once
// Records read back from the text decode writes, one at a time, for encode: CSV rows of one block, JSON
// Lines, the JSON document (or a values file) and the long form. Each reader holds one piece of its input at
// a time, so that a capture of any size is read in constant memory, and hands over a record's names and
// values as views of that piece: a value is copied only when the input does not hold it as it stands (a
// JSON string with escapes, a CSV cell with doubled quotes).

#include <cstdint>
#include <deque>
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

// Strings that stay where they are while more are added, so that views of them stay valid until clear(),
// which keeps their room for reuse.
class TextPool {
 public:
  // An empty string of the pool to fill.
  std::string& next() {
    if (m_used == m_texts.size()) m_texts.emplace_back();
    std::string& text = m_texts[m_used++];
    text.clear();
    return text;
  }
  // A copy of `text` in the pool.
  std::string_view add(std::string_view text) { return next().assign(text); }
  void clear() noexcept { m_used = 0; }

 private:
  std::deque<std::string> m_texts;
  size_t m_used = 0;
};

// One record as the input gives it. The views stay valid until the reader's next call.
struct InputRecord {
  std::string block;    // the block's name
  int64_t record = -1;  // the record number the input gives, or -1 when it gives none
  int64_t line = 0;     // the input line the record starts on
  std::vector<std::pair<std::string_view, std::string_view>> fields;  // field name and value, as given
  std::vector<std::pair<std::string_view, uint8_t>> attrs;            // field name and attribute byte
  std::vector<std::string_view> nulls;                                // fields given JSON null
  TextPool kept;  // values a reader copied because its input moves on before the record is taken

  RecordValueViews values() const noexcept { return {fields, attrs, nulls}; }
};

// Bytes of an input held a piece at a time, with the line the reader stands on.
//
// A reader arms the source at the start of a record and hands out views of the bytes held. While it is
// armed, the held bytes never move: a record that goes on past them throws NeedMore instead of reading on,
// and the reader goes back to where it armed (rewind, which reads more) and reads the record again. A
// record is thus read from one piece, however the input was cut, and a piece is read again only when a
// record straddles its end.
class ByteSource {
 public:
  // Thrown by refill while armed, when the input goes on.
  struct NeedMore {};

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
  // Takes `n` held bytes, counting their line breaks.
  void skipLines(size_t n) noexcept;
  // Reads more of the input; false at its end. While armed, throws NeedMore rather than move the bytes held
  // (at the end of the input it gives whether bytes are held, as always).
  bool refill();
  // Views of the bytes held from here on stay valid until disarm or rewind.
  void arm() noexcept {
    m_armed = true;
    m_mark = m_pos;
    m_markLine = m_line;
  }
  void disarm() noexcept { m_armed = false; }
  // Back to where arm() was called, disarmed, with more of the input held: at least as much again as is
  // held, so that a long record is read again only a few times.
  void rewind();

 private:
  InputStream& m_in;
  size_t m_chunk;
  std::string m_buf;
  size_t m_pos = 0, m_mark = 0;
  int64_t m_line = 1, m_markLine = 1;
  bool m_armed = false;
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
