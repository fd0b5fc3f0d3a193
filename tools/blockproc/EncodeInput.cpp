// Readers of the forms decode writes, for encode. A JSON number is kept as the text it was written in, never
// turned into a binary float, so that a number of any size or precision reaches the field's check exactly.

#include "EncodeInput.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <vector>

#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/Utf8.h"

namespace blockproc::cli {

bool ByteSource::refill() {
  if (m_armed) {
    if (m_in.atEnd()) return m_pos < m_buf.size();
    throw NeedMore{};
  }
  m_buf.erase(0, m_pos);
  m_pos = 0;
  if (m_in.atEnd()) return !m_buf.empty();
  m_in.read(m_buf, m_chunk);
  return !m_buf.empty();
}

void ByteSource::skipLines(size_t n) noexcept {
  const char* from = m_buf.data() + m_pos;
  m_line += std::count(from, from + n, '\n');
  m_pos += n;
}

void ByteSource::rewind() {
  m_armed = false;
  m_pos = m_mark;
  m_line = m_markLine;
  m_buf.erase(0, m_pos);
  m_pos = 0;
  if (!m_in.atEnd()) m_in.read(m_buf, std::max(m_chunk, m_buf.size()));
}

namespace {

constexpr std::string_view kAttrSuffix = "@attr";
constexpr std::string_view kHexSuffix = "@hex";

[[noreturn]] void refuse(const std::string& source, int64_t line, const std::string& why) {
  throw Failure{kExitData, source + ", line " + std::to_string(line) + ": " + why};
}

// "block B, record 3, field f", less the parts not known yet (a JSON line may give its block last; its
// number is counted later).
std::string whereOf(const std::string& block, int64_t record, std::string_view field) {
  if (record >= 0 && !block.empty()) {
    std::string at;
    value::appendWhere(at, block, record, field);
    return at;
  }
  return (block.empty() ? "" : "block " + block + ", ") + "field " + std::string(field);
}

// Decimal digits, or one or two hexadecimal ones behind "0x": the value when it is a byte (0 to 255), else
// -1.
int byteFromText(std::string_view text) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  if (hex) text.remove_prefix(2);
  if (text.empty() || (hex && text.size() > 2) || text.front() == '+' || text.front() == '-') return -1;
  const num::WholeInt byte = num::parseWholeInt(text, 0, 255, hex ? 16 : 10);
  return byte.isNumber && !byte.clamped ? static_cast<int>(byte.value) : -1;
}

// Whether a value under `key` is a field's own, not an attribute byte or bytes shown as hexadecimal.
bool namesFieldValue(std::string_view key) {
  return !key.ends_with(kHexSuffix) && !key.ends_with(kAttrSuffix);
}

// Puts one value of the record in place: an attribute byte under "<field>@attr", else a field's value.
// `number` says the value was a JSON number (an attribute byte is then decimal digits only), `null` a JSON
// null. The views must stay valid until the record is taken.
void addValue(InputRecord& r, const ByteSource& src, std::string_view key, std::string_view text, bool number,
              bool null = false) {
  if (key.ends_with(kHexSuffix))
    refuse(src.name(), r.line,
           whereOf(r.block, r.record, key) +
               ": decode shows bytes that are not text this way; they cannot be encoded back");
  if (key.size() > kAttrSuffix.size() && key.ends_with(kAttrSuffix)) {
    const int byte =
        number && text.find_first_not_of("0123456789") != std::string_view::npos ? -1 : byteFromText(text);
    if (byte < 0)
      refuse(src.name(), r.line,
             whereOf(r.block, r.record, key) +
                 ": must be an attribute byte: 0 to 255, or hexadecimal text such as \"0x35\"");
    r.attrs.emplace_back(key.substr(0, key.size() - kAttrSuffix.size()), static_cast<uint8_t>(byte));
    return;
  }
  if (null)
    r.nulls.push_back(key);
  else
    r.fields.emplace_back(key, text);
}

// Empties the record's values (keeping their room).
void clearValues(InputRecord& r) {
  r.fields.clear();
  r.attrs.clear();
  r.nulls.clear();
  r.kept.clear();
}

void beginRecord(InputRecord& r, int64_t line) {
  r.block.clear();
  r.record = -1;
  r.line = line;
  clearValues(r);
}

// ---- JSON -------------------------------------------------------------------------------------------------

// Bytes that end a run of a JSON string's plain bytes: the closing quote, an escape, a control character.
constexpr std::array<bool, 256> kJsonStringStop = [] {
  std::array<bool, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[static_cast<size_t>(c)] = true;
  table['"'] = table['\\'] = true;
  return table;
}();

// Bytes a JSON number is made of.
constexpr std::array<bool, 256> kJsonNumeric = [] {
  std::array<bool, 256> table{};
  for (const char c : std::string_view("0123456789-+.eE")) table[static_cast<uint8_t>(c)] = true;
  return table;
}();

// The bytes of a JSON string up to its closing quote, an escape or a control character. (Looking at eight
// bytes at a time was slower on names and values of a few bytes.)
size_t stringRun(std::string_view text) {
  size_t n = 0;
  while (n < text.size() && !kJsonStringStop[static_cast<uint8_t>(text[n])]) ++n;
  return n;
}

bool jsonNumeric(char c) {
  return kJsonNumeric[static_cast<uint8_t>(c)];
}

// The tokens of JSON text read from a byte source. A string's contents and a number's text come back as a
// view of the bytes held (valid while the source is armed, or until the next token), a string with escapes
// decoded into the lexer's pool (valid until clearPool).
class JsonLexer {
 public:
  enum class Token {
    End,
    BeginObject,
    EndObject,
    BeginArray,
    EndArray,
    Colon,
    Comma,
    String,
    Number,
    Literal
  };

