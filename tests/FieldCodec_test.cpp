// The field encoder: the bytes it lays out, its refusals, and its agreement with the processor's writer
// (prepareValue, the main writer, the read-back) on values of every type, ours and generated ones.

#include "blockproc/engine/FieldCodec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/engine/FieldValue.h"

#include "TestBlocks.h"

namespace blockproc::value {
namespace {

using testing::fieldOf;

template <typename T>
std::string bytesOf(T value, size_t length = sizeof(T)) {
  std::string bytes(length, ' ');
  std::memcpy(bytes.data(), &value, sizeof(T));
  return bytes;
}

struct Outcome {
  bool ok = false;
  std::string bytes;  // the field's bytes when taken
  std::string why;    // the refusal
};

Outcome throughEncoder(const FieldInfo& field, const std::string& value, uint32_t encoding) {
  FieldEncoder encoder(field, encoding);
  Outcome o;
  o.bytes.assign(static_cast<size_t>(std::max(field.nLength, 0)), '#');
  o.ok = encoder.encode(value, reinterpret_cast<uint8_t*>(o.bytes.data()), o.why);
  if (!o.ok) o.bytes.clear();
  return o;
}

// The way values were written before the encoder: prepared, written by the processor through a descriptor
// of the write type, then read back and compared.
Outcome throughProcessor(const FieldInfo& shape, const std::string& value, uint32_t encoding) {
  BlockInfo block("B");
  const FieldInfo& field = block.addField(std::make_unique<FieldInfo>(shape));
  KXBlockDataProc proc(&block);
  proc.setEncodingType(encoding);
  proc.DefaultMemory();
  Outcome o;
  PreparedValue prepared;
  if (!prepareValue(field, value, encoding, prepared, o.why)) return o;
  const std::optional<std::string_view> write =
      prepared.blank ? std::nullopt : std::optional<std::string_view>(prepared.write);
  FieldInfo asType(field.szFieldName, prepared.writeType < 0 ? field.nDataType : prepared.writeType,
                   field.nLength, field.nDecimalLen);
  proc.setFieldDataFromInfo(prepared.writeType < 0 ? &field : &asType, 0, write);
  const std::string bytes(fieldBytes(proc, field, 0));
  std::string back;
  appendValue(back, field, bytes, encoding, BadByteStyle::Escaped);
  if (back != prepared.expected) {
    o.why = "'" + value + "' would read back as '" + back + "'";
    return o;
  }
  o.ok = true;
  o.bytes = bytes;
  return o;
}

TEST(FieldCodec, LaysOutEachTypeAsTheWriterDoes) {
  const struct {
    FieldInfo field;
    std::string value;
    std::string bytes;  // "" when refused
    std::string why;    // the refusal
  } cases[] = {
      {fieldOf(kFieldText, 6), "AB", "AB    ", ""},
      {fieldOf(kFieldText, 6), "\xED\x95\x9C\xEA\xB8\x80", "\xC7\xD1\xB1\xDB  ", ""},  // two cp949 characters
      {fieldOf(kFieldText, 3), "ABCD", "", "'ABCD' takes 4 bytes; the field holds 3 bytes"},
      {fieldOf(kFieldText, 6), "A ", "", "'A ' ends in a space, which the field's padding does not keep"},
      {fieldOf(kFieldNumText, 8, 2), "-12.5", "-0012.50", ""},
      {fieldOf(kFieldNumText, 8, 2), " 7 ", "00007.00", ""},
      {fieldOf(kFieldNumText, 8, 2), "-0.00", "00000.00", ""},
      {fieldOf(kFieldNumText, 8, 2), "", "        ", ""},  // blank
      {fieldOf(kFieldNumText, 6, 0), "-42", "-00042", ""},
      {fieldOf(kFieldNumText, 8, 2, true), "-12.5", "-0001250", ""},  // implied point
      {fieldOf(kFieldNumText, 6, 2), "1234.5", "1234.5", ""},         // the places that are not zero
      {fieldOf(kFieldText, 8, 2), "3.5", "3.50    ", ""},             // a text field with places
      {fieldOf(kFieldNumText, 8, 2), "1.234", "", "'1.234' has 3 decimal places; the field holds 2"},
      {fieldOf(kFieldNumText, 8, 2), "12a", "", "'12a' is not a number"},
      {fieldOf(kFieldInt16, 2), "-32768", bytesOf<int16_t>(-32768), ""},
      {fieldOf(kFieldInt16, 2), "32768", "", "'32768' lies outside -32,768 to 32,767"},
      {fieldOf(kFieldInt16, 4), "7", bytesOf<int16_t>(7, 4), ""},  // spaces after the binary bytes
      {fieldOf(kFieldInt64, 8), "-9223372036854775808", bytesOf(INT64_MIN), ""},
      {fieldOf(kFieldSInt64, 8), "+5", bytesOf<int64_t>(5), ""},
      {fieldOf(kFieldFloat, 4, 2), "71250.5", bytesOf(7125050.0f), ""},  // a float holds value x 10^places
      {fieldOf(kFieldFloat, 4, 0), "-0", bytesOf(0.0f), ""},
      {fieldOf(kFieldFloat, 4, 0), "0.30000001", "",
       "'0.30000001' is not held exactly by a float (it would read back as 0.3)"},
      {fieldOf(kFieldDouble, 8, 2), "0.1", bytesOf(0.1), ""},
      {fieldOf(kFieldDouble, 8, 0), "288230376151711744", bytesOf(288230376151711744.0), ""},  // exact 2^58
      {fieldOf(kFieldDouble, 8, 0), "1e400", "", "'1e400' lies outside the range of a double"},
  };
  for (const auto& c : cases) {
    const Outcome got = throughEncoder(c.field, c.value, kTextEncodingCP949);
    EXPECT_EQ(got.ok, !c.bytes.empty()) << c.value << ": " << got.why;
    EXPECT_EQ(got.bytes, c.bytes) << c.value;
    EXPECT_EQ(got.ok ? "" : got.why, c.why) << c.value;
    const Outcome old = throughProcessor(c.field, c.value, kTextEncodingCP949);
    EXPECT_EQ(old.bytes, got.bytes) << c.value;
    EXPECT_EQ(old.why, got.why) << c.value;
  }
}

// Fields of every length up to past sixteen bytes, filled by values of every length they take (and one
// more): the copies and the padding of each length lay out what the writer lays out.
TEST(FieldCodec, CopiesAndPadsEveryLengthAsTheWriterDoes) {
  for (int32_t length = 1; length <= 20; ++length) {
    const struct {
      FieldInfo field;
      std::string digits;  // a value of i bytes is the first i of them
    } shapes[] = {
        {fieldOf(kFieldText, length), "ABCDEFGHIJKLMNOPQRSTUV"},
        {fieldOf(kFieldText, length, 1), "1234567890123456789012"},
        {fieldOf(kFieldNumText, length), "9876543210987654321098"},
        {fieldOf(kFieldNumText, length, 2), "1234567890123456789012"},
        {fieldOf(kFieldNumText, length, 3, true), "1234567890123456789012"},
        {fieldOf(kFieldInt16, length), "3276"},
        {fieldOf(kFieldInt64, length), "123456789012345678"},
    };
    for (const auto& shape : shapes)
      for (size_t size = 0; size <= std::min<size_t>(length + 1, shape.digits.size()); ++size)
        for (const std::string& value :
             {shape.digits.substr(0, size), "-" + shape.digits.substr(0, size),
              size > 2 ? shape.digits.substr(0, size - 2) + "." + shape.digits.substr(size - 2) : "0"}) {
          const Outcome got = throughEncoder(shape.field, value, kTextEncodingCP949);
          const Outcome old = throughProcessor(shape.field, value, kTextEncodingCP949);
          EXPECT_EQ(got.bytes, old.bytes) << length << " '" << value << "'";
          EXPECT_EQ(got.why, old.why) << length << " '" << value << "'";
        }
  }
}

// Floats and doubles at the edges of the few-digit way (at most 6 or 15 significant digits, a power of ten
// up to 10^10 or 10^22) and just past them, where the general way decides: both take and lay out the same.
TEST(FieldCodec, FloatsOfFewDigitsMatchTheGeneralWay) {
  const struct {
    int32_t type, places;
    std::string value;
  } cases[] = {
      {kFieldFloat, 2, "1234.56"},
      {kFieldFloat, 2, "12345.67"},
      {kFieldFloat, 2, "-9999.99"},
      {kFieldFloat, 0, "999999"},
      {kFieldFloat, 0, "9999999"},
      {kFieldFloat, 0, "16777217"},
      {kFieldFloat, 0, "0.000001"},
      {kFieldFloat, 4, "0.0000001"},
      {kFieldFloat, 3, "100000000"},
      {kFieldFloat, 0, "-0.000"},
      {kFieldFloat, 2, "0.015"},
      {kFieldFloat, 0, "0.1"},
      {kFieldDouble, 0, "123456789012345"},
      {kFieldDouble, 0, "1234567890123456"},
      {kFieldDouble, 0, "9007199254740993"},
      {kFieldDouble, 0, "0.0000000000000000000001"},
      {kFieldDouble, 0, "0.00000000000000000000001"},
      {kFieldDouble, 0, "10000000000000000000000"},
      {kFieldDouble, 0, "100000000000000000000000"},
      {kFieldDouble, 2, "-527897.43"},
      {kFieldDouble, 0, "0.30000000000000004"},
  };
  for (const auto& c : cases) {
    const FieldInfo field = fieldOf(c.type, 8, c.places);
    FieldEncoder encoder(field, kTextEncodingCP949);
    std::string fast(8, '#'), general(8, '#'), why, generalWhy;
    const bool took = encoder.encode(c.value, reinterpret_cast<uint8_t*>(fast.data()), why);
    const bool generalTook =
        encoder.encodeReference(c.value, reinterpret_cast<uint8_t*>(general.data()), generalWhy);
    EXPECT_EQ(took, generalTook) << c.value << ": " << why << generalWhy;
    if (took && generalTook) {
      EXPECT_EQ(fast, general) << c.value;
    }
  }
}

TEST(FieldCodec, KeyEncryptedFieldTakesOnlyNoValue) {
  FieldInfo field = fieldOf(kFieldText, 4);
  field.bKeyEnc = true;
  EXPECT_EQ(throughEncoder(field, "", kTextEncodingCP949).bytes, "    ");
  EXPECT_EQ(throughEncoder(field, "x", kTextEncodingCP949).why,
            "'x' goes to a key-encrypted field, whose value is not carried in the bytes");
}

// Values as a feed carries them, made by a generator rather than by hand: averages worked out in binary,
// blanks, negatives, zero-padded digits, Hangul names, long and odd text; every field shape, every encoding.
// The encoder and the processor's writer take and refuse the same values, with the same bytes and reasons.
TEST(FieldCodec, AgreesWithTheProcessorsWriterOnGeneratedValues) {
  std::mt19937_64 rng(0xC0DEC0DE);
  const char* const kNames[] = {"\xEC\x82\xBC\xEC\x84\xB1\xEC\xA0\x84\xEC\x9E\x90",
                                "KODEX 200",
                                "SK",
                                "\xED\x98\x84\xEB\x8C\x80\xEC\xB0\xA8",
                                " lead",
                                "x\xC3\xA9",
                                ""};
  const auto value = [&]() -> std::string {
    switch (rng() % 8) {
      case 0: {  // an average of prices, as a double prints it
        double sum = 0;
        const int n = 1 + static_cast<int>(rng() % 7);
        for (int k = 0; k < n; ++k) sum += static_cast<double>(rng() % 100000) / 100;
        char text[64];
        const auto end = std::to_chars(text, text + sizeof text, sum / n).ptr;
        return std::string(text, end);
      }
      case 1:
        return rng() % 2 ? "" : "  ";
      case 2:
        return "-" + std::to_string(rng() % 100000) + "." + std::to_string(rng() % 100);
      case 3:
        return std::string(rng() % 4, '0') + std::to_string(rng() % 1000000);
      case 4:
        return kNames[rng() % std::size(kNames)];
      case 5:
        return std::to_string(static_cast<int64_t>(rng()) >> (rng() % 63));
      case 6:
        return std::to_string(static_cast<float>(rng() % 1000000) / 1000.0f);
      default:
        return (rng() % 2 ? "+" : "") + std::to_string(rng() % 1000) + (rng() % 2 ? "e" : ".") +
               std::to_string(rng() % 5);
    }
  };
  const uint32_t kEncodings[] = {kTextEncodingCP949, kTextEncodingUTF8, kTextEncodingASCII,
                                 kTextEncodingEUCKR};
  const int32_t kWidths[] = {0, 0, 2, 8, 4, 8, 8};
  int taken = 0, refused = 0;
  for (int i = 0; i < 6000; ++i) {
    const auto type = static_cast<int32_t>(rng() % 7);
    const int32_t length =
        kWidths[type] > 0 && rng() % 4 != 0 ? kWidths[type] : static_cast<int32_t>(rng() % 16);
    const FieldInfo field = fieldOf(type, length, static_cast<int32_t>(rng() % 5), rng() % 3 == 0);
    const uint32_t encoding = kEncodings[rng() % std::size(kEncodings)];
    const std::string v = value();
    const Outcome got = throughEncoder(field, v, encoding), old = throughProcessor(field, v, encoding);
    ASSERT_EQ(got.ok, old.ok) << "type " << type << " length " << length << " value '" << v << "' "
                              << old.why;
    EXPECT_EQ(got.bytes, old.bytes) << "type " << type << " value '" << v << "'";
    EXPECT_EQ(got.why, old.why) << "type " << type << " value '" << v << "'";
    (got.ok ? taken : refused) += 1;
  }
  EXPECT_GT(taken, 2000);  // the table exercises both ways
  EXPECT_GT(refused, 500);
}

}  // namespace
}  // namespace blockproc::value
