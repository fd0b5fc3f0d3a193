// Values written into fields and read back: random values of every data type, each compared with the
// display string the readers must give for what the writers stored.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {
namespace {

constexpr uint64_t kSeed = 0x5EED'B10C'D47Aull;
constexpr int kRounds = 3000;
constexpr int32_t kRecords = 6;

// printf, as an independent model of the readers' number formatting.
template <typename... Args>
std::string format(const char* fmt, Args... args) {
  char buf[512];
  const int n = std::snprintf(buf, sizeof buf, fmt, args...);
  return std::string(buf, static_cast<size_t>(std::max(n, 0)));
}

class RoundTrip : public ::testing::Test {
 protected:
  std::mt19937_64 rng{kSeed};

  int64_t uniform(int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); }
  bool chance(double p) { return std::bernoulli_distribution(p)(rng); }
  std::string digits(int64_t count) {
    std::string s;
    for (int64_t i = 0; i < count; ++i) s.push_back(static_cast<char>('0' + uniform(0, 9)));
    return s;
  }
  // A decimal number with up to 7 significant digits and a decimal exponent in [lo, hi].
  double number(int lo, int hi) {
    const double mantissa = static_cast<double>(uniform(-9'999'999, 9'999'999)) / 1e6;
    return mantissa * std::pow(10.0, static_cast<double>(uniform(lo, hi)));
  }
  int32_t record() { return static_cast<int32_t>(uniform(0, kRecords - 1)); }

  // A repeated block whose records hold the field under test and a text field after it.
  struct Field {
    BlockInfo block{"RT"};
    KXBlockDataProc proc{&block};
    const FieldInfo* info;
    Field(int32_t type, int32_t length, int32_t decimals) {
      block.setRepeat(kRecords);
      info = &block.addField("f", type, length, decimals);
      block.addField("guard", kFieldText, 3);
    }
  };

  // Writes the value into a random record and reads it back; the field after it must stay blank.
  std::string roundTrip(Field& f, std::string_view value) {
    const int32_t index = record();
    f.proc.setFieldDataFromInfo(f.info, index, value);
    EXPECT_EQ(f.proc.getFieldDataFromName("guard", index), "") << value;
    return f.proc.getFieldDataFromInfo(f.info, index);
  }
};

TEST_F(RoundTrip, TextWithHangulCutAtTheFieldLength) {
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    const auto length = static_cast<int32_t>(uniform(1, 16));
    Field f(kFieldText, length, 0);
    // Characters of 1 byte (ASCII, spaces among them) and of 2 bytes in cp949 (Hangul syllables, three
    // bytes in UTF-8).
    std::string value, fitting;
    int bytes = 0;
    bool cutInsideCharacter = false;
    for (int64_t i = uniform(0, 12); i > 0; --i) {
      std::string text(1, chance(0.15) ? ' ' : static_cast<char>(uniform('A', 'z')));
      if (chance(0.3)) {
        const auto cp = static_cast<uint32_t>(uniform(0xAC00, 0xD7A3));
        text = {static_cast<char>(0xE0 | (cp >> 12)), static_cast<char>(0x80 | ((cp >> 6) & 0x3F)),
                static_cast<char>(0x80 | (cp & 0x3F))};
      }
      const int width = text.size() == 1 ? 1 : 2;
      value += text;
      if (bytes + width <= length) {
        fitting += text;
        bytes += width;
      } else if (bytes < length) {
        cutInsideCharacter = true;  // the field ends on the lead byte of a double-byte character
        bytes = length;
      }
    }
    // A cut character fails to decode; the read then drops the field's last byte and keeps the rest as is.
    const std::string expected =
        cutInsideCharacter ? fitting : fitting.substr(0, fitting.find_last_not_of(' ') + 1);
    EXPECT_EQ(roundTrip(f, value), expected) << "value '" << value << "' L" << length;
  }
}

