// Canonical values of fields: rendering a field's bytes, and checking a caller's value before it is written.

#include "blockproc/engine/FieldValue.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <system_error>

#include "blockproc/detail/FieldTypes.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/detail/Utf8.h"
#include "blockproc/engine/FieldDecoder.h"

namespace blockproc::value {

namespace {

using internal::appendHexByte;
using internal::kHexLower;
// Exponents a caller may write ("1e5"); beyond them the digits alone would be a megabyte of zeros.
constexpr int64_t kMaxExponent = 4000;

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

void appendBadByte(std::string& out, uint8_t byte, BadByteStyle style) {
  if (style == BadByteStyle::Replacement) {
    out += "\xEF\xBF\xBD";
    return;
  }
  out += "\\x";
  appendHexByte(out, byte);
}

// Decodes the bytes into `out`; bytes that are not text in the encoding are shown in `style`. The fast path
// decodes the whole; only a failure walks the characters, each the shortest run of 1 to 4 bytes that decodes.
RenderResult appendText(std::string& out, std::string_view bytes, uint32_t encoding, BadByteStyle style) {
  RenderResult result;
  if (bytes.empty() || codec::decodeAppend(encoding, bytes, out)) return result;
  size_t at = 0;
  while (at < bytes.size()) {
    size_t width = 0;
    for (size_t k = 1; k <= 4 && at + k <= bytes.size(); ++k)
      if (codec::decodeAppend(encoding, bytes.substr(at, k), out)) {
        width = k;
        break;
      }
    if (width == 0) {
      if (result.offset < 0) result = {ValueIssue::BadBytes, static_cast<int32_t>(at)};
      appendBadByte(out, static_cast<uint8_t>(bytes[at]), style);
      width = 1;
    }
    at += width;
  }
  return result;
}

// A decimal number's digits as views of text it was read from: `integer` then `integerZeros` zeros ahead of
// the point, `fractionZeros` zeros then `fraction` after it. The runs of zeros keep a renderer from building
// the padded digits in a string of its own.
struct Digits {
  std::string_view integer;
  size_t integerZeros = 0;
  size_t fractionZeros = 0;
  std::string_view fraction;
};

// Appends "int.frac" with the leading zeros of the integer gone, at least `places` (0 or more) decimals,
// zeros added, and no trailing zero beyond them; true when more than `places` decimals remain.
bool appendNumber(std::string& out, bool negative, Digits n, int32_t places) {
  const auto wanted = static_cast<size_t>(std::max(places, 0));
  while (!n.integer.empty() && n.integer.front() == '0') n.integer.remove_prefix(1);
  if (n.integer.empty()) n.integerZeros = 0;  // zeros behind no digit lead the integer too
  while (n.fractionZeros + n.fraction.size() > wanted && !n.fraction.empty() && n.fraction.back() == '0')
    n.fraction.remove_suffix(1);
  if (n.fraction.empty()) n.fractionZeros = std::min(n.fractionZeros, wanted);
  const size_t decimals = n.fractionZeros + n.fraction.size();
  const bool zero = n.integer.empty() && n.fraction.find_first_not_of('0') == std::string_view::npos;
  if (negative && !zero) out.push_back('-');
  if (n.integer.empty()) out.push_back('0');
  out.append(n.integer);
  out.append(n.integerZeros, '0');
  if (std::max(wanted, decimals) > 0) {
    out.push_back('.');
    out.append(n.fractionZeros, '0');
    out.append(n.fraction);
    out.append(std::max(wanted, decimals) - decimals, '0');
  }
  return decimals > wanted;
}

// Numeric text of the wire: leading spaces, an optional sign, digits with at most one point; without a point
// the last `places` digits are the decimals.
RenderResult appendNumericText(std::string& out, std::string_view bytes, int32_t places, uint32_t encoding,
                               BadByteStyle style) {
  const std::string_view trimmed = internal::trimTrailing(bytes);
  size_t i = 0;
  while (i < trimmed.size() && trimmed[i] == ' ') ++i;
  if (i == trimmed.size()) return {};
  const bool negative = trimmed[i] == '-';
  if (trimmed[i] == '-' || trimmed[i] == '+') ++i;
  const size_t intFrom = i;
  while (i < trimmed.size() && isDigit(trimmed[i])) ++i;
  std::string_view integer = trimmed.substr(intFrom, i - intFrom), fraction;
  const bool point = i < trimmed.size() && trimmed[i] == '.';
  if (point) {
    const size_t fracFrom = ++i;
    while (i < trimmed.size() && isDigit(trimmed[i])) ++i;
    fraction = trimmed.substr(fracFrom, i - fracFrom);
  }
  if (i != trimmed.size() || integer.size() + fraction.size() == 0) {
    appendText(out, trimmed, encoding, style);
    return {ValueIssue::NotANumber, static_cast<int32_t>(i)};
  }
  if (!point && places > 0) {
    // The implied point: fewer digits than places are the decimals with zeros ahead of them.
    const auto cut = static_cast<size_t>(places);
    if (integer.size() >= cut) {
      fraction = integer.substr(integer.size() - cut);
      integer = integer.substr(0, integer.size() - cut);
    } else {
      appendNumber(out, negative, {{}, 0, cut - integer.size(), integer}, places);
      return {};
    }
  }
  const bool more = appendNumber(out, negative, {integer, 0, 0, fraction}, places);
  return {more ? ValueIssue::MorePlaces : ValueIssue::None, -1};
}

// Appends the binary value's shortest decimal text divided by 10^shift, with at least `places` decimals.
template <typename Float>
RenderResult appendBinaryFloat(std::string& out, Float value, int32_t shift, int32_t places) {
  if (!std::isfinite(value)) {
    out += std::isnan(value) ? "nan" : value < 0 ? "-inf" : "inf";
    return {ValueIssue::NotFinite, -1};
  }
  char text[64];
  const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific).ptr;
  const std::string_view sci(text, static_cast<size_t>(end - text));
  const size_t e = sci.find('e');
  const bool negative = sci.front() == '-';
  char mantissa[24];  // the mantissa's digits, the point after the first: at most 17 for a double
  size_t count = 0;
  for (char c : sci.substr(negative ? 1 : 0, e - (negative ? 1 : 0)))
    if (isDigit(c) && count < sizeof mantissa) mantissa[count++] = c;
  const std::string_view digits(mantissa, count);
  const int64_t exponent = num::parseLeadingInt(sci.substr(e + 1), -100000, 100000);
  const int64_t point = 1 + exponent - shift;  // digits ahead of the point
  const auto size = static_cast<int64_t>(digits.size());
  Digits n;
  if (point <= 0) {
    n = {{}, 0, static_cast<size_t>(-point), digits};
  } else if (point >= size) {
    n = {digits, static_cast<size_t>(point - size), 0, {}};
  } else {
    n = {digits.substr(0, static_cast<size_t>(point)), 0, 0, digits.substr(static_cast<size_t>(point))};
  }
  appendNumber(out, negative, n, places);  // places beyond the field's are the value's own: shown in full
  return {};
}

template <typename Int>
bool loadInt(std::string_view bytes, Int& value) {
  if (bytes.size() < sizeof(Int)) return false;
  std::memcpy(&value, bytes.data(), sizeof(Int));
  return true;
}

// ---- values as callers give them ----------------------------------------------------------------------

// A number as a caller writes it: sign, integer digits without leading zeros, decimals without trailing ones.
struct Decimal {
  bool negative = false;
  std::string integer;
  std::string fraction;
};

enum class ParseStatus { Ok, NotANumber, OutOfRange };

// Drops the integer's leading zeros and the fraction's trailing ones; zero has no sign.
void normalize(Decimal& d) {
  d.integer.erase(0, std::min(d.integer.find_first_not_of('0'), d.integer.size()));
  while (!d.fraction.empty() && d.fraction.back() == '0') d.fraction.pop_back();
  if (d.integer.empty() && d.fraction.empty()) d.negative = false;
}

// An optional sign, digits with at most one point (a digit on either side), an optional exponent.
ParseStatus parseDecimal(std::string_view text, Decimal& d) {
  size_t i = 0;
  d.negative = i < text.size() && text[i] == '-';
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) ++i;
  std::string digits;
  int64_t point = -1;
  for (; i < text.size(); ++i) {
    if (isDigit(text[i])) {
      digits.push_back(text[i]);
    } else if (text[i] == '.' && point < 0) {
      point = static_cast<int64_t>(digits.size());
    } else {
      break;
    }
  }
  if (digits.empty()) return ParseStatus::NotANumber;
  if (point < 0) point = static_cast<int64_t>(digits.size());
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    const std::string_view exponent = text.substr(i + 1);
    size_t j = exponent.empty() || (exponent[0] != '+' && exponent[0] != '-') ? 0 : 1;
    if (j == exponent.size()) return ParseStatus::NotANumber;
    for (; j < exponent.size(); ++j)
      if (!isDigit(exponent[j])) return ParseStatus::NotANumber;
    const int64_t shift = num::parseLeadingInt(exponent, -kMaxExponent - 1, kMaxExponent + 1);
    const bool zero = digits.find_first_not_of('0') == std::string::npos;
    if (!zero && (shift > kMaxExponent || shift < -kMaxExponent)) return ParseStatus::OutOfRange;
    if (!zero) point += shift;
    i = text.size();
  }
  if (i != text.size()) return ParseStatus::NotANumber;
  const auto size = static_cast<int64_t>(digits.size());
  if (point < 0) {
    digits.insert(0, static_cast<size_t>(-point), '0');
    point = 0;
  }
  if (point > size) digits.append(static_cast<size_t>(point - size), '0');
  d.integer = digits.substr(0, static_cast<size_t>(point));
  d.fraction = digits.substr(static_cast<size_t>(point));
  normalize(d);
  return ParseStatus::Ok;
}