  explicit JsonLexer(ByteSource& src) : m_src(src) {}

  // The next token; `text` holds a string's contents, a number's text or a literal (true, false, null).
  Token next(std::string_view& text) {
    skipSpace();
    m_line = m_src.line();
    const int c = m_src.peek();
    if (c < 0) return Token::End;
    switch (c) {
      case '{':
        return single(Token::BeginObject);
      case '}':
        return single(Token::EndObject);
      case '[':
        return single(Token::BeginArray);
      case ']':
        return single(Token::EndArray);
      case ':':
        return single(Token::Colon);
      case ',':
        return single(Token::Comma);
      case '"':
        m_src.take();
        text = readString();
        return Token::String;
      default:
        break;
    }
    if (c == '-' || (c >= '0' && c <= '9')) {
      text = readNumber();
      return Token::Number;
    }
    text = readLiteral();
    return Token::Literal;
  }

  // Takes the punctuation `c` when it is the next token (the common case, without the general dispatch);
  // false, nothing taken, when another token follows.
  bool takeIf(char c) {
    skipSpace();
    m_line = m_src.line();
    if (m_src.peek() != static_cast<uint8_t>(c)) return false;
    m_src.take();
    return true;
  }

  // A member as decode writes it, "name":value with a string or number value, no white space and no escape,
  // read straight off the bytes held: its name, the value's token and text. False, nothing taken, for any
  // other member (or one that goes on past the bytes held), which the tokens then read.
  bool plainMember(std::string_view& name, Token& t, std::string_view& text) {
    const std::string_view held = m_src.held();
    if (held.empty() || held[0] != '"') return false;
    const size_t nameEnd = 1 + stringRun(held.substr(1));
    if (nameEnd + 2 >= held.size() || held[nameEnd] != '"' || held[nameEnd + 1] != ':') return false;
    const std::string_view rest = held.substr(nameEnd + 2);
    size_t taken = 0;
    if (rest[0] == '"') {
      const size_t n = stringRun(rest.substr(1));
      if (n + 1 >= rest.size() || rest[n + 1] != '"') return false;
      t = Token::String;
      text = rest.substr(1, n);
      taken = n + 2;
    } else if (rest[0] == '-' || (rest[0] >= '0' && rest[0] <= '9')) {
      const size_t n = numberLength(rest);
      if (n == 0 || n >= rest.size() || jsonNumeric(rest[n])) return false;
      t = Token::Number;
      text = rest.substr(0, n);
      taken = n;
    } else {
      return false;
    }
    name = held.substr(1, nameEnd - 1);
    m_line = m_src.line();
    m_src.skip(nameEnd + 2 + taken);
    return true;
  }

  // The line the last token started on.
  int64_t line() const noexcept { return m_line; }
  ByteSource& source() const noexcept { return m_src; }
  // Lets go of the strings decoded so far.
  void clearPool() noexcept { m_pool.clear(); }
  [[noreturn]] void fail(const std::string& why) const {
    refuse(m_src.name(), m_line, "not valid JSON: " + why);
  }

