#pragma once
// The one walker of UTF-8 text in the project: validation, character boundaries, UTF-16 counts and display
// widths. Nothing here allocates.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace blockproc::utf8 {

// True for a byte that continues a character (10xxxxxx) rather than starting one.
constexpr bool isContinuation(uint8_t byte) noexcept {
  return (byte & 0xC0) == 0x80;
}

// UTF-16 code units of the character a byte of valid UTF-8 starts: 0 for a continuation byte, 2 for the lead
// of a four-byte character (a surrogate pair), 1 otherwise.
// Two comparisons added, no branch: the counting loops over a value stay straight-line code.
constexpr int utf16Units(uint8_t byte) noexcept {
  return static_cast<int>(!isContinuation(byte)) + static_cast<int>(byte >= 0xF0);
}

// Writes the UTF-8 form of the code point into `out`: the count of bytes (1 to 4), or 0 for a surrogate or
// a value above U+10FFFF.
size_t encode(char32_t codePoint, char (&out)[4]) noexcept;

// The code point of the character at text[i] of valid UTF-8, with i moved past it.
char32_t next(std::string_view text, size_t& i) noexcept;

// Returned by nextValid for bytes that are not a character.
inline constexpr char32_t kNotValid = 0xFFFFFFFF;

// The code point of the character at text[i] (i < text.size()), with i moved past it; or kNotValid, i left
// as it was, when the bytes there are not valid UTF-8: a stray or cut sequence, an overlong form, a
// surrogate, a value above U+10FFFF. Checking and decoding in one step lets a converter of text walk it once.
inline char32_t nextValid(std::string_view text, size_t& i) noexcept {
  const auto* s = reinterpret_cast<const unsigned char*>(text.data()) + i;
  const size_t left = text.size() - i;
  const unsigned char b0 = s[0];
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    if (left < 2 || !isContinuation(s[1])) return kNotValid;
    i += 2;
    return char32_t{b0 & 0x1Fu} << 6 | (s[1] & 0x3Fu);
  }
  if (b0 >= 0xE0 && b0 <= 0xEF) {
    if (left < 3) return kNotValid;
    const unsigned char lo = b0 == 0xE0 ? 0xA0 : 0x80;  // no overlong forms
    const unsigned char hi = b0 == 0xED ? 0x9F : 0xBF;  // no surrogates
    if (s[1] < lo || s[1] > hi || !isContinuation(s[2])) return kNotValid;
    i += 3;
    return char32_t{b0 & 0x0Fu} << 12 | char32_t{s[1] & 0x3Fu} << 6 | (s[2] & 0x3Fu);
  }
  if (b0 >= 0xF0 && b0 <= 0xF4) {
    if (left < 4) return kNotValid;
    const unsigned char lo = b0 == 0xF0 ? 0x90 : 0x80;  // no overlong forms
    const unsigned char hi = b0 == 0xF4 ? 0x8F : 0xBF;  // nothing above U+10FFFF
    if (s[1] < lo || s[1] > hi || !isContinuation(s[2]) || !isContinuation(s[3])) return kNotValid;
    i += 4;
    return char32_t{b0 & 0x07u} << 18 | char32_t{s[1] & 0x3Fu} << 12 | char32_t{s[2] & 0x3Fu} << 6 |
           (s[3] & 0x3Fu);
  }
  return kNotValid;
}

// True when every byte is below 0x80 (such text is the same in every ASCII-compatible encoding).
bool isAscii(std::string_view bytes) noexcept;

// True when the text is well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF,
// no cut sequence.
bool isValid(std::string_view text) noexcept;

// Bytes of the longest well-formed UTF-8 prefix: where the first character that is not UTF-8 starts, or the
// text's size when there is none.
size_t validPrefix(std::string_view text) noexcept;

// Number of UTF-16 code units of valid UTF-8 text (a character above U+FFFF counts two).
int64_t utf16Length(std::string_view text) noexcept;

// True when the last character of valid UTF-8 text is U+3000 IDEOGRAPHIC SPACE.
inline bool endsWithIdeographicSpace(std::string_view text) noexcept {
  return text.size() >= 3 && text.substr(text.size() - 3) == "\xE3\x80\x80";
}

// The text less every leading and trailing character of Unicode category Zs and TAB (U+0009).
std::string_view trimSpaceSeparators(std::string_view text) noexcept;

// Bytes of the control character that starts at text[at]: 1 for a C0 control (below 0x20) or DEL, 2 for a C1
// control (U+0080 to U+009F, C2 80 to C2 9F), 0 for any other character or past the end.
constexpr size_t controlLength(std::string_view text, size_t at) noexcept {
  if (at >= text.size()) return 0;
  const auto byte = static_cast<uint8_t>(text[at]);
  if (byte < 0x20 || byte == 0x7F) return 1;
  if (byte != 0xC2 || at + 1 >= text.size()) return 0;
  const auto next = static_cast<uint8_t>(text[at + 1]);
  return next >= 0x80 && next <= 0x9F ? 2 : 0;
}

// Bytes of the character that starts at text[at] when it reorders or breaks the text a terminal shows
// without being a control: the bidirectional marks, embeddings, overrides and isolates (U+061C, U+200E,
// U+200F, U+202A to U+202E, U+2066 to U+2069) and the line and paragraph separators (U+2028, U+2029); 0 for
// any other character or past the end. A name holding one can show as another name.
constexpr size_t directionalLength(std::string_view text, size_t at) noexcept {
  if (at + 1 >= text.size()) return 0;
  const auto lead = static_cast<uint8_t>(text[at]), second = static_cast<uint8_t>(text[at + 1]);
  if (lead == 0xD8 && second == 0x9C) return 2;  // U+061C
  if (lead != 0xE2 || at + 2 >= text.size()) return 0;
  const auto third = static_cast<uint8_t>(text[at + 2]);
  if (second == 0x80) return third == 0x8E || third == 0x8F || (third >= 0xA8 && third <= 0xAE) ? 3 : 0;
  return second == 0x81 && third >= 0xA6 && third <= 0xA9 ? 3 : 0;
}

// Where the first character directionalLength counts starts, or std::string_view::npos.
constexpr size_t findDirectional(std::string_view text) noexcept {
  for (size_t at = 0; at < text.size(); ++at)
    if (directionalLength(text, at) > 0) return at;
  return std::string_view::npos;
}

// Where the first control character (C0, DEL or C1) of the text starts, or std::string_view::npos.
constexpr size_t findControl(std::string_view text) noexcept {
  for (size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<uint8_t>(text[at]);
    // One test for most bytes: a control starts below 0x20, at DEL or at C2.
    if (byte >= 0x20 && byte != 0x7F && byte != 0xC2) continue;
    if (controlLength(text, at) > 0) return at;
  }
  return std::string_view::npos;
}

// Whether the text holds a control character (C0, DEL or C1).
constexpr bool hasControl(std::string_view text) noexcept {
  // A pass over every byte without a branch, which the compiler can vectorize: a C2 (also the lead of U+00A0
  // to U+00BF) is looked at closely only when there is one.
  bool maybe = false;
  for (const char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    maybe |= (byte < 0x20) | (byte == 0x7F) | (byte == 0xC2);
  }
  return maybe && findControl(text) != std::string_view::npos;
}

// Columns the text takes on a terminal: East Asian wide and fullwidth characters take two, others one.
size_t displayWidth(std::string_view text) noexcept;

}  // namespace blockproc::utf8
