// Column decoding: one pass per field over the records, numbers parsed in place, text decoded once per
// distinct field value.

#include "columns.h"

#include <pybind11/numpy.h>

#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include "blockproc/codec/TextCodec.h"
#include "blockproc/codec/Utf8.h"
#include "blockproc/data/FieldNameIndex.h"
#include "blockproc/data/TranInfo.h"
#include "blockproc/util/NumberFormat.h"
#include "blockproc/util/NumericText.h"

namespace blockproc::python {

namespace {

// A value that cannot be given exactly; turned into ValueError with the record and field by the caller.
struct CellError {
  std::string why;
};

std::string_view trimTrailing(std::string_view bytes) noexcept {
  size_t n = bytes.size();
  while (n > 0 && (bytes[n - 1] == ' ' || bytes[n - 1] == '\0')) --n;
  return bytes.substr(0, n);
}

// Numeric text as the integer value * 10^scale: leading spaces, an optional sign, digits with at most one
// point and at most `scale` digits after it. Digits without a point have the decimals implied (the display
// puts the point ahead of the last `scale` of them), so they are the scaled value as they stand.
// False for a blank field (no value).
bool parseScaled(std::string_view text, int32_t scale, int64_t& out) {
  text = trimTrailing(text);
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  if (text.empty()) return false;
  size_t i = 0;
  const bool negative = text[0] == '-';
  if (text[0] == '+' || text[0] == '-') ++i;
  uint64_t value = 0;
  int32_t digits = 0, fraction = -1;
  bool overflow = false;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '.' && fraction < 0) {
      fraction = 0;
      continue;
    }
    if (c < '0' || c > '9') throw CellError{"'" + std::string(text) + "' is not a number"};
    overflow |= __builtin_mul_overflow(value, 10u, &value) || __builtin_add_overflow(value, c - '0', &value);
    ++digits;
    if (fraction >= 0) ++fraction;
  }
  if (digits == 0) throw CellError{"'" + std::string(text) + "' is not a number"};
  if (fraction > scale)
    throw CellError{"'" + std::string(text) + "' has " + std::to_string(fraction) +
                    " decimal places; the field declares " + std::to_string(scale)};
  for (int32_t k = fraction; fraction >= 0 && k < scale; ++k)
    overflow |= __builtin_mul_overflow(value, 10u, &value);
  const uint64_t limit = negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1;
  if (overflow || value > limit)
    throw CellError{"'" + std::string(text) + "' does not fit a 64-bit integer at scale " +
                    std::to_string(scale)};
  out = negative ? static_cast<int64_t>(0 - value) : static_cast<int64_t>(value);
  return true;
}