// The decimal times 10^places: the point moved `places` digits to the right.
Decimal scaledUp(Decimal d, int32_t places) {
  const auto k = static_cast<size_t>(std::max(places, 0));
  if (d.fraction.size() < k) d.fraction.append(k - d.fraction.size(), '0');
  d.integer.append(d.fraction, 0, k);
  d.fraction.erase(0, k);
  normalize(d);
  return d;
}

// The decimal as plain text: the sign below zero, at least one integer digit, the fraction behind a point.
std::string plainText(const Decimal& d) {
  std::string text = d.negative ? "-" : "";
  text += d.integer.empty() ? "0" : d.integer;
  if (!d.fraction.empty()) text += '.' + d.fraction;
  return text;
}

bool sameValue(const Decimal& a, const Decimal& b) {
  return a.negative == b.negative && a.integer == b.integer && a.fraction == b.fraction;
}

// The decimal that a double is, exactly: it has at most 309 digits before the point and 1,074 after it, so
// its fixed text with 1,074 places is the whole value. (A float is a double as well.)
Decimal exactValue(double value) {
  char text[1400];
  const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 1074).ptr;
  Decimal d;
  parseDecimal(std::string_view(text, static_cast<size_t>(end - text)), d);
  return d;
}

// The decimal of the shortest text that reads back as the binary value: the digits of the scientific form,
// which the renderer shows (the plain form writes a large whole value's every digit).
template <typename Float>
Decimal shortestValue(Float value) {
  char text[64];
  const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific).ptr;
  Decimal d;
  parseDecimal(std::string_view(text, static_cast<size_t>(end - text)), d);
  return d;
}

