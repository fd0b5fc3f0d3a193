// The number readers a column-building caller relies on: which wire forms they take as values, which they
// leave to the canonical reader, and that what they take is the value the canonical text shows (checked here
// against appendValue for every row; fuzz_numberdecode does the same over arbitrary bytes).

#include "blockproc/engine/NumberDecode.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "blockproc/codec/TextEncoding.h"
#include "blockproc/data/FieldInfo.h"
#include "blockproc/engine/FieldValue.h"

namespace blockproc::value {
namespace {

std::string canonical(const FieldInfo& field, std::string_view bytes) {
  std::string text;
  appendValue(text, field, bytes, kTextEncodingCP949, BadByteStyle::Replacement);
  return text;
}

using namespace std::string_literals;

struct ScaledRow {
  std::string bytes;
  int32_t places;
  ScaledRead read;
  int64_t scaled;  // when read is Value
};

TEST(NumberDecode, ReadScaledTakesThePlainFormsAndLeavesTheRest) {
  const ScaledRow rows[] = {
      {"000007125050"s, 2, ScaledRead::Value, 7125050},  // no point: the last places digits are the fraction
      {"  71250.50  "s, 2, ScaledRead::Value, 7125050},
      {"71250.5\0\0\0"s, 2, ScaledRead::Value, 7125050},  // fewer places than the field's, NUL pads
      {"-0000012.30"s, 2, ScaledRead::Value, -1230},
      {"+42"s, 0, ScaledRead::Value, 42},
      {"-.5"s, 1, ScaledRead::Value, -5},
      {"999999999999999999"s, 0, ScaledRead::Value, 999999999999999999},
      {"          "s, 2, ScaledRead::Blank, 0},
      {"\0\0\0\0"s, 2, ScaledRead::Blank, 0},
      {"1.234"s, 2, ScaledRead::Other, 0},                // more places than the field's
      {"9999999999999999999"s, 0, ScaledRead::Other, 0},  // past 18 digits
      {"99999999999999999.9"s, 2, ScaledRead::Other, 0},  // 18 digits once the places are filled
      {"12 34"s, 0, ScaledRead::Other, 0},
      {"1.2.3"s, 2, ScaledRead::Other, 0},
      {"-"s, 0, ScaledRead::Other, 0},
      {"1e5"s, 0, ScaledRead::Other, 0},
      {"\xb0\xa1"s, 0, ScaledRead::Other, 0},
  };
  for (const ScaledRow& row : rows) {
    const std::string& bytes = row.bytes;
    int64_t scaled = -1;
    EXPECT_EQ(readScaled(bytes, row.places, scaled), row.read) << row.bytes;
    if (row.read == ScaledRead::Value) {
      EXPECT_EQ(scaled, row.scaled) << row.bytes;
    }
    if (row.read == ScaledRead::Other) {
      EXPECT_EQ(scaled, -1) << row.bytes << ": untouched";
    }
    if (row.read != ScaledRead::Other) {
      const FieldInfo field("f", kFieldNumText, static_cast<int32_t>(bytes.size()), row.places);
      const std::string text = canonical(field, bytes);
      EXPECT_EQ(text.empty(), row.read == ScaledRead::Blank) << row.bytes << " shows '" << text << "'";
      int64_t shown = 0;  // the canonical text is itself in a plain form, of the same value
      if (row.read == ScaledRead::Value) {
        EXPECT_TRUE(readScaled(text, row.places, shown) == ScaledRead::Value && shown == scaled) << text;
      }
    }
  }
}

std::string floatBytes(float value) {
  std::string bytes(4, '\0');
  std::memcpy(bytes.data(), &value, 4);
  return bytes;
}

std::string doubleBytes(double value) {
  std::string bytes(8, '\0');
  std::memcpy(bytes.data(), &value, 8);
  return bytes;
}

TEST(NumberDecode, ReadRealIsTheValueTheFieldShows) {
  struct Row {
    std::string bytes;
    int32_t places;
    double shown;
  };
  const Row rows[] = {
      {floatBytes(0.1f), 0, 0.1},  // the value shown, not the float widened
      {floatBytes(1234.0f), 2, 12.34},
      {floatBytes(0.5f), 2, 0.005},
      {floatBytes(123456792.0f), 2, 1234567.9},  // its shortest text is 1.2345679e8
      {floatBytes(-16777215.0f), 3, -16777.215},
      {doubleBytes(1092378358114.84375), 2, 1092378358114.84375},  // a double is itself, whatever its places
      {doubleBytes(-0.0625), 0, -0.0625},
  };
  for (const Row& row : rows) {
    const bool isFloat = row.bytes.size() == 4;
    double got = 0;
    ASSERT_TRUE(readReal(row.bytes, isFloat, row.places, got)) << row.shown;
    EXPECT_EQ(got, row.shown);
    const FieldInfo field("f", isFloat ? kFieldFloat : kFieldDouble, isFloat ? 4 : 8, row.places);
    EXPECT_EQ(std::stod(canonical(field, row.bytes)), got) << row.shown;
  }
  double untouched = 7;
  EXPECT_FALSE(readReal(floatBytes(std::numeric_limits<float>::infinity()), true, 2, untouched));
  EXPECT_FALSE(readReal(doubleBytes(std::nan("")), false, 0, untouched));
  EXPECT_FALSE(readReal(floatBytes(1.0f).substr(0, 3), true, 0, untouched));  // shorter than its type
  EXPECT_FALSE(readReal(floatBytes(1.0f), true, -1, untouched));
}

TEST(NumberDecode, ScaledToDoubleRoundsOnceToTheNearest) {
  EXPECT_EQ(scaledToDouble(1234, 2), 12.34);
  EXPECT_EQ(scaledToDouble(-5, 3), -0.005);
  // Past 2^53 the integer is not a double: dividing its nearest double would round twice.
  EXPECT_EQ(scaledToDouble(9007199254740993, 0), 9007199254740992.0);
  EXPECT_EQ(scaledToDouble(9007199254740995, 1), 900719925474099.5);
  EXPECT_EQ(scaledToDouble(std::numeric_limits<int64_t>::min(), 18), -9.223372036854775808);
  EXPECT_EQ(scaledToDouble(1, 30), 1e-30);  // past the exact powers of ten
}

}  // namespace
}  // namespace blockproc::value
