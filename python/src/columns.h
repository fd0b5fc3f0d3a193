#pragma once
// Decoding the records of one block for Python in one call, with no Python call per field: into column arrays
// (frames) or into dicts of values (decode). Records are read where they lie (RecordView), and every value is
// the engine's canonical value of the field's bytes (value::FieldDecoder, what `blockproc decode` prints), or
// for a number column the same value read by the engine's number readers (value::readScaled, readReal).
//
// Each field becomes one column, and each field carrying an attribute byte one more ("<field>@attr", uint8):
//   text                         object array of str
//   int16 / int64 / sint64       int16 / int64 / int64
//   number, text with decimals   int64 holding the value * 10^decimals, with a bool mask (a blank field is
//                                masked)
//                                (Numbers::Scaled), or float64 with NaN for a blank (Numbers::Float), or
//                                decimal.Decimal objects with None for a blank (Numbers::Decimal)
//   float / double               float64: the double itself, or the value a float shows (its shortest text
//                                with the point moved `decimals` places left), whatever its places
// A value that has no exact form (bytes that are not text in the encoding, a number field holding something
// else, more decimal places than the field's, a non-finite float the engine refuses, or in a scaled column a
// value beyond 64 bits) raises ValueError naming the block, the record, the field and the byte offset:
// nothing is blanked or rounded beyond what float64 itself rounds.

#include <cstdint>
#include <string>
#include <string_view>

#include <pybind11/numpy.h>

#include "common.h"

namespace blockproc::python {

enum class ColumnKind : int {
  Text = 0,
  Int16 = 1,
  Int64 = 2,
  Scaled = 3,
  Real = 4,
  Attr = 5,
  Float = 6,
  Decimal = 7
};

// The form of a number field's column.
enum class Numbers { Scaled, Float, Decimal };

// Where the records come from, for messages: "the reply", "capture.bin" ...
struct RecordSource {
  std::string name;
  int64_t offset = 0;       // byte offset of the first record in that source
  int64_t firstRecord = 0;  // number of the first record in that source (a piece of a stream starts past 0)
};

// The column form of a field's values (Text, Int16, Int64, Scaled or Real), the one place a column's form is
// chosen from the field's data type; ValueError naming the block and field for a type that has none.
ColumnKind columnKindOf(const BlockInfo& block, const FieldInfo& field);

// The columns of `count` records of `stride` bytes at `records`, as a list of tuples
// (name, kind, scale, values, mask or None). `encoding` decodes text fields.
py::list decodeColumns(const BlockInfo& block, uint32_t encoding, const uint8_t* records, int64_t count,
                       int64_t stride, const RecordSource& source, Numbers numbers = Numbers::Scaled);

// The scale (decimals) of each field of the block whose column is scaled: {field name: decimals}.
py::dict scaledFields(const BlockInfo& block);

// An object array of decimal.Decimal of scaled int64 values (values[i] * 10^-places), None where `blank`
// (None or a bool array of the same length) is set. TypeError or ValueError for arrays of another kind.
py::array decimalsOfScaled(const py::array& values, const py::object& blank, int32_t places);

// The same records as a list of dicts of field name to value: str for text, None for a blank number,
// decimal.Decimal for a field with decimals, int for the others and for "<field>@attr". A field flagged as a
// password gives "********" unless `showSecrets`.
py::list decodeRecords(const BlockInfo& block, uint32_t encoding, const uint8_t* records, int64_t count,
                       int64_t stride, const RecordSource& source, bool showSecrets = false);

}  // namespace blockproc::python
