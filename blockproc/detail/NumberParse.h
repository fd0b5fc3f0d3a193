#pragma once
// Reading numbers from text: the one integer parser of the project (built on std::from_chars, clamping
// to the range asked for), the leading number of a text the way the C library's strtol / strtod / "%x"
// read it, without needing a terminating zero and without allocating.

#include <cstdint>
#include <string_view>

namespace blockproc::num {

// Leading white space, an optional sign, then decimal digits up to the first other character; no digits
// give 0; a value outside [min, max] gives the nearer limit.
int64_t parseLeadingInt(std::string_view text, int64_t min, int64_t max) noexcept;

// What parseWholeInt found.
struct WholeInt {
  bool isNumber = false;  // the text was a sign and digits and nothing else
  bool clamped = false;   // its value lay outside [min, max]: value holds the nearer limit
  int64_t value = 0;
};

// The whole text as an integer in `base` (2 to 36; 10 or 16 in practice): an optional '+' or '-', then one
// or more digits and nothing else (no white space, no "0x"); isNumber false for any other text. A value
// outside [min, max] gives the nearer limit and sets clamped, so a caller can refuse it.
WholeInt parseWholeInt(std::string_view text, int64_t min, int64_t max, int base = 10) noexcept;

// parseWholeInt for digits alone: text with a sign is no number either ("+5", "-0").
WholeInt parseWholeDigits(std::string_view text, int64_t min, int64_t max, int base = 10) noexcept;

// parseLeadingInt clamped to the 32-bit signed range.
int32_t parseInt32(std::string_view text) noexcept;

// parseLeadingInt clamped to the 64-bit signed range.
int64_t parseInt64(std::string_view text) noexcept;

// Leading white space, an optional sign, then a decimal number with optional fraction and exponent;
// text that does not begin with a number (letters, "inf", "nan", hexadecimal forms) gives 0; a magnitude
// beyond the double range gives +/-infinity, one below it +/-0.
double parseLeadingDouble(std::string_view text) noexcept;

// As the scan format "%x": leading white space, an optional sign, hexadecimal digits of either case up to
// the first other character (an optional 0x or 0X prefix is skipped); no digits give 0. The result is the
// value modulo 2^32 (a minus sign negates).
uint32_t parseHex(std::string_view text) noexcept;

}  // namespace blockproc::num
