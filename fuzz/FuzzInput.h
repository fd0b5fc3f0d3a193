#pragma once
// A cursor over a fuzz input: small typed draws from the front, each returning zero once the bytes run out,
// so every input, however short, decodes to some definite run.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

namespace blockproc::fuzz {

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : p_(data), n_(size) {}

  size_t remaining() const { return n_; }
  bool empty() const { return n_ == 0; }

  uint8_t byte() {
    if (n_ == 0) return 0;
    --n_;
    return *p_++;
  }
  bool flag() { return (byte() & 1) != 0; }
  uint16_t u16() { return static_cast<uint16_t>(byte() | (byte() << 8)); }
  uint32_t u32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v |= uint32_t{byte()} << (8 * i);
    return v;
  }
  int32_t i32() {
    const uint32_t v = u32();
    int32_t s;
    std::memcpy(&s, &v, sizeof s);
    return s;
  }
  // A value in [0, n) (0 when n is 0).
  size_t below(size_t n) { return n == 0 ? 0 : byte() % n; }

  template <typename T, size_t N>
  const T& pick(const T (&table)[N]) {
    return table[below(N)];
  }

  // A 32-bit number that is mostly small, sometimes one of the boundary values, sometimes anything.
  int32_t number() {
    static constexpr int32_t kEdges[] = {0,
                                         -1,
                                         1,
                                         2,
                                         7,
                                         8,
                                         99,
                                         100,
                                         255,
                                         256,
                                         1100,
                                         1101,
                                         1 << 16,
                                         1 << 20,
                                         std::numeric_limits<int32_t>::max() / 2,
                                         std::numeric_limits<int32_t>::max() - 1,
                                         std::numeric_limits<int32_t>::max(),
                                         std::numeric_limits<int32_t>::min(),
                                         std::numeric_limits<int32_t>::min() + 1};
    const uint8_t mode = byte();
    if (mode < 160) return static_cast<int32_t>(byte()) - 16;  // -16 .. 239
    if (mode < 240) return pick(kEdges);
    return i32();
  }

  // The next `length` bytes (fewer when the input ends first).
  std::string_view bytes(size_t length) {
    length = std::min(length, n_);
    std::string_view out(reinterpret_cast<const char*>(p_), length);
    p_ += length;
    n_ -= length;
    return out;
  }
  // Bytes with a length prefix of one byte, at most `limit`.
  std::string_view shortBytes(size_t limit = 64) { return bytes(std::min<size_t>(byte(), limit)); }
  // Everything left.
  std::string_view rest() { return bytes(n_); }

 private:
  const uint8_t* p_;
  size_t n_;
};

}  // namespace blockproc::fuzz