// 10 to the power `places` as the processor divides a float by it.
double powerOfTen(int32_t places) noexcept {
  static constexpr std::array<double, 23> kExact{1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                                 1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                                 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  if (places >= 0 && places < static_cast<int32_t>(kExact.size())) return kExact[static_cast<size_t>(places)];
  return std::pow(10.0, places);
}

// Up to 8 little-endian bytes as the low-order bytes of a zeroed value of type T.
template <typename T>
T loadLittle(const uint8_t* bytes, int64_t available) noexcept {
  std::array<uint8_t, 8> raw{};
  std::memcpy(raw.data(), bytes, static_cast<size_t>(std::clamp<int64_t>(available, 0, 8)));
  T value;
  std::memcpy(&value, raw.data(), sizeof value);
  return value;
}

// GCC and Clang's 128-bit integer, named without a pedantic warning.
__extension__ typedef __int128 Int128;

// The value * 10^places rounded to the nearest integer, ties to even, as "%.*f" rounds the exact binary
// value; false when the integer arithmetic cannot hold it (the caller prints instead). Faster than printing
// and reading back by about 50 ns per value (per and avgprice of the quote capture: 65 to about 10 ns).
bool exactScaled(double value, int32_t places, int64_t& out) noexcept {
  static constexpr std::array<uint64_t, 20> kPowers{1ULL,
                                                    10ULL,
                                                    100ULL,
                                                    1000ULL,
                                                    10000ULL,
                                                    100000ULL,
                                                    1000000ULL,
                                                    10000000ULL,
                                                    100000000ULL,
                                                    1000000000ULL,
                                                    10000000000ULL,
                                                    100000000000ULL,
                                                    1000000000000ULL,
                                                    10000000000000ULL,
                                                    100000000000000ULL,
                                                    1000000000000000ULL,
                                                    10000000000000000ULL,
                                                    100000000000000000ULL,
                                                    1000000000000000000ULL,
                                                    10000000000000000000ULL};
  if (places < 0 || places >= static_cast<int32_t>(kPowers.size())) return false;
  // value = m * 2^-shift exactly, from the IEEE 754 fields.
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  const auto biased = static_cast<int>((bits >> 52) & 0x7FF);
  if (biased == 0x7FF) return false;  // infinity or NaN
  const uint64_t m =
      biased == 0 ? bits & ((uint64_t{1} << 52) - 1) : (bits & ((uint64_t{1} << 52) - 1)) | uint64_t{1} << 52;
  const int shift = biased == 0 ? 1074 : 1075 - biased;
  const Int128 numerator = static_cast<Int128>(m) * kPowers[static_cast<size_t>(places)];  // below 2^117
  Int128 q;
  if (shift <= 0) {
    if (shift < -10) return false;
    q = numerator << -shift;
  } else if (shift >= 120) {
    q = 0;  // far below one unit of the last place
  } else {
    q = numerator >> shift;
    const Int128 rest = numerator - (q << shift), half = static_cast<Int128>(1) << (shift - 1);
    if (rest > half || (rest == half && (q & 1) != 0)) ++q;
  }
  if (q > static_cast<Int128>(INT64_MAX)) return false;
  out = (bits >> 63) != 0 ? -static_cast<int64_t>(q) : static_cast<int64_t>(q);
  return true;
}

// The display digits of a float or double field as a scaled integer: the value the processor's text shows.
int64_t realScaled(int32_t type, int32_t places, const uint8_t* bytes, int64_t available,
                   std::string& scratch) {
  if (places > num::kMaxDecimalPlaces) throw CellError{"more decimal places than a reader shows"};
  // Divided in double precision and stored back as a float, as the processor's read does.
  const double value =
      type == kFieldFloat
          ? static_cast<double>(num::narrowToFloat(
                static_cast<double>(loadLittle<float>(bytes, std::min<int64_t>(available, 4))) /
                powerOfTen(places)))
          : loadLittle<double>(bytes, std::min<int64_t>(available, 8));
  int64_t scaled = 0;
  if (exactScaled(value, places, scaled)) return scaled;
  scratch.clear();
  num::appendFixed(scratch, value, places);
  if (scratch.find_first_of("ni") != std::string::npos) throw CellError{scratch + " is not a finite number"};
  parseScaled(scratch, std::max(places, 0), scaled);
  return scaled;
}

// The display string of a text field, as the processor's read makes it; false when the bytes cannot be
// decoded.
bool textValue(std::string_view field, int32_t places, uint32_t encoding, uint32_t ownEncoding,
               std::string& out) {
  out.clear();
  const std::string_view trimmed = trimTrailing(field);
  if (places > 0 && trimmed.find('.') == std::string_view::npos) {
    if (places > num::kMaxDecimalPlaces) return false;
    num::appendDecimalInserted(out, trimmed, places);
    return true;
  }
  if (trimmed.empty()) return true;
  if (!codec::decodeAppend(encoding, trimmed, out)) {
    // A double-byte character cut by the field's end is left out, as the processor's read leaves it out.
    if (trimmed.size() != field.size()) return false;
    if (!codec::decodeAppend(ownEncoding, trimmed.substr(0, trimmed.size() - 1), out)) return false;
  }
  if (utf8::endsWithIdeographicSpace(out)) {
    const std::string_view kept = utf8::trimSpaceSeparators(out);
    out = std::string(kept);
  }
  return true;
}

// Text columns of market data repeat a few thousand values (item codes, names, signs) or run in order
// (times): each field content is compared with the previous record's, then looked up in a table of the strs
// made so far (four slots a key may take), so a value is decoded once while it keeps coming back. A slot
// keeps its key's hash and a copy of its first kKeyBytes bytes: comparing against an earlier record's bytes
// instead would read a random place of the input (30 ns more per field on the quote capture). A 40-byte cp949
// name seen before costs about 15 ns, one seen for the first time about 250 ns (decoding and a new str). When
// the four slots are taken, a new value replaces one of them.
class TextCache {
 public:
  static constexpr size_t kSlots = 4096, kWays = 4, kKeyBytes = 48;
  TextCache() : m_slots(kSlots) {}
  ~TextCache() {
    for (Slot& s : m_slots) Py_XDECREF(s.value);
  }
  TextCache(const TextCache&) = delete;
  TextCache& operator=(const TextCache&) = delete;

  // A new reference to the str of these bytes, or nullptr when it has to be made.
  PyObject* find(std::string_view key) {
    if (m_last != nullptr && m_last->holds(key)) return newRef(m_last->value);
    const size_t h = StringHash{}(key);
    for (size_t k = 0; k < kWays; ++k) {
      Slot& s = m_slots[(h + k) & (kSlots - 1)];
      if (s.value == nullptr) return nullptr;
      if (s.hash == h && s.holds(key)) {
        m_last = &s;
        return newRef(s.value);
      }
    }
    return nullptr;
  }
  // Keeps the str made for these bytes (a new reference is taken); keys longer than kKeyBytes are not kept.
  void add(std::string_view key, PyObject* value) {
    if (key.size() > kKeyBytes) return;
    const size_t h = StringHash{}(key);
    Slot* target = &m_slots[(h + (h >> 32) % kWays) & (kSlots - 1)];
    for (size_t k = 0; k < kWays; ++k) {
      Slot& s = m_slots[(h + k) & (kSlots - 1)];
      if (s.value == nullptr) {
        target = &s;
        break;
      }
    }
    Py_INCREF(value);
    Py_XDECREF(target->value);
    target->value = value;
    target->hash = h;
    target->size = static_cast<uint32_t>(key.size());
    std::memcpy(target->key.data(), key.data(), key.size());
    m_last = target;
  }

 private:
  struct Slot {
    size_t hash = 0;
    PyObject* value = nullptr;
    uint32_t size = 0;
    std::array<char, kKeyBytes> key;
    bool holds(std::string_view bytes) const noexcept {
      return bytes.size() == size && std::memcmp(bytes.data(), key.data(), size) == 0;
    }
  };
  static PyObject* newRef(PyObject* value) {
    Py_INCREF(value);
    return value;
  }
  std::vector<Slot> m_slots;
  const Slot* m_last = nullptr;
};

PyObject* newStr(std::string_view utf8) {
  if (utf8::isAscii(utf8)) {
    PyObject* s = PyUnicode_New(static_cast<Py_ssize_t>(utf8.size()), 127);
    if (s != nullptr) std::memcpy(PyUnicode_DATA(s), utf8.data(), utf8.size());
    return s;
  }
  return PyUnicode_DecodeUTF8(utf8.data(), static_cast<Py_ssize_t>(utf8.size()), "strict");
}

// The str of a text field whose bytes are all ASCII and that needs no decimal point (every text encoding a
// definition can name reads ASCII as itself): the trimmed bytes copied straight into a new str. False for
// other fields.
bool asciiText(std::string_view field, int32_t places, PyObject*& out) {
  const std::string_view trimmed = trimTrailing(field);
  if ((places > 0 && trimmed.find('.') == std::string_view::npos) || !utf8::isAscii(field)) return false;
  out = PyUnicode_New(static_cast<Py_ssize_t>(trimmed.size()), 127);
  if (out == nullptr) throw py::error_already_set();
  std::memcpy(PyUnicode_DATA(out), trimmed.data(), trimmed.size());
  return true;
}

ColumnKind kindOf(int32_t type) {
  switch (type) {
    case kFieldText:
      return ColumnKind::Text;
    case kFieldNumText:
      return ColumnKind::Scaled;
    case kFieldInt16:
      return ColumnKind::Int16;
    case kFieldInt64:
    case kFieldSInt64:
      return ColumnKind::Int64;
    case kFieldFloat:
    case kFieldDouble:
      return ColumnKind::Real;
    default:
      throw py::value_error("field type " + std::to_string(type) + " has no column form");
  }
}

struct Cursor {
  const BlockInfo& block;
  const FieldInfo& field;
  const RecordSource& source;
  int64_t stride;
  [[noreturn]] void fail(int64_t record, int64_t at, const std::string& why) const {
    throw py::value_error("block " + block.m_szBlockName + ", record " + std::to_string(record) +
                          ", field '" + field.szFieldName + "' (byte " +
                          std::to_string(source.offset + record * stride + at) + " of " + source.name +
                          "): " + why);
  }
};

}  // namespace

