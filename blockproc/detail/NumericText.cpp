#include "blockproc/detail/NumericText.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/detail/Utf8.h"

namespace blockproc::num {

namespace {

// Appends a "%*.*s" part: at most `width` bytes from `from`, ended early by a NUL or the end of the text,
// padded with spaces on its left to `width`.
void appendPart(std::string& out, std::string_view text, size_t from, size_t width) {
  std::string_view part = from < text.size() ? text.substr(from, width) : std::string_view{};
  if (const void* nul = std::memchr(part.data(), '\0', part.size()))
    part = part.substr(0, static_cast<size_t>(static_cast<const char*>(nul) - part.data()));
  out.append(width - part.size(), ' ');
  codec::appendLatin1(out, part);
}

// Writes into one field of `length` bytes and drops whatever would fall outside it.
class FieldWriter {
 public:
  FieldWriter(uint8_t* field, int32_t length) noexcept : field_(field), length_(std::max(length, 0)) {}
  void fill(int64_t at, int64_t count, uint8_t byte) noexcept {
    const int64_t from = std::max<int64_t>(at, 0),
                  to = std::min<int64_t>(at + std::max<int64_t>(count, 0), length_);
    if (from < to) std::memset(field_ + from, byte, static_cast<size_t>(to - from));
  }
  void put(int64_t at, std::string_view bytes) noexcept {
    const int64_t from = std::max<int64_t>(at, 0);
    const int64_t to = std::min<int64_t>(at + static_cast<int64_t>(bytes.size()), length_);
    if (from < to) std::memcpy(field_ + from, bytes.data() + (from - at), static_cast<size_t>(to - from));
  }

