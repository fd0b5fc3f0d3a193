// The text codecs and the UTF-8 helpers on arbitrary bytes.
//
// For every encoding identifier (unknown ones included): a decode gives valid UTF-8 or nothing, an encode
// succeeds only on valid UTF-8, decode(encode(x)) == x wherever the encode succeeds, the append forms keep
// what the output held and leave it unchanged on failure. The UTF-8 helpers are compared with a plain
// code-point-by-code-point reading.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/detail/Utf8.h"

namespace blockproc::fuzz {
namespace {

constexpr uint32_t kEncodings[] = {kTextEncodingCP949,
                                   kTextEncodingUTF8,
                                   kTextEncodingASCII,
                                   kTextEncodingISOLatin1,
                                   kTextEncodingEUCKR,
                                   0u,
                                   3u,
                                   0x80000421u,
                                   0xFFFFFFFFu};

// The code points of well-formed UTF-8, or nullopt: the reading the helpers must agree with.
std::optional<std::vector<char32_t>> codePoints(std::string_view text) {
  std::vector<char32_t> out;
  for (size_t i = 0; i < text.size();) {
    const auto b0 = static_cast<unsigned char>(text[i]);
    const int extra = b0 < 0x80             ? 0
                      : (b0 & 0xE0) == 0xC0 ? 1
                      : (b0 & 0xF0) == 0xE0 ? 2
                      : (b0 & 0xF8) == 0xF0 ? 3
                                            : -1;
    if (extra < 0 || i + static_cast<size_t>(extra) >= text.size()) return std::nullopt;
    char32_t cp = extra == 0 ? b0 : b0 & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) {
      const auto b = static_cast<unsigned char>(text[i + static_cast<size_t>(k)]);
      if ((b & 0xC0) != 0x80) return std::nullopt;
      cp = (cp << 6) | (b & 0x3F);
    }
    static constexpr char32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return std::nullopt;
    out.push_back(cp);
    i += 1 + static_cast<size_t>(extra);
  }
  return out;
}

bool isSpaceSeparatorOrTab(char32_t cp) {
  return cp == 0x09 || cp == 0x20 || cp == 0xA0 || cp == 0x1680 || (cp >= 0x2000 && cp <= 0x200A) ||
         cp == 0x202F || cp == 0x205F || cp == 0x3000;
}

void checkUtf8Helpers(std::string_view text) {
  const auto cps = codePoints(text);
  require(utf8::isValid(text) == cps.has_value(), "isValid disagrees with a plain reading");
  bool ascii = true;
  for (char c : text) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  require(utf8::isAscii(text) == ascii, "isAscii");
  if (!cps) return;
  int64_t units = 0;
  for (char32_t cp : *cps) units += cp > 0xFFFF ? 2 : 1;
  require(utf8::utf16Length(text) == units, "utf16Length");
  require(utf8::endsWithIdeographicSpace(text) == (!cps->empty() && cps->back() == 0x3000),
          "endsWithIdeographicSpace");
  const std::string_view trimmed = utf8::trimSpaceSeparators(text);
  require(trimmed.data() >= text.data() && trimmed.data() + trimmed.size() <= text.data() + text.size(),
          "trimSpaceSeparators left the text");
  size_t first = 0, last = cps->size();
  while (first < last && isSpaceSeparatorOrTab((*cps)[first])) ++first;
  while (last > first && isSpaceSeparatorOrTab((*cps)[last - 1])) --last;
  const auto kept = codePoints(trimmed);
  require(kept && kept->size() == last - first, "trimSpaceSeparators trimmed the wrong characters");
  const size_t width = utf8::displayWidth(text);
  require(width >= cps->size() && width <= 2 * cps->size(), "displayWidth");
}

void checkCodec(uint32_t encoding, std::string_view bytes) {
  const bool known = codec::isKnownEncoding(encoding);
  const std::optional<std::string> decoded = codec::decode(encoding, bytes);
  if (!known) require(!decoded, "an unknown encoding decoded");
  if (decoded) {
    requireUtf8(*decoded, "decoded text is not UTF-8");
    if (encoding == kTextEncodingUTF8 || encoding == kTextEncodingASCII)
      require(*decoded == bytes, "a decode that should copy changed the bytes");
    if (encoding == kTextEncodingISOLatin1)
      require(utf8::utf16Length(*decoded) == static_cast<int64_t>(bytes.size()),
              "latin-1: one char per byte");
  }
  if (known && encoding != kTextEncodingUTF8 && utf8::isAscii(bytes))
    require(decoded && *decoded == bytes, "ASCII did not decode to itself");

  // The append forms keep the prefix and leave the output alone on failure.
  std::string out = "prefix";
  const bool appended = codec::decodeAppend(encoding, bytes, out);
  require(appended == decoded.has_value(), "decodeAppend and decode disagree");
  require(appended ? out == "prefix" + *decoded : out == "prefix", "decodeAppend output");

  const std::optional<std::string> encoded = codec::encode(encoding, bytes);
  if (encoded) {
    require(utf8::isValid(bytes), "encoded text that is not UTF-8");
    const auto back = codec::decode(encoding, *encoded);
    require(back && *back == bytes, "decode(encode(x)) != x");
  }
  out = "prefix";
  const bool encodedAppend = codec::encodeAppend(encoding, bytes, out);
  require(encodedAppend == encoded.has_value(), "encodeAppend and encode disagree");
  require(encodedAppend ? out == "prefix" + *encoded : out == "prefix", "encodeAppend output");

  // What a decode gives is text of the encoding's repertoire: the round trip must hold there too.
  if (decoded) {
    const auto again = codec::encode(encoding, *decoded);
    if (again) {
      const auto back = codec::decode(encoding, *again);
      require(back && *back == *decoded, "decode(encode(decode(b))) != decode(b)");
    }
  }
}

}  // namespace
}  // namespace blockproc::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace blockproc;
  fuzz::FuzzInput in(data, size);
  const uint8_t head = in.byte();
  const std::string_view bytes = in.rest();
  fuzz::checkUtf8Helpers(bytes);
  if (head >= 250) {
    for (uint32_t encoding : fuzz::kEncodings) fuzz::checkCodec(encoding, bytes);
  } else {
    fuzz::checkCodec(fuzz::kEncodings[head % std::size(fuzz::kEncodings)], bytes);
  }
  const char* name = codec::encodingName(fuzz::kEncodings[head % std::size(fuzz::kEncodings)]);
  if (std::string_view(name) != "unknown") {
    const auto id = codec::encodingFromName(name);
    fuzz::require(id && *id == fuzz::kEncodings[head % std::size(fuzz::kEncodings)], "encodingFromName");
  }
  (void)codec::encodingFromName(bytes);
  return 0;
}
