#pragma once
// Reading the leading number of a text, the way the C library's strtol / strtod / "%x" read it, without
// needing a terminating zero and without allocating.

#include <cstdint>
#include <string_view>

namespace blockproc::num {

// Leading white space, an optional sign, then decimal digits up to the first other character; no digits
// give 0; a value outside [min, max] gives the nearer limit.
int64_t parseLeadingInt(std::string_view text, int64_t min, int64_t max) noexcept;

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