 private:
  Token single(Token t) {
    m_src.take();
    return t;
  }

  void skipSpace() {
    for (int c = m_src.peek(); c == ' ' || c == '\n' || c == '\r' || c == '\t'; c = m_src.peek())
      m_src.take();
  }

  // A string's contents after its opening quote: a view of the bytes held when they hold it whole without
  // an escape (the common case), else decoded into the pool.
  std::string_view readString() {
    const std::string_view held = m_src.held();
    const size_t n = stringRun(held);
    if (n < held.size() && held[n] == '"') {
      m_src.skip(n + 1);
      return held.substr(0, n);
    }
    std::string& out = m_pool.next();
    for (;;) {
      const std::string_view rest = m_src.held();
      const size_t k = stringRun(rest);
      out.append(rest.data(), k);
      m_src.skip(k);
      if (k == rest.size() && m_src.refill()) continue;
      const int c = m_src.peek();
      if (c < 0) fail("the input ends inside a string");
      if (c < 0x20) fail("a control character stands unescaped inside a string");
      m_src.take();
      if (c == '"') return out;
      readEscape(out);
    }
  }

  int hexDigit() {
    const int c = m_src.peek();
    if (c >= '0' && c <= '9') return m_src.take(), c - '0';
    if (c >= 'a' && c <= 'f') return m_src.take(), c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return m_src.take(), c - 'A' + 10;
    fail("\\u takes four hexadecimal digits");
  }

  char32_t unit() {
    char32_t value = 0;
    for (int i = 0; i < 4; ++i) value = value * 16 + static_cast<char32_t>(hexDigit());
    return value;
  }

  void readEscape(std::string& out) {
    const int c = m_src.peek();
    if (c < 0) fail("the input ends inside a string");
    m_src.take();
    static constexpr std::string_view kFrom = "\"\\/bfnrt", kTo = "\"\\/\b\f\n\r\t";
    if (const size_t k = kFrom.find(static_cast<char>(c)); k != std::string_view::npos) {
      out += kTo[k];
      return;
    }
    if (c != 'u') fail(std::string("unknown escape \\") + static_cast<char>(c));
    char32_t code = unit();
    if (code >= 0xD800 && code <= 0xDBFF) {  // a high surrogate takes the low one after it
      if (m_src.peek() != '\\') fail("a lone surrogate \\u escape");
      m_src.take();
      if (m_src.peek() != 'u') fail("a lone surrogate \\u escape");
      m_src.take();
      const char32_t low = unit();
      if (low < 0xDC00 || low > 0xDFFF) fail("a lone surrogate \\u escape");
      code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    }
    char bytes[4];
    const size_t n = utf8::encode(code, bytes);
    if (n == 0) fail("a lone surrogate \\u escape");
    out.append(bytes, n);
  }

  // -? (0 | [1-9][0-9]*) (. [0-9]+)? ([eE] [+-]? [0-9]+)?
  static size_t numberLength(std::string_view out) {
    size_t i = out[0] == '-' ? 1 : 0;
    const auto digits = [&] {
      const size_t from = i;
      while (i < out.size() && out[i] >= '0' && out[i] <= '9') ++i;
      return i - from;
    };
    const size_t whole = digits();
    bool ok = whole > 0 && !(whole > 1 && out[i - whole] == '0');
    if (ok && i < out.size() && out[i] == '.') ++i, ok = digits() > 0;
    if (ok && i < out.size() && (out[i] == 'e' || out[i] == 'E')) {
      ++i;
      if (i < out.size() && (out[i] == '+' || out[i] == '-')) ++i;
      ok = digits() > 0;
    }
    return ok ? i : 0;
  }

  // A number in one pass over the bytes held when they go on past it (the common case); else its run of
  // bytes gathered and checked whole.
  std::string_view readNumber() {
    const std::string_view held = m_src.held();
    const size_t length = numberLength(held);
    if (length > 0 && length < held.size() && !jsonNumeric(held[length])) {
      m_src.skip(length);
      return held.substr(0, length);
    }
    return readNumberRun();
  }

