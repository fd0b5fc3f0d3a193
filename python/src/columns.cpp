// Decoding block records for Python. Values come from the engine: number fields in their plain forms by its
// number readers (engine/NumberDecode.h), everything else by its canonical renderer; text columns keep each
// value's str while it keeps coming back.

#include "columns.h"

#include <pybind11/numpy.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "blockproc/detail/FieldNameIndex.h"
#include "blockproc/detail/FieldTypes.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/Utf8.h"
#include "blockproc/engine/FieldDecoder.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/engine/NumberDecode.h"
#include "blockproc/engine/RecordView.h"

namespace blockproc::python {

namespace {

// One field of the records being decoded, for reading its bytes where they lie and naming it in messages.
struct FieldAt {
  const BlockInfo& block;
  const FieldInfo& field;
  const RecordSource& source;
  const RecordView& view;
  value::FieldDecoder decoder;

  // The field's bytes in the record (the caller has checked that the field lies inside every record).
  std::string_view bytes(int64_t record) const noexcept { return view.field(record, field); }
  uint8_t attr(int64_t record) const noexcept { return view.attr(record, field); }
  // Raises ValueError "block B, record R, field F (byte N of SOURCE): why", N the field's byte `at` and R
  // the record's number in the source.
  [[noreturn]] void fail(int64_t record, int64_t at, std::string_view why) const {
    std::string message;
    value::appendWhere(message, block.m_szBlockName, source.firstRecord + record, field.szFieldName);
    message += " (byte " + std::to_string(source.offset + view.recordOffset(record) + field.nDataPos + at) +
               " of " + source.name + "): ";
    message += why;
    throw py::value_error(message);
  }
  // The engine's canonical text of the record's field in `out`, by the field's decoder; raises the engine's
  // reason when the bytes have no plain value.
  void canonical(int64_t record, std::string& out) const {
    out.clear();
    const std::string_view raw = bytes(record);
    const value::RenderResult r = decoder.append(out, raw, value::BadByteStyle::Replacement);
    if (r.issue == value::ValueIssue::None) return;
    std::string why;
    value::appendIssue(why, r, field, raw, decoder.encoding());
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

// Text columns of market data repeat a few thousand values (item codes, names, signs) or run in order
// (times): each field content is compared with the previous record's, then looked up in a table of the strs
// made so far (four slots a key may take), so a value is decoded once while it keeps coming back. A slot
// keeps its key's hash and a copy of its first kKeyBytes bytes: comparing against an earlier record's bytes
// instead would read a random place of the input (a cache miss per field on the quote capture). A name seen
// before costs a lookup, one seen for the first time a decode and a new str (bench/python_bench.py). When
// the four slots are taken, a new value replaces one of them.
class TextCache {
 public:
  static constexpr size_t kSlots = 4096, kWays = 4, kKeyBytes = 48;
  // A table of `records` records has at most that many values: it takes twice their slots, up to kSlots
  // (about 295 KB), so that a small frame does not make and clear the whole table per text column (a frame of
  // one record would spend nearly all its time clearing it).
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

// decimal.Decimal objects of scaled values. A column's values come back often (prices, rates), and a Decimal
// is immutable, so each one made is kept in a direct-mapped table by its scaled value and handed out again: a
// value seen before costs a lookup, a new one the product of Decimal("1E-<places>") and the int (a Decimal
// made from its text costs twice that). A product is rounded to the thread's decimal context, so while the
// maker lives the thread has its own context, with room for every 64-bit integer; the caller's comes back
// when it goes. The table takes twice the column's records in slots, up to kSlots (256 KiB, so that it stays
// in a core's second-level cache). Its pointers are borrowed: every Decimal it makes is held by the column
// the caller fills, which outlives the maker, so a slot is overwritten without touching the object it held
// (a cold cache line for a value made long before). bench/python_bench.py shows each choice.
class DecimalMaker {
 public:
  static constexpr size_t kSlots = 16384;
  DecimalMaker(int32_t places, int64_t records)
      : m_module(py::module_::import("decimal")),
        m_type(m_module.attr("Decimal")),
        m_unit(m_type("1E" + std::to_string(-places))),
        m_saved(m_module.attr("getcontext")()),
        m_slots(
            std::min<size_t>(kSlots, std::bit_ceil(static_cast<size_t>(std::max<int64_t>(records, 8)) * 2))),
        m_shift(64 - std::countr_zero(m_slots.size())) {
    m_module.attr("setcontext")(
        m_module.attr("Context")(py::arg("prec") = 40, py::arg("traps") = py::list()));
  }
  ~DecimalMaker() {
    // Put back with any error being raised kept aside.
    PyObject *type, *value, *trace;
    PyErr_Fetch(&type, &value, &trace);
    PyObject* done = PyObject_CallOneArg(m_module.attr("setcontext").ptr(), m_saved.ptr());
    if (done == nullptr) PyErr_WriteUnraisable(nullptr);
    Py_XDECREF(done);
    PyErr_Restore(type, value, trace);
  }
  DecimalMaker(const DecimalMaker&) = delete;
  DecimalMaker& operator=(const DecimalMaker&) = delete;

  // A new reference to the Decimal of scaled * 10^-places; the caller holds it at least as long as the maker.
  PyObject* scaled(int64_t value) {
    Slot& slot = m_slots[(static_cast<uint64_t>(value) * 0x9E3779B97F4A7C15ULL) >> m_shift];
    if (slot.value != nullptr && slot.key == value) return newRef(slot.value);
    PyObject* number = PyLong_FromLongLong(value);
    if (number == nullptr) throw py::error_already_set();
    PyObject* made = PyNumber_Multiply(m_unit.ptr(), number);
    Py_DECREF(number);
    if (made == nullptr) throw py::error_already_set();
    slot.value = made;
    slot.key = value;
    return made;
  }
  // A new reference to the Decimal of a number's text (any size; the decimal context never rounds a
  // conversion from text).
  PyObject* fromText(std::string_view text) {
    return fromObject(PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
  }

 private:
  struct Slot {
    int64_t key = 0;
    PyObject* value = nullptr;
  };
  static PyObject* newRef(PyObject* value) {
    Py_INCREF(value);
    return value;
  }
  // Decimal(argument), the argument's reference taken.
  PyObject* fromObject(PyObject* argument) {
    if (argument == nullptr) throw py::error_already_set();
    PyObject* made = PyObject_CallOneArg(m_type.ptr(), argument);
    Py_DECREF(argument);
    if (made == nullptr) throw py::error_already_set();
    return made;
  }
  py::module_ m_module;
  py::object m_type, m_unit, m_saved;
  std::vector<Slot> m_slots;
  int m_shift;
};

// Where a number column's values go, one of three forms: the scaled int64 with a mask, float64 (NaN for a
// blank), or decimal.Decimal objects (None for a blank). Each takes a value as value * 10^places or as the
// engine's canonical text (a value the plain reader does not take).
struct ScaledSink {
  py::array_t<int64_t> values;
  py::array_t<bool> blank;
  explicit ScaledSink(int64_t count, int32_t) : values(count), blank(count) {}
  void scaled(int64_t i, int64_t v) {
    values.mutable_data()[i] = v;
    blank.mutable_data()[i] = false;
  }
  void none(int64_t i) {
    values.mutable_data()[i] = 0;
    blank.mutable_data()[i] = true;
  }
  void text(const FieldAt& at, int64_t i, std::string& canonical) {
    int64_t v = 0;
    canonicalScaled(at, i, canonical, v);
    scaled(i, v);
  }
  std::pair<py::object, py::object> done() { return {std::move(values), std::move(blank)}; }
};

struct FloatSink {
  py::array_t<double> values;
  int32_t places;
  FloatSink(int64_t count, int32_t p) : values(count), places(p) {}
  void scaled(int64_t i, int64_t v) { values.mutable_data()[i] = value::scaledToDouble(v, places); }
  void none(int64_t i) { values.mutable_data()[i] = std::numeric_limits<double>::quiet_NaN(); }
  void text(const FieldAt&, int64_t i, const std::string& canonical) {
    values.mutable_data()[i] = num::parseLeadingDouble(canonical);
  }
  std::pair<py::object, py::object> done() { return {std::move(values), py::none()}; }
};

struct DecimalSink {
  py::array values;
  PyObject** out;
  DecimalMaker maker;
  DecimalSink(int64_t count, int32_t places)
      : values(py::dtype("O"), std::vector<py::ssize_t>{static_cast<py::ssize_t>(count)}),
        out(static_cast<PyObject**>(values.mutable_data())),
        maker(places, count) {}
  void scaled(int64_t i, int64_t v) { out[i] = maker.scaled(v); }
  void none(int64_t i) { out[i] = newRef(Py_None); }
  void text(const FieldAt&, int64_t i, const std::string& canonical) { out[i] = maker.fromText(canonical); }
  std::pair<py::object, py::object> done() { return {std::move(values), py::none()}; }
  static PyObject* newRef(PyObject* value) {
    Py_INCREF(value);
    return value;
  }
};

// A number field's column in the sink's form: the plain reader takes the wire's usual forms, the engine the
// rest (and refuses what has no value).
template <typename Sink>
std::pair<py::object, py::object> numberColumn(const FieldAt& at, int64_t count, int32_t places,
                                               std::string& scratch) {
  Sink sink(count, places);
  for (int64_t record = 0; record < count; ++record) {
    int64_t v = 0;
    const value::ScaledRead plain = value::readScaled(at.bytes(record), places, v);
    if (plain == value::ScaledRead::Value) {
      sink.scaled(record, v);
    } else if (plain == value::ScaledRead::Blank) {
      sink.none(record);
    } else {
      at.canonical(record, scratch);
      if (scratch.empty())
        sink.none(record);
      else
        sink.text(at, record, scratch);
    }
  }
  return sink.done();
}

// A float or double field's column: float64 of the value the field shows. A non-finite value, or a field
// shorter than its type, goes to the engine, which refuses what it cannot read; what it reads is kept.
py::array realColumn(const FieldAt& at, int64_t count, int32_t places, std::string& scratch) {
  py::array_t<double> array(count);
  double* out = array.mutable_data();
  const ftype::Rules& rules = ftype::rulesOf(at.field.nDataType);
  const bool isFloat = rules.binary == ftype::Binary::Float;
  const int32_t width = rules.width;
  for (int64_t record = 0; record < count; ++record) {
    const std::string_view raw = at.bytes(record);
    if (at.field.nLength >= width && value::readReal(raw, isFloat, places, out[record])) continue;
    at.canonical(record, scratch);
    if (at.field.nLength >= width) {
      // Not finite, and the engine takes it: the stored value itself.
      if (isFloat) {
        float f;
        std::memcpy(&f, raw.data(), sizeof f);
        out[record] = f;
      } else {
        std::memcpy(&out[record], raw.data(), sizeof(double));
      }
    } else {
      out[record] = num::parseLeadingDouble(scratch);
    }
  }
  return array;
}

py::array attrColumn(const FieldAt& at, int64_t count) {
  py::array_t<uint8_t> array(count);
  uint8_t* out = array.mutable_data();
  for (int64_t i = 0; i < count; ++i) out[i] = at.attr(i);
  return array;
}

}  // namespace

ColumnKind columnKindOf(const BlockInfo& block, const FieldInfo& field) {
  if (ftype::isText(field.nDataType))
    return value::valueKind(field) == value::ValueKind::Text ? ColumnKind::Text : ColumnKind::Scaled;
  switch (ftype::rulesOf(field.nDataType).binary) {
    case ftype::Binary::Int16:
      return ColumnKind::Int16;
    case ftype::Binary::Int64:
      return ColumnKind::Int64;
    case ftype::Binary::Float:
    case ftype::Binary::Double:
      return ColumnKind::Real;
    case ftype::Binary::None:
    default:
      throw py::value_error("block " + block.m_szBlockName + ", field " + field.szFieldName +
                            ": field type " + std::to_string(field.nDataType) + " has no column form");
  }
}

py::list decodeColumns(const BlockInfo& block, uint32_t encoding, const uint8_t* records, int64_t count,
                       int64_t stride, const RecordSource& source, Numbers numbers) {
  py::list columns;
  std::string scratch;
  const RecordView view(block, records, count * stride, stride);
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& field = *block.getFieldInfoFromIndex(j);
    checkInside(block, field, stride);
    const FieldAt at{block, field, source, view, value::FieldDecoder(field, encoding)};
    ColumnKind kind = columnKindOf(block, field);
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
      case ColumnKind::Scaled: {
        auto made = numbers == Numbers::Float     ? numberColumn<FloatSink>(at, count, places, scratch)
                    : numbers == Numbers::Decimal ? numberColumn<DecimalSink>(at, count, places, scratch)
                                                  : numberColumn<ScaledSink>(at, count, places, scratch);
        values = std::move(made.first);
        mask = std::move(made.second);
        if (numbers != Numbers::Scaled)
          kind = numbers == Numbers::Float ? ColumnKind::Float : ColumnKind::Decimal;
        break;
      }
      case ColumnKind::Real:
        values = realColumn(at, count, places, scratch);
        break;
      case ColumnKind::Attr:
      case ColumnKind::Float:
      case ColumnKind::Decimal:
        break;
    }
    columns.append(py::make_tuple(field.szFieldName, static_cast<int>(kind), places, values, mask));
    if (block.carriesAttr(field))
      columns.append(py::make_tuple(field.szFieldName + "@attr", static_cast<int>(ColumnKind::Attr), 0,
                                    attrColumn(at, count), py::none()));
  }
  return columns;
}

py::dict scaledFields(const BlockInfo& block) {
  py::dict scales;
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& field = *block.getFieldInfoFromIndex(j);
    if (columnKindOf(block, field) == ColumnKind::Scaled)
      scales[py::str(field.szFieldName)] = std::max(field.nDecimalLen, 0);
  }
  return scales;
}

py::array decimalsOfScaled(const py::array& values, const py::object& blank, int32_t places) {
  if (places < 0 || places > 18)
    throw py::value_error("scale must be 0 to 18, not " + std::to_string(places));
  const auto scaled = py::array_t<int64_t, py::array::c_style | py::array::forcecast>::ensure(values);
  if (!scaled || scaled.ndim() != 1) throw py::type_error("the values must be a one-dimensional int64 array");
  const int64_t count = scaled.shape(0);
  py::array_t<bool, py::array::c_style | py::array::forcecast> mask;
  if (!blank.is_none()) {
    mask = py::array_t<bool, py::array::c_style | py::array::forcecast>::ensure(blank);
    if (!mask || mask.ndim() != 1 || mask.shape(0) != count)
      throw py::value_error("the mask must be a bool array as long as the values");
  }
  DecimalSink sink(count, places);
  const int64_t* in = scaled.data();
  const bool* none = blank.is_none() ? nullptr : mask.data();
  for (int64_t i = 0; i < count; ++i) {
    if (none != nullptr && none[i])
      sink.none(i);
    else
      sink.scaled(i, in[i]);
  }
  return std::move(sink.values);
}

namespace {

// The Python value of the record's field, the form decode gives.
py::object recordValue(const FieldAt& at, int64_t record, std::string& text, const py::object& decimal) {
  at.canonical(record, text);
  py::object item;
  if (value::valueKind(at.field) == value::ValueKind::Text)
    item = py::reinterpret_steal<py::object>(newStr(text));
  else if (text.empty())
    item = py::none();
  else if (at.field.nDecimalLen > 0)
    item = decimal(py::str(text));
  else
    item = py::reinterpret_steal<py::object>(PyLong_FromString(text.c_str(), nullptr, 10));
  if (!item) throw py::error_already_set();
  return item;
}

}  // namespace

py::list decodeRecords(const BlockInfo& block, uint32_t encoding, const uint8_t* records, int64_t count,
                       int64_t stride, const RecordSource& source, bool showSecrets) {
  const py::object masked = py::str("********");
  const py::object decimal = py::module_::import("decimal").attr("Decimal");
  struct Field {
    FieldAt at;
    py::str name;
    py::object attrName;  // "<field>@attr", or None
    bool secret;
  };
  std::vector<Field> fields;
  const RecordView view(block, records, count * stride, stride);
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& field = *block.getFieldInfoFromIndex(j);
    checkInside(block, field, stride);
    fields.push_back(
        {FieldAt{block, field, source, view, value::FieldDecoder(field, encoding)},
         py::str(field.szFieldName),
         block.carriesAttr(field) ? py::object(py::str(field.szFieldName + "@attr")) : py::none(),
         !showSecrets && field.isPasswordField()});
  }
  py::list list;
  std::string text;
  for (int64_t record = 0; record < count; ++record) {
    py::dict values;
    for (const Field& f : fields) {
      // A secret is not even read: a message about its bytes would show them.
      values[f.name] = f.secret ? masked : recordValue(f.at, record, text, decimal);
      if (!f.attrName.is_none()) values[f.attrName] = py::int_(f.at.attr(record));
    }
    list.append(std::move(values));
  }
  return list;
}

}  // namespace blockproc::python
