// The decode half of a field's codec: canonical values written straight into the caller's buffer.
//
// Each way of writing takes only the bytes whose canonical value it is sure of and leaves the rest to
// value::appendValue, the reference: text that is ASCII, or that the code-page table decodes whole; numeric
// text of spaces, a sign, digits and at most one point, with no more places than the field's; a float that
// holds a whole number below 2^24; a double that is a whole number of 10^-places below 2^51 of them. For
// such a double the decimal D with the field's places reads back as the double, and no other decimal of at
// most those places lies within half a unit in the last place of it (that unit is below 10^-places), so D
// is its shortest text padded to the places: the canonical value. fuzz_fielddecode holds every way to the
// reference on arbitrary bytes.

#include "blockproc/engine/FieldDecoder.h"

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "blockproc/detail/DisplayValue.h"
#include "blockproc/detail/FieldTypes.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/ShortText.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/detail/Utf8.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace blockproc::value {

namespace {

// Numeric text longer than this, or with more places, goes the reference way (its text fits kRoom).
constexpr int32_t kMaxNumberLength = 40;
constexpr int32_t kMaxNumberPlaces = 18;
constexpr int32_t kMaxTextLength = text::LongText::kWidth;
static_assert(codec::decodeRoom(kMaxTextLength) <= FieldDecoder::kRoom &&
              static_cast<size_t>(kMaxTextLength) <= FieldDecoder::kRoom);
// A number's text, and the 16 bytes a run of its digits or zeros may store past its end.
static_assert(1 + kMaxNumberLength + 2 + kMaxNumberPlaces + 16 <= static_cast<int32_t>(FieldDecoder::kRoom));

constexpr int64_t kPowersOfTen[] = {1,
                                    10,
                                    100,
                                    1'000,
                                    10'000,
                                    100'000,
                                    1'000'000,
                                    10'000'000,
                                    100'000'000,
                                    1'000'000'000,
                                    10'000'000'000,
                                    100'000'000'000,
                                    1'000'000'000'000,
                                    10'000'000'000'000,
                                    100'000'000'000'000,
                                    1'000'000'000'000'000,
                                    10'000'000'000'000'000,
                                    100'000'000'000'000'000,
                                    1'000'000'000'000'000'000};

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// The runs of digits and zeros of a number are a few bytes: copied as 16 bytes at once where the source
// has them (the destination has room for them), so that no call to the C library's memcpy or memset is
// made for each.
constexpr size_t kRun = 16;

// Writes `n` bytes from `src` (of which the bytes up to `end` may be read) and gives their end.
char* copyRun(char* dst, const char* src, size_t n, const char* end) noexcept {
  if (n <= kRun && end - src >= static_cast<std::ptrdiff_t>(kRun)) {
    std::memcpy(dst, src, kRun);
  } else {
    std::memcpy(dst, src, n);
  }
  return dst + n;
}

char* zeros(char* dst, size_t n) noexcept {
  if (n <= kRun) {
    std::memset(dst, '0', kRun);
  } else {
    std::memset(dst, '0', n);
  }
  return dst + n;
}

// Writes `units` / 10^places with exactly `places` (0 to 18) decimals, no sign for zero.
char* writeScaled(char* dst, int64_t units, int32_t places) noexcept {
  if (units < 0) *dst++ = '-';
  const uint64_t magnitude = units < 0 ? 0 - static_cast<uint64_t>(units) : static_cast<uint64_t>(units);
  const auto scale = static_cast<uint64_t>(kPowersOfTen[places]);
  dst = num::writeInt(dst, static_cast<int64_t>(magnitude / scale));
  if (places == 0) return dst;
  *dst++ = '.';
  uint64_t fraction = magnitude % scale;
  for (int32_t k = places - 1; k >= 0; --k, fraction /= 10) dst[k] = static_cast<char>('0' + fraction % 10);
  return dst + places;
}

// Writes the text of a field read by blocks: ASCII as it stands, other text decoded by the table.
template <int Blocks>
char* writeBlockText(const text::BlockText<Blocks>& text, const uint8_t* bytes, uint32_t encoding, bool known,
                     char* dst) noexcept {
  if (text.isAscii()) return known ? text.write(dst) : nullptr;
  return codec::decodeInto(encoding, {reinterpret_cast<const char*>(bytes), static_cast<size_t>(text.size())},
                           dst);
}

// Where the parts of numeric text lie in its bytes: [intFrom, intEnd) the integer digits, and after a
// point [fracFrom, fracEnd) the decimal digits.
struct NumberRuns {
  bool negative = false;
  bool point = false;
  size_t intFrom = 0, intEnd = 0, fracFrom = 0, fracEnd = 0;
};

enum class Scan : uint8_t { Number, Blank, Other };

// Finds the runs of numeric text: trailing spaces and NULs, leading spaces, a sign, digits with at most one
// point and at least one digit; Blank for nothing but pads, Other for any other text.
Scan scanByBytes(std::string_view field, NumberRuns& r) noexcept {
  const std::string_view text = internal::trimTrailing(field);
  const size_t n = text.size();
  size_t i = 0;
  while (i < n && text[i] == ' ') ++i;
  if (i == n) return Scan::Blank;
  r.negative = text[i] == '-';
  if (text[i] == '-' || text[i] == '+') ++i;
  r.intFrom = i;
  while (i < n && isDigit(text[i])) ++i;
  r.intEnd = r.fracFrom = r.fracEnd = i;
  r.point = i < n && text[i] == '.';
  if (r.point) {
    r.fracFrom = ++i;
    while (i < n && isDigit(text[i])) ++i;
    r.fracEnd = i;
  }
  return i == n && r.intEnd - r.intFrom + r.fracEnd - r.fracFrom > 0 ? Scan::Number : Scan::Other;
}

// Fields of up to this many bytes are scanned by masks when that many can be read.
constexpr int32_t kMaskWidth = 16;

// scanByBytes of the `length` (at most 16) bytes at `bytes`, 16 of which may be read, by one bit a byte
// for each kind of byte (SSE2 compares): the pads at the end and the spaces ahead give the body's bounds,
// every byte of the body must be a digit or the one point, and the point's bit is its place.
Scan scanByMasks(const uint8_t* bytes, int32_t length, NumberRuns& r) noexcept {
#if defined(__SSE2__)
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
  const auto bitsOf = [](__m128i lanes) { return static_cast<uint32_t>(_mm_movemask_epi8(lanes)); };
  const auto is = [&](char c) { return bitsOf(_mm_cmpeq_epi8(v, _mm_set1_epi8(c))); };
  const __m128i fromZero = _mm_sub_epi8(v, _mm_set1_epi8('0'));
  const uint32_t digit = bitsOf(_mm_cmpeq_epi8(_mm_min_epu8(fromZero, _mm_set1_epi8(9)), fromZero));
  const uint32_t space = is(' '), point = is('.'), minus = is('-');
  const uint32_t field = (1U << length) - 1;
  const uint32_t kept = ~(space | is('\0')) & field;
  if (kept == 0) return Scan::Blank;
  const auto n = static_cast<uint32_t>(32 - std::countl_zero(kept));  // the trimmed length
  auto from = static_cast<uint32_t>(std::countr_zero(~space));        // past the leading spaces
  r.negative = ((minus >> from) & 1) != 0;
  if ((((minus | is('+')) >> from) & 1) != 0) ++from;
  const uint32_t body = ((1U << n) - 1) & ~((1U << from) - 1);
  const uint32_t points = point & body;
  if (((digit | point) & body) != body || (points & (points - 1)) != 0 || (digit & body) == 0)
    return Scan::Other;
  r.point = points != 0;
  r.intFrom = from;
  r.intEnd = r.point ? static_cast<size_t>(std::countr_zero(points)) : n;
  r.fracFrom = r.point ? r.intEnd + 1 : n;
  r.fracEnd = n;
  return Scan::Number;
#else
  return scanByBytes({reinterpret_cast<const char*>(bytes), static_cast<size_t>(length)}, r);
#endif
}

}  // namespace

