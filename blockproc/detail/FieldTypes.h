#pragma once
// The rules of each field data type, stated once: how wide a binary value is, whether the bytes hold text,
// numeric text or a binary value, whether decimal places take part in the value, how a binary value's bytes
// are loaded and shown, and how the main writer lays a value out. The processor's readers and writers and
// the engine's codec (decoder, encoder, the reference renderer and checker) all ask these; nothing else
// tells the types apart by their codes.
//
// Binary values are little-endian and every load and store goes through std::memcpy. The functions a
// record read calls for each field are inline, so that the read stays one pass over the record with no
// call per value.

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "blockproc/data/FieldInfo.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/NumericText.h"

namespace blockproc::ftype {

static_assert(std::endian::native == std::endian::little, "binary fields are little-endian");

// What a type's bytes hold.
enum class Layout : uint8_t {
  Unknown,     // a code no type has: nothing is read from it
  Text,        // text, left-aligned, padded with spaces; a number when the field has decimal places
  NumberText,  // a number as text, the point explicit or implied
  Binary,      // a binary value of `width` bytes
};

// How a binary value's bytes are loaded.
enum class Binary : uint8_t { None, Int16, Int64, Float, Double };

// How the processor's main writer lays a caller's value out in the field.
enum class Write : uint8_t {
  Text,        // the encoded bytes, left-aligned
  NumberText,  // right-aligned numeric text with the field's point
  Binary,      // the value's leading number in binary
  DigitText,   // the encoded bytes right-aligned behind zeros (sint64, and a code no type has)
};

struct Rules {
  std::string_view name;  // the type's name in a definition file
  Layout layout;
  Binary binary;
  Write write;
  int32_t width;  // bytes of a binary value; 0 for text
  bool places;    // decimal places take part in the value: a binary float or double, any text type
};

// Indexed by the type code (FieldDataType). Not inline: each library file reads its own copy directly
// rather than through the shared library's symbol table.
constexpr std::array<Rules, 7> kRules{{
    {"text", Layout::Text, Binary::None, Write::Text, 0, true},
    {"number", Layout::NumberText, Binary::None, Write::NumberText, 0, true},
    {"int16", Layout::Binary, Binary::Int16, Write::Binary, 2, false},
    {"int64", Layout::Binary, Binary::Int64, Write::Binary, 8, false},
    {"float", Layout::Binary, Binary::Float, Write::Binary, 4, true},
    {"double", Layout::Binary, Binary::Double, Write::Binary, 8, true},
    // Read as an int64; the main writer writes its digits as text, the positional writer leaves it.
    {"sint64", Layout::Binary, Binary::Int64, Write::DigitText, 8, false},
}};
constexpr Rules kUnknownType{"unknown", Layout::Unknown, Binary::None, Write::DigitText, 0, false};

// The rules of a type code; kUnknownType for a code no type has.
constexpr const Rules& rulesOf(int32_t type) noexcept {
  return static_cast<uint32_t>(type) < kRules.size() ? kRules[static_cast<uint32_t>(type)] : kUnknownType;
}

// The type code of a definition file's type name, or -1.
constexpr int32_t typeOfName(std::string_view name) noexcept {
  for (size_t i = 0; i < kRules.size(); ++i)
    if (kRules[i].name == name) return static_cast<int32_t>(i);
  return -1;
}

// Whether the code is one of the types.
constexpr bool isKnown(int32_t type) noexcept {
  return static_cast<uint32_t>(type) < kRules.size();
}

// Whether the bytes are text of some kind (text or numeric text).
constexpr bool isText(int32_t type) noexcept {
  const Layout layout = rulesOf(type).layout;
  return layout == Layout::Text || layout == Layout::NumberText;
}

// Bit t set for each binary type code t: a test of the code that reads no memory, for the per-field paths.
constexpr uint32_t kBinaryTypes = [] {
  uint32_t bits = 0;
  for (size_t i = 0; i < kRules.size(); ++i)
    if (kRules[i].layout == Layout::Binary) bits |= 1u << i;
  return bits;
}();

// Whether the bytes hold a binary value.
constexpr bool isBinary(int32_t type) noexcept {
  return static_cast<uint32_t>(type) < kRules.size() && ((kBinaryTypes >> type) & 1u) != 0;
}

// Bytes of a binary type's value, 0 for a text type or an unknown one.
constexpr int32_t binaryWidth(int32_t type) noexcept {
  return rulesOf(type).width;
}

// Whether the field's bytes are numeric text: a number field, or a text field with decimal places.
inline bool holdsNumberText(const FieldInfo& field) noexcept {
  const Layout layout = rulesOf(field.nDataType).layout;
  return layout == Layout::NumberText || (layout == Layout::Text && field.nDecimalLen > 0);
}

// Whether the field's value is shown as text (a text field without decimal places); every other field,
// an unknown type's too, holds a number.
inline bool holdsPlainText(const FieldInfo& field) noexcept {
  return rulesOf(field.nDataType).layout == Layout::Text && field.nDecimalLen <= 0;
}

// Whether the field holds a whole number: an integer type, or text without decimal places.
inline bool holdsWholeNumber(const FieldInfo& field) noexcept {
  const Rules& rules = rulesOf(field.nDataType);
  return rules.binary == Binary::Int16 || rules.binary == Binary::Int64 ||
         (isText(field.nDataType) && field.nDecimalLen == 0);
}

// ---- binary values ------------------------------------------------------------------------------------

template <typename T>
T load(const uint8_t* bytes) noexcept {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// 10 to the power `places`; exact in a double up to 10^22, as std::pow gives them.
inline double powerOfTen(int32_t places) noexcept {
  if (places >= 0 && places < static_cast<int32_t>(num::kExactPowersOfTen.size()))
    return num::kExactPowersOfTen[static_cast<size_t>(places)];
  return std::pow(10.0, places);
}

// The value a float field shows: the stored float divided by 10^places in double precision and narrowed
// back to a float.
inline float scaledFloat(float stored, int32_t places) noexcept {
  return num::narrowToFloat(static_cast<double>(stored) / powerOfTen(places));
}

// A binary value as a number: an integer type's value, or a float or double's stored value (unscaled).
struct RawNumber {
  bool integer = false;
  int64_t whole = 0;
  double real = 0;
};

// The number in the width of `kind`'s bytes at `bytes`.
inline RawNumber loadRaw(Binary kind, const uint8_t* bytes) noexcept {
  switch (kind) {
    case Binary::Int16:
      return {true, load<int16_t>(bytes), 0};
    case Binary::Int64:
      return {true, load<int64_t>(bytes), 0};
    case Binary::Float:
      return {false, 0, static_cast<double>(load<float>(bytes))};
    case Binary::Double:
      return {false, 0, load<double>(bytes)};
    case Binary::None:
    default:
      return {};
  }
}

// Writes the processor's display text of the binary value at `bytes` (its width of them) at dst (num's
// kIntRoom and kFixedRoom bytes free) and gives the end: an integer in decimal, a float scaled by its places
// (scaledFloat) and a double, both with exactly `places` decimals; nullptr where num::writeFixed gives none.
[[gnu::always_inline]] inline char* writeShown(char* dst, Binary kind, const uint8_t* bytes,
                                               int32_t places) noexcept {
  switch (kind) {
    case Binary::Int16:
      return num::writeInt(dst, load<int16_t>(bytes));
    case Binary::Int64:
      return num::writeInt(dst, load<int64_t>(bytes));
    case Binary::Float:
      return num::writeFixed(dst, static_cast<double>(scaledFloat(load<float>(bytes), places)), places);
    case Binary::Double:
      return num::writeFixed(dst, load<double>(bytes), places);
    case Binary::None:
    default:
      return nullptr;
  }
}

// Appends the display text writeShown writes for any count of places (a float or a double with more than
// num::kMaxDecimalPlaces is refused: false, nothing appended); an int64 of type `type` is zero-padded to
// `int64Width` characters when that is above 0.
inline bool appendShown(std::string& out, int32_t type, const uint8_t* bytes, int32_t places,
                        int32_t int64Width) {
  switch (rulesOf(type).binary) {
    case Binary::Int16:
      num::appendInt(out, load<int16_t>(bytes));
      return true;
    case Binary::Int64:
      // Only the int64 type is zero-padded where a width is asked for; an sint64 never is.
      if (int64Width > 0 && type == kFieldInt64) {
        num::appendZeroPadded(out, load<int64_t>(bytes), int64Width);
      } else {
        num::appendInt(out, load<int64_t>(bytes));
      }
      return true;
    case Binary::Float:
      if (places > num::kMaxDecimalPlaces) return false;
      num::appendFixed(out, static_cast<double>(scaledFloat(load<float>(bytes), places)), places);
      return true;
    case Binary::Double:
      if (places > num::kMaxDecimalPlaces) return false;
      num::appendFixed(out, load<double>(bytes), places);
      return true;
    case Binary::None:
    default:
      return false;
  }
}

// Stores the binary form of the value's leading number for `kind` in the field's bytes (the low-order
// bytes when `length` is below the width): an int16 read as 32 bits and cut to its low 16, an int64, a
// float read as a double and narrowed, a double. False, storing nothing, for Binary::None.
inline bool storeBinary(uint8_t* field, int32_t length, Binary kind, std::string_view value) noexcept {
  uint8_t bytes[8];
  size_t width = 0;
  switch (kind) {
    case Binary::Int16: {
      const auto v = static_cast<uint16_t>(static_cast<uint32_t>(num::parseInt32(value)));
      std::memcpy(bytes, &v, width = 2);
      break;
    }
    case Binary::Int64: {
      const int64_t v = num::parseInt64(value);
      std::memcpy(bytes, &v, width = 8);
      break;
    }
    case Binary::Float: {
      const float v = num::narrowToFloat(num::parseLeadingDouble(value));
      std::memcpy(bytes, &v, width = 4);
      break;
    }
    case Binary::Double: {
      const double v = num::parseLeadingDouble(value);
      std::memcpy(bytes, &v, width = 8);
      break;
    }
    case Binary::None:
    default:
      return false;
  }
  if (length > 0) std::memcpy(field, bytes, std::min(width, static_cast<size_t>(length)));
  return true;
}

// Lays the caller's `value` (`encoded` in the field's encoding) out in the field's `length` bytes, which
// hold spaces, as the processor's main writer lays out a value of type `type` with `places` decimals.
inline void layOut(uint8_t* field, int32_t length, int32_t type, int32_t places, std::string_view value,
                   std::string_view encoded) noexcept {
  const Rules& rules = rulesOf(type);
  switch (rules.write) {
    case Write::Text:
      std::memcpy(field, encoded.data(), std::min(encoded.size(), static_cast<size_t>(length)));
      return;
    case Write::NumberText:
      num::layoutNumericText(field, length, places, value, encoded);
      return;
    case Write::Binary:
      storeBinary(field, length, rules.binary, value);
      return;
    case Write::DigitText:
    default:
      num::layoutDigitText(field, length, encoded);
      return;
  }
}

}  // namespace blockproc::ftype
