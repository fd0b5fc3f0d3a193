#include "blockproc/detail/NumberParse.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace blockproc::num {

namespace {

bool isSpace(char c) noexcept {
  return c == ' ' || (c >= '\t' && c <= '\r');
}
bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

// Skips white space and an optional sign; returns the position after them and whether a '-' was seen.
size_t skipSpaceAndSign(std::string_view text, bool& negative) noexcept {
  size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  return i;
}

// The integer written by the digits in `base` at the start of `text` (no sign, no space), negated when
// `negative`, clamped to [min, max]; no digits give 0 (or the limit nearer 0, if 0 lies outside).
struct Digits {
  int64_t value;
  size_t length;  // digits read
  bool clamped;   // the value lay outside [min, max]
};
Digits clampedDigits(std::string_view text, bool negative, int base, int64_t min, int64_t max) noexcept {
  // The magnitude as unsigned 64 bits, so that -2^63 is read whole; from_chars reports any longer run
  // of digits as out of range, having consumed all of them.
  uint64_t magnitude = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (ec == std::errc::invalid_argument) return {std::clamp<int64_t>(0, min, max), 0, min > 0 || max < 0};
  const auto length = static_cast<size_t>(end - text.data());
  constexpr uint64_t kNegativeLimit = uint64_t{1} << 63;  // the magnitude of INT64_MIN
  int64_t value;
  if (negative) {
    if (ec == std::errc::result_out_of_range || magnitude > kNegativeLimit) return {min, length, true};
    value = static_cast<int64_t>(0 - magnitude);  // modular: 2^63 becomes INT64_MIN exactly
  } else {
    if (ec == std::errc::result_out_of_range || magnitude >= kNegativeLimit) return {max, length, true};
    value = static_cast<int64_t>(magnitude);
  }
  if (value < min) return {min, length, true};
  if (value > max) return {max, length, true};
  return {value, length, false};
}

}  // namespace

int64_t parseLeadingInt(std::string_view text, int64_t min, int64_t max) noexcept {
  bool negative;
  const size_t i = skipSpaceAndSign(text, negative);
  return clampedDigits(text.substr(i), negative, 10, min, max).value;
}

WholeInt parseWholeInt(std::string_view text, int64_t min, int64_t max, int base) noexcept {
  bool negative = false;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  const Digits d = clampedDigits(text, negative, base, min, max);
  if (d.length == 0 || d.length != text.size()) return {};
  return {true, d.clamped, d.value};
}

WholeInt parseWholeDigits(std::string_view text, int64_t min, int64_t max, int base) noexcept {
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) return {};
  return parseWholeInt(text, min, max, base);
}

int32_t parseInt32(std::string_view text) noexcept {
  return static_cast<int32_t>(
      parseLeadingInt(text, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

int64_t parseInt64(std::string_view text) noexcept {
  return parseLeadingInt(text, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max());
}

double parseLeadingDouble(std::string_view text) noexcept {
  bool negative;
  const size_t i = skipSpaceAndSign(text, negative);
  const std::string_view rest = text.substr(i);
  // A number starts with a digit, or with a point followed by a digit.
  if (rest.empty() || !(isDigit(rest[0]) || (rest[0] == '.' && rest.size() > 1 && isDigit(rest[1]))))
    return 0.0;
  double value = 0.0;
  const auto [ptr, ec] =
      std::from_chars(rest.data(), rest.data() + rest.size(), value, std::chars_format::general);
  if (ec == std::errc::result_out_of_range) {
    // Too large or too small for a double: decide by the decimal exponent of the leading digits.
    size_t j = 0;
    int64_t intDigits = 0;
    bool seenNonZero = false;
    int64_t leadingZerosAfterPoint = 0;
    while (j < rest.size() && isDigit(rest[j])) {
      seenNonZero |= rest[j] != '0';
      if (seenNonZero) ++intDigits;
      ++j;
    }
    if (j < rest.size() && rest[j] == '.') {
      ++j;
      while (!seenNonZero && j < rest.size() && rest[j] == '0') ++leadingZerosAfterPoint, ++j;
      while (j < rest.size() && isDigit(rest[j])) ++j;
    }
    int64_t exponent = 0;
    if (j < rest.size() && (rest[j] == 'e' || rest[j] == 'E')) exponent = parseInt32(rest.substr(j + 1));
    const int64_t magnitude = seenNonZero ? intDigits + exponent : exponent - leadingZerosAfterPoint;
    value = magnitude > 0 ? std::numeric_limits<double>::infinity() : 0.0;
  } else if (ec != std::errc()) {
    return 0.0;
  }
  return negative ? -value : value;
}

uint32_t parseHex(std::string_view text) noexcept {
  bool negative;
  size_t i = skipSpaceAndSign(text, negative);
  // "%x" also takes an optional 0x or 0X prefix.
  if (i + 1 < text.size() && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X')) i += 2;
  uint32_t value = 0;  // wraps: only the low bits are ever used
  for (; i < text.size(); ++i) {
    const char c = text[i];
    uint32_t digit;
    if (isDigit(c)) {
      digit = static_cast<uint32_t>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      digit = static_cast<uint32_t>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
      digit = static_cast<uint32_t>(c - 'A' + 10);
    } else {
      break;
    }
    value = value * 16u + digit;
  }
  return negative ? 0u - value : value;
}

}  // namespace blockproc::num
