// Encoding a frame back into a block's records, in one call per block: each column is read in place (numpy
// buffers, the mask of a nullable column, the objects of an object column), each value turned into the text
// of the value it stands for and written by its field's encoder (value::FieldEncoder, the rules every encode
// of the engine follows), straight into the bytes handed back. A value comes back as it was or is refused:
// ValueError naming the block, the row (its index label), the column and why; a column or an item of a type
// no field takes raises TypeError.
//
// What each field's column holds, as to_pandas gives it:
//   text            str (object or string dtype); None, <NA> or NaN for the blank text
//   int16/64        integers (any integer dtype, or int objects); no blank
//   number          integers: the value times 10**decimals (Int64, <NA> for a blank), or float64 standing
//                   for the one decimal of at most `decimals` places nearest to it (NaN for a blank), or
//                   decimal.Decimal objects (None for a blank); an int object only when decimals is 0
//   float/double    float64 (the value itself), or int, float or Decimal objects; no blank
//   <field>@attr    the attribute byte, an integer 0 to 255

#include <pybind11/numpy.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/engine/DefinitionLoader.h"
#include "blockproc/engine/FieldCodec.h"
#include "blockproc/engine/FieldValue.h"
#include "columns.h"
#include "common.h"
#include "definition.h"

namespace blockproc::python {

namespace {

using internal::counted;
using internal::withThousands;

// The form of a field's column.
enum class Form { Text, Integer, Number, Real, Attr };

// The form a field's column takes in a frame, from the column form decoding gives it.
Form formOf(const BlockInfo& block, const FieldInfo& field) {
  switch (columnKindOf(block, field)) {
    case ColumnKind::Text:
      return Form::Text;
    case ColumnKind::Scaled:
      return Form::Number;
    case ColumnKind::Real:
      return Form::Real;
    default:
      return Form::Integer;
  }
}

std::string formName(const FieldInfo& field, Form form) {
  switch (form) {
    case Form::Text:
      return "a text field";
    case Form::Integer:
      return "an " + std::string(dataTypeName(field.nDataType)) + " field";  // int16, int64 or sint64
    case Form::Number:
      return "a number field with " + counted(std::max(field.nDecimalLen, 0), "decimal");
    case Form::Real:
      return "a " + std::string(dataTypeName(field.nDataType)) + " field";  // float or double
    case Form::Attr:
    default:
      return "an attribute byte";
  }
}

// What each form takes, for messages.
const char* formTakes(Form form) {
  switch (form) {
    case Form::Text:
      return "str";
    case Form::Integer:
    case Form::Attr:
      return "integers";
    case Form::Number:
      return "Int64 of the value times 10**decimals, float64 or decimal.Decimal";
    case Form::Real:
    default:
      return "float64";
  }
}

// The text of magnitude * 10^-places with a '-' when negative ("-12.34", "0.05", "1200") in `out`.
void scaledText(bool negative, uint64_t magnitude, int32_t places, std::string& out) {
  char digits[24];
  const auto count =
      static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, magnitude).ptr - digits);
  const auto fraction = static_cast<size_t>(places);
  out.clear();
  if (negative && magnitude != 0) out += '-';
  if (count <= fraction) {
    out += "0.";
    out.append(fraction - count, '0');
    out.append(digits, count);
    return;
  }
  out.append(digits, count - fraction);
  if (fraction > 0) {
    out += '.';
    out.append(digits + count - fraction, fraction);
  }
}

// The shortest decimal text that reads back as `x` (finite), without an exponent, in `out`.
void floatText(double x, std::string& out) {
  out.resize(400);  // the longest is 5e-324's, 327 characters
  const auto end = std::to_chars(out.data(), out.data() + out.size(), x, std::chars_format::fixed).ptr;
  out.resize(static_cast<size_t>(end - out.data()));
}