  std::string_view readNumberRun() {
    const std::string_view held = m_src.held();
    size_t n = 0;
    while (n < held.size() && jsonNumeric(held[n])) ++n;
    std::string_view out = held.substr(0, n);
    m_src.skip(n);
    if (n == held.size()) {  // the number may go on past the bytes held: copied before they move
      std::string& text = m_pool.next();
      text.assign(out);
      while (m_src.refill()) {
        const std::string_view rest = m_src.held();
        size_t k = 0;
        while (k < rest.size() && jsonNumeric(rest[k])) ++k;
        text.append(rest.data(), k);
        m_src.skip(k);
        if (k < rest.size()) break;
      }
      out = text;
    }
    if (numberLength(out) != out.size()) fail("'" + std::string(out) + "' is not a JSON number");
    return out;
  }

  std::string_view readLiteral() {
    char word[8];
    size_t n = 0;
    for (int c = m_src.peek(); c >= 'a' && c <= 'z' && n < sizeof word; c = m_src.peek()) {
      word[n++] = static_cast<char>(c);
      m_src.take();
    }
    const std::string_view got(word, n);
    for (const std::string_view literal :
         {std::string_view("true"), std::string_view("false"), std::string_view("null")})
      if (got == literal) return literal;
    const int c = m_src.peek();
    fail(n == 0 ? (c < 0x20 || c > 0x7E ? std::string("unexpected byte")
                                        : std::string("unexpected '") + static_cast<char>(c) + "'")
                : "unexpected '" + std::string(got) + "'");
  }

  ByteSource& m_src;
  TextPool m_pool;
  int64_t m_line = 1;
};

using Token = JsonLexer::Token;

// Reads the members of a record's object after its '{' into `r`. With `keys`, the JSON Lines keys give the
// record's block and number.
void readMembers(JsonLexer& lex, InputRecord& r, bool keys) {
  std::string_view key, text;
  Token t = Token::End;
  if (lex.takeIf('}')) return;
  for (;;) {
    if (!lex.plainMember(key, t, text)) {
      t = lex.next(text);
      if (t != Token::String) lex.fail("a member name must be a string");
      key = text;
      if (!lex.takeIf(':') && lex.next(text) != Token::Colon) lex.fail("':' must follow a member name");
      t = lex.next(text);
    }
    const bool value = t == Token::String || t == Token::Number || (t == Token::Literal && text == "null");
    if (keys && key == jsonl_keys::kBlock) {
      if (t != Token::String || !r.block.empty())
        refuse(lex.source().name(), r.line,
               "\"" + std::string(key) + "\" must be given once, as the block's name");
      r.block = text;
    } else if (keys && key == jsonl_keys::kRecord) {
      const num::WholeInt n = num::parseWholeDigits(text, 0, INT64_MAX);
      if (t != Token::Number || !n.isNumber || n.clamped || r.record >= 0)
        refuse(lex.source().name(), r.line,
               "\"" + std::string(key) + "\" must be given once, as a record number");
      r.record = n.value;
    } else if ((t == Token::String || t == Token::Number) && namesFieldValue(key)) {
      r.fields.emplace_back(key, text);  // the usual member, without addValue's set-up for its refusals
    } else if (value) {
      addValue(r, lex.source(), key, t == Token::Literal ? std::string_view() : text, t == Token::Number,
               t == Token::Literal);
    } else {
      if (t == Token::End || t == Token::Comma || t == Token::Colon || t == Token::EndObject ||
          t == Token::EndArray)
        lex.fail("a value must follow '" + std::string(key) + "':");
      refuse(lex.source().name(), lex.line(),
             whereOf(r.block, r.record, key) + ": must be a string, a number or null");
    }
    if (!lex.takeIf(',')) {
      if (lex.takeIf('}')) return;
      t = lex.next(text);
      if (t == Token::EndObject) return;
      if (t != Token::Comma) lex.fail("',' or '}' must follow a member");
    }
  }
}

// readMembers with the source armed, so that the record's views stay valid; a record that goes on past the
// bytes held is read again from its '{' with more of them. `r` holds what it held before its members.
void readRecord(JsonLexer& lex, InputRecord& r, bool keys) {
  const std::string block = keys ? std::string() : r.block;
  for (;;) {
    lex.source().arm();
    lex.clearPool();
    try {
      readMembers(lex, r, keys);
      lex.source().disarm();
      return;
    } catch (const ByteSource::NeedMore&) {
      lex.source().rewind();
      clearValues(r);
      r.block = block;
      r.record = keys ? -1 : r.record;
    }
  }
}

// One JSON object per record, each naming its block (unless a default block stands in) and its number.
class JsonLinesReader : public RecordReader {
 public:
  JsonLinesReader(InputStream& in, const ReaderOptions& o)
      : m_src(in, o.chunk), m_lex(m_src), m_default(o.defaultBlock) {}