 private:
  uint8_t* field_;
  int64_t length_;
};

// What the numeric-text layout needs to know of a value, found in one pass over its UTF-8 bytes.
struct ValueShape {
  char sign = '\0';    // '+' when the value holds one anywhere, else '-' when it holds one, else none
  int64_t point = -1;  // UTF-16 position of the first '.', or -1
  int64_t units = 0;   // length in UTF-16 code units
};

ValueShape shapeOf(std::string_view value) noexcept {
  ValueShape shape;
  bool plus = false, minus = false;
  for (const char ch : value) {
    const auto c = static_cast<unsigned char>(ch);
    if (c == '+') plus = true;
    if (c == '-') minus = true;
    if (c == '.' && shape.point < 0) shape.point = shape.units;
    // utf8::utf16Units as two increments: adding its int result into the 64-bit count made every numeric
    // write slower (BM_WriteNumericTextByName).
    if (!utf8::isContinuation(c)) ++shape.units;
    if (c >= 0xF0) ++shape.units;
  }
  shape.sign = plus ? '+' : minus ? '-' : '\0';
  return shape;
}

// Where the digits of a number field's trimmed text start and how many of them stand before the point.
struct DigitsShape {
  int64_t start = 0;      // the first byte after the leading spaces
  bool hasSign = false;   // that byte is '+' or '-'
  int64_t intDigits = 0;  // bytes before the implied point after any sign (0 or below: "0." forms)
};

DigitsShape digitsShape(std::string_view trimmed, int32_t places) noexcept {
  const auto n = static_cast<int64_t>(trimmed.size());
  DigitsShape shape;
  while (shape.start < n && trimmed[static_cast<size_t>(shape.start)] == ' ') ++shape.start;
  const char first = shape.start < n ? trimmed[static_cast<size_t>(shape.start)] : '\0';
  shape.hasSign = first == '-' || first == '+';
  shape.intDigits = n - places - shape.start - (shape.hasSign ? 1 : 0);
  return shape;
}

// writeDecimalInserted; a '.' is looked for only when `refusePoint` (the appending reader's caller has
// looked already, and a compare per byte slows every numeric read: BM_ReadNumericText).
template <bool refusePoint>
char* insertPoint(char* dst, std::string_view trimmed, int32_t places) noexcept {
  const auto n = static_cast<int64_t>(trimmed.size());
  const DigitsShape shape = digitsShape(trimmed, places);
  if (places <= 0 || shape.intDigits <= 0 || n >= 64) return nullptr;
  // One loop copies and checks the bytes: faster than two copies and an out-of-line check
  // (BM_ReadNumericText).
  char* out = dst;
  unsigned char any = 0, odd = 0;
  const auto copy = [&](int64_t from, int64_t to) {
    for (int64_t i = from; i < to; ++i) {
      const auto c = static_cast<unsigned char>(trimmed[static_cast<size_t>(i)]);
      any |= c;
      odd |= static_cast<unsigned char>(c == 0 || (refusePoint && c == '.'));
      *out++ = static_cast<char>(c);
    }
  };
  copy(shape.start, n - places);
  *out++ = '.';
  copy(n - places, n);
  return any < 0x80 && odd == 0 ? out : nullptr;  // the leading spaces skipped are plain ASCII too
}

}  // namespace

char* writeDecimalInserted(char* dst, std::string_view trimmed, int32_t places) noexcept {
  return insertPoint<true>(dst, trimmed, places);
}

void appendDecimalInserted(std::string& out, std::string_view trimmed, int32_t places) {
  char buf[64];
  if (char* end = insertPoint<false>(buf, trimmed, places)) {
    out.append(buf, end);
    return;
  }
  const auto [start, hasSign, intDigits] = digitsShape(trimmed, places);
  int64_t p = start;
  if (hasSign) {
    out.push_back(trimmed[static_cast<size_t>(p)]);
    ++p;
  }
  if (intDigits > 0) {
    appendPart(out, trimmed, static_cast<size_t>(p), static_cast<size_t>(intDigits));
    out.push_back('.');
    appendPart(out, trimmed, static_cast<size_t>(p + intDigits), static_cast<size_t>(places));
  } else if (intDigits < 0) {
    out.append("0.");
    appendZeroPadded(out, parseInt32(trimmed.substr(static_cast<size_t>(p))), places);
  } else {
    out.append("0.");
    appendPart(out, trimmed, static_cast<size_t>(p), static_cast<size_t>(places));
  }
}

// A numeric-text field lines values up on their decimal point. The sign, when the value holds one, takes the
// field's first byte (and the value's first byte is dropped, wherever the sign stood in it). The value's
// bytes go right-aligned so that its integer part ends `decimals` places (plus the point) before the field's
// end, with zeros on their left; zeros then fill the decimal places the value does not have. A value without
// a point in a field with decimals gets one; an empty value becomes zeros around a point. The point's place
// is counted in UTF-16 units of the value and the written lengths in its encoded bytes (the two agree for the
// ASCII of a number); whatever falls outside the field is dropped.
void layoutNumericText(uint8_t* field, int32_t length, int32_t decimals, std::string_view value,
                       std::string_view bytes) noexcept {
  FieldWriter w(field, length);
  const int64_t fieldLength = length, places = decimals;
  const bool hasDecimals = places > 0 && fieldLength > places;
  int64_t signWidth = 0;     // 1 when the sign byte leads the field
  int64_t bodyLength = 0;    // bytes of the body written (a point appended included)
  int64_t integerBytes = 0;  // bytes of the body that stand before the decimal places
  int64_t pointAt = -1;      // UTF-16 position of the value's point, or -1
  int64_t fromPoint = 0;     // UTF-16 units from the point to the end (all of them without a point)
  bool addPoint = false;
  std::string_view body = bytes;
  if (!value.empty()) {
    bodyLength = std::min<int64_t>(static_cast<int64_t>(bytes.size()), fieldLength);
    const ValueShape shape = shapeOf(value);
    if (shape.sign != '\0') {
      signWidth = 1;
      w.fill(0, 1, static_cast<uint8_t>(shape.sign));
      body = bytes.empty() ? bytes : bytes.substr(1);
      bodyLength = static_cast<int64_t>(body.size());
    }
    pointAt = shape.point;
    fromPoint = pointAt > 0 ? shape.units - pointAt : shape.units;
    if (hasDecimals && pointAt > 0) {
      integerBytes = fromPoint < places + 1 ? bodyLength - (fromPoint - 1) : bodyLength - places;
    } else if (hasDecimals && pointAt < 0) {
      addPoint = true;
      bodyLength = std::min<int64_t>(bodyLength + 1, fieldLength);
      integerBytes = bodyLength;
    } else {
      integerBytes = bodyLength;
    }
  } else if (hasDecimals) {
    body = ".";
    bodyLength = 1;
    integerBytes = 1;
  }
  // Negative: the value is cut at the field's end instead.
  const int64_t leadingZeros = std::max<int64_t>(fieldLength - places - signWidth - integerBytes, 0);
  const int64_t bodyAt = signWidth + leadingZeros;
  w.fill(signWidth, leadingZeros, '0');
  const auto fromBody = std::min<int64_t>(bodyLength, static_cast<int64_t>(body.size()));
  w.put(bodyAt, body.substr(0, static_cast<size_t>(fromBody)));
  if (addPoint && bodyLength > fromBody) w.put(bodyAt + fromBody, ".");
  if (bodyAt + bodyLength < fieldLength) {
    const int64_t trailingZeros = pointAt > 0                                    ? places + 1 - fromPoint
                                  : (pointAt < 0 || places > 0 || value.empty()) ? places
                                                                                 : 0;
    w.fill(bodyAt + bodyLength, trailingZeros, '0');
  }
}

void layoutDigitText(uint8_t* field, int32_t length, std::string_view bytes) noexcept {
  FieldWriter w(field, length);
  const int64_t n = std::min<int64_t>(static_cast<int64_t>(bytes.size()), std::max(length, 0));
  const int64_t zeros = length - n;
  w.fill(0, zeros, '0');
  w.put(std::max<int64_t>(zeros, 0), bytes.substr(0, static_cast<size_t>(n)));
}

std::string roundedFixedText(double value, int32_t places) {
  const double scale = std::pow(10.0, places);
  const double rounded = std::floor(value * scale + 0.5) / scale;
  std::string out;
  appendFixed(out, static_cast<double>(narrowToFloat(rounded)), places);
  return out;
}

int32_t findUtf16Index(std::string_view text, std::string_view what) noexcept {
  const size_t at = text.find(what);
  if (at == std::string_view::npos) return -1;
  return static_cast<int32_t>(utf8::utf16Length(text.substr(0, at)));
}

}  // namespace blockproc::num