// Whether a float64 stands for one decimal of at most `places` places: the doubles are closer together than
// those decimals, so no two of the decimals read as the same double (the one it stands for is then its
// shortest text). The spacing is a power of two and 10^places exact, so the product is exact.
bool standsForOneDecimal(double x, int32_t places) {
  if (places < 0 || places > 22) return false;
  const double magnitude = std::fabs(x);
  const double spacing = std::nextafter(magnitude, std::numeric_limits<double>::infinity()) - magnitude;
  return spacing * num::kExactPowersOfTen[static_cast<size_t>(places)] < 1.0;
}

// One column of the frame: a one-dimensional numpy array read in place at its stride, and the mask of a
// nullable column's missing values (or none).
struct ColumnData {
  py::array values;
  py::array mask;
  const char* data = nullptr;
  const char* maskData = nullptr;
  py::ssize_t stride = 0, maskStride = 0, itemSize = 0;
  char kind = 0;

  ColumnData(py::handle valuesObject, py::handle maskObject, int64_t rows, const std::string& where) {
    values = array(valuesObject, rows, where);
    data = static_cast<const char*>(values.data());
    stride = values.strides(0);
    itemSize = values.itemsize();
    kind = values.dtype().kind();
    if (maskObject.is_none()) return;
    mask = array(maskObject, rows, where);
    if (mask.dtype().kind() != 'b' || mask.itemsize() != 1)
      throw py::type_error(where + ": the mask must be a bool array");
    maskData = static_cast<const char*>(mask.data());
    maskStride = mask.strides(0);
  }
  static py::array array(py::handle object, int64_t rows, const std::string& where) {
    if (!py::isinstance<py::array>(object)) throw py::type_error(where + " must be a numpy array");
    auto a = py::reinterpret_borrow<py::array>(object);
    if (a.ndim() != 1 || a.shape(0) != rows)
      throw py::value_error(where + " must be one-dimensional, one value per row (" + withThousands(rows) +
                            ")");
    return a;
  }

  bool missing(int64_t i) const noexcept { return maskData != nullptr && maskData[i * maskStride] != 0; }
  PyObject* object(int64_t i) const noexcept {
    PyObject* o;
    std::memcpy(&o, data + i * stride, sizeof o);
    return o;
  }
  // The item's bits, a key of its value within the column (items of 1, 2, 4 or 8 bytes).
  uint64_t bits(int64_t i) const noexcept {
    const char* at = data + i * stride;
    switch (itemSize) {
      case 1:
        return static_cast<uint8_t>(*at);
      case 2:
        return load<uint16_t>(at);
      case 4:
        return load<uint32_t>(at);
      default:
        return load<uint64_t>(at);
    }
  }
  double real(int64_t i) const noexcept {
    double v;
    std::memcpy(&v, data + i * stride, sizeof v);
    return v;
  }
  // An integer item as sign and magnitude.
  void integer(int64_t i, bool& negative, uint64_t& magnitude) const noexcept {
    const char* at = data + i * stride;
    if (kind == 'u') {
      uint64_t v = 0;
      if (itemSize == 1) v = *reinterpret_cast<const uint8_t*>(at);
      if (itemSize == 2) v = load<uint16_t>(at);
      if (itemSize == 4) v = load<uint32_t>(at);
      if (itemSize == 8) v = load<uint64_t>(at);
      negative = false;
      magnitude = v;
      return;
    }
    int64_t v = 0;
    if (itemSize == 1) v = *reinterpret_cast<const int8_t*>(at);
    if (itemSize == 2) v = load<int16_t>(at);
    if (itemSize == 4) v = load<int32_t>(at);
    if (itemSize == 8) v = load<int64_t>(at);
    negative = v < 0;
    magnitude = negative ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
  }
  template <typename T>
  static T load(const char* at) noexcept {
    T v;
    std::memcpy(&v, at, sizeof v);
    return v;
  }
};

// The Python objects an object column's items are told apart by, looked up once per call.
struct Types {
  py::object decimal = py::module_::import("decimal").attr("Decimal");
  py::object na = py::module_::import("pandas").attr("NA");