  bool next(InputRecord& r) override {
    std::string_view text;
    const Token t = m_lex.next(text);
    if (t == Token::End) return false;
    beginRecord(r, m_lex.line());
    if (t != Token::BeginObject) m_lex.fail("each line must be a JSON object: one record");
    readRecord(m_lex, r, true);
    if (r.block.empty()) {
      if (m_default.empty())
        refuse(m_src.name(), r.line,
               "the record has no \"" + std::string(jsonl_keys::kBlock) + "\" key; give it, or --block");
      r.block = m_default;
    }
    return true;
  }

 private:
  ByteSource m_src;
  JsonLexer m_lex;
  std::string m_default;
};

// The JSON document decode writes ({"code": ..., "blocks": {...}}) or a values file (the blocks at the top),
// a block an object (one record) or a list of them, read a record at a time.
class JsonDocumentReader : public RecordReader {
 public:
  JsonDocumentReader(InputStream& in, const ReaderOptions& o)
      : m_src(in, o.chunk), m_lex(m_src), m_code(o.code) {}

  bool next(InputRecord& r) override {
    for (;;) {
      if (m_state == State::Start) {
        if (m_lex.next(m_text) != Token::BeginObject)
          refuse(m_src.name(), m_lex.line(), "the values must be a JSON object of blocks");
        m_state = State::Top;
        m_first = true;
      } else if (m_state == State::List) {
        if (nextInList(r)) return true;
      } else if (!nextMember(r)) {
        return false;
      } else if (m_state == State::Record) {
        m_state = m_blocksOpen ? State::Blocks : State::Top;
        return true;
      }
    }
  }

 private:
  enum class State { Start, Top, Blocks, List, Record, Done };

  // The next member of the top object or of "blocks": false at the end of the document. A block of one
  // record is read into `r` (state Record); a list opens (state List).
  bool nextMember(InputRecord& r) {
    if (m_state == State::Done) return false;
    Token t = m_lex.next(m_text);
    if (!m_first && t == Token::Comma)
      t = m_lex.next(m_text);
    else if (!m_first && t != Token::EndObject)
      m_lex.fail("',' or '}' must follow a member");
    m_first = false;
    if (t == Token::EndObject) return closeObject();
    if (t == Token::End) m_lex.fail("the input ends inside the document");
    if (t != Token::String) m_lex.fail("a member name must be a string");
    m_name = m_text;
    if (m_lex.next(m_text) != Token::Colon) m_lex.fail("':' must follow a member name");
    const int64_t line = m_lex.line();
    t = m_lex.next(m_text);
    if (t == Token::End) m_lex.fail("the input ends before the value of '" + m_name + "'");
    if (m_state == State::Top && m_name == "code") {
      if (t != Token::String || m_text != m_code)
        refuse(m_src.name(), line,
               "\"code\" is " +
                   (t == Token::String ? "\"" + std::string(m_text) + "\"" : std::string(m_text)) +
                   "; the definition is for " + m_code);
      return true;
    }
    if (m_state == State::Top && m_name == "blocks") {
      if (m_anyTopBlock) refuse(m_src.name(), line, m_anyTopBlock->c_str() + beside());
      if (t != Token::BeginObject) refuse(m_src.name(), line, "\"blocks\" must be an object of blocks");
      m_state = State::Blocks;
      m_blocksOpen = m_blocksSeen = true;
      m_first = true;
      return true;
    }
    if (m_state == State::Top) {
      if (m_blocksSeen) refuse(m_src.name(), line, m_name + beside());
      if (!m_anyTopBlock) m_anyTopBlock = m_name;
    }
    return openBlock(r, t, line);
  }

  static std::string beside() { return " stands beside \"blocks\"; give every block inside it"; }

  bool closeObject() {
    if (m_state == State::Blocks) {
      m_state = State::Top;
      m_blocksOpen = false;
      return true;
    }
    if (m_lex.next(m_text) != Token::End) m_lex.fail("more follows the end of the document");
    m_state = State::Done;
    return false;
  }

  bool openBlock(InputRecord& r, Token t, int64_t line) {
    if (t == Token::BeginObject) {
      beginRecord(r, line);
      r.block = m_name;
      r.record = 0;
      readRecord(m_lex, r, false);
      m_state = State::Record;
      return true;
    }
    if (t != Token::BeginArray)
      refuse(m_src.name(), line,
             "block " + m_name + " must be an object (one record) or a list of objects (records)");
    m_parent = m_state;
    m_state = State::List;
    m_index = 0;
    return true;
  }

