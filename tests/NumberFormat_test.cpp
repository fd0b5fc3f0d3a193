// Integers and fixed-point doubles against the C library's printf, which the readers' strings must equal.

#include "blockproc/detail/NumberFormat.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace blockproc::num {
namespace {

std::string printed(const char* format, auto... values) {
  std::vector<char> text(2048);
  const int n = std::snprintf(text.data(), text.size(), format, values...);
  return std::string(text.data(), static_cast<size_t>(n));
}

std::string fixed(double value, int32_t places) {
  std::string out = "|";
  appendFixed(out, value, places);
  return out.substr(1);
}

// Every digit count and both sides of each power of ten, the extremes, then random magnitudes.
std::vector<int64_t> integers() {
  std::vector<int64_t> values{0, 1, -1, std::numeric_limits<int64_t>::max(),
                              std::numeric_limits<int64_t>::min()};
  for (int64_t p = 1; p <= std::numeric_limits<int64_t>::max() / 10; p *= 10)
    for (int64_t v : {p - 1, p, p + 1, 10 * p - 1}) values.insert(values.end(), {v, -v});
  std::mt19937_64 random(11);
  for (int i = 0; i < 20000; ++i) values.push_back(static_cast<int64_t>(random() >> (random() % 64)));
  return values;
}

TEST(NumberFormat, IntegersPrintAsPrintf) {
  for (const int64_t v : integers()) {
    std::string out = "|";
    appendInt(out, v);
    ASSERT_EQ(out, "|" + printed("%lld", static_cast<long long>(v)));
    for (const int width : {0, 1, 6, 21, 25}) {
      std::string padded;
      appendZeroPadded(padded, v, width);
      ASSERT_EQ(padded, printed("%0*lld", width, static_cast<long long>(v))) << "width " << width;
    }
  }
}

TEST(NumberFormat, FixedRoundsAsPrintfDoes) {
  // Ties of the exact binary value, carries into the integer part, the limits of the integer method
  // (2^52, 18 places, 2^-75) and values it leaves to the library.
  const double edges[] = {0.0,
                          -0.0,
                          0.125,
                          2.675,
                          0.005,
                          2.5,
                          3.5,
                          0.999,
                          9.995,
                          -0.001,
                          0x1p52,
                          0x1p52 - 0.5,
                          0x1p-75,
                          0x1p-76,
                          0x1p-64,
                          0x1p-63,
                          1e22,
                          5e-324,
                          123456789012.345678,
                          18446744073709.551615,
                          std::numeric_limits<double>::max(),
                          std::numeric_limits<double>::infinity(),
                          std::numeric_limits<double>::quiet_NaN()};
  for (const double v : edges)
    for (int32_t places = -1; places <= 22; ++places)
      EXPECT_EQ(fixed(v, places), printed("%0.*f", places < 0 ? 6 : places, v)) << v << " " << places;

  std::mt19937_64 random(5);
  for (int i = 0; i < 60000; ++i) {
    // Whole numbers over powers of two (exact ties among them) and prices in hundredths.
    const auto whole = static_cast<double>(static_cast<int64_t>(random() >> (random() % 64)));
    const double values[] = {std::ldexp(whole, -static_cast<int>(random() % 80)),
                             static_cast<double>(random() % 100000000) / 100.0};
    const auto places = static_cast<int32_t>(random() % 20);
    for (double v : values) {
      ASSERT_EQ(fixed(v, places), printed("%0.*f", places, v)) << v << " " << places;
      ASSERT_EQ(fixed(-v, places), printed("%0.*f", places, -v)) << -v << " " << places;
    }
  }
}

}  // namespace
}  // namespace blockproc::num
