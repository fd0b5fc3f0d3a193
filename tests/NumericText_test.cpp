// The numeric-text layout of written values and the rounded text of the positional writer (the readers'
// decimal insertion is pinned through the readers, in the read tests; the UTF-16 position search through
// KXBlockDataProc::findIndex, in the write tests).

#include "blockproc/detail/NumericText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace blockproc::num {
namespace {

// Lays the value out in a blanked field of `length` bytes that sits between guard bytes, and checks that
// nothing outside the field changed.
std::string layout(std::string_view value, int32_t length, int32_t decimals) {
  constexpr size_t kGuard = 8;
  const size_t width = static_cast<size_t>(std::max(length, 0));
  std::vector<uint8_t> area(width + 2 * kGuard, '#');
  std::fill_n(area.begin() + kGuard, width, ' ');
  layoutNumericText(area.data() + kGuard, length, decimals, value, value);
  for (size_t i = 0; i < kGuard; ++i) {
    EXPECT_EQ(area[i], '#') << "before the field, value " << value;
    EXPECT_EQ(area[kGuard + width + i], '#') << "after the field, value " << value;
  }
  return std::string(area.begin() + kGuard, area.begin() + kGuard + static_cast<ptrdiff_t>(width));
}

struct LayoutRow {
  const char* value;
  int32_t length;
  int32_t decimals;
  const char* field;
};

TEST(NumericTextLayout, WorkedExamples) {
  const LayoutRow rows[] = {
      {"12.3", 10, 2, "0000012.30"},   {"-12.3", 10, 2, "-000012.30"}, {"123", 10, 2, "0000123.00"},
      {"12.", 10, 2, "0000012.00"},    {"", 10, 2, "0000000.00"},      {"12.345", 10, 2, "000012.345"},
      {"12345.678", 8, 2, "12345.67"}, {"-9999.99", 8, 2, "-9999.99"}, {".5", 10, 2, "000000.500"},
      {"123", 5, 0, "00123"},          {"-12", 5, 0, "-0012"},         {"+12", 5, 0, "+0012"},
      {"1234567", 5, 0, "12345"},      {"5-3", 6, 0, "-000-3"},
  };
  for (const auto& r : rows)
    EXPECT_EQ(layout(r.value, r.length, r.decimals), r.field)
        << r.value << " L" << r.length << " D" << r.decimals;
}

TEST(NumericTextLayout, ValuesTooLongForTheFieldAreCutAtItsEnd) {
  const LayoutRow rows[] = {
      {"-1234567", 5, 0, "-1234"},   // signed: the bytes after the sign exceed L - 1
      {"123456.7", 6, 2, "123456"},  // more integer digits than positions
      {"+98765", 3, 0, "+98"},
      {"12", 2, 2, "12"},  // D >= L: the field has no decimals
      {"5", 2, 3, "50"},   // Z negative: the decimal zero fill is cut at the field's end
      {"", 2, 2, "00"},
      {"1.5", 1, 0, "1"},
  };
  for (const auto& r : rows)
    EXPECT_EQ(layout(r.value, r.length, r.decimals), r.field)
        << r.value << " L" << r.length << " D" << r.decimals;
}

TEST(NumericTextLayout, BadDefinitionsStayInsideTheField) {
  // A negative place count and lengths of 0 or below: whatever lands, it lands inside the field.
  EXPECT_EQ(layout("12.5", 6, -3).size(), 6u);
  EXPECT_EQ(layout("-7", 4, -1).size(), 4u);
  EXPECT_EQ(layout("123", 0, 2), "");
  EXPECT_EQ(layout("123", -4, 0), "");
  EXPECT_EQ(layout("-", 1, 0), "-");
}

TEST(NumericTextLayout, EncodedBytesDifferFromTheValue) {
  // The value's characters decide sign and point; the field receives the encoded bytes.
  uint8_t field[6];
  std::fill_n(field, 6, ' ');
  layoutNumericText(field, 6, 0, "\xEA\xB0\x80", "\xB0\xA1");  // one Hangul syllable, two bytes in cp949
  EXPECT_EQ(std::string(reinterpret_cast<char*>(field), 6), "0000\xB0\xA1");
}

TEST(NumericTextDigits, RightAlignedBehindZeros) {
  const struct {
    const char* value;
    int32_t length;
    const char* field;
  } rows[] = {
      {"123", 6, "000123"}, {"-12", 6, "000-12"}, {"123", 8, "00000123"},
      {"", 3, "000"},       {"12345", 3, "123"},  {"ab", 2, "ab"},
  };
  for (const auto& r : rows) {
    std::string field(static_cast<size_t>(r.length), ' ');
    layoutDigitText(reinterpret_cast<uint8_t*>(field.data()), r.length, r.value);
    EXPECT_EQ(field, r.field) << r.value;
  }
  uint8_t untouched = '#';
  layoutDigitText(&untouched, 0, "9");
  layoutDigitText(&untouched, -3, "9");
  EXPECT_EQ(untouched, '#');
}

TEST(NumericTextRounding, RoundingExamples) {
  const struct {
    double value;
    int32_t places;
    const char* text;
  } rows[] = {
      {12.345, 2, "12.35"},      {-12.345, 2, "-12.34"}, {2.5, 0, "3"},         {-2.5, 0, "-2"},
      {1.005, 2, "1.00"},        {0.125, 2, "0.13"},     {99.999, 2, "100.00"}, {1234567.89, 2, "1234567.88"},
      {16777217, 0, "16777216"}, {0, 2, "0.00"},  // the "abc" row: no leading number reads as 0
  };
  for (const auto& r : rows)
    EXPECT_EQ(roundedFixedText(r.value, r.places), r.text) << r.value << " D" << r.places;
}

TEST(NumericTextRounding, ExtremesPrintWithoutFailing) {
  EXPECT_EQ(roundedFixedText(1e300, 2), "inf");  // beyond the float range
  EXPECT_EQ(roundedFixedText(-1e300, 0), "-inf");
  EXPECT_EQ(roundedFixedText(-0.001, 2), "0.00");  // floor(-0.1 + 0.5) is +0
  EXPECT_EQ(roundedFixedText(0.5, 6), "0.500000");
}

}  // namespace
}  // namespace blockproc::num