std::string_view trimSpaces(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

void quote(std::string& why, std::string_view value) {
  why += '\'';
  why += value;
  why += "' ";
}

// The decimal with exactly `places` decimals, or false when it has more.
bool withPlaces(const Decimal& d, int32_t places, std::string& out, std::string& why) {
  if (static_cast<int64_t>(d.fraction.size()) > places) {
    why += "has ";
    num::appendInt(why, static_cast<int64_t>(d.fraction.size()));
    why += d.fraction.size() == 1 ? " decimal place" : " decimal places";
    if (places == 0) {
      why += "; the field holds whole numbers";
    } else {
      why += "; the field holds ";
      num::appendInt(why, places);
    }
    return false;
  }
  appendNumber(out, d.negative, {d.integer, 0, 0, d.fraction}, places);
  return true;
}

bool parseForField(std::string_view text, Decimal& d, std::string& why, std::string_view type) {
  switch (parseDecimal(text, d)) {
    case ParseStatus::Ok:
      return true;
    case ParseStatus::OutOfRange:
      why += "lies outside the range of ";
      why += type;
      return false;
    case ParseStatus::NotANumber:
    default:
      why += "is not a number";
      return false;
  }
}

// Why the encoding cannot take the value: its first character the encoding lacks, or its first byte that is
// not UTF-8 text.
void explainUnencodable(std::string_view value, uint32_t encoding, std::string& why) {
  const size_t valid = utf8::validPrefix(value);
  std::string scratch;
  for (size_t at = 0, end = 0; at < valid; at = end) {
    for (end = at + 1; end < valid && utf8::isContinuation(static_cast<uint8_t>(value[end]));) ++end;
    scratch.clear();
    if (!codec::encodeAppend(encoding, value.substr(at, end - at), scratch)) {
      why += "has a character, '";
      why += value.substr(at, end - at);
      why += "', that ";
      why += codec::encodingName(encoding);
      why += " cannot hold";
      return;
    }
  }
  if (valid < value.size()) {
    why += "is not UTF-8 text from byte ";
    num::appendInt(why, static_cast<int64_t>(valid));
    why += " (0x";
    appendHexByte(why, static_cast<uint8_t>(value[valid]));
    why += ")";
    return;
  }
  why += "cannot be written in ";
  why += codec::encodingName(encoding);
}

bool prepareText(const FieldInfo& field, std::string_view value, uint32_t encoding, PreparedValue& p,
                 std::string& why) {
  std::string bytes;
  if (!codec::encodeAppend(encoding, value, bytes)) {
    explainUnencodable(value, encoding, why);
    return false;
  }
  if (static_cast<int64_t>(bytes.size()) > field.nLength) {
    why += "takes " + internal::counted(static_cast<int64_t>(bytes.size()), "byte");
    why += "; the field holds " + internal::counted(field.nLength, "byte");
    return false;
  }
  if (!value.empty() && (value.back() == ' ' || value.back() == '\0')) {
    why += value.back() == ' ' ? "ends in a space" : "ends in a NUL character";
    why += ", which the field's padding does not keep";
    return false;
  }
  p.write.assign(value);
  p.expected.assign(value);
  return true;
}

// The decimals of `d` up to its last one that is not zero.
std::string_view significantFraction(const Decimal& d) {
  std::string_view fraction = d.fraction;
  while (!fraction.empty() && fraction.back() == '0') fraction.remove_suffix(1);
  return fraction;
}

// Numeric text without its point: sign, zero fill, the digits, the last `places` of them the fraction.
void writeWithoutPoint(const Decimal& d, int32_t places, int64_t room, PreparedValue& p) {
  p.write.assign(d.negative ? "-" : "");
  p.write.append(static_cast<size_t>(room - static_cast<int64_t>(d.integer.size())), '0');
  p.write += d.integer;
  p.write += d.fraction;
  p.write.append(static_cast<size_t>(places) - d.fraction.size(), '0');
  p.writeType = kFieldText;
}

// Numeric text with its point and only the decimals that are not zero ("900400000." or "99999999.9" in ten
// bytes with 2 places), as a writer that cuts the decimal zeros it has no room for writes it; false when even
// that has no room.
bool writeCompact(const FieldInfo& field, const Decimal& d, PreparedValue& p) {
  const std::string_view fraction = significantFraction(d);
  const int64_t digits = std::max<int64_t>(static_cast<int64_t>(d.integer.size()), 1);
  const int64_t compact = (d.negative ? 1 : 0) + digits + 1 + static_cast<int64_t>(fraction.size());
  if (compact > field.nLength) return false;
  p.write.assign(d.negative ? "-" : "");
  p.write.append(static_cast<size_t>(field.nLength - compact), '0');
  p.write += d.integer.empty() ? std::string_view("0") : std::string_view(d.integer);
  p.write += '.';
  p.write += fraction;
  p.writeType = kFieldText;
  return true;
}

// A number field is written with its point unless it is declared without it (point="implied"): with all its
// places when they fit, else with the places that are not zero (the form a reply carries when the value
// fills the field, so it goes back the same way), and without the point only when neither fits. A field
// declared without it is written with the point and the places that are not zero when its value has more
// digits than the implied form holds. The reader takes every one of these forms.
bool prepareNumericText(const FieldInfo& field, const Decimal& d, PreparedValue& p, std::string& why) {
  const int32_t places = field.nDecimalLen > 0 && field.nLength > field.nDecimalLen ? field.nDecimalLen : 0;
  if (!withPlaces(d, places, p.write, why)) return false;
  p.expected = p.write;
  const int64_t sign = d.negative ? 1 : 0, digits = static_cast<int64_t>(d.integer.size());
  const bool pointWritten = !(field.bImpliedPoint && places > 0);
  const int64_t withPoint = (places > 0 ? field.nLength - places - 1 : field.nLength) - sign;
  const int64_t implied = field.nLength - places - sign;
  if (pointWritten && std::max<int64_t>(digits, 1) <= withPoint) return true;
  if (pointWritten && places > 0 && writeCompact(field, d, p)) return true;
  if (places > 0 && digits <= implied) {
    writeWithoutPoint(d, places, implied, p);
    return true;
  }
  // Too many digits for the implied point: the point and the places that are not zero, as a reply carries
  // such a value ("004300000." in 10 bytes with 4 places), since the reader takes that form too.
  if (!pointWritten && writeCompact(field, d, p)) return true;
  why += "has ";
  why += internal::withThousands(digits);
  why +=
      places > 0 ? " digits before the point; the field has room for " : " digits; the field has room for ";
  // Room for digits: with the implied point, or with a point and the decimals that are not zero.
  const int64_t roomWithPoint =
      places > 0 ? field.nLength - sign - 1 - static_cast<int64_t>(significantFraction(d).size()) : 0;
  why += internal::withThousands(std::max<int64_t>({implied, roomWithPoint, 0}));
  if (d.negative) why += " beside the sign";
  return false;
}

bool prepareInteger(const FieldInfo& field, const Decimal& d, PreparedValue& p, std::string& why) {
  if (!withPlaces(d, 0, p.write, why)) return false;
  int64_t v = 0;
  const auto [end, ec] = std::from_chars(p.write.data(), p.write.data() + p.write.size(), v);
  const bool int16 = ftype::rulesOf(field.nDataType).binary == ftype::Binary::Int16;
  if (ec != std::errc() || (int16 && (v < -32768 || v > 32767))) {
    why += int16 ? "lies outside -32,768 to 32,767"
                 : "lies outside -9,223,372,036,854,775,808 to 9,223,372,036,854,775,807";
    return false;
  }
  p.expected = p.write;
  // A type the main writer writes as digit text (sint64) is written as the int64 it is read as.
  if (ftype::rulesOf(field.nDataType).write == ftype::Write::DigitText) p.writeType = kFieldInt64;
  return true;
}

// A float field holds the value times 10^decimals (its reader divides by them); a double the value itself.
// The value is taken when the binary value nearest to it reads back as the same number: when the binary
// value is the number exactly (2^58 in a double), or when the number is that binary value's shortest text
// (0.1 in a double, which holds 0.1000000000000000055...). Any other number would come back as another
// one, and is refused naming it. `decimals` only pads what is shown; it never caps the places taken.
template <typename Float>
bool prepareFloat(const FieldInfo& field, const Decimal& d, PreparedValue& p, std::string& why) {
  const int32_t places = std::max(field.nDecimalLen, 0);
  const bool isFloat = ftype::rulesOf(field.nDataType).binary == ftype::Binary::Float;
  const Decimal scaled = isFloat ? scaledUp(d, places) : d;
  const std::string text = plainText(scaled);
  Float stored = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), stored);
  if (ec != std::errc() || !std::isfinite(stored)) {
    why += isFloat ? "lies outside the range of a float" : "lies outside the range of a double";
    return false;
  }
  appendBinaryFloat(p.expected, stored, isFloat ? places : 0, places);
  if (!sameValue(shortestValue(stored), scaled) && !sameValue(exactValue(stored), scaled)) {
    why += isFloat ? "is not held exactly by a float" : "is not held exactly by a double";
    why += " (it would read back as " + p.expected + ")";
    return false;
  }
  // The shortest text of the stored value as a double reads back as exactly that value.
  char shortest[64];
  const auto shortestEnd =
      std::to_chars(shortest, shortest + sizeof shortest, static_cast<double>(stored)).ptr;
  p.write.assign(shortest, shortestEnd);
  return true;
}

}  // namespace

