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
#include <cstring>
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

  // ASCII text (every byte below 0x80, known to the caller): writes what encode writes, its bytes then
  // spaces, and gives true; false when the field or the value takes another way (encode then gives the
  // bytes or the refusal). Nothing is converted: ASCII is the same bytes in every encoding.
  bool encodeAscii(std::string_view ascii, uint8_t* out) const noexcept {
    const auto length = static_cast<size_t>(m_length);
    if (m_kind != Kind::Text || ascii.size() > length ||
        (!ascii.empty() && (ascii.back() == ' ' || ascii.back() == '\0')))
      return false;
    std::memcpy(out, ascii.data(), ascii.size());
    std::memset(out + ascii.size(), ' ', length - ascii.size());
    return true;
  }
  // How a number field of up to 16 bytes lays out value * 10^-places when the digits fill it whole, made
  // once for a column of values.
  struct ScaledLayout {
    struct Form {
      bool point = false;              // a point before the last `places` digits (else every digit)
      bool lastNotZero = false;        // only for magnitudes whose last digit is not 0
      int32_t room = 0, width = 0;     // digits before the point, digits in all
      uint64_t lowest = 0, below = 0;  // the magnitudes that take it: lowest <= m < below
    };
    bool on = false;  // whether any value takes it
    int32_t places = 0, length = 0;
    Form form[2];  // of a value of zero or more, of a negative one ('-' first)
  };
  // The layout encodeScaled writes value * 10^-places in when the value fits; `on` false when it has none
  // for this field and count of places.
  ScaledLayout scaledLayout(int32_t places) const noexcept;
  // Writes what encodeScaled writes for the value and gives true when its digits fit the layout; gives
  // false, with `out` not to be used, when they do not (encodeScaled then takes it).
  static bool writeScaled(const ScaledLayout& layout, int64_t value, uint8_t* out) noexcept;
  const FieldInfo& field() const noexcept { return *m_field; }

 private:
  // Number: numeric text, right-aligned; TextNumber: a text field with decimals, left-aligned.
  enum class Kind : uint8_t { Reference, Text, Number, TextNumber, Int16, Int64, Float, Double };
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
