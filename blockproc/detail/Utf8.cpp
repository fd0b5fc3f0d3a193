#include "blockproc/detail/Utf8.h"

#include <cstring>

namespace blockproc::utf8 {

char32_t next(std::string_view text, size_t& i) noexcept {
  const auto b0 = static_cast<unsigned char>(text[i]);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  int extra = b0 >= 0xF0 ? 3 : b0 >= 0xE0 ? 2 : 1;
  char32_t cp = b0 & (0x3F >> extra);
  ++i;
  for (; extra > 0 && i < text.size(); --extra, ++i)
    cp = (cp << 6) | (static_cast<unsigned char>(text[i]) & 0x3F);
  return cp;
}

namespace {

// Start of the last character of non-empty valid UTF-8 text.
size_t lastStart(std::string_view text) noexcept {
  size_t i = text.size() - 1;
  while (i > 0 && isContinuation(static_cast<uint8_t>(text[i]))) --i;
  return i;
}

bool isSpaceSeparatorOrTab(char32_t cp) noexcept {
  switch (cp) {
    case 0x0009:
    case 0x0020:
    case 0x00A0:
    case 0x1680:
    case 0x202F:
    case 0x205F:
    case 0x3000:
      return true;
    default:
      return cp >= 0x2000 && cp <= 0x200A;
  }
}

bool isWide(char32_t cp) noexcept {
  return (cp >= 0x1100 && cp <= 0x115F) || (cp >= 0x2E80 && cp <= 0x303E) || (cp >= 0x3041 && cp <= 0x33FF) ||
         (cp >= 0x3400 && cp <= 0x4DBF) || (cp >= 0x4E00 && cp <= 0x9FFF) || (cp >= 0xA000 && cp <= 0xA4CF) ||
         (cp >= 0xAC00 && cp <= 0xD7A3) || (cp >= 0xF900 && cp <= 0xFAFF) || (cp >= 0xFE30 && cp <= 0xFE4F) ||
         (cp >= 0xFF00 && cp <= 0xFF60) || (cp >= 0xFFE0 && cp <= 0xFFE6) || (cp >= 0x20000 && cp <= 0x3FFFD);
}

}  // namespace

bool isAscii(std::string_view bytes) noexcept {
  const char* p = bytes.data();
  size_t n = bytes.size();
  while (n >= 8) {
    uint64_t word;
    std::memcpy(&word, p, 8);
    if (word & 0x8080808080808080ull) return false;
    p += 8;
    n -= 8;
  }
  for (; n > 0; --n, ++p)
    if (static_cast<unsigned char>(*p) & 0x80) return false;
  return true;
}

bool isValid(std::string_view text) noexcept {
  return validPrefix(text) == text.size();
}

size_t validPrefix(std::string_view text) noexcept {
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    // Skip ASCII eight bytes at a time.
    if (i + 8 <= n) {
      uint64_t word;
      std::memcpy(&word, s + i, 8);
      if ((word & 0x8080808080808080ull) == 0) {
        i += 8;
        continue;
      }
    }
    if (nextValid(text, i) == kNotValid) return i;
  }
  return n;
}

size_t encode(char32_t cp, char (&out)[4]) noexcept {
  if (cp < 0x80) {
    out[0] = static_cast<char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<char>(0xC0 | (cp >> 6));
    out[1] = static_cast<char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return 0;
  const size_t count = cp < 0x10000 ? 3 : 4;
  for (size_t k = count - 1; k > 0; --k, cp >>= 6) out[k] = static_cast<char>(0x80 | (cp & 0x3F));
  out[0] = static_cast<char>((count == 3 ? 0xE0 : 0xF0) | cp);
  return count;
}

int64_t utf16Length(std::string_view text) noexcept {
  int64_t units = 0;
  for (const char c : text) units += utf16Units(static_cast<uint8_t>(c));
  return units;
}

std::string_view trimSpaceSeparators(std::string_view text) noexcept {
  while (!text.empty()) {
    size_t i = 0;
    if (!isSpaceSeparatorOrTab(next(text, i))) break;
    text.remove_prefix(i);
  }
  while (!text.empty()) {
    const size_t start = lastStart(text);
    size_t i = start;
    if (!isSpaceSeparatorOrTab(next(text, i))) break;
    text.remove_suffix(text.size() - start);
  }
  return text;
}

size_t displayWidth(std::string_view text) noexcept {
  size_t width = 0;
  for (size_t i = 0; i < text.size();) width += isWide(next(text, i)) ? 2 : 1;
  return width;
}

}  // namespace blockproc::utf8