  // The next record of an open list into `r`: false when the list closed.
  bool nextInList(InputRecord& r) {
    Token t = m_lex.next(m_text);
    if (m_index > 0 && t == Token::Comma)
      t = m_lex.next(m_text);
    else if (m_index > 0 && t != Token::EndArray)
      m_lex.fail("',' or ']' must follow a record");
    if (t == Token::End) m_lex.fail("the input ends inside the list of block " + m_name);
    if (t == Token::EndArray) {
      m_state = m_parent;
      return false;
    }
    beginRecord(r, m_lex.line());
    r.block = m_name;
    r.record = m_index++;
    if (t != Token::BeginObject)
      refuse(
          m_src.name(), r.line,
          "block " + r.block + ", record " + std::to_string(r.record) + " must be an object of field values");
    readRecord(m_lex, r, false);
    return true;
  }

  ByteSource m_src;
  JsonLexer m_lex;
  std::string m_code, m_name;
  std::string_view m_text;  // the last token's text
  std::optional<std::string> m_anyTopBlock;
  State m_state = State::Start, m_parent = State::Top;
  bool m_first = true, m_blocksOpen = false, m_blocksSeen = false;
  int64_t m_index = 0;
};

// ---- CSV --------------------------------------------------------------------------------------------------

constexpr std::array<bool, 256> kCsvStop = [] {
  std::array<bool, 256> table{};
  for (const char c : {',', '"', '\n', '\r'}) table[static_cast<uint8_t>(c)] = true;
  return table;
}();

// Rows of CSV cells: a quoted cell holds commas, line breaks and doubled quotes; a row ends at a line break
// ("\r\n" too) outside quotes. A row is read with the source armed, so that its cells are views of the
// bytes held (a cell with doubled quotes is made in the pool); a row that goes on past them is read again.
class CsvRows {
 public:
  explicit CsvRows(ByteSource& src) : m_src(src) {}

  // Reads the next row into cells[0 .. n), valid until the next call: false at the end of the input. `line`
  // is where the row starts.
  bool next(std::vector<std::string_view>& cells, size_t& n, int64_t& line) {
    if (m_src.peek() < 0) return false;
    for (;;) {
      m_src.arm();
      m_pool.clear();
      try {
        readRow(cells, n, line);
        m_src.disarm();
        return true;
      } catch (const ByteSource::NeedMore&) {
        m_src.rewind();
      }
    }
  }

 private:
  void readRow(std::vector<std::string_view>& cells, size_t& n, int64_t& line) {
    line = m_src.line();
    n = 0;
    for (;;) {
      if (n == cells.size()) cells.emplace_back();
      cells[n++] = readCell(line);
      const int c = m_src.peek();
      if (c < 0) return;
      m_src.take();
      if (c == '\n') return;
      if (c == '\r') {
        if (m_src.peek() == '\n') m_src.take();
        return;
      }
    }
  }

  std::string_view readCell(int64_t line) {
    if (m_src.peek() != '"') return plain();
    m_src.take();
    std::string* joined = nullptr;  // the cell with its doubled quotes made single, once it has one
    std::string_view cell;
    for (;;) {
      const std::string_view held = m_src.held();
      const size_t k = held.find('"');
      const std::string_view piece = held.substr(0, k);
      if (joined != nullptr)
        joined->append(piece);
      else
        cell = piece;
      m_src.skipLines(piece.size());
      if (k == std::string_view::npos) {
        m_src.refill();  // armed: reads the row again with more held, unless the input ends here
        refuse(m_src.name(), line, "the input ends inside a quoted cell");
      }
      m_src.take();
      if (m_src.peek() != '"') break;  // the closing quote
      m_src.take();
      if (joined == nullptr) joined = &m_pool.next(), joined->assign(cell);
      *joined += '"';
    }
    const int c = m_src.peek();
    if (c >= 0 && c != ',' && c != '\n' && c != '\r')
      refuse(m_src.name(), m_src.line(), "a quoted cell must end at a comma or the end of the row");
    return joined != nullptr ? std::string_view(*joined) : cell;
  }

