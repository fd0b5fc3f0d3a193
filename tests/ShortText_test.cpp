// Short fields read by 16-byte blocks against the byte-by-byte readers they stand in for.

#include "blockproc/detail/ShortText.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <string_view>

#include "blockproc/detail/NumericText.h"

namespace blockproc::text {
namespace {

// Bytes that matter to a field: digits, signs, spaces, NULs, points, a high byte.
constexpr char kAlphabet[] = {'0', '1', '9', '+', '-', ' ', ' ', ' ', '\0', '.', 'A', '\xB0', '\xFF'};

std::array<uint8_t, 64> drawn(std::mt19937& random) {
  std::array<uint8_t, 64> bytes{};
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(kAlphabet[random() % sizeof kAlphabet]);
  return bytes;
}

bool equal(const ByteMasks& a, const ByteMasks& b) {
  return a.space == b.space && a.nul == b.nul && a.point == b.point && a.high == b.high;
}

// The readers' trim: trailing spaces and NULs.
std::string_view trimmed(const uint8_t* bytes, int length) {
  std::string_view text(reinterpret_cast<const char*>(bytes), static_cast<size_t>(length));
  while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.remove_suffix(1);
  return text;
}

TEST(ShortText, BlockMasksEqualTheByteLoop) {
  std::mt19937 random(3);
  for (int round = 0; round < 20000; ++round) {
    const auto bytes = drawn(random);
    ASSERT_TRUE(equal(byteMasks<1>(bytes.data()), byteMasksByLoop(bytes.data(), 1)));
    ASSERT_TRUE(equal(byteMasks<4>(bytes.data()), byteMasksByLoop(bytes.data(), 4)));
  }
}

TEST(ShortText, TrimsChecksAndInsertsThePointAsTheByteReaders) {
  std::mt19937 random(9);
  for (int round = 0; round < 20000; ++round) {
    auto bytes = drawn(random);
    if (round % 2 == 0)  // mostly numbers: digits after a few spaces and a sign
      for (size_t i = random() % 4; i < 16; ++i) bytes[i] = static_cast<uint8_t>('0' + random() % 10);
    for (int length = 0; length <= 16; ++length) {
      const ShortText text(bytes.data(), length);
      const std::string_view expected = trimmed(bytes.data(), length);
      ASSERT_EQ(text.size(), static_cast<int>(expected.size()));
      ASSERT_EQ(text.isAscii(), expected.find_first_of("\xB0\xFF") == std::string_view::npos);
      ASSERT_EQ(text.hasPoint(), expected.find('.') != std::string_view::npos);
      std::array<char, 16> copy;
      ASSERT_EQ(std::string_view(copy.data(), static_cast<size_t>(text.write(copy.data()) - copy.data())),
                expected);
      for (int places = 0; places <= 17; ++places) {
        std::array<char, 16> out;
        std::array<char, 64> reference;
        const char* end = text.writeDecimalInserted(out.data(), places);
        const char* referenceEnd = num::writeDecimalInserted(reference.data(), expected, places);
        // The block reader takes what fits one block; what it takes, it gives as the byte reader does.
        if (end == nullptr) {
          ASSERT_TRUE(referenceEnd == nullptr || referenceEnd - reference.data() > 16) << expected << places;
          continue;
        }
        ASSERT_NE(referenceEnd, nullptr) << expected << " " << places;
        ASSERT_EQ(std::string_view(out.data(), static_cast<size_t>(end - out.data())),
                  std::string_view(reference.data(), static_cast<size_t>(referenceEnd - reference.data())));
      }
    }
  }
}

TEST(ShortText, LongFieldsTrimByFourBlocks) {
  std::mt19937 random(4);
  for (int round = 0; round < 5000; ++round) {
    auto bytes = drawn(random);
    const int length = static_cast<int>(random() % 65);
    const LongText text(bytes.data(), length);
    const std::string_view expected = trimmed(bytes.data(), length);
    ASSERT_EQ(text.size(), static_cast<int>(expected.size()));
    ASSERT_EQ(text.isAscii(), expected.find_first_of("\xB0\xFF") == std::string_view::npos);
    ASSERT_EQ(text.hasPoint(), expected.find('.') != std::string_view::npos);
  }
}

}  // namespace
}  // namespace blockproc::text