ValueKind valueKind(const FieldInfo& field) noexcept {
  return ftype::holdsPlainText(field) ? ValueKind::Text : ValueKind::Number;
}

int32_t displayWidth(const FieldInfo& field) noexcept {
  return FieldDecoder(field, kTextEncodingUTF8).displayWidth();
}

std::string_view fieldBytes(const KXBlockDataProc& proc, const FieldInfo& field, int32_t record) noexcept {
  const BlockInfo* block = proc.getBlockInfo();
  if (block == nullptr || record < 0 || record >= proc.getValidCount() || field.nLength <= 0) return {};
  const int64_t offset =
      (int64_t{proc.getStartIndex()} + record) * block->getRecordMemSize() + int64_t{field.nDataPos};
  const uint8_t* data = proc.getData();
  if (data == nullptr || field.nDataPos < 0 || offset < 0 || offset + field.nLength > proc.getBlockBuffSize())
    return {};
  return {reinterpret_cast<const char*>(data) + offset, static_cast<size_t>(field.nLength)};
}

RenderResult appendValue(std::string& out, const FieldInfo& field, std::string_view bytes, uint32_t encoding,
                         BadByteStyle style) {
  const int32_t places = std::max(field.nDecimalLen, 0);
  if (ftype::holdsNumberText(field)) return appendNumericText(out, bytes, places, encoding, style);
  if (ftype::isText(field.nDataType)) return appendText(out, internal::trimTrailing(bytes), encoding, style);
  switch (ftype::rulesOf(field.nDataType).binary) {
    case ftype::Binary::Int16: {
      int16_t v = 0;
      if (!loadInt(bytes, v)) return {ValueIssue::NotANumber, 0};
      num::appendInt(out, v);
      return {};
    }
    case ftype::Binary::Int64: {
      int64_t v = 0;
      if (!loadInt(bytes, v)) return {ValueIssue::NotANumber, 0};
      num::appendInt(out, v);
      return {};
    }
    case ftype::Binary::Float: {
      float v = 0;
      if (!loadInt(bytes, v)) return {ValueIssue::NotANumber, 0};
      return appendBinaryFloat(out, v, places, places);
    }
    case ftype::Binary::Double: {
      double v = 0;
      if (!loadInt(bytes, v)) return {ValueIssue::NotANumber, 0};
      return appendBinaryFloat(out, v, 0, places);
    }
    case ftype::Binary::None:
    default:
      return {ValueIssue::NotANumber, 0};
  }
}

