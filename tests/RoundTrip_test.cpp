// Values written into fields and read back: random values of every data type, each compared with the
// display string the readers must give for what the writers stored.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

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

std::string utf8Of(char32_t cp) {
  std::string s;
  if (cp < 0x80) {
    s.push_back(static_cast<char>(cp));
  } else {  // the test only makes ASCII and Hangul syllables (three UTF-8 bytes)
    s.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    s.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    s.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
  return s;
}

std::string rtrimSpaces(std::string s) {
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
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

  // One block holding one field of the shape; the field is written and read in a random record.
  struct Field {
    BlockInfo block{"RT"};
    KXBlockDataProc proc{&block};
    const FieldInfo* info;
    Field(int32_t type, int32_t length, int32_t decimals) {
      block.setRepeat(kRecords);
      info = &block.addField("f", type, length, decimals);
      block.addField("guard", kFieldText, 3);
    }
    std::string writeAndRead(int32_t index, std::string_view value) {
      proc.setFieldDataFromInfo(info, index, value);
      return proc.getFieldDataFromInfo(info, index);
    }
    std::string guard(int32_t index) { return proc.getFieldDataFromName("guard", index); }
  };
};

TEST_F(RoundTrip, TextWithHangulCutAtTheFieldLength) {
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    const auto length = static_cast<int32_t>(uniform(1, 16));
    Field f(kFieldText, length, 0);
    // Characters of 1 byte (ASCII, spaces among them) and of 2 bytes (Hangul syllables) in cp949.
    std::vector<std::pair<std::string, int>> chars;
    const int64_t count = uniform(0, 12);
    for (int64_t i = 0; i < count; ++i) {
      if (chance(0.3)) {
        chars.emplace_back(utf8Of(static_cast<char32_t>(uniform(0xAC00, 0xD7A3))), 2);
      } else {
        chars.emplace_back(std::string(1, chance(0.15) ? ' ' : static_cast<char>(uniform('A', 'z'))), 1);
      }
    }
    std::string value, fitting;
    int bytes = 0;
    bool cutInsideCharacter = false;
    for (const auto& [text, width] : chars) {
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
    const std::string expected = cutInsideCharacter ? fitting : rtrimSpaces(fitting);
    const auto index = static_cast<int32_t>(uniform(0, kRecords - 1));
    EXPECT_EQ(f.writeAndRead(index, value), expected) << "value '" << value << "' L" << length;
    EXPECT_EQ(f.guard(index), "");
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
    const auto index = static_cast<int32_t>(uniform(0, kRecords - 1));
    EXPECT_EQ(f.writeAndRead(index, value), expected)
        << "value " << value << " L" << length << " D" << decimals;
    EXPECT_EQ(f.guard(index), "");
  }
}

TEST_F(RoundTrip, Int16KeepsTheLow16BitsOfTheClampedValue) {
  Field f(kFieldInt16, 2, 0);
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    const int64_t v = chance(0.9) ? uniform(-200'000, 200'000) : uniform(INT64_MIN / 2, INT64_MAX / 2);
    const auto clamped = static_cast<int32_t>(std::clamp<int64_t>(v, INT32_MIN, INT32_MAX));
    const auto stored = static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint32_t>(clamped)));
    const std::string value = (chance(0.2) ? "  " : "") + std::to_string(v) + (chance(0.2) ? "xyz" : "");
    const auto index = static_cast<int32_t>(uniform(0, kRecords - 1));
    EXPECT_EQ(f.writeAndRead(index, value), format("%d", stored)) << value;
  }
}

TEST_F(RoundTrip, Int64ClampedToItsRange) {
  Field f(kFieldInt64, 8, 2);  // the places play no part
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    std::string value;
    long long expected;
    if (chance(0.05)) {
      const bool negative = chance(0.5);
      value = (negative ? "-" : "") + digits(uniform(20, 30));
      value[negative ? 1 : 0] = '9';
      expected = negative ? INT64_MIN : INT64_MAX;
    } else {
      expected = static_cast<long long>(rng());
      value = std::to_string(expected);
    }
    const auto index = static_cast<int32_t>(uniform(0, kRecords - 1));
    EXPECT_EQ(f.writeAndRead(index, value), format("%lld", expected)) << value;
  }
}

TEST_F(RoundTrip, FloatStoredUnscaledAndReadDividedByThePlaces) {
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    const auto decimals = static_cast<int32_t>(uniform(0, 4));
    Field f(kFieldFloat, 4, decimals);
    const double x = number(-4, 8);
    const auto stored = static_cast<float>(x);
    const auto shown = static_cast<float>(static_cast<double>(stored) / std::pow(10.0, decimals));
    const std::string value = format("%.17g", x);
    const auto index = static_cast<int32_t>(uniform(0, kRecords - 1));
    EXPECT_EQ(f.writeAndRead(index, value), format("%.*f", decimals, static_cast<double>(shown)))
        << value << " D" << decimals;
  }
}

TEST_F(RoundTrip, DoubleReadWithThePlacesUndivided) {
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    const auto decimals = static_cast<int32_t>(uniform(0, 6));
    Field f(kFieldDouble, 8, decimals);
    const double x = number(-8, 15);
    const std::string value = format("%.17g", x);
    const auto index = static_cast<int32_t>(uniform(0, kRecords - 1));
    EXPECT_EQ(f.writeAndRead(index, value), format("%.*f", decimals, x)) << value << " D" << decimals;
  }
}

TEST_F(RoundTrip, SignedInt64IsWrittenAsDigitsAndReadAsBinary) {
  // The writer stores type 6 as zero-filled digit text; the reader takes those 8 bytes as an integer.
  Field f(kFieldSInt64, 8, 0);
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    const std::string value = digits(uniform(0, 8));
    const std::string bytes = std::string(8 - value.size(), '0') + value;
    long long expected;
    std::memcpy(&expected, bytes.data(), sizeof expected);
    const auto index = static_cast<int32_t>(uniform(0, kRecords - 1));
    EXPECT_EQ(f.writeAndRead(index, value), format("%lld", expected)) << value;
  }
}

TEST_F(RoundTrip, PositionalWriterRoundsTextFields) {
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    const auto decimals = static_cast<int32_t>(uniform(0, 4));
    Field f(kFieldText, 24, decimals);
    const double x = number(-4, 6);
    const double scale = std::pow(10.0, decimals);
    const auto rounded = static_cast<float>(std::floor(x * scale + 0.5) / scale);
    const std::string value = format("%.17g", x);
    const auto index = static_cast<int32_t>(uniform(0, kRecords - 1));
    f.proc.setFieldDataFromInfo(f.info, index, std::nullopt);  // makes the record and blanks the field
    const int32_t at = index * f.block.getRecordFieldSize() + f.info->nDataPos;
    EXPECT_EQ(f.proc.setFieldDataExFromInfo(f.info, index, value, at), at + 24);
    EXPECT_EQ(f.proc.getFieldDataFromInfo(f.info, index),
              format("%.*f", decimals, static_cast<double>(rounded)))
        << value << " D" << decimals;
  }
}

}  // namespace
}  // namespace blockproc