  bool isDecimal(PyObject* o) const {
    return Py_TYPE(o) == reinterpret_cast<PyTypeObject*>(decimal.ptr()) ||
           PyObject_IsInstance(o, decimal.ptr()) == 1;
  }
  // None, <NA> or a float NaN.
  bool isMissing(PyObject* o) const noexcept {
    return o == Py_None || o == na.ptr() || (PyFloat_CheckExact(o) && std::isnan(PyFloat_AS_DOUBLE(o)));
  }
};

std::string typeName(PyObject* o) {
  return py::type::of(py::handle(o)).attr("__name__").cast<std::string>();
}

// The bytes of values already written, by value: a field's encoder writes the same bytes for the same value,
// so a value met again is copied. Columns of market data repeat their values (names, signs, rates, tick
// counts), and a decoded frame's text and Decimal columns share one object per value, so the key is the
// value's bits for a number and the object itself for an object (alive for the whole call: the column holds
// it). The bytes are kept in the table, not looked up in the output, where an earlier row is a cache miss.
// Direct-mapped by a multiplicative hash, a new value taking its slot. A column whose values rarely come
// back (prices, volumes) would pay a lookup and a copy per row for nothing: fewer than one hit in four over
// its first 1,024 rows turns the table off.
class Memo {
 public:
  static constexpr size_t kBytes = 48;  // wider fields are not kept
  static constexpr int kBits = 10;
  // A table for a field `width` bytes long, or none when not `wanted`.
  Memo(size_t width, bool wanted) : m_width(width), m_on(wanted && width <= kBytes) {}

  bool on() const noexcept { return m_on; }
  // Copies the bytes kept for the key to `out` and gives true, or gives false.
  bool copy(uint64_t key, uint8_t* out) noexcept {
    const Slot& s = slot(key);
    const bool hit = s.used && s.key == key;
    if (hit) copyBytes(out, s.bytes);
    if (m_seen < kTrial) {
      m_hits += hit ? 1 : 0;
      if (++m_seen == kTrial && m_hits < kTrial / 4) m_on = false;
    }
    return hit;
  }
  void keep(uint64_t key, const uint8_t* bytes) noexcept {
    Slot& s = slot(key);
    s.key = key;
    s.used = true;
    std::memcpy(s.bytes, bytes, m_width);
  }

 private:
  static constexpr int64_t kTrial = 1024;
  // The field's bytes by fixed-size copies where it is short (a copy of any size is a library call).
  void copyBytes(uint8_t* out, const uint8_t* from) const noexcept {
    if (m_width == 1) {
      *out = *from;
    } else if (m_width >= 8 && m_width <= 16) {
      std::memcpy(out, from, 8);
      std::memcpy(out + m_width - 8, from + m_width - 8, 8);
    } else {
      std::memcpy(out, from, m_width);
    }
  }
  struct Slot {
    uint64_t key = 0;
    bool used = false;
    uint8_t bytes[kBytes];
  };
  Slot& slot(uint64_t key) {
    if (m_slots.empty()) m_slots.resize(size_t{1} << kBits);
    return m_slots[(key * 0x9E3779B97F4A7C15ULL) >> (64 - kBits)];
  }
  std::vector<Slot> m_slots;
  size_t m_width;
  bool m_on;
  int64_t m_seen = 0, m_hits = 0;
};

// One column being written into its field of every record.
class ColumnWriter {
 public:
  ColumnWriter(const BlockInfo& block, const FieldInfo& field, Form form, uint32_t encoding, ColumnData data,
               const Types& types, py::handle index)
      : m_block(block),
        m_field(field),
        m_form(form),
        m_encoder(field, encoding),
        m_data(std::move(data)),
        m_types(types),
        m_index(index),
        m_places(std::max(field.nDecimalLen, 0)),
        m_layout(form == Form::Number ? m_encoder.scaledLayout(m_places)
                                      : value::FieldEncoder::ScaledLayout{}),
        m_memo(form == Form::Attr ? 1 : static_cast<size_t>(field.nLength),
               !m_layout.on || (m_data.kind != 'i' && m_data.kind != 'u')) {
    checkDtype();
  }