void appendIssue(std::string& out, const RenderResult& result, const FieldInfo& field, std::string_view bytes,
                 uint32_t encoding) {
  const auto at = static_cast<size_t>(std::max(result.offset, 0));
  switch (result.issue) {
    case ValueIssue::BadBytes:
    case ValueIssue::NotANumber:
      out += "byte ";
      num::appendInt(out, static_cast<int64_t>(at));
      if (at < bytes.size()) {
        out += " (0x";
        appendHexByte(out, static_cast<uint8_t>(bytes[at]));
        out += ")";
      }
      if (result.issue == ValueIssue::BadBytes) {
        out += " is not ";
        out += codec::encodingName(encoding);
        out += " text";
      } else {
        out += " is not part of a number";
      }
      return;
    case ValueIssue::MorePlaces:
      out += "the value has more decimal places than the field's ";
      num::appendInt(out, std::max(field.nDecimalLen, 0));
      return;
    case ValueIssue::NotFinite:
      out += "the value is not a finite number";
      return;
    case ValueIssue::None:
    default:
      return;
  }
}

void appendHex(std::string& out, std::string_view bytes) {
  for (char c : bytes) {
    appendHexByte(out, static_cast<uint8_t>(c), kHexLower);
  }
}

void appendWhere(std::string& out, std::string_view block, int64_t record, std::string_view field) {
  out += "block ";
  out += block;
  out += ", record ";
  num::appendInt(out, record);
  out += ", field ";
  out += field;
}

