#pragma once
// Conversion between the bytes of a record buffer and UTF-8 strings, keyed by a text encoding identifier.
//
// Decoding fails on any byte sequence that is not valid in the encoding (a lone lead byte, a cut
// double-byte character; for UTF-8 also overlong forms, surrogates and code points above U+10FFFF).
// Encoding fails on a character the encoding cannot represent and on input that is not valid UTF-8.
// An identifier no codec knows makes every conversion fail. All-ASCII text never reaches a converter in
// an ASCII-compatible encoding; the C library's iconv converters are opened once per thread and reused.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "blockproc/codec/TextEncoding.h"

namespace blockproc::codec {

// True when the identifier names an encoding this library converts.
bool isKnownEncoding(uint32_t encoding) noexcept;

// Appends the UTF-8 form of `bytes` to `out`; false, with `out` unchanged, when decoding fails.
bool decodeAppend(uint32_t encoding, std::string_view bytes, std::string& out) noexcept;

// Bytes decodeInto may write for `size` bytes of text: a double-byte character becomes at most three.
constexpr size_t decodeRoom(size_t size) noexcept {
  return size * 3 / 2 + 4;
}

// Writes the UTF-8 form of `bytes` at dst (decodeRoom(bytes.size()) bytes free) and gives its end, where a
// table decodes them (code page 949); nullptr for other encodings and for bytes the table cannot decode,
// which decodeAppend then decodes or refuses.
char* decodeInto(uint32_t encoding, std::string_view bytes, char* dst) noexcept;

// The UTF-8 form of `bytes`, or nullopt when decoding fails.
std::optional<std::string> decode(uint32_t encoding, std::string_view bytes) noexcept;

// Writes the bytes of UTF-8 `text` in `encoding` at dst (text.size() bytes free) and gives their end, where a
// table encodes them (code page 949), each character's bytes known to decode back to it; nullptr for other
// encodings, for text that is not UTF-8 and for a character the table does not hold, which encodeAppend
// then encodes or refuses.
char* encodeInto(uint32_t encoding, std::string_view text, char* dst) noexcept;

// Appends the bytes of UTF-8 `text` in `encoding` to `out`; false, with `out` unchanged, when encoding fails.
bool encodeAppend(uint32_t encoding, std::string_view text, std::string& out) noexcept;

// The bytes of UTF-8 `text` in `encoding`, or nullopt when encoding fails.
std::optional<std::string> encode(uint32_t encoding, std::string_view text) noexcept;

// Appends each byte as the character of the same number (an ISO-8859-1 read), so the result is always
// UTF-8; the decoding half of the Latin-1 codec, which never fails. Allocates as `out` grows (throws
// std::bad_alloc).
void appendLatin1(std::string& out, std::string_view bytes);

// Appends the Latin-1 bytes of valid UTF-8 `text`; false, with `out` unchanged, for a character above U+00FF
// or when `out` cannot grow.
bool encodeLatin1Append(std::string_view text, std::string& out) noexcept;

// A short name for the identifier ("cp949", "utf-8", ...), or "unknown".
const char* encodingName(uint32_t encoding) noexcept;

// The identifier for a name such as "cp949", "utf-8", "euc-kr" (letter case and '-' / '_' ignored),
// or nullopt for a name no codec knows.
std::optional<uint32_t> encodingFromName(std::string_view name) noexcept;

}  // namespace blockproc::codec
