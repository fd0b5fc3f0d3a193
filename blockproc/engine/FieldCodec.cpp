// Encoding a caller's value into a field's bytes, once per field type, without a processor.

#include "blockproc/engine/FieldCodec.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <system_error>

#include "blockproc/detail/FieldTypes.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/NumericText.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/detail/Utf8.h"
#include "blockproc/engine/FieldValue.h"

namespace blockproc::value {

namespace {

using internal::kSpace;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

std::string_view trimSpaces(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

// A plain decimal: an optional '-', digits with at most one point, at least one digit; the integer without
// its leading zeros, the fraction without its trailing ones, and no sign on zero.
struct Plain {
  bool negative = false;
  std::string_view integer, fraction;
};

bool parsePlain(std::string_view text, Plain& p) {
  size_t i = 0;
  p.negative = !text.empty() && text[0] == '-';
  if (p.negative) ++i;
  const size_t intFrom = i;
  while (i < text.size() && isDigit(text[i])) ++i;
  p.integer = text.substr(intFrom, i - intFrom);
  p.fraction = {};
  if (i < text.size() && text[i] == '.') {
    const size_t fracFrom = ++i;
    while (i < text.size() && isDigit(text[i])) ++i;
    p.fraction = text.substr(fracFrom, i - fracFrom);
  }
  if (i != text.size() || p.integer.size() + p.fraction.size() == 0) return false;
  while (!p.integer.empty() && p.integer.front() == '0') p.integer.remove_prefix(1);
  while (!p.fraction.empty() && p.fraction.back() == '0') p.fraction.remove_suffix(1);
  if (p.integer.empty() && p.fraction.empty()) p.negative = false;
  return true;
}

bool samePlain(const Plain& a, const Plain& b) {
  return a.negative == b.negative && a.integer == b.integer && a.fraction == b.fraction;
}

// The nearest Float to a plain decimal moved `places` to the left, when it takes one exact operation and is
// known to read back as that decimal; false otherwise. A decimal of at most digits10 significant digits (15
// for a double, 6 for a float) is an integer that the type holds exactly, times or over a power of ten it
// also holds exactly, so the one correctly rounded multiplication or division gives the nearest value; and
// no two such decimals share a nearest value, so the shortest text of that value is the decimal itself.
template <typename Float>
bool nearestOfShort(const Plain& p, int32_t places, Float& out) {
  constexpr int kDigits = std::numeric_limits<Float>::digits10;
  constexpr int kExact = sizeof(Float) == sizeof(double) ? 22 : 10;  // the last power of ten held exactly
  static constexpr Float kPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                      1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  uint64_t digits = 0;
  int count = 0;
  for (const std::string_view part : {p.integer, p.fraction})
    for (const char c : part) {
      if (count == 0 && c == '0') continue;  // a leading zero of the fraction
      if (++count > kDigits) return false;
      digits = digits * 10 + static_cast<uint64_t>(c - '0');
    }
  const int64_t exponent = int64_t{places} - static_cast<int64_t>(p.fraction.size());
  if (exponent > kExact || exponent < -kExact) return false;
  Float value = static_cast<Float>(digits);
  value = exponent >= 0 ? value * kPowers[exponent] : value / kPowers[-exponent];
  out = p.negative && digits != 0 ? -value : value;
  return true;
}

// Copies `n` bytes, or fills `n` bytes with `byte`, inline: a field's digits and padding are a few bytes,
// for which a call to memcpy or memset costs more than the bytes. Up to 16 bytes take two fixed-size moves
// that overlap (so that every length is covered without a loop); longer runs go to the library.
inline void copyBytes(uint8_t* to, const char* from, size_t n) noexcept {
  const auto move = [&](size_t width) {
    uint64_t head = 0, tail = 0;
    std::memcpy(&head, from, width);
    std::memcpy(&tail, from + n - width, width);
    std::memcpy(to, &head, width);
    std::memcpy(to + n - width, &tail, width);
  };
  if (n > 16) {
    std::memcpy(to, from, n);
  } else if (n >= 8) {
    move(8);
  } else if (n >= 4) {
    move(4);
  } else if (n > 0) {
    to[0] = static_cast<uint8_t>(from[0]);
    to[n / 2] = static_cast<uint8_t>(from[n / 2]);
    to[n - 1] = static_cast<uint8_t>(from[n - 1]);
  }
}

inline void fillBytes(uint8_t* to, uint8_t byte, size_t n) noexcept {
  if (n > 16) {
    std::memset(to, byte, n);
  } else if (n >= 8) {
    const uint64_t word = 0x0101010101010101ULL * byte;
    std::memcpy(to, &word, 8);
    std::memcpy(to + n - 8, &word, 8);
  } else if (n >= 4) {
    const uint32_t word = 0x01010101U * byte;
    std::memcpy(to, &word, 4);
    std::memcpy(to + n - 4, &word, 4);
  } else if (n > 0) {
    to[0] = to[n / 2] = to[n - 1] = byte;
  }
}

// Writes a binary value's `width` bytes at `out`, then spaces to the end of the field (`length` bytes, at
// least `width`): a field of just the value's width, the usual one, takes no call to memset.
void putBinary(uint8_t* out, const void* value, size_t width, int32_t length) {
  std::memcpy(out, value, width);
  if (static_cast<size_t>(length) > width)
    fillBytes(out + width, kSpace, static_cast<size_t>(length) - width);
}

// Copies `text` at `at` and gives the end.
uint8_t* put(uint8_t* at, std::string_view text) {
  copyBytes(at, text.data(), text.size());
  return at + text.size();
}

// The processor's main writer for a prepared value written as `type`: the field blanked, then the value's
// bytes laid out as the type lays them out (nothing when the encoding cannot take them).
void layOut(const FieldInfo& field, int32_t type, const PreparedValue& prepared, uint32_t encoding,
            uint8_t* out) {
  const int32_t length = std::max(field.nLength, 0);
  std::memset(out, kSpace, static_cast<size_t>(length));
  if (prepared.blank || length == 0) return;
  std::string bytes;
  if (!codec::encodeAppend(encoding, prepared.write, bytes)) return;
  ftype::layOut(out, length, type, field.nDecimalLen, prepared.write, bytes);
}

}  // namespace

FieldEncoder::FieldEncoder(const FieldInfo& field, uint32_t encoding) noexcept
    : m_field(&field), m_encoding(encoding), m_length(std::max(field.nLength, 0)) {
  if (field.getKeyEncState() || !codec::isKnownEncoding(encoding)) return;
  const int32_t places = field.nDecimalLen;
  const ftype::Rules& rules = ftype::rulesOf(field.nDataType);
  if (ftype::isText(field.nDataType)) {
    if (ftype::holdsPlainText(field)) {
      m_kind = Kind::Text;
    } else if (places >= 0 && (places == 0 || field.nLength > places)) {
      // A number field whose length leaves room for its places; the others read back otherwise.
      m_kind = rules.layout == ftype::Layout::Text ? Kind::TextNumber : Kind::Number;
      m_places = places;
    }
    return;
  }
  if (rules.layout != ftype::Layout::Binary || m_length < rules.width) return;
  switch (rules.binary) {
    case ftype::Binary::Int16:
      m_kind = Kind::Int16;
      return;
    case ftype::Binary::Int64:
      m_kind = Kind::Int64;
      return;
    case ftype::Binary::Float:
      if (places >= 0) m_kind = Kind::Float;
      m_places = places;
      return;
    case ftype::Binary::Double:
      if (places >= 0) m_kind = Kind::Double;
      return;
    case ftype::Binary::None:
    default:
      return;
  }
}

bool FieldEncoder::encode(std::string_view value, uint8_t* out, std::string& why) {
  bool done = false;
  switch (m_kind) {
    case Kind::Text:
      done = encodeText(value, out);
      break;
    case Kind::Number:
    case Kind::TextNumber:
      done = encodeNumber(value, out);
      break;
    case Kind::Int16:
    case Kind::Int64:
      done = encodeInteger(value, out);
      break;
    case Kind::Float:
      done = encodeFloat<float>(value, out);
      break;
    case Kind::Double:
      done = encodeFloat<double>(value, out);
      break;
    case Kind::Reference:
    default:
      break;
  }
  return done || encodeReference(value, out, why);
}

bool FieldEncoder::encodeReference(std::string_view value, uint8_t* out, std::string& why) {
  const FieldInfo& field = *m_field;
  PreparedValue prepared;
  if (!prepareValue(field, value, m_encoding, prepared, why)) return false;
  layOut(field, prepared.writeType < 0 ? field.nDataType : prepared.writeType, prepared, m_encoding, out);
  std::string back;
  appendValue(back, field,
              std::string_view(reinterpret_cast<const char*>(out), static_cast<size_t>(m_length)), m_encoding,
              BadByteStyle::Escaped);
  if (back == prepared.expected) return true;
  why = "'";
  why += value;
  why += "' would read back as '" + back + "'";
  return false;
}

// Text: the value's bytes in the encoding, then spaces. A value that ends in a space or a NUL, or is longer
// than the field, goes the reference way (to be refused); one not in ASCII is read back before it is taken.
bool FieldEncoder::encodeText(std::string_view value, uint8_t* out) {
  if (!value.empty() && (value.back() == ' ' || value.back() == '\0')) return false;
  std::string_view bytes = value;
  if (!utf8::isAscii(value)) {
    m_scratch.resize(value.size());
    char* const end = codec::encodeInto(m_encoding, value, m_scratch.data());
    if (end != nullptr) {  // each character's bytes are known to read back as it
      bytes = std::string_view(m_scratch.data(), static_cast<size_t>(end - m_scratch.data()));
    } else {
      m_scratch.clear();
      if (!codec::encodeAppend(m_encoding, value, m_scratch)) return false;
      // Read back as a reader would: by the table where the encoding has one, else by the converter.
      const std::string_view kept = internal::trimTrailing(m_scratch);
      m_back.resize(codec::decodeRoom(kept.size()));
      const char* backEnd = codec::decodeInto(m_encoding, kept, m_back.data());
      if (backEnd != nullptr) {
        if (std::string_view(m_back.data(), static_cast<size_t>(backEnd - m_back.data())) != value)
          return false;
      } else {
        m_back.clear();
        if (!codec::decodeAppend(m_encoding, kept, m_back) || m_back != value) return false;
      }
      bytes = m_scratch;
    }
  }
  if (bytes.size() > static_cast<size_t>(m_length)) return false;
  fillBytes(put(out, bytes), kSpace, m_length - bytes.size());
  return true;
}

// A number: a blank value leaves the field spaces; a plain decimal with no more places than the field's is
// written with its point (a sign, zero fill, the digits, the point and exactly the field's places, or the
// same left-aligned in a text field); when they leave no room, with the point and only the places that
// are not zero (zero fill ahead); when the point is implied or even that has no room, without the point
// (a sign, zero fill, then every digit, the last `places` of them the fraction). Other forms go the
// reference way.
bool FieldEncoder::encodeNumber(std::string_view value, uint8_t* out) const {
  const std::string_view text = trimSpaces(value);
  if (text.empty()) {
    std::memset(out, kSpace, static_cast<size_t>(m_length));
    return true;
  }
  Plain p;
  if (!parsePlain(text, p) || p.fraction.size() > static_cast<size_t>(m_places)) return false;
  const auto places = static_cast<int64_t>(m_places), length = static_cast<int64_t>(m_length);
  const int64_t sign = p.negative ? 1 : 0, digits = static_cast<int64_t>(p.integer.size());
  const bool pointWritten = !(m_field->bImpliedPoint && places > 0);
  const int64_t withPoint = (places > 0 ? length - places - 1 : length) - sign;
  const int64_t implied = length - places - sign;
  const auto zeros = [](uint8_t* at, int64_t n) {
    fillBytes(at, '0', static_cast<size_t>(n));
    return at + n;
  };
  uint8_t* at = out;
  if (pointWritten && std::max<int64_t>(digits, 1) <= withPoint) {
    const int64_t used = sign + std::max<int64_t>(digits, 1) + (places > 0 ? places + 1 : 0);
    const bool leftAligned = m_kind == Kind::TextNumber;  // spaces after
    if (p.negative) *at++ = '-';
    if (!leftAligned) at = zeros(at, length - used);
    at = digits == 0 ? zeros(at, 1) : put(at, p.integer);
    if (places > 0) {
      *at++ = '.';
      at = zeros(put(at, p.fraction), places - static_cast<int64_t>(p.fraction.size()));
    }
    if (leftAligned) fillBytes(at, kSpace, static_cast<size_t>(length - used));
    return true;
  }
  const int64_t compact = sign + std::max<int64_t>(digits, 1) + 1 + static_cast<int64_t>(p.fraction.size());
  if (pointWritten && places > 0 && compact <= length) {  // the point and the places that are not zero
    if (p.negative) *at++ = '-';
    at = zeros(at, length - compact);
    at = digits == 0 ? zeros(at, 1) : put(at, p.integer);
    *at++ = '.';
    put(at, p.fraction);
    return true;
  }
  if (places > 0 && digits <= implied) {
    if (p.negative) *at++ = '-';
    at = put(zeros(at, implied - digits), p.integer);
    zeros(put(at, p.fraction), places - static_cast<int64_t>(p.fraction.size()));
    return true;
  }
  return false;
}

// A whole number in range: its binary form, then spaces to the field's end.
bool FieldEncoder::encodeInteger(std::string_view value, uint8_t* out) const {
  const std::string_view text = trimSpaces(value);
  const size_t from = !text.empty() && text[0] == '-' ? 1 : 0;
  if (text.size() <= from || text.size() - from > 18) return false;
  // At most 18 digits: the value is read as they are checked, with no room to overflow.
  int64_t v = 0;
  for (size_t i = from; i < text.size(); ++i) {
    if (!isDigit(text[i])) return false;
    v = v * 10 + (text[i] - '0');
  }
  if (from == 1) v = -v;
  if (m_kind == Kind::Int16) {
    if (v < -32768 || v > 32767) return false;
    const auto narrow = static_cast<int16_t>(v);
    putBinary(out, &narrow, sizeof narrow, m_length);
  } else {
    putBinary(out, &v, sizeof v, m_length);
  }
  return true;
}

// A float or a double: a plain decimal (a float's moved left by its places) whose nearest binary value's
// shortest text is the same number; other forms, exact values that are not the shortest, and refusals go
// the reference way.
template <typename Float>
bool FieldEncoder::encodeFloat(std::string_view value, uint8_t* out) const {
  const std::string_view text = trimSpaces(value);
  Plain p;
  if (text.size() > 64 || !parsePlain(text, p)) return false;
  Float stored = 0;
  if (nearestOfShort(p, m_places, stored)) {
    putBinary(out, &stored, sizeof stored, m_length);
    return true;
  }
  // The value times 10^places, as plain digits: the point moved right, zeros added.
  char scaled[160];
  char* at = scaled;
  if (p.negative) *at++ = '-';
  const auto moved = std::min(p.fraction.size(), static_cast<size_t>(m_places));
  at = std::copy(p.integer.begin(), p.integer.end(), at);
  at = std::copy(p.fraction.begin(), p.fraction.begin() + static_cast<std::ptrdiff_t>(moved), at);
  at = std::fill_n(at, static_cast<size_t>(m_places) - moved, '0');
  if (at == scaled + (p.negative ? 1 : 0)) *at++ = '0';
  if (moved < p.fraction.size()) {
    *at++ = '.';
    at = std::copy(p.fraction.begin() + static_cast<std::ptrdiff_t>(moved), p.fraction.end(), at);
  }
  Plain want;
  if (at - scaled > 150 || !parsePlain(std::string_view(scaled, static_cast<size_t>(at - scaled)), want))
    return false;
  const auto parsed = std::from_chars(scaled, at, stored);
  if (parsed.ec != std::errc() || parsed.ptr != at || !std::isfinite(stored)) return false;
  if (stored == 0) stored = 0;  // no negative zero: "-0" is zero
  char shortest[400];
  const auto end = std::to_chars(shortest, shortest + sizeof shortest, stored, std::chars_format::fixed);
  Plain got;
  if (end.ec != std::errc() ||
      !parsePlain(std::string_view(shortest, static_cast<size_t>(end.ptr - shortest)), got) ||
      !samePlain(got, want))
    return false;
  putBinary(out, &stored, sizeof stored, m_length);
  return true;
}

// ---- values in binary form ---------------------------------------------------------------------------

namespace {

// 10^k as doubles, each exact.
constexpr double kPowersOfTen[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                   1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

template <typename Word>
void store(uint8_t* to, Word word) noexcept {
  std::memcpy(to, &word, sizeof word);
}

// The bytes of `field` (first byte lowest) with a '.' put in at bit `shift`, the bytes from there one up.
template <typename Word>
Word withPoint(Word field, int32_t shift) noexcept {
  const Word head = field & ((Word{1} << shift) - 1);
  return head | (Word{'.'} << shift) | ((field >> shift) << (shift + 8));
}

// The first n bytes (1 to 8) of `field`, first byte lowest, by one or two fixed-size stores.
void storeShort(uint8_t* to, uint64_t field, size_t n) noexcept {
  if (n == 8) {
    store<uint64_t>(to, field);
  } else if (n >= 4) {
    store<uint32_t>(to, static_cast<uint32_t>(field));
    store<uint32_t>(to + n - 4, static_cast<uint32_t>(field >> (8 * (n - 4))));
  } else {
    for (size_t i = 0; i < n; ++i) to[i] = static_cast<uint8_t>(field >> (8 * i));
  }
}

// Copies n bytes (0 to 32) by two fixed-size copies that overlap, which compile to a few moves where a copy
// of any size is a library call.
void copyShort(uint8_t* to, const char* from, size_t n) noexcept {
  if (n >= 16) {
    std::memcpy(to, from, 16);
    std::memcpy(to + n - 16, from + n - 16, 16);
  } else if (n >= 8) {
    std::memcpy(to, from, 8);
    std::memcpy(to + n - 8, from + n - 8, 8);
  } else if (n >= 4) {
    std::memcpy(to, from, 4);
    std::memcpy(to + n - 4, from + n - 4, 4);
  } else {
    for (size_t i = 0; i < n; ++i) to[i] = static_cast<uint8_t>(from[i]);
  }
}

// The value a reader shows for a float with `places` (1 to 22): its shortest text with the point moved left,
// as the nearest double; NaN when that takes more than one rounding here (the caller then goes the text way).
// A whole float below 2^24 is its integer; any other has at most nine digits, and with a power of ten up to
// 22 (both exact as doubles) one division or product rounds once, to the nearest double.
double shownAs(float value, int32_t places) {
  const double quiet = std::numeric_limits<double>::quiet_NaN();
  if (value == 0 || !std::isfinite(value)) return quiet;
  if (std::fabs(value) < 16777216.0f && std::trunc(value) == value)
    return static_cast<double>(value) / kPowersOfTen[places];
  char digits[32];
  const char* end = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::scientific).ptr;
  // -d.ddddddddde±XX: the digits without the point, and the exponent of the first one.
  const char* at = digits;
  const bool negative = *at == '-';
  if (negative) ++at;
  int64_t mantissa = 0;
  int32_t count = 0, exponent = 0;
  for (; at < end && *at != 'e'; ++at)
    if (*at != '.') mantissa = mantissa * 10 + (*at - '0'), ++count;
  if (at + 1 >= end || std::from_chars(at + (at[1] == '+' ? 2 : 1), end, exponent).ec != std::errc())
    return quiet;
  const int32_t shift = exponent - (count - 1) - places;
  if (count > 9 || shift < -22 || shift > 22) return quiet;
  const double magnitude = shift < 0 ? static_cast<double>(mantissa) / kPowersOfTen[-shift]
                                     : static_cast<double>(mantissa) * kPowersOfTen[shift];
  return negative ? -magnitude : magnitude;
}

// Writes `value`'s digits right-aligned in [from, to), zero-filled; false when they do not fit or there is no
// room at all.
}  // namespace

// A number field's value * 10^places laid out as layOutNumber lays out the same number, for the forms that
// fill a right-aligned field whole: with the point, the integer part zero-filled before it and exactly the
// places after (a sign first); or, with the point implied, every digit zero-filled after the sign. False for
// any other field or when the digits do not fit that way (the caller then takes the text way).
bool FieldEncoder::writeRightAligned(int64_t value, uint8_t* out) const {
  const int32_t places = m_places, length = m_length;
  if (m_kind != Kind::Number) return false;
  const bool negative = value < 0;
  const int32_t sign = negative ? 1 : 0;
  const uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  // Whether the magnitude has at most `width` digits, and then its digits zero-filled to that width.
  const auto fits = [magnitude](int32_t width) {
    return width >= 1 && (width >= 20 || magnitude < static_cast<uint64_t>(kPowersOfTen[width]));
  };
  char padded[num::kIntRoom + 8];
  const bool implied = places == 0 || m_field->bImpliedPoint;
  // Every digit, zero-filled after the sign; or the integer part zero-filled up to the point, then exactly
  // the places.
  const int32_t room = implied ? length - sign : length - places - 1 - sign;
  const int32_t width = implied ? room : room + places;
  if (room >= 1 && width <= 20 && length <= 32 && (!implied || length - places - sign >= 0) && fits(width)) {
    num::writeZeroPadded(padded, magnitude, width);
    if (negative) out[0] = '-';
    copyShort(out + sign, padded, static_cast<size_t>(room));
    if (!implied) {
      out[sign + room] = '.';
      copyShort(out + sign + room + 1, padded + room, static_cast<size_t>(places));
    }
    return true;
  }
  if (implied) return false;
  // No room for the point form: when the point with only the places that are not zero has none either,
  // every digit as with the point implied (a field of 4 bytes and 3 places writes 1.234 as "1234").
  char text[num::kIntRoom];
  const char* const digits = text + sign;
  const auto count = static_cast<int32_t>(num::writeInt(text, value) - digits);
  const int32_t integer = std::max(count - places, 0);
  int32_t significant = std::min(count, places);
  while (significant > 0 && digits[integer + significant - 1] == '0') --significant;
  if (sign + std::max(integer, 1) + 1 + significant <= length || integer > length - places - sign ||
      length - sign > 20 || !fits(length - sign))
    return false;
  num::writeZeroPadded(padded, magnitude, length - sign);
  if (negative) out[0] = '-';
  copyShort(out + sign, padded, static_cast<size_t>(length - sign));
  return true;
}

// The layouts writeRightAligned takes without the value's text, for each sign, in a field of up to 16 bytes:
// the digits zero-filled after the sign with the point (unless implied) before the last `places` of them,
// for the magnitudes with no more digits than that holds. A field with no room for that and its point
// shown writes every digit after the sign when even the point with only the places that are not zero has
// no room: a range of digit counts, taken here for values whose last digit is not 0 (a 0 there is not a
// place that is not zero).
FieldEncoder::ScaledLayout FieldEncoder::scaledLayout(int32_t places) const noexcept {
  ScaledLayout layout;
  if (m_kind != Kind::Number || places != m_places || m_length > 16) return layout;
  const bool implied = places == 0 || m_field->bImpliedPoint;
  layout.places = places;
  layout.length = m_length;
  for (const int32_t sign : {0, 1}) {
    ScaledLayout::Form& form = layout.form[sign];
    const int32_t room = implied ? m_length - sign : m_length - places - 1 - sign;
    const int32_t width = implied ? room : room + places;
    if (room >= 1 && width <= 20 && (!implied || m_length - places - sign >= 0)) {
      form = {
          !implied,
          false,
          room,
          width,
          0,
          width >= 20 ? std::numeric_limits<uint64_t>::max() : num::kPowersOfTen[static_cast<size_t>(width)]};
      layout.on = true;
      continue;
    }
    if (implied || m_length - sign < 1) continue;
    int32_t first = 0, last = 0;  // the digit counts written as every digit
    for (int32_t count = 1; count <= m_length - sign; ++count) {
      const int32_t integer = std::max(count - places, 0), significant = std::min(count, places);
      if (sign + std::max(integer, 1) + 1 + significant <= m_length || integer > m_length - places - sign) {
        if (first != 0) break;
        continue;
      }
      first = first == 0 ? count : first;
      last = count;
    }
    if (first == 0) continue;
    form = {false,
            true,
            m_length - sign,
            m_length - sign,
            num::kPowersOfTen[static_cast<size_t>(first - 1)],
            num::kPowersOfTen[static_cast<size_t>(last)]};
    layout.on = true;
  }
  return layout;
}

// The field's bytes made in registers, its first byte lowest, from the SWAR digit writer's words: the
// zero-filled digits, the fraction shifted one byte up for the point, the whole shifted one byte up for a
// '-'; then stored as fixed-size words (overlapping where the field is not a word long). A field of up to 8
// bytes is one 64-bit word; a longer one with its point implied is its first bytes then its last 8 digits,
// stored in that order, the second store overwriting what the first wrote past them; any other one 128
// bits. Digits stored to memory and read back as the field stalled on every value: a load that spans
// several smaller stores is not forwarded from them.
bool FieldEncoder::writeScaled(const ScaledLayout& layout, int64_t value, uint8_t* out) noexcept {
  constexpr uint64_t k8 = 100'000'000;
  const unsigned sign = value < 0 ? 1 : 0;
  const uint64_t magnitude = sign != 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  const ScaledLayout::Form& form = layout.form[sign];
  if (magnitude < form.lowest || magnitude >= form.below || (form.lastNotZero && magnitude % 10 == 0))
    return false;
  const int32_t width = form.width;
  const auto length = static_cast<size_t>(layout.length);
  if (length <= 8) {
    uint64_t field = num::digits::eightDigits(magnitude) >> (8 * (8 - width));
    if (form.point) field = withPoint(field, 8 * form.room);
    field = (field << (8 * sign)) | (uint64_t{sign} * '-');
    storeShort(out, field, length);
    return true;
  }
  if (!form.point) {
    const uint64_t high = num::digits::eightDigits(magnitude / k8);
    const uint64_t first = width > 8 ? high >> (8 * (16 - width)) : 0;
    store<uint64_t>(out, (first << (8 * sign)) | (uint64_t{sign} * '-'));
    store<uint64_t>(out + length - 8, num::digits::eightDigits(magnitude % k8));
    return true;
  }
  __extension__ typedef unsigned __int128 u128;
  u128 field = (u128{num::digits::eightDigits(magnitude / k8)} |
                (u128{num::digits::eightDigits(magnitude % k8)} << 64)) >>
               (8 * (16 - width));
  field = withPoint(field, 8 * form.room);
  field = (field << (8 * sign)) | (u128{sign} * '-');
  store<uint64_t>(out, static_cast<uint64_t>(field));
  store<uint64_t>(out + length - 8, static_cast<uint64_t>(field >> (8 * (length - 8))));
  return true;
}

bool FieldEncoder::encodeScaled(int64_t value, int32_t places, uint8_t* out, std::string& why) {
  if ((m_kind == Kind::Int64 || m_kind == Kind::Int16) && places == 0 &&
      (m_kind == Kind::Int64 || (value >= -32768 && value <= 32767))) {
    std::memset(out, kSpace, static_cast<size_t>(m_length));
    if (m_kind == Kind::Int16) {
      const auto narrow = static_cast<int16_t>(value);
      std::memcpy(out, &narrow, sizeof narrow);
    } else {
      std::memcpy(out, &value, sizeof value);
    }
    return true;
  }
  if (m_kind == Kind::Number && places == m_places && writeRightAligned(value, out)) return true;
  // The text: the magnitude's digits, the point `places` from their end ("0.05" when there are fewer).
  constexpr int32_t kPlaces = 40;
  std::string longer;
  char room[kPlaces + 32];
  char* text = room;
  if (places < 0 || places > kPlaces) {
    longer.resize(static_cast<size_t>(std::max(places, 0)) + 32);
    text = longer.data();
  }
  const uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  char digits[24];
  const auto count =
      static_cast<int32_t>(std::to_chars(digits, digits + sizeof digits, magnitude).ptr - digits);
  const int32_t fraction = std::max(places, 0);
  char* at = text;
  if (value < 0) *at++ = '-';
  if (count <= fraction) {
    *at++ = '0';
    *at++ = '.';
    at = std::fill_n(at, fraction - count, '0');
    at = std::copy(digits, digits + count, at);
  } else {
    at = std::copy(digits, digits + count - fraction, at);
    if (fraction > 0) {
      *at++ = '.';
      at = std::copy(digits + count - fraction, digits + count, at);
    }
  }
  return encode(std::string_view(text, static_cast<size_t>(at - text)), out, why);
}

bool FieldEncoder::encodeReal(double value, uint8_t* out, std::string& why) {
  const bool finite = std::isfinite(value);
  const auto store = [&](auto stored) {
    std::memset(out, kSpace, static_cast<size_t>(m_length));
    std::memcpy(out, &stored, sizeof stored);
    return true;
  };
  if (finite && m_kind == Kind::Double) return store(value == 0 ? 0.0 : value);
  if (finite && m_kind == Kind::Float && m_places == 0 &&
      std::fabs(value) <= static_cast<double>(std::numeric_limits<float>::max()) &&
      static_cast<double>(static_cast<float>(value)) == value)
    return store(value == 0 ? 0.0f : static_cast<float>(value));
  if (finite && m_kind == Kind::Float && m_places > 0 && m_places <= 22 && value != 0 &&
      std::fabs(value) < static_cast<double>(std::numeric_limits<float>::max()) / 1e22) {
    const float candidate = static_cast<float>(value * kPowersOfTen[m_places]);
    if (shownAs(candidate, m_places) == value) return store(candidate);
  }
  char text[400];  // the longest fixed text of a double, 5e-324's, has 327 characters
  const auto end = finite ? std::to_chars(text, text + sizeof text, value, std::chars_format::fixed).ptr
                          : std::to_chars(text, text + sizeof text, value).ptr;
  return encode(std::string_view(text, static_cast<size_t>(end - text)), out, why);
}

}  // namespace blockproc::value
