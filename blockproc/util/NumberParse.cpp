#include "blockproc/util/NumberParse.h"

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

}  // namespace

int64_t parseLeadingInt(std::string_view text, int64_t min, int64_t max) noexcept {
  bool negative;
  size_t i = skipSpaceAndSign(text, negative);
  // Accumulate the magnitude as unsigned and stop growing once it passes every 64-bit value.
  constexpr uint64_t kLimit = uint64_t{1} << 63;
  uint64_t magnitude = 0;
  for (; i < text.size() && isDigit(text[i]); ++i) {
    if (magnitude <= kLimit) magnitude = magnitude * 10 + static_cast<uint64_t>(text[i] - '0');
  }
  if (negative) {
    if (magnitude >= kLimit) return min;
    const int64_t value = -static_cast<int64_t>(magnitude);
    return value < min ? min : value;
  }
  if (magnitude >= kLimit) return max;
  const auto value = static_cast<int64_t>(magnitude);
  return value > max ? max : value;
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