  // Writes rows [from, to) into the records at `records` (record r at records + r * stride).
  void write(int64_t from, int64_t to, uint8_t* records, int64_t stride) {
    m_out = records + (m_form == Form::Attr ? m_field.nDataPos + m_field.nLength : m_field.nDataPos);
    m_stride = stride;
    switch (m_data.kind) {
      case 'i':
      case 'u':
        if (m_data.kind == 'i' && m_form != Form::Attr) {
          if (m_data.itemSize == 8) return signedRows<int64_t>(from, to);
          if (m_data.itemSize == 4) return signedRows<int32_t>(from, to);
          if (m_data.itemSize == 2) return signedRows<int16_t>(from, to);
        }
        for (int64_t r = from; r < to; ++r) {
          if (m_data.missing(r))
            integerItem(r);
          else
            memoised(
                r, [&] { return m_data.bits(r); }, [&] { integerItem(r); });
        }
        return;
      case 'f':
        for (int64_t r = from; r < to; ++r) {
          if (m_data.missing(r))
            realItem(r, 0, true);
          else
            memoised(
                r, [&] { return m_data.bits(r); }, [&] { realItem(r, m_data.real(r), false); });
        }
        return;
      default:
        for (int64_t r = from; r < to; ++r)
          memoised(
              r, [&] { return reinterpret_cast<uintptr_t>(m_data.object(r)); }, [&] { objectItem(r); });
        return;
    }
  }

 private:
  uint8_t* at(int64_t row) const noexcept { return m_out + row * m_stride; }

  // Writes the row's value through `item`, or copies its bytes when the value was written before.
  template <typename Key, typename Item>
  void memoised(int64_t row, Key key, Item item) {
    if (!m_memo.on()) return item();
    if (m_memo.copy(key(), at(row))) return;
    item();
    m_memo.keep(key(), at(row));
  }

  // A signed integer column (the scaled columns of to_pandas, its int16 and int64 columns): the values
  // straight to the encoder once the memo is off.
  template <typename Int>
  void signedRows(int64_t from, int64_t to) {
    const int32_t places = m_form == Form::Number ? m_places : 0;
    for (int64_t r = from; r < to; ++r) {
      if (m_data.missing(r)) {
        integerItem(r);
      } else if (m_memo.on()) {
        memoised(
            r, [&] { return m_data.bits(r); }, [&] { integerItem(r); });
      } else {
        const int64_t value = ColumnData::load<Int>(m_data.data + r * m_data.stride);
        if ((!m_layout.on || !value::FieldEncoder::writeScaled(m_layout, value, at(r))) &&
            !m_encoder.encodeScaled(value, places, at(r), m_why))
          fail(r, m_why);
      }
    }
  }

  // Refuses a column whose dtype no value of the field is given in.
  void checkDtype() const {
    const char k = m_data.kind;
    const py::ssize_t size = m_data.itemSize;
    const bool integer = (k == 'i' || k == 'u') && (size == 1 || size == 2 || size == 4 || size == 8);
    const bool float64 = k == 'f' && m_data.itemSize == 8;
    const bool taken = k == 'O' || (integer && m_form != Form::Text) ||
                       (float64 && (m_form == Form::Number || m_form == Form::Real));
    if (taken) return;
    throw py::type_error("block " + m_block.m_szBlockName + ", column " + columnName() + " is " +
                         py::str(m_data.values.dtype()).cast<std::string>() + "; " +
                         formName(m_field, m_form) + " takes " + formTakes(m_form));
  }

  std::string columnName() const { return m_field.szFieldName + (m_form == Form::Attr ? "@attr" : ""); }

