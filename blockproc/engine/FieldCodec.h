#pragma once
// The encode half of a field's codec: a caller's value turned into the bytes of one field, made once per
// field and reused for every record. It takes and refuses exactly what value::prepareValue takes and
// refuses, and lays out exactly the bytes the processor's main writer lays out for the prepared value, so a
// record can be built straight into its output bytes, with no processor and no read-back.
//
// Usage:
//   value::FieldEncoder price(*block.findFieldInfo("price"), kTextEncodingCP949);
//   std::string why;
//   if (!price.encode("1234.50", record + field.nDataPos, why)) report(why);  // why: "'x' is not a number"
//
// Common values (plain ASCII text, plain decimal numbers, whole numbers, the shortest text of a float or a
// double) take a path that allocates nothing; any other value, and every refusal, goes the reference way:
// prepareValue, the writer's layout, the read-back.

#include <cstdint>
#include <string>
#include <string_view>

#include "blockproc/data/FieldInfo.h"

namespace blockproc::value {

class FieldEncoder {
 public:
  // An encoder of values for `field` (which must outlive it) in `encoding`.
  FieldEncoder(const FieldInfo& field, uint32_t encoding) noexcept;

  // Writes the field's bytes (max(nLength, 0) of them) for `value` at `out` and gives true; or gives false
  // with `why` set to the quoted value and the reason ("'12.345' has 3 decimal places; the field holds 2",
  // "'x' would read back as 'y'"), `out` then not to be used. Throws only std::bad_alloc.
  bool encode(std::string_view value, uint8_t* out, std::string& why);

  // The same, always the reference way: the prepared value laid out as the writer lays it out, then read
  // back and compared with what the value should read as.
  bool encodeReference(std::string_view value, uint8_t* out, std::string& why);

  // Values a caller holds in binary form (the columns of a frame), each giving what encode gives for the
  // value's text and taking a short way for the common ones:
  // The number value * 10^-places (a whole number when places is 0): an int16/int64/sint64 field takes a
  // whole number in range as its binary form; every other field the number's text ("-12.34").
  bool encodeScaled(int64_t value, int32_t places, uint8_t* out, std::string& why);
  // A float64: a double field takes it as it is (a negative zero as zero), a float field with no places one
  // that is exactly a float as that float; every other field and value its shortest text with no exponent
  // ("nan" and "inf" are refused).
  bool encodeReal(double value, uint8_t* out, std::string& why);

  const FieldInfo& field() const noexcept { return *m_field; }

 private:
  enum class Kind : uint8_t { Reference, Text, Number, Integer, Float, Double };
  bool encodeText(std::string_view value, uint8_t* out);
  bool encodeNumber(std::string_view value, uint8_t* out) const;
  bool writeRightAligned(int64_t value, uint8_t* out) const;
  bool encodeInteger(std::string_view value, uint8_t* out) const;
  template <typename Float>
  bool encodeFloat(std::string_view value, uint8_t* out) const;

  const FieldInfo* m_field;
  uint32_t m_encoding;
  Kind m_kind = Kind::Reference;
  int32_t m_length = 0;           // bytes of the field
  int32_t m_places = 0;           // decimal places of a number
  std::string m_scratch, m_back;  // encoded and read-back text of a value that is not ASCII
};

}  // namespace blockproc::value
