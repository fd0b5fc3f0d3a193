#include "blockproc/detail/TextCodec.h"

#include <iconv.h>

#include <array>
#include <atomic>
#include <bit>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "blockproc/detail/Utf8.h"

namespace blockproc::codec {

namespace {

enum class Kind { Unknown, Utf8, Ascii, Latin1, Iconv };

struct EncodingEntry {
  uint32_t id;
  Kind kind;
  const char* name;       // our short name
  const char* iconvName;  // the C library's name, for Kind::Iconv
};

constexpr std::array<EncodingEntry, 5> kEncodings{{
    {kTextEncodingCP949, Kind::Iconv, "cp949", "CP949"},
    {kTextEncodingUTF8, Kind::Utf8, "utf-8", nullptr},
    {kTextEncodingASCII, Kind::Ascii, "ascii", nullptr},
    {kTextEncodingISOLatin1, Kind::Latin1, "iso-8859-1", nullptr},
    {kTextEncodingEUCKR, Kind::Iconv, "euc-kr", "EUC-KR"},
}};

const EncodingEntry* find(uint32_t encoding) noexcept {
  for (const auto& e : kEncodings)
    if (e.id == encoding) return &e;
  return nullptr;
}

// One converter per direction and iconv encoding, opened on first use by this thread and kept until the
// thread ends: iconv descriptors carry shift state and must not be shared between threads.
class Converter {
 public:
  Converter(const char* to, const char* from) noexcept : cd_(iconv_open(to, from)) {}
  ~Converter() {
    if (ok()) iconv_close(cd_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;

  bool ok() const noexcept { return cd_ != reinterpret_cast<iconv_t>(-1); }

  // Appends the converted bytes to out; false, with out unchanged, on any invalid or incomplete input.
  bool convertAppend(std::string_view in, std::string& out, size_t maxGrowth) noexcept {
    const size_t oldSize = out.size();
    try {
      out.resize(oldSize + maxGrowth);
    } catch (...) {
      return false;
    }
    char* src = const_cast<char*>(in.data());
    size_t srcLeft = in.size();
    char* dst = out.data() + oldSize;
    size_t dstLeft = maxGrowth;
    const size_t rc = iconv(cd_, &src, &srcLeft, &dst, &dstLeft);
    const bool good = rc != static_cast<size_t>(-1) && srcLeft == 0 &&
                      iconv(cd_, nullptr, nullptr, &dst, &dstLeft) != static_cast<size_t>(-1);
    if (!good) {
      iconv(cd_, nullptr, nullptr, nullptr, nullptr);  // back to the initial state for the next call
      out.resize(oldSize);
      return false;
    }
    out.resize(oldSize + (maxGrowth - dstLeft));
    return true;
  }

 private:
  iconv_t cd_;
};

Converter* converter(uint32_t encoding, bool toUtf8) noexcept {
  // Slots follow kEncodings; only Kind::Iconv entries are ever opened. Each closes when its thread ends.
  thread_local std::array<std::unique_ptr<Converter>, kEncodings.size() * 2> slots;
  for (size_t i = 0; i < kEncodings.size(); ++i) {
    if (kEncodings[i].id != encoding || kEncodings[i].kind != Kind::Iconv) continue;
    std::unique_ptr<Converter>& slot = slots[i * 2 + (toUtf8 ? 1 : 0)];
    if (!slot) {
      slot.reset(toUtf8 ? new (std::nothrow) Converter("UTF-8", kEncodings[i].iconvName)
                        : new (std::nothrow) Converter(kEncodings[i].iconvName, "UTF-8"));
    }
    return slot && slot->ok() ? slot.get() : nullptr;
  }
  return nullptr;
}

// Code page 949 decoding by table. The C library's converter stays the one source of the mapping: the row of
// a lead byte (the character of every byte pair it starts) is converted once per process, when the lead byte
// is first met, and a pair the converter refuses is refused here too. A row the table cannot hold (the lead
// byte is a character on its own, or a pair becomes more than three UTF-8 bytes) leaves the decoding to the
// converter.
class Cp949Table {
 public:
  enum class Result { Decoded, Invalid, AskConverter };

  // Writes the UTF-8 form of bytes at dst (decodeRoom(bytes.size()) bytes free) and moves dst past it; on
  // Invalid or AskConverter, dst is left where the bytes stopped decoding.
  static Result decodeInto(std::string_view bytes, char*& dst) noexcept {
    const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
    const size_t n = bytes.size();
    for (size_t i = 0; i < n;) {
      if (s[i] < 0x80) {
        *dst++ = static_cast<char>(s[i++]);
        continue;
      }
      const Row* row = rowOf(s[i]);
      if (row == nullptr || !row->usable) return Result::AskConverter;
      const uint32_t entry = i + 1 < n ? row->pairs[s[i + 1]] : 0;
      if (entry == 0) return Result::Invalid;
      std::memcpy(dst, &entry, 4);  // little-endian: the UTF-8 bytes first, then the length byte
      dst += entry >> 24;
      i += 2;
    }
    return Result::Decoded;
  }

  // Appends the UTF-8 form of bytes; Invalid or AskConverter leave out unchanged.
  static Result decodeAppend(std::string_view bytes, std::string& out) noexcept {
    const size_t oldSize = out.size();
    try {
      out.resize(oldSize + decodeRoom(bytes.size()));
    } catch (...) {
      return Result::AskConverter;
    }
    char* dst = out.data() + oldSize;
    const Result result = decodeInto(bytes, dst);
    out.resize(result == Result::Decoded ? static_cast<size_t>(dst - out.data()) : oldSize);
    return result;
  }

 private:
  struct Row {
    bool usable = true;
    // By trail byte: the UTF-8 bytes in the low three bytes, their count in the high byte; 0: no character.
    std::array<uint32_t, 256> pairs{};
  };

  // Published rows, by lead byte - 0x80. Rows are never freed, so decoding stays safe while the process
  // ends.
  static inline constinit std::array<std::atomic<const Row*>, 128> rows_{};
  static inline constinit std::mutex building_{};

  // The row of a lead byte (0x80 to 0xFF), built on first use; nullptr when it cannot be built.
  static const Row* rowOf(unsigned char lead) noexcept {
    std::atomic<const Row*>& slot = rows_[lead - 0x80u];
    if (const Row* row = slot.load(std::memory_order_acquire)) return row;
    try {
      const std::lock_guard<std::mutex> lock(building_);
      if (const Row* row = slot.load(std::memory_order_relaxed)) return row;
      const Row* row = build(lead).release();
      slot.store(row, std::memory_order_release);
      return row;
    } catch (...) {
      return nullptr;
    }
  }

  static std::unique_ptr<Row> build(unsigned char lead) {
    Converter toUtf8("UTF-8", "CP949");
    if (!toUtf8.ok()) return nullptr;
    auto row = std::make_unique<Row>();
    std::string utf8;
    const char single[1] = {static_cast<char>(lead)};
    if (toUtf8.convertAppend({single, 1}, utf8, 8)) {
      row->usable = false;
      return row;
    }
    for (unsigned trail = 0; trail <= 0xFF; ++trail) {
      const char pair[2] = {static_cast<char>(lead), static_cast<char>(trail)};
      utf8.clear();
      if (!toUtf8.convertAppend({pair, 2}, utf8, 8)) continue;
      if (utf8.empty() || utf8.size() > 3) {
        row->usable = false;
        return row;
      }
      uint32_t entry = static_cast<uint32_t>(utf8.size()) << 24;
      for (size_t k = 0; k < utf8.size(); ++k)
        entry |= uint32_t{static_cast<unsigned char>(utf8[k])} << (8 * k);
      row->pairs[trail] = entry;
    }
    return row;
  }
};

// Code page 949 encoding by a table filled from the converter, which stays the one source of the mapping:
// each character below U+10000 is converted once per process, when it is first met, and its bytes are kept
// only when they are a pair that the decoding table reads back as that character; any other character is
// marked and left to the converter. The encoding has no shift state, so text of kept characters encodes as
// their bytes back to back and decodes back to itself.
class Cp949Encoder {
 public:
  // Writes the bytes of `text` at dst and moves dst past them; false when it is not valid UTF-8 or a
  // character is not held (dst then not to be used).
  static bool encodeInto(std::string_view text, char*& dst) noexcept {
    for (size_t i = 0; i < text.size();) {
      const auto byte = static_cast<unsigned char>(text[i]);
      if (byte < 0x80) {
        *dst++ = static_cast<char>(byte);
        ++i;
        continue;
      }
      const char32_t code = utf8::nextValid(text, i);  // kNotValid lies past the table
      if (code >= entries_.size()) return false;
      uint32_t entry = entries_[code].load(std::memory_order_relaxed);
      if (entry == kUnseen) entry = fill(code);
      if (entry == kNotHeld) return false;
      *dst++ = static_cast<char>(entry >> 8);
      *dst++ = static_cast<char>(entry & 0xFF);
    }
    return true;
  }

 private:
  static constexpr uint32_t kUnseen = 0, kNotHeld = 1;
  // By code point: kUnseen, kNotHeld, or the pair as lead << 8 | trail (a lead byte is 0x81 or above).
  static inline constinit std::array<std::atomic<uint32_t>, 0x10000> entries_{};

  static uint32_t fill(char32_t code) noexcept {
    char utf8Bytes[4];
    const size_t n = utf8::encode(code, utf8Bytes);
    const std::string_view character(utf8Bytes, n);
    uint32_t entry = kNotHeld;
    std::string bytes;  // two bytes: no allocation
    Converter* c = converter(kTextEncodingCP949, false);
    if (c != nullptr && c->convertAppend(character, bytes, n + 4) && bytes.size() == 2) {
      char back[decodeRoom(2)];
      char* end = back;
      if (Cp949Table::decodeInto(bytes, end) == Cp949Table::Result::Decoded &&
          std::string_view(back, static_cast<size_t>(end - back)) == character)
        entry = static_cast<uint32_t>(static_cast<unsigned char>(bytes[0])) << 8 |
                static_cast<unsigned char>(bytes[1]);
    }
    entries_[code].store(entry, std::memory_order_relaxed);
    return entry;
  }
};

// EUC-KR text is ASCII and pairs of bytes 0xA1 to 0xFE. The C library's converter also passes 0x80 to 0x9F
// through as single characters (U+0080 to U+009F), which are no EUC-KR characters: such bytes are refused.
bool onlyEucKrBytes(std::string_view bytes) noexcept {
  for (const char ch : bytes) {
    const auto c = static_cast<uint8_t>(ch);
    if (c >= 0x80 && (c < 0xA1 || c == 0xFF)) return false;
  }
  return true;
}

bool appendBytes(std::string& out, std::string_view bytes) noexcept {
  try {
    out.append(bytes);
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace

bool isKnownEncoding(uint32_t encoding) noexcept {
  return find(encoding) != nullptr;
}

bool decodeAppend(uint32_t encoding, std::string_view bytes, std::string& out) noexcept {
  const EncodingEntry* e = find(encoding);
  if (e == nullptr) return false;
  switch (e->kind) {
    case Kind::Utf8:
      return utf8::isValid(bytes) && appendBytes(out, bytes);
    case Kind::Ascii:
      return utf8::isAscii(bytes) && appendBytes(out, bytes);
    case Kind::Latin1:
      try {
        appendLatin1(out, bytes);
        return true;
      } catch (...) {
        return false;
      }
    case Kind::Iconv: {
      if (utf8::isAscii(bytes)) return appendBytes(out, bytes);
      if (encoding == kTextEncodingCP949) {
        const Cp949Table::Result result = Cp949Table::decodeAppend(bytes, out);
        if (result != Cp949Table::Result::AskConverter) return result == Cp949Table::Result::Decoded;
      }
      if (encoding == kTextEncodingEUCKR && !onlyEucKrBytes(bytes)) return false;
      Converter* c = converter(encoding, true);
      // A double-byte character becomes at most three UTF-8 bytes, a single byte at most three as well.
      return c != nullptr && c->convertAppend(bytes, out, bytes.size() * 3 / 2 + 4);
    }
    case Kind::Unknown:
      break;
  }
  return false;
}

char* decodeInto(uint32_t encoding, std::string_view bytes, char* dst) noexcept {
  if (encoding != kTextEncodingCP949) return nullptr;
  return Cp949Table::decodeInto(bytes, dst) == Cp949Table::Result::Decoded ? dst : nullptr;
}

std::optional<std::string> decode(uint32_t encoding, std::string_view bytes) noexcept {
  std::string out;
  if (!decodeAppend(encoding, bytes, out)) return std::nullopt;
  return out;
}

char* encodeInto(uint32_t encoding, std::string_view text, char* dst) noexcept {
  if (encoding != kTextEncodingCP949) return nullptr;  // the text is checked as it is converted
  return Cp949Encoder::encodeInto(text, dst) ? dst : nullptr;
}

bool encodeAppend(uint32_t encoding, std::string_view text, std::string& out) noexcept {
  const EncodingEntry* e = find(encoding);
  if (e == nullptr) return false;
  if (utf8::isAscii(text)) return appendBytes(out, text);
  if (!utf8::isValid(text)) return false;
  switch (e->kind) {
    case Kind::Utf8:
      return appendBytes(out, text);
    case Kind::Ascii:
      return false;
    case Kind::Latin1:
      return encodeLatin1Append(text, out);
    case Kind::Iconv: {
      Converter* c = converter(encoding, false);
      const size_t from = out.size();
      // Every UTF-8 sequence of two or more bytes becomes at most two bytes.
      if (c == nullptr || !c->convertAppend(text, out, text.size() + 4)) return false;
      if (encoding != kTextEncodingEUCKR || onlyEucKrBytes(std::string_view(out).substr(from))) return true;
      out.resize(from);
      return false;
    }
    case Kind::Unknown:
      break;
  }
  return false;
}

std::optional<std::string> encode(uint32_t encoding, std::string_view text) noexcept {
  std::string out;
  if (!encodeAppend(encoding, text, out)) return std::nullopt;
  return out;
}

// ---- Latin-1: each byte is the character of the same number ----

void appendLatin1(std::string& out, std::string_view bytes) {
  if (utf8::isAscii(bytes)) {
    out.append(bytes);  // the common case: one copy
    return;
  }
  for (const char ch : bytes) {
    const auto c = static_cast<uint8_t>(ch);
    if (c < 0x80) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back(static_cast<char>(0xC0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
}

bool encodeLatin1Append(std::string_view text, std::string& out) noexcept {
  const size_t oldSize = out.size();
  try {
    for (size_t i = 0; i < text.size(); ++i) {
      const auto b0 = static_cast<uint8_t>(text[i]);
      if (b0 < 0x80) {
        out.push_back(static_cast<char>(b0));
      } else if ((b0 == 0xC2 || b0 == 0xC3) && i + 1 < text.size()) {
        out.push_back(static_cast<char>(((b0 & 0x03) << 6) | (static_cast<uint8_t>(text[++i]) & 0x3F)));
      } else {
        out.resize(oldSize);
        return false;
      }
    }
  } catch (...) {
    out.resize(oldSize);
    return false;
  }
  return true;
}

const char* encodingName(uint32_t encoding) noexcept {
  const EncodingEntry* e = find(encoding);
  return e != nullptr ? e->name : "unknown";
}

std::optional<uint32_t> encodingFromName(std::string_view name) noexcept {
  auto canonical = [](std::string_view s) {
    std::string c;
    for (char ch : s)
      if (ch != '-' && ch != '_')
        c.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(ch))));
    return c;
  };
  try {
    const std::string wanted = canonical(name);
    if (wanted == "uhc" || wanted == "ms949" || wanted == "windows949") return kTextEncodingCP949;
    if (wanted == "latin1") return kTextEncodingISOLatin1;
    for (const auto& e : kEncodings)
      if (canonical(e.name) == wanted) return e.id;
  } catch (...) {
  }
  return std::nullopt;
}

}  // namespace blockproc::codec
