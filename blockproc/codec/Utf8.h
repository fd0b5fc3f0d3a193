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

// Columns the text takes on a terminal: East Asian wide and fullwidth characters take two, others one.
size_t displayWidth(std::string_view text) noexcept;

}  // namespace blockproc::utf8
