#pragma once
// Text encoding identifiers. They are passed through the processor unchanged; the codec decides what each
// means.
//
// Usage:
//
//   proc.setEncodingType(kTextEncodingUTF8);  // text fields hold UTF-8 instead of code page 949

#include <cstdint>

namespace blockproc {

inline constexpr uint32_t kTextEncodingCP949 =
    0x80000422u;                                    // the default: code page 949 (Hangul, ASCII-compatible)
inline constexpr uint32_t kTextEncodingUTF8 = 4u;   // UTF-8, validated strictly
inline constexpr uint32_t kTextEncodingASCII = 1u;  // 7-bit ASCII; any byte above 0x7F fails
inline constexpr uint32_t kTextEncodingISOLatin1 = 5u;       // ISO-8859-1: every byte is one character
inline constexpr uint32_t kTextEncodingEUCKR = 0x80000940u;  // EUC-KR (KS X 1001 only, no extended Hangul)

}  // namespace blockproc