  // Raises ValueError (TypeError with `typeError`) naming the block, the row, the column and why.
  [[noreturn]] void fail(int64_t row, std::string_view why, bool typeError = false) const {
    std::string message = "block " + m_block.m_szBlockName + ", row ";
    const py::object label = m_index[py::int_(row)];
    const bool plain = PyLong_CheckExact(label.ptr()) && label.equal(py::int_(row));
    message += py::repr(label).cast<std::string>();
    if (!plain) message += " (record " + std::to_string(row) + ")";
    message += ", column " + columnName() + ": ";
    message += why;
    if (typeError) throw py::type_error(message);
    throw py::value_error(message);
  }

  [[noreturn]] void noBlank(int64_t row, std::string_view shown) const {
    fail(row, std::string(shown) + " is blank; " + formName(m_field, m_form) + " has no blank value");
  }

  void put(int64_t row, std::string_view text) {
    if (!m_encoder.encode(text, at(row), m_why)) fail(row, m_why);
  }

  void attrByte(int64_t row, bool negative, uint64_t magnitude) {
    if (negative || magnitude > 255)
      fail(row,
           std::string(negative ? "-" : "") + std::to_string(magnitude) + " is no attribute byte (0 to 255)");
    *at(row) = static_cast<uint8_t>(magnitude);
  }

  // An integer of an integer column: the value itself, or for a number field the value times 10^places.
  void integerItem(int64_t row) {
    if (m_data.missing(row)) {
      if (m_form != Form::Number) noBlank(row, "<NA>");
      put(row, "");
      return;
    }
    bool negative = false;
    uint64_t magnitude = 0;
    m_data.integer(row, negative, magnitude);
    wholeItem(row, negative, magnitude, m_form == Form::Number ? m_places : 0);
  }

  void wholeItem(int64_t row, bool negative, uint64_t magnitude, int32_t places) {
    if (m_form == Form::Attr) return attrByte(row, negative, magnitude);
    if (magnitude <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      const int64_t value = negative ? -static_cast<int64_t>(magnitude) : static_cast<int64_t>(magnitude);
      if (m_layout.on && places == m_layout.places &&
          value::FieldEncoder::writeScaled(m_layout, value, at(row)))
        return;
      if (!m_encoder.encodeScaled(value, places, at(row), m_why)) fail(row, m_why);
      return;
    }
    scaledText(negative, magnitude, places, m_text);  // beyond 64 bits: the encoder refuses its text
    put(row, m_text);
  }

  // A float: NaN is a number field's blank; a number field takes the one decimal it stands for.
  void realItem(int64_t row, double x, bool missing) {
    if (missing || std::isnan(x)) {
      if (m_form != Form::Number) noBlank(row, "NaN");
      put(row, "");
      return;
    }
    if (std::isinf(x)) fail(row, std::string(x < 0 ? "-inf" : "inf") + " is not a number");
    if (m_form != Form::Number) {
      if (!m_encoder.encodeReal(x, at(row), m_why)) fail(row, m_why);
      return;
    }
    floatText(x, m_text);
    if (!standsForOneDecimal(x, m_places))
      fail(row,
           "the float64 " + m_text + " stands for no one decimal of " + counted(m_places, "place") +
               " (at this size a float64 holds fewer digits); give the column as Int64 of the value times "
               "10**" +
               std::to_string(m_places) + " or as decimal.Decimal");
    put(row, m_text);
  }