FieldDecoder::FieldDecoder(const FieldInfo& field, uint32_t encoding) noexcept
    : m_field(&field),
      m_encoding(encoding),
      m_valueKind(valueKind(field)),
      m_known(codec::isKnownEncoding(encoding)),
      m_length(field.nLength),
      m_places(std::max(field.nDecimalLen, 0)) {
  const ftype::Rules& rules = ftype::rulesOf(field.nDataType);
  if (ftype::isText(field.nDataType)) {
    if (m_valueKind == ValueKind::Number)
      m_kind = m_length <= kMaxNumberLength && m_places <= kMaxNumberPlaces ? Kind::Number : Kind::Reference;
    else
      m_kind = m_length <= kMaxTextLength ? Kind::Text : Kind::Reference;
    // An implied point adds one character to the digits.
    m_width = std::max(m_length, 0) + (m_valueKind == ValueKind::Number ? 1 : 0);
  } else {
    // Display columns of an int16 ("-32768"), an int64, and a float or a double's usual values.
    const bool whole = m_length >= rules.width;
    switch (rules.binary) {
      case ftype::Binary::Int16:
        m_kind = whole ? Kind::Int16 : Kind::Reference;
        m_width = 6;
        break;
      case ftype::Binary::Int64:
        m_kind = whole ? Kind::Int64 : Kind::Reference;
        m_width = 20;
        break;
      case ftype::Binary::Float:
        m_kind = whole ? Kind::Float : Kind::Reference;
        m_width = 12 + m_places;
        break;
      case ftype::Binary::Double:
        m_kind = whole ? Kind::Double : Kind::Reference;
        m_width = 18 + m_places;
        break;
      case ftype::Binary::None:
      default:
        m_kind = Kind::Reference;
        break;
    }
  }
  if (m_length <= 0) m_kind = Kind::Reference;
}

