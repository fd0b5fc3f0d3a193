#pragma once
// Small, allocation-free helpers over UTF-8 text.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace blockproc::utf8 {

// True when every byte is below 0x80 (such text is the same in every ASCII-compatible encoding).
bool isAscii(std::string_view bytes) noexcept;

// True when the text is well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF,
// no cut sequence.
bool isValid(std::string_view text) noexcept;

// Number of UTF-16 code units of valid UTF-8 text (a character above U+FFFF counts two).
int64_t utf16Length(std::string_view text) noexcept;

// Appends each byte as the character of the same number (ISO-8859-1 read), so the result is always UTF-8.
void appendLatin1(std::string& out, std::string_view bytes);

// True when the last character of valid UTF-8 text is U+3000 IDEOGRAPHIC SPACE.
bool endsWithIdeographicSpace(std::string_view text) noexcept;

// The text less every leading and trailing character of Unicode category Zs and TAB (U+0009).
std::string_view trimSpaceSeparators(std::string_view text) noexcept;

// Columns the text takes on a terminal: East Asian wide and fullwidth characters take two, others one.
size_t displayWidth(std::string_view text) noexcept;

}  // namespace blockproc::utf8