  // An item of an object column, by its type.
  void objectItem(int64_t row) {
    PyObject* o = m_data.object(row);
    if (o == nullptr) fail(row, "the object array holds no object", true);
    if (PyUnicode_Check(o)) {
      if (m_form != Form::Text) wrongItem(row, o);
      if (PyUnicode_IS_COMPACT_ASCII(o)) {  // its characters are its bytes in any encoding, inside the object
        const std::string_view ascii(static_cast<const char*>(PyUnicode_DATA(o)),
                                     static_cast<size_t>(PyUnicode_GET_LENGTH(o)));
        if (!m_encoder.encodeAscii(ascii, at(row))) put(row, ascii);
        return;
      }
      Py_ssize_t size = 0;
      const char* utf8 = PyUnicode_AsUTF8AndSize(o, &size);
      if (utf8 == nullptr) {
        PyErr_Clear();
        fail(row, py::repr(o).cast<std::string>() + " is not text (it holds a lone surrogate)");
      }
      put(row, std::string_view(utf8, static_cast<size_t>(size)));
    } else if (m_types.isMissing(o)) {
      if (m_form != Form::Text && m_form != Form::Number)
        noBlank(row, o == Py_None ? "None" : py::str(o).cast<std::string>());
      put(row, "");
    } else if (PyBool_Check(o)) {
      wrongItem(row, o);
    } else if (PyLong_Check(o)) {
      longItem(row, o);
    } else if (PyFloat_Check(o)) {
      if (m_form != Form::Number && m_form != Form::Real) wrongItem(row, o);
      realItem(row, PyFloat_AS_DOUBLE(o), false);
    } else if (m_types.isDecimal(o)) {
      decimalItem(row, o);
    } else {
      wrongItem(row, o);
    }
  }

  // The text of an int or a Decimal as the base type makes it (`text`, its C slot), never by a subclass's
  // __str__ or __repr__: Python code run here could change the column being read.
  static py::str baseText(PyObject* o, reprfunc text) {
    PyObject* made = text != nullptr ? text(o) : PyObject_Str(o);
    if (made == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(made);
  }

  [[noreturn]] void wrongItem(int64_t row, PyObject* o) const {
    fail(row,
         py::repr(py::handle(o)).cast<std::string>() + " is a " + typeName(o) + "; " +
             formName(m_field, m_form) + " takes " + formTakes(m_form),
         true);
  }

  // An int object: the value itself (a number field with places takes none: it would be read unscaled).
  void longItem(int64_t row, PyObject* o) {
    if (m_form == Form::Text) wrongItem(row, o);
    if (m_form == Form::Number && m_places > 0)
      fail(row,
           py::str(o).cast<std::string>() + " is an int in an object column, which " +
               formName(m_field, m_form) +
               " would take unscaled; give decimal.Decimal values, or the Int64 column of the value times "
               "10**" +
               std::to_string(m_places),
           true);
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
    if (overflow == 0) {
      const bool negative = v < 0;
      wholeItem(row, negative, negative ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v), 0);
      return;
    }
    if (m_form == Form::Attr) fail(row, py::str(o).cast<std::string>() + " is no attribute byte (0 to 255)");
    put(row, baseText(o, PyLong_Type.tp_repr).cast<std::string>());  // refused as out of range
  }

  // A Decimal: its text, which the encoder reads in any form (an exponent included); NaN is a number
  // field's blank.
  void decimalItem(int64_t row, PyObject* o) {
    if (m_form == Form::Text || m_form == Form::Attr) wrongItem(row, o);
    const py::str text = baseText(o, reinterpret_cast<PyTypeObject*>(m_types.decimal.ptr())->tp_str);
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
    if (utf8 == nullptr) throw py::error_already_set();
    const std::string_view shown(utf8, static_cast<size_t>(size));
    if (shown == "NaN" || shown == "-NaN") {
      if (m_form != Form::Number) noBlank(row, "Decimal('NaN')");
      put(row, "");
      return;
    }
    put(row, shown);
  }

  const BlockInfo& m_block;
  const FieldInfo& m_field;
  Form m_form;
  value::FieldEncoder m_encoder;
  ColumnData m_data;
  const Types& m_types;
  py::handle m_index;
  int32_t m_places;
  uint8_t* m_out = nullptr;
  int64_t m_stride = 0;
  // A number column's digits laid out without their text; an integer is then made faster than it is looked
  // up in the memo, which such a column of integers does without.
  value::FieldEncoder::ScaledLayout m_layout;
  Memo m_memo;
  std::string m_text, m_why;
};

