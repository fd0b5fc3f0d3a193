// Reading the leading number of a text: integers clamped to their range, doubles, hexadecimal.

#include "blockproc/detail/NumberParse.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace blockproc::num {
namespace {

constexpr int64_t kI64Max = std::numeric_limits<int64_t>::max();
constexpr int64_t kI64Min = std::numeric_limits<int64_t>::min();
constexpr int32_t kI32Max = std::numeric_limits<int32_t>::max();

TEST(NumberParseInt, LeadingNumberOnly) {
  const struct {
    const char* text;
    int64_t value;
  } rows[] = {
      {"1234", 1234},
      {"  \t\n-42abc", -42},
      {"+7", 7},
      {"12.9", 12},
      {"abc", 0},
      {"- 5", 0},  // a sign must be followed by digits
      {"9223372036854775807", kI64Max},
      {"9223372036854775808", kI64Max},
      {"-9223372036854775808", kI64Min},
      {"18446744073709551616", kI64Max},  // 2^64 and just above: no wrap through zero
      {"-18446744073709551617", kI64Min},
  };
  for (const auto& r : rows) EXPECT_EQ(parseInt64(r.text), r.value) << '"' << r.text << '"';
}

TEST(NumberParseInt, ClampsToTheAskedRange) {
  EXPECT_EQ(parseInt32("2147483648"), kI32Max);
  EXPECT_EQ(parseLeadingInt("500", -100, 100), 100);
  EXPECT_EQ(parseLeadingInt("-500", -100, 100), -100);
  // Stops at the end of the view, never at a terminating zero.
  const std::string_view part("12345", 3);
  EXPECT_EQ(parseInt64(part), 123);
}

TEST(NumberParseInt, WholeTextOrNothing) {
  const struct {
    const char* text;
    int base;
    bool isNumber, clamped;
    int64_t value;
  } rows[] = {
      {"42", 10, true, false, 42},
      {"+42", 10, true, false, 42},
      {"-3", 10, true, true, 0},
      {"300", 10, true, true, 255},
      {"ff", 16, true, false, 255},
      {"1FF", 16, true, true, 255},
      {"99999999999999999999", 10, true, true, 255},
      {" 42", 10, false, false, 0},
      {"42 ", 10, false, false, 0},
      {"", 10, false, false, 0},
      {"+", 10, false, false, 0},
      {"0x1f", 16, false, false, 0},
  };
  for (const auto& r : rows) {
    const WholeInt w = parseWholeInt(r.text, 0, 255, r.base);
    EXPECT_EQ(w.isNumber, r.isNumber) << '"' << r.text << '"';
    EXPECT_EQ(w.clamped, r.clamped) << '"' << r.text << '"';
    if (r.isNumber) {
      EXPECT_EQ(w.value, r.value) << '"' << r.text;
    }
  }
  EXPECT_EQ(parseWholeInt("-9223372036854775808", kI64Min, kI64Max).value, kI64Min);
  EXPECT_FALSE(parseWholeDigits("+42", 0, 255).isNumber);
  EXPECT_FALSE(parseWholeDigits("-0", 0, 255).isNumber);
  EXPECT_EQ(parseWholeDigits("42", 0, 255).value, 42);
}

TEST(NumberParseDouble, DecimalFractionAndExponent) {
  const struct {
    const char* text;
    double value;
  } rows[] = {
      {"12.5", 12.5},  {"  -0.1", -0.1}, {".5", 0.5},   {"5.", 5.0},  {"1e3", 1000.0}, {"1.5E-2x", 0.015},
      {"+2.25", 2.25}, {"12abc", 12.0},  {"", 0.0},     {"abc", 0.0}, {".", 0.0},      {"-.", 0.0},
      {"inf", 0.0},    {"nan", 0.0},     {"0x10", 0.0}, {"1e", 1.0},  {"3e+", 3.0},
  };
  for (const auto& r : rows) EXPECT_EQ(parseLeadingDouble(r.text), r.value) << '"' << r.text << '"';
}

TEST(NumberParseDouble, BeyondTheDoubleRange) {
  EXPECT_EQ(parseLeadingDouble("1e400"), std::numeric_limits<double>::infinity());
  EXPECT_EQ(parseLeadingDouble("-1e400"), -std::numeric_limits<double>::infinity());
  const double tiny = parseLeadingDouble("-1e-400");
  EXPECT_EQ(tiny, 0.0);
  EXPECT_TRUE(std::signbit(tiny));
  EXPECT_EQ(parseLeadingDouble("0.000e999"), 0.0);
}

}  // namespace
}  // namespace blockproc::num
