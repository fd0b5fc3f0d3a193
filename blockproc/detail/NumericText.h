#pragma once
// Numeric text of the record layout: reading a field's digits with an implied decimal point, and laying a
// caller's value out as right-aligned, zero-filled numeric text. Pure functions over bytes; every write is
// clipped to the field it is given.

#include <cstdint>
#include <string>
#include <string_view>

namespace blockproc::num {

// Appends the display form of numeric text that holds no '.' and has `places` (> 0) implied decimals:
// leading spaces skipped, a leading '+' or '-' kept as found, then "int.frac" when there are more digits
// than places, "0." and the digits when there are exactly as many, and "0." with the value zero-padded to
// `places` digits when there are fewer. A NUL byte ends a part early and the part is padded with spaces on
// its left to its width. Bytes are single-byte characters: one above 0x7F appears as the character of the
// same number, so the result is always UTF-8.
void appendDecimalInserted(std::string& out, std::string_view trimmed, int32_t places);

// Writes what appendDecimalInserted appends for the usual field (fewer than 64 bytes of ASCII without NUL or
// '.', more digits than places) at dst, which has trimmed.size() + 1 bytes free, and gives the end; nullptr
// for any other text or places below 1.
char* writeDecimalInserted(char* dst, std::string_view trimmed, int32_t places) noexcept;

// Lays `value` out as numeric text in the `length` bytes at `field`: sign byte, zero fill, the value's
// bytes with a '.' added when the field has decimals (decimals > 0 and length > decimals) and the value has
// none, then zeros for the missing decimals. `bytes` is `value` converted to the buffer's encoding.
// A value too long for the field is cut at the field's end, as an unsigned value always is.
void layoutNumericText(uint8_t* field, int32_t length, int32_t decimals, std::string_view value,
                       std::string_view bytes) noexcept;

// Lays `bytes` out right-aligned in the `length` bytes at `field` behind '0' bytes; a longer value is
// cut at the field's end.
void layoutDigitText(uint8_t* field, int32_t length, std::string_view bytes) noexcept;

// The text of `value` rounded to `places` decimals, halves up (floor(x * 10^places + 0.5) / 10^places),
// narrowed to a 32-bit float and printed as "%0.*f".
std::string roundedFixedText(double value, int32_t places);

// Position, in UTF-16 code units, of the first occurrence of `what` in valid UTF-8 `text`, or -1.
int32_t findUtf16Index(std::string_view text, std::string_view what) noexcept;

}  // namespace blockproc::num