bool prepareValue(const FieldInfo& field, std::string_view value, uint32_t encoding, PreparedValue& prepared,
                  std::string& why) {
  prepared = PreparedValue{};
  const auto refuse = [&](std::string reason) {
    std::string text;
    quote(text, value);
    why = text + reason;
    return false;
  };
  std::string reason;
  if (field.getKeyEncState()) {
    // The writer hands a key-encrypted field's value to the block's key dictionary and leaves the bytes
    // blank, so only no value (a blank text or number field) comes back as given.
    if (!value.empty() || !ftype::isText(field.nDataType))
      return refuse("goes to a key-encrypted field, whose value is not carried in the bytes");
    prepared.blank = true;
    return true;
  }
  if (valueKind(field) == ValueKind::Text) {
    return prepareText(field, value, encoding, prepared, reason) || refuse(reason);
  }
  const std::string_view number = trimSpaces(value);
  if (number.empty() && ftype::holdsNumberText(field)) {
    prepared.blank = true;
    return true;
  }
  Decimal d;
  const ftype::Binary binary = ftype::rulesOf(field.nDataType).binary;
  const std::string_view type = binary == ftype::Binary::Float    ? "a float"
                                : binary == ftype::Binary::Double ? "a double"
                                                                  : "the field";
  if (!parseForField(number, d, reason, type)) return refuse(reason);
  bool ok = false;
  switch (binary) {
    case ftype::Binary::Int16:
    case ftype::Binary::Int64:
      ok = prepareInteger(field, d, prepared, reason);
      break;
    case ftype::Binary::Float:
      ok = prepareFloat<float>(field, d, prepared, reason);
      break;
    case ftype::Binary::Double:
      ok = prepareFloat<double>(field, d, prepared, reason);
      break;
    case ftype::Binary::None:
    default:
      ok = prepareNumericText(field, d, prepared, reason);
      break;
  }
  return ok || refuse(reason);
}

}  // namespace blockproc::value