py::list decodeColumns(const BlockInfo& block, uint32_t encoding, const uint8_t* records, int64_t count,
                       int64_t stride, const RecordSource& source) {
  py::list columns;
  const bool jsonMode = block.m_oTranInfo != nullptr && (block.m_oTranInfo->m_strDataMode == ".WSKJson" ||
                                                         block.m_oTranInfo->m_strDataMode == ".WSKJsonFeed");
  const uint32_t textEncoding = jsonMode ? kTextEncodingUTF8 : encoding;
  std::string scratch;
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& field = *block.getFieldInfoFromIndex(j);
    const Cursor at{block, field, source, stride};
    const ColumnKind kind = kindOf(field.nDataType);
    const int64_t pos = field.nDataPos, length = field.nLength;
    if (pos < 0 || length <= 0 || pos + length > stride)
      throw py::value_error("field '" + field.szFieldName + "' lies outside the " + std::to_string(stride) +
                            "-byte record of block " + block.m_szBlockName);
    const int32_t scale =
        kind == ColumnKind::Scaled || kind == ColumnKind::Real ? std::max(field.nDecimalLen, 0) : 0;
    py::object mask = py::none();
    py::object values;
    int64_t record = 0;
    try {
      switch (kind) {
        case ColumnKind::Text: {
          py::array array(py::dtype("O"), std::vector<py::ssize_t>{static_cast<py::ssize_t>(count)});
          auto** out = static_cast<PyObject**>(array.mutable_data());
          TextCache cache;
          for (; record < count; ++record) {
            const std::string_view raw(reinterpret_cast<const char*>(records + record * stride + pos),
                                       static_cast<size_t>(length));
            PyObject* s = cache.find(raw);
            if (s == nullptr && asciiText(raw, field.nDecimalLen, s)) {
              cache.add(raw, s);
            } else if (s == nullptr) {
              if (!textValue(raw, field.nDecimalLen, textEncoding, encoding, scratch))
                at.fail(record, pos,
                        "the bytes cannot be decoded as " + std::string(codec::encodingName(textEncoding)));
              s = newStr(scratch);
              if (s == nullptr) throw py::error_already_set();
              cache.add(raw, s);
            }
            out[record] = s;
          }
          values = std::move(array);
          break;
        }
        case ColumnKind::Int16: {
          py::array_t<int16_t> array(count);
          int16_t* out = array.mutable_data();
          const int64_t take = std::min<int64_t>(length, 2);
          for (; record < count; ++record)
            out[record] = loadLittle<int16_t>(records + record * stride + pos, take);
          values = std::move(array);
          break;
        }
        case ColumnKind::Int64: {
          py::array_t<int64_t> array(count);
          int64_t* out = array.mutable_data();
          const int64_t take = std::min<int64_t>(length, 8);
          for (; record < count; ++record)
            out[record] = loadLittle<int64_t>(records + record * stride + pos, take);
          values = std::move(array);
          break;
        }
        case ColumnKind::Scaled: {
          py::array_t<int64_t> array(count);
          py::array_t<bool> absent(count);
          int64_t* out = array.mutable_data();
          bool* missing = absent.mutable_data();
          for (; record < count; ++record) {
            const std::string_view raw(reinterpret_cast<const char*>(records + record * stride + pos),
                                       static_cast<size_t>(length));
            out[record] = 0;
            missing[record] = !parseScaled(raw, scale, out[record]);
          }
          values = std::move(array);
          mask = std::move(absent);
          break;
        }
        case ColumnKind::Real: {
          py::array_t<int64_t> array(count);
          int64_t* out = array.mutable_data();
          // A double takes 8 bytes from the field's start, as many as the record holds.
          const int64_t take = field.nDataType == kFieldDouble ? stride - pos : std::min<int64_t>(length, 4);
          for (; record < count; ++record)
            out[record] = realScaled(field.nDataType, field.nDecimalLen, records + record * stride + pos,
                                     take, scratch);
          values = std::move(array);
          break;
        }
        case ColumnKind::Attr:
          break;
      }
    } catch (const CellError& error) {
      at.fail(record, pos, error.why);
    }
    columns.append(py::make_tuple(field.szFieldName, static_cast<int>(kind), scale, values, mask));
    if (block.carriesAttr(field)) {
      const int64_t attrPos = pos + length;
      if (attrPos >= stride)
        throw py::value_error("the attribute byte of field '" + field.szFieldName +
                              "' lies outside the record");
      py::array_t<uint8_t> array(count);
      uint8_t* out = array.mutable_data();
      for (int64_t i = 0; i < count; ++i) out[i] = records[i * stride + attrPos];
      columns.append(py::make_tuple(field.szFieldName + "@attr", static_cast<int>(ColumnKind::Attr), 0, array,
                                    py::none()));
    }
  }
  return columns;
}

}  // namespace blockproc::python
