#pragma once
// A text field of at most 16 (or 64) bytes read as 16-byte blocks: trimmed, checked and copied with a few
// mask operations instead of a loop over its bytes. Private to the library's read path.
//
// The idea: the 16 bytes from the field's start are loaded at once (the caller makes sure the buffer has
// them) and compared with a space, a NUL and a '.' all together, giving one bit per byte for each (SSE2
// compares and movemask; a loop over the bytes where SSE2 is missing). Bits past the field's length are
// dropped. The last byte that is neither a space nor a NUL gives the trimmed length, the first byte that is
// not a space the start of a number; a high bit among the kept bytes says "not ASCII". The result is stored
// with one 16-byte store (the bytes after it are the caller's slack), and the implied decimal point goes in
// by shifting the bytes after it one byte up in two 64-bit halves.
//
// The quote record's nine short text fields read faster by these masks than by a word loop and a byte loop
// or by 128-bit integer masks without SIMD (BM_RecordByRecordRead).

#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace blockproc::text {

// One bit per byte of up to 64 bytes, bit i for byte i.
struct ByteMasks {
  uint64_t space = 0;  // 0x20
  uint64_t nul = 0;    // 0x00
  uint64_t point = 0;  // '.'
  uint64_t high = 0;   // high bit set
};

// The masks of `blocks` 16-byte blocks by a loop over the bytes: what the SIMD masks must equal.
inline ByteMasks byteMasksByLoop(const uint8_t* bytes, int blocks) noexcept {
  ByteMasks m;
  for (int i = 0; i < 16 * blocks; ++i) {
    m.space |= uint64_t{bytes[i] == 0x20} << i;
    m.nul |= uint64_t{bytes[i] == 0x00} << i;
    m.point |= uint64_t{bytes[i] == '.'} << i;
    m.high |= uint64_t{bytes[i] >= 0x80} << i;
  }
  return m;
}

// The masks of `Blocks` (1 to 4) 16-byte blocks at `bytes`.
template <int Blocks>
ByteMasks byteMasks(const uint8_t* bytes) noexcept {
  static_assert(Blocks >= 1 && Blocks <= 4);
#if defined(__SSE2__)
  ByteMasks m;
  for (int b = 0; b < Blocks; ++b) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + 16 * b));
    const auto mask = [b](__m128i lanes) {
      return static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(lanes))) << (16 * b);
    };
    m.space |= mask(_mm_cmpeq_epi8(v, _mm_set1_epi8(0x20)));
    m.nul |= mask(_mm_cmpeq_epi8(v, _mm_setzero_si128()));
    m.point |= mask(_mm_cmpeq_epi8(v, _mm_set1_epi8('.')));
    m.high |= mask(v);
  }
  return m;
#else
  return byteMasksByLoop(bytes, Blocks);
#endif
}

// Text of up to 16 * Blocks bytes read by blocks.
template <int Blocks>
class BlockText {
 public:
  static constexpr int kWidth = 16 * Blocks;

  // The `length` (0 to kWidth) bytes at `bytes`; the kWidth bytes from `bytes` on must be readable.
  BlockText(const uint8_t* bytes, int length) noexcept : bytes_(bytes) {
    masks_ = byteMasks<Blocks>(bytes);
    const uint64_t kept = ~(masks_.space | masks_.nul) & lowBits(length);  // neither space nor NUL
    size_ = 64 - std::countl_zero(kept);
  }

  // Bytes less the trailing spaces and NULs.
  int size() const noexcept { return size_; }
  // Whether no byte of the trimmed text has its high bit set.
  bool isAscii() const noexcept { return (masks_.high & lowBits(size_)) == 0; }
  // Whether the trimmed text holds a '.'.
  bool hasPoint() const noexcept { return (masks_.point & lowBits(size_)) != 0; }

  // Writes the trimmed bytes at dst, which has kWidth bytes free, and gives their end.
  char* write(char* dst) const noexcept {
    std::memcpy(dst, bytes_, kWidth);
    return dst + size_;
  }

  // Writes what num::appendDecimalInserted appends for the trimmed bytes at dst (kWidth bytes free), for
  // ASCII without NUL or '.', more digits than places and one byte of room for the point; nullptr for any
  // other text or places below 1.
  char* writeDecimalInserted(char* dst, int places) const noexcept {
    static_assert(Blocks == 1, "the point goes in within one 16-byte block");
    const uint64_t trimmed = lowBits(size_);
    if (((masks_.high | masks_.nul | masks_.point) & trimmed) != 0 || places <= 0 || size_ == 0)
      return nullptr;
    const int spaces = std::countr_zero(~masks_.space);  // leading spaces: fewer than size_
    const uint8_t first = bytes_[spaces];
    const int body = size_ - spaces;   // sign and digits
    const int before = body - places;  // bytes before the point, the sign among them
    if (before - (first == '+' || first == '-' ? 1 : 0) <= 0 || body + 1 > kWidth) return nullptr;
    // The body's bytes shifted down past the leading spaces; bytes [0, before) stay, '.' goes at `before`,
    // bytes [before, body) move up one.
    u128 text;
    std::memcpy(&text, bytes_, kWidth);
    text >>= 8 * spaces;
    const u128 out =
        (text & lowBytes(before)) | (u128{'.'} << (8 * before)) | ((text << 8) & ~lowBytes(before + 1));
    // Two 8-byte stores of the halves, held in general registers: stored as one 16-byte value they went
    // through the stack, where the 16-byte load waited on the two 8-byte stores before it (a seventh of
    // the record read's time).
    const auto low = static_cast<uint64_t>(out), high = static_cast<uint64_t>(out >> 64);
    std::memcpy(dst, &low, 8);
    std::memcpy(dst + 8, &high, 8);
    return dst + body + 1;
  }

 private:
  __extension__ typedef unsigned __int128 u128;  // GCC and Clang on 64-bit targets

  // The low `count` bits (0 to 64) set.
  static uint64_t lowBits(int count) noexcept {
    return count >= 64 ? ~uint64_t{0} : (uint64_t{1} << count) - 1;
  }
  // The low `count` bytes (0 to 15) of a 128-bit value set.
  static u128 lowBytes(int count) noexcept { return (u128{1} << (8 * count)) - 1; }

  const uint8_t* bytes_;
  ByteMasks masks_;
  int size_ = 0;
};

// A field of up to 16 bytes: trimmed, copied, and given its implied point by blocks.
using ShortText = BlockText<1>;
// A field of up to 64 bytes: trimmed and copied by blocks.
using LongText = BlockText<4>;

}  // namespace blockproc::text