TEST_F(RoundTrip, NumericTextReadsAsTheZeroFilledField) {
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    const auto decimals = static_cast<int32_t>(uniform(0, 3));
    const auto length = static_cast<int32_t>(uniform(decimals + 3, 16));
    Field f(kFieldNumText, length, decimals);
    const std::string sign = chance(0.5) ? "" : chance(0.7) ? "-" : "+";
    const int32_t positions = length - decimals - (decimals > 0 ? 1 : 0) - static_cast<int32_t>(sign.size());
    const std::string integer = digits(uniform(1, positions));
    const std::string fraction = digits(uniform(0, decimals));
    std::string value = sign + integer;
    if (decimals > 0 && (!fraction.empty() || chance(0.5))) value += "." + fraction;
    std::string expected = sign + std::string(static_cast<size_t>(positions) - integer.size(), '0') + integer;
    if (decimals > 0)
      expected += "." + fraction + std::string(static_cast<size_t>(decimals) - fraction.size(), '0');
    EXPECT_EQ(roundTrip(f, value), expected) << "value " << value << " L" << length << " D" << decimals;
  }
}

TEST_F(RoundTrip, IntegerTypes) {
  Field int16(kFieldInt16, 2, 0), int64(kFieldInt64, 8, 2), sint64(kFieldSInt64, 8, 0);
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    // Int16 keeps the low 16 bits of the value clamped to 32 bits; spaces before and text after are ignored.
    const int64_t v = chance(0.9) ? uniform(-200'000, 200'000) : uniform(INT64_MIN / 2, INT64_MAX / 2);
    const auto clamped = static_cast<int32_t>(std::clamp<int64_t>(v, INT32_MIN, INT32_MAX));
    const auto stored = static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(clamped)));
    const std::string value = (chance(0.2) ? "  " : "") + std::to_string(v) + (chance(0.2) ? "xyz" : "");
    EXPECT_EQ(roundTrip(int16, value), format("%d", stored)) << value;

    // Int64 takes any 64-bit value, whatever the places; longer digit strings are clamped to its range.
    long long expected = static_cast<long long>(rng());
    std::string wide = std::to_string(expected);
    if (chance(0.05)) {
      const bool negative = chance(0.5);
      wide = (negative ? "-9" : "9") + digits(uniform(19, 29));
      expected = negative ? INT64_MIN : INT64_MAX;
    }
    EXPECT_EQ(roundTrip(int64, wide), format("%lld", expected)) << wide;

    // Type 6 is written as zero-filled digit text, and those 8 bytes are read as a little-endian integer.
    const std::string text = digits(uniform(0, 8));
    const std::string bytes = std::string(8 - text.size(), '0') + text;
    std::memcpy(&expected, bytes.data(), sizeof expected);
    EXPECT_EQ(roundTrip(sint64, text), format("%lld", expected)) << text;
  }
}

TEST_F(RoundTrip, FloatReadDividedByThePlacesDoubleUndivided) {
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    // A float is stored unscaled and read divided by ten to the places.
    const auto floatPlaces = static_cast<int32_t>(uniform(0, 4));
    Field f(kFieldFloat, 4, floatPlaces);
    const double x = number(-4, 8);
    const auto shown =
        static_cast<float>(static_cast<double>(static_cast<float>(x)) / std::pow(10.0, floatPlaces));
    EXPECT_EQ(roundTrip(f, format("%.17g", x)), format("%.*f", floatPlaces, static_cast<double>(shown)))
        << x << " D" << floatPlaces;

    // A double is read with the places as the precision only.
    const auto doublePlaces = static_cast<int32_t>(uniform(0, 6));
    Field d(kFieldDouble, 8, doublePlaces);
    const double y = number(-8, 15);
    EXPECT_EQ(roundTrip(d, format("%.17g", y)), format("%.*f", doublePlaces, y)) << y << " D" << doublePlaces;
  }
}

TEST_F(RoundTrip, PositionalWriterRoundsTextFields) {
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    const auto decimals = static_cast<int32_t>(uniform(0, 4));
    Field f(kFieldText, 24, decimals);
    const double x = number(-4, 6);
    const double scale = std::pow(10.0, decimals);
    const auto rounded = static_cast<float>(std::floor(x * scale + 0.5) / scale);
    const int32_t index = record();
    f.proc.setFieldDataFromInfo(f.info, index, std::nullopt);  // makes the record and blanks the field
    const int32_t at = index * f.block.getRecordFieldSize() + f.info->nDataPos;
    EXPECT_EQ(f.proc.setFieldDataExFromInfo(f.info, index, format("%.17g", x), at), at + 24);
    EXPECT_EQ(f.proc.getFieldDataFromInfo(f.info, index),
              format("%.*f", decimals, static_cast<double>(rounded)))
        << x << " D" << decimals;
  }
}

}  // namespace
}  // namespace blockproc
