#pragma once
// Decoding the records of one block for Python in one call, with no Python call per field: into column arrays
// (frames) or into dicts of values (decode). Every value is the engine's canonical value of the field's bytes
// (blockproc::value::appendValue, what `blockproc decode` prints).
//
// Each field becomes one column, and each field carrying an attribute byte one more ("<field>@attr", uint8):
//   text                         object array of str
//   int16 / int64 / sint64       int16 / int64 / int64
//   number, text with decimals   int64 holding the value * 10^decimals, with a bool mask (a blank field is
//                                masked)
//   float / double               int64 holding the value * 10^decimals
// A value that has no exact form (bytes that are not text in the encoding, a number field holding something
// else, more decimal places than the field's, a non-finite float, or in a column a value beyond 64 bits)
// raises ValueError naming the block, the record, the field and the byte offset: nothing is blanked or
// rounded.

#include <cstdint>
#include <string>
#include <string_view>

#include "common.h"

namespace blockproc::python {

enum class ColumnKind : int { Text = 0, Int16 = 1, Int64 = 2, Scaled = 3, Real = 4, Attr = 5 };

// Where the records come from, for messages: "the reply", "capture.bin" ...
struct RecordSource {
  std::string name;
  int64_t offset = 0;       // byte offset of the first record in that source
  int64_t firstRecord = 0;  // number of the first record in that source (a piece of a stream starts past 0)
};

// The columns of `count` records of `stride` bytes at `records`, as a list of tuples
// (name, kind, scale, values, mask or None). `encoding` decodes text fields.
py::list decodeColumns(const BlockInfo& block, uint32_t encoding, const uint8_t* records, int64_t count,
                       int64_t stride, const RecordSource& source);

// The same records as a list of dicts of field name to value: str for text, None for a blank number,
// decimal.Decimal for a field with decimals, int for the others and for "<field>@attr".
py::list decodeRecords(const BlockInfo& block, uint32_t encoding, const uint8_t* records, int64_t count,
                       int64_t stride, const RecordSource& source);

}  // namespace blockproc::python