// The record a block's records start as: the block's defaults, laid out by a processor as the engine's
// builder lays them out (the bytes no field covers keep them).
std::string defaultRecord(const BlockInfo& block, uint32_t encoding, int64_t size) {
  KXBlockDataProc proc(const_cast<BlockInfo*>(&block));  // only read
  proc.setEncodingType(encoding);
  proc.wipeBuffer();
  proc.layOutDefaults(1);
  std::string record(static_cast<size_t>(size), ' ');
  if (proc.getData() != nullptr && proc.getBlockBuffSize() >= size)
    std::memcpy(record.data(), proc.getData(), static_cast<size_t>(size));
  return record;
}

// Whether some byte of the record is no field's and no attribute byte (it keeps the defaults); every other
// byte is written by a column.
bool hasGaps(const BlockInfo& block, int64_t stride) {
  std::vector<bool> covered(static_cast<size_t>(stride));
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& field = *block.getFieldInfoFromIndex(j);
    const int64_t end = int64_t{field.nDataPos} + field.nLength + (block.carriesAttr(field) ? 1 : 0);
    for (int64_t b = field.nDataPos; b < end; ++b) covered[static_cast<size_t>(b)] = true;
  }
  return std::find(covered.begin(), covered.end(), false) != covered.end();
}

// Raises ValueError when a field (with its attribute byte) does not lie inside the record.
void checkInside(const BlockInfo& block, const FieldInfo& field, int64_t stride) {
  const int64_t end = int64_t{field.nDataPos} + field.nLength + (block.carriesAttr(field) ? 1 : 0);
  if (field.nDataPos < 0 || field.nLength <= 0 || end > stride)
    throw py::value_error("field '" + field.szFieldName + "' lies outside the " + std::to_string(stride) +
                          "-byte record of block " + block.m_szBlockName);
}

// The bytes ahead of the records in a reply (a count prefix), after checking that the block holds `rows`.
std::string replyHead(const Definition& def, const BlockInfo& block, int64_t rows) {
  const std::string& name = block.m_szBlockName;
  const std::string frameHas = "; the frame has " + counted(rows, "row");
  if (!block.isOccursBlock()) {
    if (rows != 1)
      throw py::value_error("block " + name + " holds one record" + frameHas +
                            " (stream=True writes a real-time stream of its records)");
    return {};
  }
  if (rows > block.m_nRepeatCount)
    throw py::value_error("block " + name + " holds at most " + counted(block.m_nRepeatCount, "record") +
                          " (its repeat)" + frameHas);
  if (block.m_nRecordLenApplyType != RCL_OCCURSLEN) return {};
  const int32_t digits = def.definition->tran.m_nOccursLen;
  std::string count = std::to_string(rows);
  if (digits <= 0 || static_cast<int64_t>(count.size()) > digits)
    throw py::value_error("block " + name + " counts its records with a " + std::to_string(digits) +
                          "-digit prefix, which cannot hold " + count);
  return std::string(static_cast<size_t>(digits) - count.size(), '0') + count;
}

