// The field encoder's entries for values held in binary form (encodeScaled, encodeReal): on every field shape
// and on generated values they write what encode writes for the value's text, and refuse what it refuses with
// the same reason; the one difference is pinned (a float field with no places takes a double that is exactly
// a float).

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "blockproc/codec/TextEncoding.h"
#include "blockproc/engine/FieldCodec.h"

#include "TestBlocks.h"

namespace blockproc::value {
namespace {

using testing::fieldOf;

struct Outcome {
  bool ok = false;
  std::string bytes, why;
  bool operator==(const Outcome&) const = default;
};

template <typename Write>
Outcome run(const FieldInfo& field, Write write) {
  Outcome o;
  o.bytes.assign(static_cast<size_t>(field.nLength), '#');
  o.ok = write(reinterpret_cast<uint8_t*>(o.bytes.data()), o.why);
  if (!o.ok) o.bytes.clear();
  return o;
}

// value * 10^-places as plain text, the way a caller would write it.
std::string scaledText(int64_t value, int32_t places) {
  std::string digits =
      std::to_string(value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value));
  if (static_cast<int32_t>(digits.size()) <= places)
    digits.insert(0, static_cast<size_t>(places) - digits.size() + 1, '0');
  if (places > 0) digits.insert(digits.size() - static_cast<size_t>(places), 1, '.');
  return (value < 0 ? "-" : "") + digits;
}

std::string shortestFixed(double value) {
  char text[400];
  const auto end = std::isfinite(value)
                       ? std::to_chars(text, text + sizeof text, value, std::chars_format::fixed).ptr
                       : std::to_chars(text, text + sizeof text, value).ptr;
  return std::string(text, end);
}

std::vector<FieldInfo> shapes() {
  std::vector<FieldInfo> all;
  for (int32_t type : {kFieldNumText, kFieldText})
    for (int32_t length = 1; length <= 12; ++length)
      for (int32_t places = 0; places <= 4; ++places)
        for (bool implied : {false, true})
          if (type == kFieldNumText || places > 0) all.push_back(fieldOf(type, length, places, implied));
  for (int32_t length : {16, 19, 20, 21, 22, 33})  // the widest digit runs, and past them
    for (int32_t places : {0, 2})
      for (bool implied : {false, true}) all.push_back(fieldOf(kFieldNumText, length, places, implied));
  for (int32_t length : {2, 4}) all.push_back(fieldOf(kFieldInt16, length));
  for (int32_t type : {kFieldInt64, kFieldSInt64}) all.push_back(fieldOf(type, 8));
  all.push_back(fieldOf(kFieldInt64, 10));
  return all;
}

// Whole numbers of every size and sign, zero and the 64-bit ends, and the edges of each digit count.
std::vector<int64_t> wholeNumbers() {
  std::vector<int64_t> values = {0, 1, -1, 32767, -32768, 32768, -32769, INT64_MAX, INT64_MIN};
  for (int64_t p = 1;; p *= 10) {
    for (int64_t v : {p - 1, p, p + 1}) values.insert(values.end(), {v, -v});
    if (p == 1'000'000'000'000'000'000) break;
  }
  std::mt19937_64 rng(20261125);
  for (int i = 0; i < 400; ++i) {
    const auto digits = static_cast<int>(rng() % 19);
    int64_t v = static_cast<int64_t>(rng() % 1'000'000'000'000'000'000);
    for (int d = 18; d > digits; --d) v /= 10;
    values.push_back(rng() % 3 == 0 ? -v : v);
  }
  return values;
}

TEST(FieldCodecBinary, ScaledWholeNumbersAsTheirText) {
  for (const FieldInfo& field : shapes()) {
    FieldEncoder binary(field, kTextEncodingCP949), text(field, kTextEncodingCP949);
    for (int64_t value : wholeNumbers())
      for (int32_t places : {0, field.nDecimalLen}) {
        const std::string shown = scaledText(value, places);
        const Outcome want =
            run(field, [&](uint8_t* out, std::string& why) { return text.encode(shown, out, why); });
        const Outcome got = run(field, [&](uint8_t* out, std::string& why) {
          return binary.encodeScaled(value, places, out, why);
        });
        ASSERT_EQ(got, want) << shown << " in a " << field.nLength << "-byte field of type "
                             << field.nDataType << " with " << field.nDecimalLen << " places"
                             << (field.bImpliedPoint ? ", implied" : "");
      }
  }
}

// A number column's layout, made once, writes what encode writes for the value's text whenever it takes the
// value; and it takes the values of the fields a reply carries (the point shown or implied, a field too
// short for its point).
TEST(FieldCodecBinary, ScaledLayoutWritesWhatTheTextWrites) {
  int64_t taken = 0;
  for (const FieldInfo& field : shapes()) {
    FieldEncoder encoder(field, kTextEncodingCP949);
    const FieldEncoder::ScaledLayout layout = encoder.scaledLayout(field.nDecimalLen);
    for (int64_t value : wholeNumbers()) {
      const Outcome got = run(
          field, [&](uint8_t* out, std::string&) { return FieldEncoder::writeScaled(layout, value, out); });
      if (!got.ok) continue;
      ++taken;
      const std::string shown = scaledText(value, field.nDecimalLen);
      const Outcome want =
          run(field, [&](uint8_t* out, std::string& why) { return encoder.encode(shown, out, why); });
      ASSERT_EQ(got, want) << shown << " in a " << field.nLength << "-byte field of type " << field.nDataType
                           << " with " << field.nDecimalLen << " places"
                           << (field.bImpliedPoint ? ", implied" : "");
    }
  }
  EXPECT_GT(taken, 5000);
  const struct {
    FieldInfo field;
    int64_t value;
    const char* bytes;
  } cases[] = {
      {fieldOf(kFieldNumText, 6, 2), -2999, "-29.99"},
      {fieldOf(kFieldNumText, 10, 2), 5, "0000000.05"},
      {fieldOf(kFieldNumText, 4, 3), 1898, "1898"},
      {fieldOf(kFieldNumText, 8, 2, true), -7, "-0000007"},
      {fieldOf(kFieldNumText, 16, 3), -12, "-00000000000.012"},
  };
  for (const auto& c : cases) {
    FieldEncoder encoder(c.field, kTextEncodingCP949);
    const Outcome got = run(c.field, [&](uint8_t* out, std::string&) {
      return FieldEncoder::writeScaled(encoder.scaledLayout(c.field.nDecimalLen), c.value, out);
    });
    EXPECT_EQ(got.bytes, c.bytes) << c.value;
  }
}

TEST(FieldCodecBinary, ScaledLaysOutTheFormsAReplyCarries) {
  const struct {
    FieldInfo field;
    int64_t value;
    std::string bytes;
  } cases[] = {
      {fieldOf(kFieldNumText, 8, 2), -1250, "-0012.50"},
      {fieldOf(kFieldNumText, 8, 2), 5, "00000.05"},
      {fieldOf(kFieldNumText, 8, 2, true), -1250, "-0001250"},
      {fieldOf(kFieldNumText, 6, 0), -42, "-00042"},
      {fieldOf(kFieldNumText, 6, 2), 123450, "1234.5"},  // the places that are not zero
      {fieldOf(kFieldNumText, 4, 3), 1234, "1234"},      // no room for the point
      {fieldOf(kFieldText, 8, 2), 350, "3.50    "},      // a text field with places: left-aligned
  };
  for (const auto& c : cases) {
    FieldEncoder encoder(c.field, kTextEncodingCP949);
    const Outcome got = run(c.field, [&](uint8_t* out, std::string& why) {
      return encoder.encodeScaled(c.value, c.field.nDecimalLen, out, why);
    });
    EXPECT_EQ(got.bytes, c.bytes) << c.value << ": " << got.why;
  }
}

// Doubles as frames hold them: the shown values of generated floats (whole and not, with places), computed
// averages, doubles with a few places, extremes, zeros of both signs, and values that are not finite.
std::vector<double> reals(int32_t places) {
  std::vector<double> values = {0.0,
                                -0.0,
                                1.0,
                                -1.0,
                                0.1,
                                0.3,
                                1e-7,
                                123456789.0,
                                1e22,
                                1e300,
                                5e-324,
                                2.5e-7,
                                16777216.0,
                                16777217.0,
                                std::numeric_limits<double>::max(),
                                std::numeric_limits<double>::infinity(),
                                std::numeric_limits<double>::quiet_NaN()};
  std::mt19937_64 rng(static_cast<uint64_t>(places) + 7);
  for (int i = 0; i < 2000; ++i) {
    const double price = static_cast<double>(1000 + rng() % 90'000'000);
    const auto f = static_cast<float>(price / static_cast<double>(50 + rng() % 100'000));
    const float whole = static_cast<float>(rng() % 100'000) * (rng() % 2 ? 1.0f : -1.0f);
    for (float stored : {f, whole, -f}) {
      // The value a reader shows: the float's shortest text, the point moved left by the places.
      char text[64];
      char* end = std::to_chars(text, text + 40, stored).ptr;
      std::string shown(text, end);
      shown += "e-" + std::to_string(places);
      values.push_back(std::strtod(shown.c_str(), nullptr));
    }
    values.push_back(price / static_cast<double>(1 + rng() % 7));
    values.push_back(static_cast<double>(static_cast<int64_t>(rng() % 2'000'000) - 1'000'000) / 100);
  }
  return values;
}

TEST(FieldCodecBinary, RealsAsTheirShortestText) {
  for (const FieldInfo& field :
       {fieldOf(kFieldFloat, 4, 0), fieldOf(kFieldFloat, 4, 2), fieldOf(kFieldFloat, 6, 3),
        fieldOf(kFieldDouble, 8, 0), fieldOf(kFieldDouble, 10, 2), fieldOf(kFieldNumText, 12, 2),
        fieldOf(kFieldText, 12)}) {
    FieldEncoder binary(field, kTextEncodingCP949), text(field, kTextEncodingCP949);
    for (double value : reals(field.nDecimalLen)) {
      const std::string shown = shortestFixed(value);
      const Outcome want =
          run(field, [&](uint8_t* out, std::string& why) { return text.encode(shown, out, why); });
      const Outcome got =
          run(field, [&](uint8_t* out, std::string& why) { return binary.encodeReal(value, out, why); });
      const bool exactFloat = field.nDataType == kFieldFloat && field.nDecimalLen == 0 &&
                              std::isfinite(value) && static_cast<double>(static_cast<float>(value)) == value;
      if (exactFloat && !want.ok) {
        // The text path refuses the double's long text; the double itself is exactly this float.
        const float stored = value == 0 ? 0.0f : static_cast<float>(value);
        ASSERT_TRUE(got.ok) << shown;
        ASSERT_EQ(0, std::memcmp(got.bytes.data(), &stored, sizeof stored)) << shown;
        continue;
      }
      ASSERT_EQ(got, want) << shown << " in a field of type " << field.nDataType << " with "
                           << field.nDecimalLen << " places";
    }
  }
}

TEST(FieldCodecBinary, RealRefusalsNameTheValue) {
  const FieldInfo doubleField = fieldOf(kFieldDouble, 8), floatField = fieldOf(kFieldFloat, 4, 2);
  FieldEncoder dbl(doubleField, kTextEncodingCP949), flt(floatField, kTextEncodingCP949);
  uint8_t out[8];
  std::string why;
  EXPECT_FALSE(dbl.encodeReal(std::numeric_limits<double>::infinity(), out, why));
  EXPECT_EQ(why, "'inf' is not a number");
  why.clear();
  EXPECT_FALSE(flt.encodeReal(0.123456789, out, why));  // 12.3456789 as a float shows 12.345679
  EXPECT_NE(why.find("'0.123456789' is not held exactly by a float"), std::string::npos) << why;
}

}  // namespace
}  // namespace blockproc::value