  std::string_view plain() {
    const std::string_view held = m_src.held();
    size_t k = 0;
    while (k < held.size() && !kCsvStop[static_cast<uint8_t>(held[k])]) ++k;
    m_src.skip(k);
    if (m_src.peek() == '"') refuse(m_src.name(), m_src.line(), "a quote stands inside a cell not quoted");
    return held.substr(0, k);
  }

  ByteSource& m_src;
  TextPool m_pool;
};

// A header of field names, then a record of one block per row.
class CsvReader : public RecordReader {
 public:
  CsvReader(InputStream& in, const ReaderOptions& o)
      : m_src(in, o.chunk), m_rows(m_src), m_block(o.csvBlock) {
    int64_t line = 1;
    if (!m_rows.next(m_cells, m_columns, line))
      refuse(m_src.name(), 1, "the input is empty; a header row of field names must come first");
    m_header.assign(m_cells.begin(), m_cells.begin() + static_cast<std::ptrdiff_t>(m_columns));
    for (const std::string& name : m_header)
      m_plain.push_back(!name.ends_with(kAttrSuffix) && !name.ends_with(kHexSuffix));
  }

  bool next(InputRecord& r) override {
    int64_t line = 0;
    if (!m_rows.next(m_cells, m_count, line)) return false;
    beginRecord(r, line);
    r.block = m_block;
    r.record = m_record++;
    if (m_count != m_columns)
      refuse(
          m_src.name(), line,
          "the row has " + std::to_string(m_count) + " cells; the header has " + std::to_string(m_columns));
    for (size_t k = 0; k < m_columns; ++k)
      if (m_plain[k])
        r.fields.emplace_back(m_header[k], m_cells[k]);
      else
        addValue(r, m_src, m_header[k], m_cells[k], false);
    return true;
  }

 private:
  ByteSource m_src;
  CsvRows m_rows;
  std::string m_block;
  std::vector<std::string> m_header;
  std::vector<bool> m_plain;  // per column: a field's values (not its attribute bytes)
  std::vector<std::string_view> m_cells;
  size_t m_columns = 0, m_count = 0;
  int64_t m_record = 0;
};

// block,record,field,value rows; the rows of one record stand together.
class LongReader : public RecordReader {
 public:
  LongReader(InputStream& in, const ReaderOptions& o) : m_src(in, o.chunk), m_rows(m_src) {
    int64_t line = 1;
    size_t n = 0;
    if (!m_rows.next(m_row, n, line) || n != 4 || m_row[0] != "block" || m_row[1] != "record" ||
        m_row[2] != "field" || m_row[3] != "value")
      refuse(m_src.name(), 1, "the long form starts with the header row block,record,field,value");
    m_pending = read();
  }

  bool next(InputRecord& r) override {
    if (!m_pending) return false;
    beginRecord(r, m_line);
    r.block = m_cells[0];
    r.record = m_number;
    do {  // the record's rows are read on past each other: each name and value is kept
      addValue(r, m_src, r.kept.add(m_cells[2]), r.kept.add(m_cells[3]), false);
      m_pending = read();
    } while (m_pending && m_cells[0] == r.block && m_number == r.record);
    return true;
  }

 private:
  bool read() {
    size_t n = 0;
    if (!m_rows.next(m_row, n, m_line)) return false;
    if (n != 4)
      refuse(m_src.name(), m_line, "the row has " + std::to_string(n) + " cells; the long form has 4");
    m_cells.assign(m_row.begin(), m_row.begin() + 4);
    const num::WholeInt record = num::parseWholeDigits(m_cells[1], 0, INT64_MAX);
    if (!record.isNumber || record.clamped)
      refuse(m_src.name(), m_line, "'" + m_cells[1] + "' is not a record number");
    m_number = record.value;
    return true;
  }

  ByteSource m_src;
  CsvRows m_rows;
  std::vector<std::string_view> m_row;
  std::vector<std::string> m_cells;  // m_row kept
  int64_t m_line = 0, m_number = 0;
  bool m_pending = false;
};

}  // namespace

std::unique_ptr<RecordReader> makeRecordReader(Format format, InputStream& in, const ReaderOptions& options) {
  switch (format) {
    case Format::Csv:
      return std::make_unique<CsvReader>(in, options);
    case Format::Jsonl:
      return std::make_unique<JsonLinesReader>(in, options);
    case Format::Long:
      return std::make_unique<LongReader>(in, options);
    case Format::Json:
    case Format::Table:
    default:
      return std::make_unique<JsonDocumentReader>(in, options);
  }
}

}  // namespace blockproc::cli