// Matches the frame's columns with the block's fields (and attribute bytes): every one given once, no other.
std::vector<ColumnWriter> matchColumns(const Definition& def, const BlockInfo& block, const py::list& columns,
                                       py::handle index, int64_t rows, int64_t stride, const Types& types) {
  struct Wanted {
    const FieldInfo* field;
    Form form;
    std::string name;
    py::handle values, mask;
  };
  std::vector<Wanted> wanted;
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& field = *block.getFieldInfoFromIndex(j);
    checkInside(block, field, stride);
    wanted.push_back({&field, formOf(block, field), field.szFieldName, {}, {}});
    if (block.carriesAttr(field)) wanted.push_back({&field, Form::Attr, field.szFieldName + "@attr", {}, {}});
  }
  std::string unknown;
  for (py::handle item : columns) {
    const auto column = py::reinterpret_borrow<py::tuple>(item);
    const py::handle name = column[0];
    auto found = std::find_if(wanted.begin(), wanted.end(), [&](const Wanted& w) {
      return py::isinstance<py::str>(name) && name.cast<std::string>() == w.name;
    });
    if (found == wanted.end()) {
      unknown += (unknown.empty() ? "" : ", ") + py::repr(name).cast<std::string>();
    } else if (found->values) {
      throw py::value_error("block " + block.m_szBlockName + ": the frame has two columns " + found->name);
    } else {
      found->values = column[1];
      found->mask = column[2];
    }
  }
  std::string missing;
  for (const Wanted& w : wanted)
    if (!w.values) missing += (missing.empty() ? "" : ", ") + w.name;
  if (!unknown.empty() || !missing.empty())
    throw py::value_error("block " + block.m_szBlockName + ": " +
                          (unknown.empty() ? "" : "the frame's columns " + unknown + " are no fields of it") +
                          (unknown.empty() || missing.empty() ? "" : "; ") +
                          (missing.empty() ? "" : "the frame has no column " + missing) +
                          " (its columns: the fields, and <field>@attr for each attribute byte)");
  std::vector<ColumnWriter> writers;
  writers.reserve(wanted.size());
  for (const Wanted& w : wanted)
    writers.emplace_back(
        block, *w.field, w.form, def.encoding(),
        ColumnData(w.values, w.mask, rows, "block " + block.m_szBlockName + ", column " + w.name), types,
        index);
  return writers;
}

// The bytes of a block's records from a frame's columns ((name, values, mask) tuples, one per column):
// a stream of them back to back, or the block's part of a reply (its count prefix first when it has one).
// Records are written a few hundred at a time, every column in turn, so that a slice of the output stays
// in cache while its columns are read.
py::bytes encodeFrame(const Definition& def, const py::list& columns, py::handle index,
                      const std::string& blockName, bool stream) {
  const BlockInfo& block = def.block(blockName);
  if (!stream && !def.isOutput(block))
    throw py::key_error("block " + blockName + " is not an output block of " + def.name +
                        " (stream=True writes a real-time stream of any block)");
  const auto rows = static_cast<int64_t>(py::len(index));
  const int64_t stride = block.getRecordMemSize();
  if (stride <= 0) throw py::value_error("block " + blockName + " has no bytes in its record");
  const std::string head = stream ? std::string() : replyHead(def, block, rows);
  const Types types;
  std::vector<ColumnWriter> writers = matchColumns(def, block, columns, index, rows, stride, types);
  if (rows > (std::numeric_limits<Py_ssize_t>::max() - static_cast<int64_t>(head.size())) / stride)
    throw py::value_error("block " + blockName + ": " + counted(rows, "record") +
                          " are more than bytes hold");
  const std::string defaults = defaultRecord(block, def.encoding(), stride);

  const auto size = static_cast<Py_ssize_t>(static_cast<int64_t>(head.size()) + rows * stride);
  auto bytes = py::reinterpret_steal<py::bytes>(PyBytes_FromStringAndSize(nullptr, size));
  if (!bytes) throw py::error_already_set();
  auto* out = reinterpret_cast<uint8_t*>(PyBytes_AS_STRING(bytes.ptr()));
  std::memcpy(out, head.data(), head.size());
  uint8_t* records = out + head.size();
  const bool gaps = hasGaps(block, stride);
  constexpr int64_t kChunk = 256;
  for (int64_t from = 0; from < rows; from += kChunk) {
    const int64_t to = std::min(rows, from + kChunk);
    for (int64_t r = from; gaps && r < to; ++r)
      std::memcpy(records + r * stride, defaults.data(), defaults.size());
    for (ColumnWriter& writer : writers) writer.write(from, to, records, stride);
  }
  return bytes;
}

}  // namespace

void bindFrameEncoder(py::module_& m) {
  m.def("_encode_frame", &encodeFrame, py::arg("definition"), py::arg("columns"), py::arg("index"),
        py::arg("block"), py::arg("stream"));
}

}  // namespace blockproc::python
