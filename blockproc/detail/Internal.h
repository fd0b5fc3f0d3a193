#pragma once
// Private to the library and its tool (not part of the interface a caller programs against): the constants
// and small text helpers several files share, so that each is written once.

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "blockproc/detail/Utf8.h"

namespace blockproc::internal {

// The filler of every text field, record and blanked buffer.
constexpr uint8_t kSpace = 0x20;
// The largest size or count a buffer of the processor can have.
constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();
// Hex digits for showing bytes: upper case in values, lower case in dumps.
constexpr char kHexUpper[] = "0123456789ABCDEF";
constexpr char kHexLower[] = "0123456789abcdef";

// Appends the byte as two hex digits from `digits` (kHexUpper or kHexLower).
inline void appendHexByte(std::string& out, uint8_t byte, const char* digits = kHexUpper) {
  out.push_back(digits[byte >> 4]);
  out.push_back(digits[byte & 15]);
}

// The text with every control character (C0, DEL and C1) and every character that reorders or breaks the
// text shown (utf8::directionalLength) as \xNN, a byte at a time, so that text from a definition or from the
// data can neither break a line of output, move the cursor or clear a terminal, nor show as other text. With
// `keepNewlines`, a '\n' stays a line break (a message of several lines).
inline std::string printable(std::string_view text, bool keepNewlines = false) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    size_t control = keepNewlines && text[at] == '\n' ? 0 : utf8::controlLength(text, at);
    if (control == 0) control = utf8::directionalLength(text, at);
    if (control == 0) {
      out.push_back(text[at++]);
      continue;
    }
    for (const size_t end = at + control; at < end; ++at) {
      out += "\\x";
      appendHexByte(out, static_cast<uint8_t>(text[at]));
    }
  }
  return out;
}

// The number with a comma between groups of three digits: 1200 gives "1,200", -1234567 "-1,234,567".
inline std::string withThousands(int64_t value) {
  const bool negative = value < 0;
  // The magnitude as unsigned, so that the most negative value has one too.
  uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  std::string digits;
  int group = 0;
  do {
    if (group++ == 3) {
      digits.push_back(',');
      group = 1;
    }
    digits.push_back(static_cast<char>('0' + magnitude % 10));
    magnitude /= 10;
  } while (magnitude != 0);
  if (negative) digits.push_back('-');
  std::reverse(digits.begin(), digits.end());
  return digits;
}

// The count with thousands and its unit, plural unless the count is 1: "1 record", "1,200 bytes".
inline std::string counted(int64_t count, std::string_view unit) {
  return withThousands(count) + " " + std::string(unit) + (count == 1 ? "" : "s");
}

// The bytes less their trailing spaces and NULs.
//
// Eight bytes at a time: a byte OR 0x20 is 0x20 only for a space or a NUL. The quote layout's padded 40-byte
// names trim faster this way than byte by byte (BM_RecordByAppend).
[[gnu::always_inline]] inline std::string_view trimTrailing(std::string_view bytes) noexcept {
  constexpr uint64_t kPads = 0x2020202020202020ull;
  size_t n = bytes.size();
  while (n >= 8) {
    uint64_t word;
    std::memcpy(&word, bytes.data() + n - 8, 8);
    const uint64_t kept = (word | kPads) ^ kPads;  // non-zero bytes: neither space nor NUL
    if (kept != 0) return bytes.substr(0, n - 8 + static_cast<size_t>(7 - std::countl_zero(kept) / 8) + 1);
    n -= 8;
  }
  while (n > 0 && (bytes[n - 1] == ' ' || bytes[n - 1] == '\0')) --n;
  return bytes.substr(0, n);
}

// Whether two short texts (field names) are the same, compared in place by whole words: the first and the
// last word of the text, which overlap for a text shorter than two words. For a name of a few bytes, a call
// to memcmp or a loop over the bytes costs more than the bytes do.
[[gnu::always_inline]] inline bool sameName(std::string_view a, std::string_view b) noexcept {
  const size_t n = a.size();
  if (n != b.size()) return false;
  const char* x = a.data();
  const char* y = b.data();
  const auto same = [](const char* p, const char* q, size_t width) {
    uint64_t u = 0, v = 0;
    std::memcpy(&u, p, width);
    std::memcpy(&v, q, width);
    return u == v;
  };
  if (n >= 8) {
    for (size_t i = 0; i + 8 < n; i += 8)
      if (!same(x + i, y + i, 8)) return false;
    return same(x + n - 8, y + n - 8, 8);
  }
  if (n >= 4) return same(x, y, 4) && same(x + n - 4, y + n - 4, 4);
  if (n >= 2) return same(x, y, 2) && same(x + n - 2, y + n - 2, 2);
  return n == 0 || x[0] == y[0];
}

}  // namespace blockproc::internal
