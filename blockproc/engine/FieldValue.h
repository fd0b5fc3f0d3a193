#pragma once
// What a field's value is, as the engine, the tool and the bindings show and take it: canonical text for the
// bytes of a field, and the check of a caller's value before it is written. A value either comes back
// exactly as it was given, or it is refused with the reason.
//
// Canonical text, by type:
//   text               the bytes less trailing spaces and NULs, decoded; leading spaces kept;
//   number (and text   the number with no zero fill, no '+', a '-' only for a value below zero, one digit at
//   with decimals)     least before the point and exactly the field's decimal places ("1234.50", "-0.70");
//                      an all-blank field is the empty text;
//   int16/int64/sint64 the integer in decimal;
//   float              the value read divided by 10^decimals, double the value read, both in the shortest
//                      decimal text that reads back as the same binary value, with at least the field's
//                      decimal places: decimals pad, never cap (10300.921 in a double with 2 is 10300.921).
// The renderers append to a caller's string and allocate nothing else; they throw only std::bad_alloc.

#include <cstdint>
#include <string>
#include <string_view>

#include "blockproc/data/FieldInfo.h"
#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc::value {

// How a field's value is shown in formats that tell numbers from text (JSON, aligned tables).
enum class ValueKind : uint8_t { Text, Number };

// What keeps a field's bytes from being shown as a plain value of its type.
enum class ValueIssue : uint8_t {
  None,
  BadBytes,    // bytes that are not text in the encoding; shown escaped, `offset` is the first of them
  NotANumber,  // a number field whose bytes are not a number; shown as text, `offset` is the first wrong byte
  MorePlaces,  // a number field's text with more decimal places than the field's; shown with all of them
  NotFinite,   // a float or double that is infinite or not a number; shown as inf, -inf or nan
};

struct RenderResult {
  ValueIssue issue = ValueIssue::None;
  int32_t offset = -1;  // byte of the field the issue starts at (BadBytes, NotANumber), else -1
};

// How bytes that are not text in the encoding appear in the rendered text.
enum class BadByteStyle : uint8_t {
  Escaped,      // as \xFF (tables, CSV)
  Replacement,  // as U+FFFD (JSON, next to the bytes in hexadecimal)
};

// Text or Number, from the field's type (a text field with decimals holds a number).
ValueKind valueKind(const FieldInfo& field) noexcept;

// Display columns of the widest canonical text the field's bytes can give without an issue (a float or a
// double gives the width of its usual values; rarer ones are wider).
int32_t displayWidth(const FieldInfo& field) noexcept;

// The bytes of the field in valid record `record` of the processor, or an empty view (null data) when the
// record is not valid or the field does not lie inside the buffer.
std::string_view fieldBytes(const KXBlockDataProc& proc, const FieldInfo& field, int32_t record) noexcept;

// Appends the canonical text of the field's bytes (read in `encoding`) to `out` and says what, if anything,
// kept it from being a plain value.
RenderResult appendValue(std::string& out, const FieldInfo& field, std::string_view bytes, uint32_t encoding,
                         BadByteStyle style);

// Appends why the bytes gave the issue, for a message: "byte 2 (0xFF) is not cp949 text".
void appendIssue(std::string& out, const RenderResult& result, const FieldInfo& field, std::string_view bytes,
                 uint32_t encoding);

// Appends the bytes as lower-case hexadecimal digits, two per byte ("41ff42").
void appendHex(std::string& out, std::string_view bytes);

// Appends the place of a field in a message: "block OutBlock1, record 3, field price".
void appendWhere(std::string& out, std::string_view block, int64_t record, std::string_view field);

// A caller's value made ready for the field's writer.
struct PreparedValue {
  std::string write;       // the text handed to the writer (canonical: a digit before any point, no '+')
  std::string expected;    // the canonical text the field reads back after the write
  int32_t writeType = -1;  // the data type to write the field as (sint64 is written as an int64), else -1
  bool blank = false;      // write no value: the field stays spaces (an empty number)
};

// Checks `value` (UTF-8, as a caller gives it; spaces around a number are dropped) against the field and
// fills `prepared`. False, with `why` saying what is wrong ("has 3 decimal places; the field holds 2"),
// when the field cannot hold the value exactly: too many digits or decimal places, out of range, not a
// number, text longer than the field or ending in a space, a character the encoding lacks, any value but
// the empty one for a key-encrypted field (its value would go to the block's key dictionary, not the bytes).
// A float or a double takes any number it holds exactly and the shortest text of any value it holds, with
// any number of places; it refuses a number that would read back as another, naming that one ("'0.3000001'
// is not held exactly by a float (it would read back as 0.3)").
bool prepareValue(const FieldInfo& field, std::string_view value, uint32_t encoding, PreparedValue& prepared,
                  std::string& why);

}  // namespace blockproc::value
