#pragma once
// Number-to-text formatting producing exactly what the named printf formats produce: integers and the
// usual fixed-point doubles by integer arithmetic into the caller's buffer, the rest by std::to_chars.

#include <array>
#include <cstddef>
#include <cstdint>
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

// Writes the value's digits zero-filled to exactly `width` of them (1 to 20, no fewer than the value has) at
// dst (kIntRoom bytes free) and gives the end.
char* writeZeroPadded(char* dst, uint64_t value, int32_t width) noexcept;

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
