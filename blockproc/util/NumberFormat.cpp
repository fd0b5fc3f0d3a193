#include "blockproc/util/NumberFormat.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>

namespace blockproc::num {

float narrowToFloat(double value) noexcept {
  // Values up to half an ulp above FLT_MAX still round to FLT_MAX.
  constexpr double kLimit = static_cast<double>(std::numeric_limits<float>::max()) + 0x1p103;
  if (std::isnan(value))
    return std::copysign(std::numeric_limits<float>::quiet_NaN(),
                         static_cast<float>(std::signbit(value) ? -1 : 1));
  if (value >= kLimit) return std::numeric_limits<float>::infinity();
  if (value <= -kLimit) return -std::numeric_limits<float>::infinity();
  return static_cast<float>(value);
}

void appendInt(std::string& out, int64_t value) {
  std::array<char, 24> buf;
  const auto res = std::to_chars(buf.data(), buf.data() + buf.size(), value);
  out.append(buf.data(), res.ptr);
}

void appendZeroPadded(std::string& out, int64_t value, int32_t width) {
  std::array<char, 24> buf;
  const auto res = std::to_chars(buf.data(), buf.data() + buf.size(), value);
  const char* digits = buf.data();
  if (value < 0) {
    out.push_back('-');
    ++digits;
  }
  const int64_t shown = res.ptr - buf.data();  // the sign counts toward the width
  if (width > shown) out.append(static_cast<size_t>(width - shown), '0');
  out.append(digits, static_cast<size_t>(res.ptr - digits));
}

void appendFixed(std::string& out, double value, int32_t places) {
  const int precision = places < 0 ? 6 : std::min(places, kMaxDecimalPlaces);
  // The largest double has 309 integer digits; add sign, point and the decimals.
  constexpr int kStack = 512;
  const int needed = 312 + precision;
  if (needed <= kStack) {
    std::array<char, kStack> buf;
    const auto res =
        std::to_chars(buf.data(), buf.data() + buf.size(), value, std::chars_format::fixed, precision);
    out.append(buf.data(), res.ptr);
    return;
  }
  std::string buf(static_cast<size_t>(needed), '\0');
  const auto res =
      std::to_chars(buf.data(), buf.data() + buf.size(), value, std::chars_format::fixed, precision);
  out.append(buf.data(), res.ptr);
}

}  // namespace blockproc::num