char* FieldDecoder::write(const uint8_t* bytes, int64_t readable, char* dst) const noexcept {
  switch (m_kind) {
    case Kind::Text:
      return writeText(bytes, readable, dst);
    case Kind::Number:
      return writeNumber(bytes, readable, dst);
    case Kind::Int16:
      return num::writeInt(dst, ftype::load<int16_t>(bytes));
    case Kind::Int64:
      return num::writeInt(dst, ftype::load<int64_t>(bytes));
    case Kind::Float:
      return writeFloat(ftype::load<float>(bytes), dst);
    case Kind::Double:
      return writeDouble(ftype::load<double>(bytes), dst);
    case Kind::Reference:
    default:
      return nullptr;
  }
}

char* FieldDecoder::writeText(const uint8_t* bytes, int64_t readable, char* dst) const noexcept {
  using text::LongText, text::ShortText;
  if (m_length <= ShortText::kWidth && readable >= ShortText::kWidth)
    return writeBlockText(ShortText(bytes, m_length), bytes, m_encoding, m_known, dst);
  if (readable >= LongText::kWidth)
    return writeBlockText(LongText(bytes, m_length), bytes, m_encoding, m_known, dst);
  const std::string_view trimmed =
      internal::trimTrailing({reinterpret_cast<const char*>(bytes), static_cast<size_t>(m_length)});
  if (!utf8::isAscii(trimmed)) return codec::decodeInto(m_encoding, trimmed, dst);
  if (!m_known) return trimmed.empty() ? dst : nullptr;
  std::memcpy(dst, trimmed.data(), trimmed.size());
  return dst + trimmed.size();
}

