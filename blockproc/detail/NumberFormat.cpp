#include "blockproc/detail/NumberFormat.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace blockproc::num {

using digits::putDigits;

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

namespace {

// The count of decimal digits of v (1 for 0).
int decimalLength(uint64_t v) noexcept {
  const int guess = (static_cast<int>(std::bit_width(v | 1)) * 1233) >> 12;  // log10(2) ~ 1233 / 4096
  return guess + ((v | 1) >= kPowersOfTen[static_cast<size_t>(guess)] ? 1 : 0);
}

uint64_t magnitude(int64_t value) noexcept {
  return value < 0 ? uint64_t{0} - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
}

}  // namespace

char* writeInt(char* dst, int64_t value) noexcept {
  *dst = '-';
  dst += value < 0 ? 1 : 0;  // no branch on the sign, which is as good as random in a column of changes
  const uint64_t m = magnitude(value);
  return putDigits(dst, m, decimalLength(m));
}

void appendInt(std::string& out, int64_t value) {
  std::array<char, kIntRoom> buf;
  out.append(buf.data(), writeInt(buf.data(), value));
}

void appendZeroPadded(std::string& out, int64_t value, int32_t width) {
  std::array<char, kIntRoom> buf;
  const uint64_t m = magnitude(value);
  char* const end = putDigits(buf.data(), m, decimalLength(m));
  if (value < 0) out.push_back('-');
  const int64_t shown = (end - buf.data()) + (value < 0 ? 1 : 0);  // the sign counts toward the width
  if (width > shown) out.append(static_cast<size_t>(width - shown), '0');
  out.append(buf.data(), end);
}

// "%0.*f" of a double by integer arithmetic. The value is m / 2^k exactly (m the 53-bit mantissa): its
// integer part is m >> k, and its decimals are the fraction bits f times 10^places over 2^k, rounded half to
// even as printf and std::to_chars round; a carry out of the decimals adds one to the integer part. Covers
// normal values below 2^52 with up to 18 places; nullptr for the rest. std::to_chars (fixed) was the largest
// item of a quote record's profile, and dividing one scaled integer by 10^places for the point is slower
// than this as well (the quote record's float and double fields with 2 places: BM_RecordByRecordRead).
char* writeFixed(char* dst, double value, int32_t places) noexcept {
  if (places < 0 || places > 18) return nullptr;
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  const auto exponent = static_cast<int>((bits >> 52) & 0x7FF);
  const bool zero = (bits << 1) == 0;
  if ((exponent == 0 && !zero) || exponent == 0x7FF) return nullptr;  // subnormal, infinity, NaN
  const int shift = 1075 - exponent;                                  // value = mantissa / 2^shift
  if (shift <= 0) return nullptr;                                     // 2^52 and above
  __extension__ typedef unsigned __int128 u128;                       // GCC and Clang on 64-bit targets
  const uint64_t scale = kPowersOfTen[static_cast<size_t>(places)];
  const uint64_t mantissa = (bits & ((uint64_t{1} << 52) - 1)) | (uint64_t{1} << 52);
  uint64_t integral = 0, decimals = 0;
  bool roundUp = false;
  if (zero || shift >= 128) {
    // 0, or below 2^-75: less than half of the last place, it rounds to 0
  } else if (shift < 64) {
    // Fraction bits and remainder fit 64 bits: only the product needs the upper half.
    integral = mantissa >> shift;
    const uint64_t mask = (uint64_t{1} << shift) - 1;
    const u128 scaled = u128{mantissa & mask} * scale;  // below 2^shift * 10^18
    const auto low = static_cast<uint64_t>(scaled), high = static_cast<uint64_t>(scaled >> 64);
    decimals = (low >> shift) | (high << (64 - shift));  // shift is 1 to 63
    const uint64_t rest = low & mask, half = uint64_t{1} << (shift - 1);
    const bool odd = ((places == 0 ? integral : decimals) & 1) != 0;
    roundUp = (rest > half) | ((rest == half) & odd);  // no branch: the remainder is as good as random
  } else {
    const u128 scaled = u128{mantissa} * scale;  // below 2^53 * 10^18 < 2^113
    decimals = static_cast<uint64_t>(scaled >> shift);
    const u128 rest = scaled - (u128{decimals} << shift);
    const u128 half = u128{1} << (shift - 1);
    roundUp = rest > half || (rest == half && (decimals & 1) != 0);
  }
  decimals += roundUp ? 1 : 0;
  if (decimals == scale) {  // 0.999 to two places: 1.00
    decimals = 0;
    ++integral;
  }
  *dst = '-';
  dst += bits >> 63;
  dst = putDigits(dst, integral, decimalLength(integral));
  if (places == 0) return dst;
  *dst++ = '.';
  return putDigits(dst, decimals, places);
}

void appendFixed(std::string& out, double value, int32_t places) {
  const int precision = places < 0 ? 6 : std::min(places, kMaxDecimalPlaces);
  std::array<char, kFixedRoom> fixed;
  if (char* end = writeFixed(fixed.data(), value, precision)) {
    out.append(fixed.data(), end);
    return;
  }
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
