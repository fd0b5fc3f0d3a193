// Decoding block records for Python. Values come from the engine's canonical renderer; the column builders
// take a few common forms by fast paths that give the same values (each says why it is the same and what it
// saves) and hand everything else to the engine.

#include "columns.h"

#include <pybind11/numpy.h>

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cmath>
#include <cstring>
#include <vector>

#include "blockproc/codec/Utf8.h"
#include "blockproc/data/FieldNameIndex.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/util/NumberParse.h"

namespace blockproc::python {

namespace {

// GCC and Clang's 128-bit integer, named without a pedantic warning.
__extension__ typedef __int128 Int128;

constexpr std::array<uint64_t, 20> kPowersOfTen{1ULL,
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

// One field of the records being decoded, for reading its bytes and naming it in messages.
struct FieldAt {
  const BlockInfo& block;
  const FieldInfo& field;
  const RecordSource& source;
  const uint8_t* records;
  int64_t stride;
  uint32_t encoding;

  std::string_view bytes(int64_t record) const noexcept {
    return {reinterpret_cast<const char*>(records + record * stride + field.nDataPos),
            static_cast<size_t>(field.nLength)};
  }
  // Raises ValueError "block B, record R, field F (byte N of SOURCE): why", N the field's byte `at` and R
  // the record's number in the source.
  [[noreturn]] void fail(int64_t record, int64_t at, std::string_view why) const {
    std::string message;
    value::appendWhere(message, block.m_szBlockName, source.firstRecord + record, field.szFieldName);
    message += " (byte " + std::to_string(source.offset + record * stride + field.nDataPos + at) + " of " +
               source.name + "): ";
    message += why;
    throw py::value_error(message);
  }
  // The engine's canonical text of the record's field in `out`; raises the engine's reason when the bytes
  // have no plain value.
  void canonical(int64_t record, std::string& out) const {
    out.clear();
    const std::string_view raw = bytes(record);
    const value::RenderResult r =
        value::appendValue(out, field, raw, encoding, value::BadByteStyle::Replacement);
    if (r.issue == value::ValueIssue::None) return;
    std::string why;
    value::appendIssue(why, r, field, raw, encoding);
    fail(record, std::max(r.offset, 0), why);
  }
};

// The canonical value of the record's field as value * 10^places (a canonical number has exactly the field's
// places); false for a blank number. A value beyond 64 bits raises ValueError.
bool canonicalScaled(const FieldAt& at, int64_t record, std::string& scratch, int64_t& out) {
  at.canonical(record, scratch);
  if (scratch.empty()) return false;
  const size_t point = scratch.find('.');  // a canonical number has at most one
  const size_t places = static_cast<size_t>(std::max(at.field.nDecimalLen, 0));
  if ((point == std::string::npos ? 0 : scratch.size() - point - 1) > places)  // a float's or double's own
    at.fail(record, 0, scratch + " has more decimal places than the column's " + std::to_string(places));
  if (point != std::string::npos) scratch.erase(point, 1);
  const num::WholeInt scaled = num::parseWholeInt(scratch, INT64_MIN, INT64_MAX);
  if (!scaled.isNumber || scaled.clamped) {
    if (point != std::string::npos)
      scratch.insert(point, 1, '.');  // the canonical text again, for the message
    at.fail(record, 0, scratch + " does not fit a 64-bit column; decode gives it exactly");
  }
  out = scaled.value;
  return true;
}

enum class Plain { Value, Blank, Other };

// Numeric text of the wire as value * 10^places, when it is in the form replies carry: spaces, an optional
// sign, at most 18 digits with none or at most `places` after a point (without one the last `places` digits
// are the decimals), then spaces or NULs. The engine reads these bytes as the same value; Other for anything
// else, which the caller hands to the engine. Kept for speed: about 5 ns a field against 25 for rendering the
// canonical text and reading it back (each of the five number fields of the benchmark's quote capture).
Plain plainScaled(std::string_view bytes, int32_t places, int64_t& out) noexcept {
  size_t end = bytes.size(), i = 0;
  while (end > 0 && (bytes[end - 1] == ' ' || bytes[end - 1] == '\0')) --end;
  while (i < end && bytes[i] == ' ') ++i;
  if (i == end) return Plain::Blank;
  const bool negative = bytes[i] == '-';
  if (bytes[i] == '-' || bytes[i] == '+') ++i;
  uint64_t digits = 0;  // wraps past 18 digits, which are then refused below
  int32_t count = 0, fraction = -1;
  for (; i < end; ++i) {
    const char c = bytes[i];
    if (c >= '0' && c <= '9') {
      digits = digits * 10 + static_cast<uint64_t>(c - '0');
      ++count;
      if (fraction >= 0) ++fraction;
    } else if (c == '.' && fraction < 0) {
      fraction = 0;
    } else {
      return Plain::Other;
    }
  }
  const int32_t missing = fraction < 0 ? 0 : places - fraction;
  if (count == 0 || missing < 0 || count + missing > 18) return Plain::Other;
  digits *= kPowersOfTen[static_cast<size_t>(missing)];
  out = negative ? -static_cast<int64_t>(digits) : static_cast<int64_t>(digits);
  return Plain::Value;
}

// A float field's canonical value is the shortest decimal text of its float with the point moved `places`
// left, so scaled by 10^places it is that shortest text: for a whole float below 2^24 in magnitude the
// integer it holds. False for the others (fractions, larger magnitudes), which go to the engine. Kept for
// speed: about 2 ns a field against 70 for the engine's shortest text (per of the quote capture).
bool wholeFloat(std::string_view bytes, int64_t& out) noexcept {
  float value = 0;
  std::memcpy(&value, bytes.data(), sizeof value);
  if (!(std::fabs(value) < 16777216.0f)) return false;  // NaN too
  const auto whole = static_cast<int64_t>(value);
  if (static_cast<float>(whole) != value) return false;
  out = whole;
  return true;
}

// A double's canonical value is its shortest round-trip decimal text. The multiple q of 10^-places nearest to
// the binary value is that text when q reads back as the same double and the double's spacing, 2^-shift, is
// finer than 10^-places: the shortest text then has no digit past the places (q is such a text) and no other
// multiple of 10^-places reads back as the double. Both are checked in integer arithmetic on the IEEE fields.
// False when they do not hold; the caller asks the engine. Kept for speed: about 9 ns a field against 110 for
// the engine's shortest text (avgprice of the quote capture).
bool shortestScaled(std::string_view bytes, int32_t places, int64_t& out) noexcept {
  if (places < 0 || places >= static_cast<int32_t>(kPowersOfTen.size())) return false;
  uint64_t bits;
  std::memcpy(&bits, bytes.data(), sizeof bits);
  const auto biased = static_cast<int>((bits >> 52) & 0x7FF);
  const uint64_t fractionBits = bits & ((uint64_t{1} << 52) - 1);
  if (biased == 0x7FF) return false;  // infinity or NaN
  if (biased == 0 && fractionBits == 0) {
    out = 0;  // either zero: "0.00"
    return true;
  }
  // value = m * 2^-shift exactly.
  const uint64_t m = biased == 0 ? fractionBits : fractionBits | uint64_t{1} << 52;
  const int shift = biased == 0 ? 1074 : 1075 - biased;
  const uint64_t scale = kPowersOfTen[static_cast<size_t>(places)];
  if (shift <= 0 || shift >= 120 || (shift < 64 && scale >= uint64_t{1} << shift)) return false;
  const Int128 exact = static_cast<Int128>(m) * scale;  // value * 10^places * 2^shift, below 2^117
  Int128 q = exact >> shift;
  const Int128 rest = exact - (q << shift), half = static_cast<Int128>(1) << (shift - 1);
  if (rest > half || (rest == half && (q & 1) != 0)) ++q;
  // q reads back as the double when it lies within half a spacing of it (strictly: a tie goes to the
  // engine), a quarter on the side below a power of two, whose lower neighbour is nearer.
  Int128 distance = (q << shift) - exact;
  const bool below = distance < 0;
  if (below) distance = -distance;
  if (distance * (below && fractionBits == 0 ? 4 : 2) >= static_cast<Int128>(scale)) return false;
  if (q > static_cast<Int128>(INT64_MAX)) return false;
  out = (bits >> 63) != 0 ? -static_cast<int64_t>(q) : static_cast<int64_t>(q);
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
  // A table of `records` records has at most that many values: it takes twice their slots, up to kSlots
  // (about 295 KB), so that a small frame does not make and clear the whole table per text column (one record
  // and ten text columns: 35 us with the full table).
  explicit TextCache(int64_t records)
      : m_slots(
            std::min<size_t>(kSlots, std::bit_ceil(static_cast<size_t>(std::max<int64_t>(records, 8)) * 2))),
        m_mask(m_slots.size() - 1) {}
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
      Slot& s = m_slots[(h + k) & m_mask];
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
    Slot* target = &m_slots[(h + (h >> 32) % kWays) & m_mask];
    for (size_t k = 0; k < kWays; ++k) {
      Slot& s = m_slots[(h + k) & m_mask];
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
  size_t m_mask;
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

ColumnKind kindOf(const FieldInfo& field) {
  switch (field.nDataType) {
    case kFieldText:
    case kFieldNumText:
      return value::valueKind(field) == value::ValueKind::Text ? ColumnKind::Text : ColumnKind::Scaled;
    case kFieldInt16:
      return ColumnKind::Int16;
    case kFieldInt64:
    case kFieldSInt64:
      return ColumnKind::Int64;
    case kFieldFloat:
    case kFieldDouble:
      return ColumnKind::Real;
    default:
      throw py::value_error("field type " + std::to_string(field.nDataType) + " has no column form");
  }
}

// Raises ValueError when the field (with its attribute byte) does not lie inside the record.
void checkInside(const BlockInfo& block, const FieldInfo& field, int64_t stride) {
  const int64_t end = int64_t{field.nDataPos} + field.nLength + (block.carriesAttr(field) ? 1 : 0);
  if (field.nDataPos < 0 || field.nLength <= 0 || end > stride)
    throw py::value_error("field '" + field.szFieldName + "' lies outside the " + std::to_string(stride) +
                          "-byte record of block " + block.m_szBlockName);
}

template <typename Int>
py::array integerColumn(const FieldAt& at, int64_t count, std::string& scratch) {
  py::array_t<Int> array(count);
  Int* out = array.mutable_data();
  for (int64_t record = 0; record < count; ++record) {
    if (at.field.nLength < static_cast<int32_t>(sizeof(Int))) at.canonical(record, scratch);  // refuses
    std::memcpy(&out[record], at.bytes(record).data(), sizeof(Int));
  }
  return array;
}

py::array textColumn(const FieldAt& at, int64_t count, std::string& scratch) {
  py::array array(py::dtype("O"), std::vector<py::ssize_t>{static_cast<py::ssize_t>(count)});
  auto** out = static_cast<PyObject**>(array.mutable_data());
  TextCache cache(count);
  // A column whose values rarely come back (item codes, times) would pay a lookup and an insertion per record
  // for nothing: fewer than one hit in four over the first 1,024 records turns the table off for the column.
  bool cached = true;
  int64_t hits = 0;
  for (int64_t record = 0; record < count; ++record) {
    const std::string_view raw = at.bytes(record);
    PyObject* s = cached ? cache.find(raw) : nullptr;
    if (s != nullptr) {
      ++hits;
    } else {
      at.canonical(record, scratch);
      s = newStr(scratch);
      if (s == nullptr) throw py::error_already_set();
      if (cached) cache.add(raw, s);
    }
    out[record] = s;
    if (record == 1023 && hits < 256) cached = false;
  }
  return array;
}

py::array scaledColumn(const FieldAt& at, int64_t count, int32_t places, std::string& scratch,
                       py::object& mask) {
  py::array_t<int64_t> array(count);
  py::array_t<bool> absent(count);
  int64_t* out = array.mutable_data();
  bool* missing = absent.mutable_data();
  for (int64_t record = 0; record < count; ++record) {
    out[record] = 0;
    const Plain plain = plainScaled(at.bytes(record), places, out[record]);
    missing[record] = plain == Plain::Blank ||
                      (plain == Plain::Other && !canonicalScaled(at, record, scratch, out[record]));
  }
  mask = std::move(absent);
  return array;
}

py::array realColumn(const FieldAt& at, int64_t count, int32_t places, std::string& scratch) {
  py::array_t<int64_t> array(count);
  int64_t* out = array.mutable_data();
  const bool isFloat = at.field.nDataType == kFieldFloat;
  const int32_t width = isFloat ? 4 : 8;
  for (int64_t record = 0; record < count; ++record) {
    const std::string_view raw = at.bytes(record);
    const bool fast = at.field.nLength >= width &&
                      (isFloat ? wholeFloat(raw, out[record]) : shortestScaled(raw, places, out[record]));
    if (!fast) canonicalScaled(at, record, scratch, out[record]);
  }
  return array;
}

py::array attrColumn(const FieldAt& at, int64_t count) {
  py::array_t<uint8_t> array(count);
  uint8_t* out = array.mutable_data();
  const int64_t pos = int64_t{at.field.nDataPos} + at.field.nLength;
  for (int64_t i = 0; i < count; ++i) out[i] = at.records[i * at.stride + pos];
  return array;
}

}  // namespace

py::list decodeColumns(const BlockInfo& block, uint32_t encoding, const uint8_t* records, int64_t count,
                       int64_t stride, const RecordSource& source) {
  py::list columns;
  std::string scratch;
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& field = *block.getFieldInfoFromIndex(j);
    checkInside(block, field, stride);
    const FieldAt at{block, field, source, records, stride, encoding};
    const ColumnKind kind = kindOf(field);
    const int32_t places =
        kind == ColumnKind::Scaled || kind == ColumnKind::Real ? std::max(field.nDecimalLen, 0) : 0;
    py::object mask = py::none();
    py::object values;
    switch (kind) {
      case ColumnKind::Text:
        values = textColumn(at, count, scratch);
        break;
      case ColumnKind::Int16:
        values = integerColumn<int16_t>(at, count, scratch);
        break;
      case ColumnKind::Int64:
        values = integerColumn<int64_t>(at, count, scratch);
        break;
      case ColumnKind::Scaled:
        values = scaledColumn(at, count, places, scratch, mask);
        break;
      case ColumnKind::Real:
        values = realColumn(at, count, places, scratch);
        break;
      case ColumnKind::Attr:
        break;
    }
    columns.append(py::make_tuple(field.szFieldName, static_cast<int>(kind), places, values, mask));
    if (block.carriesAttr(field))
      columns.append(py::make_tuple(field.szFieldName + "@attr", static_cast<int>(ColumnKind::Attr), 0,
                                    attrColumn(at, count), py::none()));
  }
  return columns;
}

py::list decodeRecords(const BlockInfo& block, uint32_t encoding, const uint8_t* records, int64_t count,
                       int64_t stride, const RecordSource& source) {
  const py::object decimal = py::module_::import("decimal").attr("Decimal");
  struct Field {
    FieldAt at;
    py::str name;
    py::object attrName;  // "<field>@attr", or None
  };
  std::vector<Field> fields;
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& field = *block.getFieldInfoFromIndex(j);
    checkInside(block, field, stride);
    fields.push_back(
        {FieldAt{block, field, source, records, stride, encoding}, py::str(field.szFieldName),
         block.carriesAttr(field) ? py::object(py::str(field.szFieldName + "@attr")) : py::none()});
  }
  py::list list;
  std::string text;
  for (int64_t record = 0; record < count; ++record) {
    py::dict values;
    for (const Field& f : fields) {
      f.at.canonical(record, text);
      py::object item;
      if (value::valueKind(f.at.field) == value::ValueKind::Text) {
        item = py::reinterpret_steal<py::object>(newStr(text));
      } else if (text.empty()) {
        item = py::none();
      } else if (f.at.field.nDecimalLen > 0) {
        item = decimal(py::str(text));
      } else {
        item = py::reinterpret_steal<py::object>(PyLong_FromString(text.c_str(), nullptr, 10));
      }
      if (!item) throw py::error_already_set();
      values[f.name] = item;
      if (!f.attrName.is_none())
        values[f.attrName] = py::int_(records[record * stride + f.at.field.nDataPos + f.at.field.nLength]);
    }
    list.append(std::move(values));
  }
  return list;
}

}  // namespace blockproc::python