// Numeric text: leading spaces, a sign, integer digits, then a point and decimal digits, or without a point
// the last `places` digits as the decimals (fewer digits are the decimals with zeros ahead of them). The
// value is written without zero fill, '+' or a sign for zero, with exactly the field's places.
char* FieldDecoder::writeNumber(const uint8_t* bytes, int64_t readable, char* dst) const noexcept {
  const char* const text = reinterpret_cast<const char*>(bytes);
  NumberRuns r;
  const Scan scan = m_length <= kMaskWidth && readable >= kMaskWidth
                        ? scanByMasks(bytes, m_length, r)
                        : scanByBytes({text, static_cast<size_t>(m_length)}, r);
  if (scan == Scan::Blank) return dst;
  if (scan == Scan::Other) return nullptr;
  const auto places = static_cast<size_t>(m_places);
  size_t zerosAhead = 0;  // zeros between the point and the decimal digits
  if (!r.point && places > 0) {
    const size_t digits = r.intEnd - r.intFrom;
    r.fracEnd = r.intEnd;
    r.fracFrom = digits >= places ? r.intEnd - places : r.intFrom;
    zerosAhead = digits >= places ? 0 : places - digits;
    r.intEnd = r.fracFrom;
  }
  while (r.intFrom < r.intEnd && text[r.intFrom] == '0') ++r.intFrom;
  while (r.fracEnd > r.fracFrom && zerosAhead + r.fracEnd - r.fracFrom > places && text[r.fracEnd - 1] == '0')
    --r.fracEnd;
  const size_t decimals = zerosAhead + r.fracEnd - r.fracFrom;
  if (decimals > places) return nullptr;  // more places than the field's: an issue to report
  bool zero = r.intFrom == r.intEnd;
  for (size_t k = r.fracFrom; zero && k < r.fracEnd; ++k) zero = text[k] == '0';
  const char* const end = text + readable;
  if (r.negative && !zero) *dst++ = '-';
  if (r.intFrom == r.intEnd) *dst++ = '0';
  dst = copyRun(dst, text + r.intFrom, r.intEnd - r.intFrom, end);
  if (places == 0) return dst;
  *dst++ = '.';
  dst = zeros(dst, zerosAhead);
  dst = copyRun(dst, text + r.fracFrom, r.fracEnd - r.fracFrom, end);
  return zeros(dst, places - decimals);
}

// A float holds the value times 10^places: a whole float below 2^24 is its own shortest text.
char* FieldDecoder::writeFloat(float value, char* dst) const noexcept {
  constexpr float kWhole = 16777216.0F;  // 2^24
  if (!(std::fabs(value) < kWhole) || value != std::trunc(value) || m_places > kMaxNumberPlaces)
    return nullptr;
  return writeScaled(dst, static_cast<int64_t>(value), m_places);
}

char* FieldDecoder::writeDouble(double value, char* dst) const noexcept {
  constexpr double kUnits = 2251799813685248.0;  // 2^51
  constexpr int32_t kMaxPlaces = 15;             // 10^15 and the units below 2^51 are exact doubles
  if (m_places > kMaxPlaces) return nullptr;
  const auto scale = static_cast<double>(kPowersOfTen[m_places]);
  const double units = std::nearbyint(value * scale);
  if (!(std::fabs(units) < kUnits) || units / scale != value) return nullptr;
  return writeScaled(dst, static_cast<int64_t>(units), m_places);
}

RenderResult FieldDecoder::append(std::string& out, std::string_view bytes, BadByteStyle style) const {
  if (m_kind != Kind::Reference && bytes.size() == static_cast<size_t>(m_length)) {
    char cell[kRoom];
    const auto* field = reinterpret_cast<const uint8_t*>(bytes.data());
    if (const char* end = write(field, m_length, cell)) {
      out.append(cell, static_cast<size_t>(end - cell));
      return {};
    }
  }
  return appendValue(out, *m_field, bytes, m_encoding, style);
}

RenderResult FieldDecoder::appendReference(std::string& out, std::string_view bytes,
                                           BadByteStyle style) const {
  return appendValue(out, *m_field, bytes, m_encoding, style);
}

bool FieldDecoder::appendDisplay(std::string& out, std::string_view bytes, int64_t readable,
                                 uint32_t textEncoding) const noexcept {
  return detail::appendDisplayValue(out, *m_field, bytes, readable, textEncoding, m_encoding);
}

}  // namespace blockproc::value
