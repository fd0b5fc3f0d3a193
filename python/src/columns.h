#pragma once
// Decoding the records of one block into column arrays in one pass, with no Python call per field.
//
// Each field becomes one column, and each field carrying an attribute byte one more ("<field>@attr", uint8):
//   text                         object array of str, the display string of the processor's read
//   int16 / int64 / sint64       int16 / int64 / int64
//   number (text)                int64 scaled by 10^decimals with a bool mask; a blank field is masked
//   float / double               int64 scaled by 10^decimals: the display string's digits, exactly
// A value that cannot be given exactly (bytes the encoding cannot decode, a number field holding something
// else, more decimal places than the field declares, a value beyond 64 bits, a non-finite float) raises
// ValueError naming the block, the record, the field and the byte offset: nothing is blanked or rounded.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common.h"

namespace blockproc::python {

enum class ColumnKind : int { Text = 0, Int16 = 1, Int64 = 2, Scaled = 3, Real = 4, Attr = 5 };

// Where the records come from, for messages: "the reply", "capture.bin" ...
struct RecordSource {
  std::string name;
  int64_t offset = 0;  // byte offset of the first record in that source
};

// The columns of `count` records of `stride` bytes at `records`, as a list of tuples
// (name, kind, scale, values, mask or None). `encoding` decodes text fields.
py::list decodeColumns(const BlockInfo& block, uint32_t encoding, const uint8_t* records, int64_t count,
                       int64_t stride, const RecordSource& source);

}  // namespace blockproc::python
