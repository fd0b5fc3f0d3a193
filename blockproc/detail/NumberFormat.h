#pragma once
// Number-to-text formatting producing exactly what the named printf formats produce: integers and the
// usual fixed-point doubles by integer arithmetic into the caller's buffer, the rest by std::to_chars.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace blockproc::num {

// More decimal places than this are refused by the readers and the positional writer: a double has no
// non-zero digit past the 1,074th place, and a larger count would only ask for an enormous string.
inline constexpr int32_t kMaxDecimalPlaces = 1100;

// 10^k for k from 0 to 19, every power a uint64_t holds.
inline constexpr std::array<uint64_t, 20> kPowersOfTen = [] {
  std::array<uint64_t, 20> powers{};
  uint64_t power = 1;
  for (auto& p : powers) {
    p = power;
    power *= 10;
  }
  return powers;
}();

// 10^k for k from 0 to 22 as doubles, each exact (5^22 still fits a double's 53 bits).
inline constexpr std::array<double, 23> kExactPowersOfTen = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                                             1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                                             1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// The double rounded to the nearest float, +/-infinity beyond the float range, as IEEE 754 narrowing does
// (a plain cast of an out-of-range value is undefined behaviour).
float narrowToFloat(double value) noexcept;

// Bytes a writer below needs free at its destination; it may change bytes past the text it writes, up to
// that room.
inline constexpr size_t kIntRoom = 24;    // writeInt
inline constexpr size_t kFixedRoom = 48;  // writeFixed

// Writes "%lld" of the value at dst (kIntRoom bytes free) and gives the end of the text.
char* writeInt(char* dst, int64_t value) noexcept;

namespace digits {

// Digits in a register. The 8 digits of v < 10^8 are made in one 64-bit word, its first byte the first
// digit: v splits into two 4-digit halves in 32-bit lanes, each lane into two 2-digit quarters in 16-bit
// lanes, each of those into two digits in bytes. A lane is divided by a multiply and a shift that are exact
// for the lane's range (x * 10486 >> 20 is x / 100 below 10^4, x * 103 >> 10 is x / 10 below 100); what the
// multiply carries into the lane below lands above the mask. One 8-byte store then writes the digits.
//
// Digits written a pair at a time from a table into a stack buffer and then appended came back through a
// load that could not be forwarded from the small stores before it, where the quote record's four binary
// numbers spent a quarter of the record (BM_ReadInt64, BM_RecordByRecordRead).
inline uint64_t eightDigits(uint64_t v) noexcept {
  const auto v32 = static_cast<uint32_t>(v);  // below 10^8: a 32-bit division is one multiply
  uint64_t x = (v32 / 10000) | (uint64_t{v32 % 10000} << 32);
  const uint64_t hundreds = ((x * 10486) >> 20) & 0x0000007F0000007Full;
  x = hundreds | ((x - hundreds * 100) << 16);
  const uint64_t tens = ((x * 103) >> 10) & 0x000F000F000F000Full;
  x = tens | ((x - tens * 10) << 8);
  return x | 0x3030303030303030ull;
}

// The 4 digits of v < 10^4 the same way, in the low four bytes: half the steps of eightDigits.
inline uint64_t fourDigits(uint64_t v) noexcept {
  const auto v32 = static_cast<uint32_t>(v);
  uint64_t x = (v32 / 100) | (uint64_t{v32 % 100} << 16);
  const uint64_t tens = ((x * 103) >> 10) & 0x000F000Full;
  x = tens | ((x - tens * 10) << 8);
  return x | 0x30303030ull;
}

inline void store8(char* dst, uint64_t word) noexcept {
  std::memcpy(dst, &word, 8);
}

// Writes exactly `width` digits (1 to 20) of v < 10^width, zero-filled, at dst and gives their end; the
// bytes up to dst + 8 may change.
[[gnu::always_inline]] inline char* putDigits(char* dst, uint64_t v, int width) noexcept {
  constexpr uint64_t k8 = 100'000'000;
  if (width <= 4) {
    store8(dst, fourDigits(v) >> (8 * (4 - width)));
  } else if (width <= 8) {
    store8(dst, eightDigits(v) >> (8 * (8 - width)));
  } else if (width <= 16) {
    store8(dst, eightDigits(v / k8) >> (8 * (16 - width)));
    store8(dst + width - 8, eightDigits(v % k8));
  } else {
    const uint64_t high = v / k8;
    store8(dst, eightDigits(high / k8) >> (8 * (24 - width)));  // below 10^4
    store8(dst + width - 16, eightDigits(high % k8));
    store8(dst + width - 8, eightDigits(v % k8));
  }
  return dst + width;
}

}  // namespace digits

// Writes the value's digits zero-filled to exactly `width` of them (1 to 20, no fewer than the value has) at
// dst (kIntRoom bytes free) and gives the end. Inline: a caller with the same width for a column of values
// keeps the digits in registers.
inline char* writeZeroPadded(char* dst, uint64_t value, int32_t width) noexcept {
  return digits::putDigits(dst, value,
                           width);  // the digits a width holds beyond the value's are its leading zeros
}

// Writes "%0.*f" of the value at dst (kFixedRoom bytes free) and gives the end of the text, for 0 to 18
// places and a zero or normal value below 2^52; nullptr, for any other value or count of places.
char* writeFixed(char* dst, double value, int32_t places) noexcept;

// Appends "%lld" of the value.
void appendInt(std::string& out, int64_t value);

// Appends "%0*lld" of the value: at least `width` characters, zeros after any '-' sign.
void appendZeroPadded(std::string& out, int64_t value, int32_t width);

// Appends "%0.*f" of the value with `places` decimals; a negative count prints 6, as printf does.
// Counts above kMaxDecimalPlaces are treated as kMaxDecimalPlaces.
void appendFixed(std::string& out, double value, int32_t places);

}  // namespace blockproc::num
