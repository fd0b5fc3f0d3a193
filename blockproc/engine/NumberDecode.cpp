#include "blockproc/engine/NumberDecode.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/NumberParse.h"

namespace blockproc::value {

// One pass over the bytes: the trailing pads and leading spaces skipped, the digits gathered into a uint64_t
// as they come (18 digits always fit; more are refused after the loop, so a wrapped sum is never used), the
// places after a point counted. Without a point the digits already are the scaled value; with one, the
// places missing up to `places` are zeros appended by one multiplication.
ScaledRead readScaled(std::string_view bytes, int32_t places, int64_t& out) noexcept {
  size_t end = bytes.size(), i = 0;
  while (end > 0 && (bytes[end - 1] == ' ' || bytes[end - 1] == '\0')) --end;
  while (i < end && bytes[i] == ' ') ++i;
  if (i == end) return ScaledRead::Blank;
  const bool negative = bytes[i] == '-';
  if (bytes[i] == '-' || bytes[i] == '+') ++i;
  uint64_t digits = 0;
  int32_t count = 0, fraction = -1;
  for (; i < end; ++i) {
    const char c = bytes[i];
    if (c >= '0' && c <= '9') {
      digits = digits * 10 + static_cast<uint64_t>(c - '0');
      ++count;
      if (fraction >= 0) ++fraction;
    } else if (c == '.' && fraction < 0) {
      fraction = 0;
    } else {
      return ScaledRead::Other;
    }
  }
  const int32_t missing = fraction < 0 ? 0 : places - fraction;
  if (count == 0 || missing < 0 || count + missing > 18) return ScaledRead::Other;
  digits *= num::kPowersOfTen[static_cast<size_t>(missing)];
  out = negative ? -static_cast<int64_t>(digits) : static_cast<int64_t>(digits);
  return ScaledRead::Value;
}

// A whole float below 2^24 in magnitude is that integer exactly, and 10^places up to 10^22 is an exact
// double, so one correctly rounded division gives the nearest double to integer * 10^-places: the value its
// text shows. Any other float goes through its shortest text with the exponent lowered by `places`.
bool readReal(std::string_view bytes, bool isFloat, int32_t places, double& out) noexcept {
  if (places < 0 || places > num::kMaxDecimalPlaces || bytes.size() < (isFloat ? 4u : 8u)) return false;
  if (!isFloat) {
    std::memcpy(&out, bytes.data(), sizeof out);
    return std::isfinite(out);
  }
  float value = 0;
  std::memcpy(&value, bytes.data(), sizeof value);
  if (!std::isfinite(value)) return false;
  if (std::fabs(value) < 16777216.0f && places < static_cast<int32_t>(num::kExactPowersOfTen.size()) &&
      std::trunc(value) == value) {
    out = static_cast<double>(value) / num::kExactPowersOfTen[static_cast<size_t>(places)];
    return true;
  }
  char text[64];
  char* end = std::to_chars(text, text + 40, value, std::chars_format::scientific).ptr;
  char* e = std::find(text, end, 'e');
  const int64_t exponent =
      num::parseLeadingInt(std::string_view(e + 1, static_cast<size_t>(end - e - 1)), -1000, 1000) - places;
  end = num::writeInt(e + 1, exponent);
  out = num::parseLeadingDouble(std::string_view(text, static_cast<size_t>(end - text)));
  return true;
}

// Below 2^53 the integer is an exact double and one division rounds once; otherwise the text "<v>e-<places>"
// read back rounds once too.
double scaledToDouble(int64_t scaled, int32_t places) noexcept {
  if (places < 0 || places > num::kMaxDecimalPlaces) return 0.0;
  if (scaled > -(int64_t{1} << 53) && scaled < (int64_t{1} << 53) &&
      places < static_cast<int32_t>(num::kExactPowersOfTen.size()))
    return static_cast<double>(scaled) / num::kExactPowersOfTen[static_cast<size_t>(places)];
  char text[num::kIntRoom * 2 + 1];
  char* end = num::writeInt(text, scaled);
  *end++ = 'e';
  end = num::writeInt(end, -places);
  return num::parseLeadingDouble(std::string_view(text, static_cast<size_t>(end - text)));
}

}  // namespace blockproc::value
