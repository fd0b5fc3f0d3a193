#include "blockproc/codec/TextCodec.h"

#include <iconv.h>

#include <array>
#include <cctype>
#include <cerrno>

#include "blockproc/codec/Utf8.h"

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
  // Slots follow kEncodings; only Kind::Iconv entries are ever opened.
  thread_local std::array<Converter*, kEncodings.size() * 2> slots{};
  thread_local struct Cleanup {
    ~Cleanup() {
      for (auto*& c : slots) delete c;
    }
  } cleanup;
  (void)cleanup;
  for (size_t i = 0; i < kEncodings.size(); ++i) {
    if (kEncodings[i].id != encoding || kEncodings[i].kind != Kind::Iconv) continue;
    Converter*& slot = slots[i * 2 + (toUtf8 ? 1 : 0)];
    if (slot == nullptr) {
      slot = toUtf8 ? new (std::nothrow) Converter("UTF-8", kEncodings[i].iconvName)
                    : new (std::nothrow) Converter(kEncodings[i].iconvName, "UTF-8");
    }
    return slot != nullptr && slot->ok() ? slot : nullptr;
  }
  return nullptr;
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
        utf8::appendLatin1(out, bytes);
        return true;
      } catch (...) {
        return false;
      }
    case Kind::Iconv: {
      if (utf8::isAscii(bytes)) return appendBytes(out, bytes);
      Converter* c = converter(encoding, true);
      // A double-byte character becomes at most three UTF-8 bytes, a single byte at most three as well.
      return c != nullptr && c->convertAppend(bytes, out, bytes.size() * 3 / 2 + 4);
    }
    case Kind::Unknown:
      break;
  }
  return false;
}

std::optional<std::string> decode(uint32_t encoding, std::string_view bytes) noexcept {
  std::string out;
  if (!decodeAppend(encoding, bytes, out)) return std::nullopt;
  return out;
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
    case Kind::Latin1: {
      const size_t oldSize = out.size();
      try {
        for (size_t i = 0; i < text.size(); ++i) {
          const auto b0 = static_cast<unsigned char>(text[i]);
          if (b0 < 0x80) {
            out.push_back(static_cast<char>(b0));
          } else if (b0 == 0xC2 || b0 == 0xC3) {
            out.push_back(
                static_cast<char>(((b0 & 0x03) << 6) | (static_cast<unsigned char>(text[++i]) & 0x3F)));
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
    case Kind::Iconv: {
      Converter* c = converter(encoding, false);
      // Every UTF-8 sequence of two or more bytes becomes at most two bytes.
      return c != nullptr && c->convertAppend(text, out, text.size() + 4);
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
