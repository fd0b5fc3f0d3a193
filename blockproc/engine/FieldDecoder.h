#pragma once
// The decode half of a field's codec: the bytes of one field turned into its canonical value (the text
// value::appendValue gives, described in FieldValue.h) or the issue that keeps them from being one. Made once
// per field, its way of reading chosen then from the field's type, and reused for every record.
//
// Usage:
//   value::FieldDecoder price(*block.getFieldInfoFromName("price"), kTextEncodingCP949);
//   std::string text;
//   value::RenderResult r = price.append(text, records.field(i, price.field()),
//   value::BadByteStyle::Escaped); if (r.issue != value::ValueIssue::None) value::appendIssue(why, r,
//   price.field(), bytes, encoding);
//
// The usual values (ASCII or table-decoded text, plain numeric text, whole binary values, a float or a
// double that is a whole number of hundredths or of its places) are written straight into the caller's
// buffer by write(); any other bytes, and every issue, go the reference way, value::appendValue.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "blockproc/data/FieldInfo.h"
#include "blockproc/engine/FieldValue.h"

namespace blockproc::value {

class FieldDecoder {
 public:
  // Bytes write() may store at its destination, whatever the field's bytes.
  static constexpr size_t kRoom = 128;

  // A decoder of `field` (which must outlive it) in `encoding`.
  FieldDecoder(const FieldInfo& field, uint32_t encoding) noexcept;

  // Writes the canonical value of the field's bytes (its nLength bytes at `bytes`, of which `readable`, at
  // least nLength, may be read) at `dst`, which has kRoom bytes free, and gives its end; nullptr, with
  // nothing promised of `dst`, when the bytes are not a usual value: append() then renders them.
  char* write(const uint8_t* bytes, int64_t readable, char* dst) const noexcept;

  // Appends the canonical value of `bytes` (the field's bytes; empty when the field does not lie inside the
  // data) to `out` and says what, if anything, kept it from being a plain value: exactly what
  // value::appendValue appends and says. Throws only std::bad_alloc.
  RenderResult append(std::string& out, std::string_view bytes, BadByteStyle style) const;

  // The same, always the reference way (value::appendValue).
  RenderResult appendReference(std::string& out, std::string_view bytes, BadByteStyle style) const;

  // Appends the processor's display string of the bytes (what getFieldDataFromInfo gives, its text read in
  // `textEncoding`); `readable` counts the bytes from the field's start to the end of the data. False, `out`
  // unchanged, where that read gives nothing.
  bool appendDisplay(std::string& out, std::string_view bytes, int64_t readable,
                     uint32_t textEncoding) const noexcept;

  const FieldInfo& field() const noexcept { return *m_field; }
  uint32_t encoding() const noexcept { return m_encoding; }
  // Text or Number, as value::valueKind says.
  ValueKind kind() const noexcept { return m_valueKind; }
  // Display columns of the widest canonical text the field's bytes can give without an issue (a float or a
  // double gives the width of its usual values; rarer ones are wider).
  int32_t displayWidth() const noexcept { return m_width; }

 private:
  enum class Kind : uint8_t { Reference, Text, Number, Int16, Int64, Float, Double };
  char* writeText(const uint8_t* bytes, int64_t readable, char* dst) const noexcept;
  char* writeNumber(const uint8_t* bytes, int64_t readable, char* dst) const noexcept;
  char* writeFloat(float value, char* dst) const noexcept;
  char* writeDouble(double value, char* dst) const noexcept;

  const FieldInfo* m_field;
  uint32_t m_encoding;
  Kind m_kind = Kind::Reference;
  ValueKind m_valueKind = ValueKind::Text;
  bool m_known = false;  // the encoding is one the library decodes, ASCII as it stands
  int32_t m_length = 0;  // bytes of the field
  int32_t m_places = 0;  // decimal places of a number
  int32_t m_width = 0;   // display columns of the widest usual value
};

}  // namespace blockproc::value
