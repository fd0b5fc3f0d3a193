#include "blockproc/detail/TextCodec.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include "blockproc/detail/Internal.h"
#include "blockproc/detail/Utf8.h"

namespace blockproc {
namespace {

// 가나다 and 한글 in code page 949 and in UTF-8.
constexpr std::string_view kGanadaCp949 = "\xB0\xA1\xB3\xAA\xB4\xD9";
constexpr std::string_view kGanadaUtf8 = "\xEA\xB0\x80\xEB\x82\x98\xEB\x8B\xA4";
constexpr std::string_view kHangulCp949 = "\xC7\xD1\xB1\xDB";
constexpr std::string_view kHangulUtf8 = "\xED\x95\x9C\xEA\xB8\x80";

TEST(TextCodec, EncodesHangulInCodePage949AndDecodesEucKr) {
  // Decoding is checked against the C library on every byte pair below.
  EXPECT_EQ(codec::encode(kTextEncodingCP949, kHangulUtf8), std::string(kHangulCp949));
  EXPECT_EQ(codec::decode(kTextEncodingEUCKR, kHangulCp949), std::string(kHangulUtf8));
  // 똠 (U+B620) exists in code page 949's extended Hangul (0x8C63) but not in EUC-KR.
  EXPECT_EQ(codec::encode(kTextEncodingCP949, "\xEB\x98\xA0"), std::string("\x8C\x63"));
  EXPECT_EQ(codec::encode(kTextEncodingEUCKR, "\xEB\x98\xA0"), std::nullopt);
}

TEST(TextCodec, DecodingFailsOnCutOrInvalidSequences) {
  struct Case {
    uint32_t encoding;
    std::string bytes;
  } cases[] = {
      {kTextEncodingCP949, "ABC\xB0"},          // lone lead byte at the end
      {kTextEncodingCP949, "\xB0\xA1\xB3"},     // second character cut
      {kTextEncodingUTF8, "\xC0\xAF"},          // overlong '/'
      {kTextEncodingUTF8, "\xE0\x80\xAF"},      // overlong, three bytes
      {kTextEncodingUTF8, "\xED\xA0\x80"},      // surrogate U+D800
      {kTextEncodingUTF8, "\xF4\x90\x80\x80"},  // above U+10FFFF
      {kTextEncodingUTF8, "\xEA\xB0"},          // cut
      {kTextEncodingUTF8, "\x80"},              // stray continuation byte
      {kTextEncodingASCII, "caf\xE9"},
      // EUC-KR is ASCII and pairs of 0xA1 to 0xFE; the C library would pass 0x80 to 0x9F as U+0080 to U+009F.
      {kTextEncodingEUCKR, "A\x80"},
      {kTextEncodingEUCKR, "\x9F"},
      {kTextEncodingEUCKR, "\xA0\xA1"},
      {kTextEncodingEUCKR, "\xB0\xA1\xFF"},
      {kTextEncodingEUCKR, "\xB0\x80"},
      {0x12345u, "plain ASCII"},  // unknown identifier: even ASCII fails
  };
  for (const auto& c : cases) {
    std::string out = "kept";
    EXPECT_FALSE(codec::decodeAppend(c.encoding, c.bytes, out)) << codec::encodingName(c.encoding);
    EXPECT_EQ(out, "kept");
  }
  // After a failure the converter is reused and still converts.
  EXPECT_EQ(codec::decode(kTextEncodingCP949, kGanadaCp949), std::string(kGanadaUtf8));
}

TEST(TextCodec, EncodingFailsOnUnrepresentableOrInvalidText) {
  EXPECT_EQ(codec::encode(kTextEncodingCP949, "\xF0\x9F\x98\x80"), std::nullopt);  // emoji
  EXPECT_EQ(codec::encode(kTextEncodingCP949, "\xED\x95"), std::nullopt);          // not UTF-8
  EXPECT_EQ(codec::encode(kTextEncodingASCII, kHangulUtf8), std::nullopt);
  EXPECT_EQ(codec::encode(kTextEncodingEUCKR, "A\xC2\x80"), std::nullopt);  // U+0080: no EUC-KR character
  EXPECT_EQ(codec::encode(kTextEncodingEUCKR, "\xC2\x9F"), std::nullopt);
  EXPECT_EQ(codec::encode(kTextEncodingISOLatin1, "caf\xC3\xA9"), std::string("caf\xE9"));
  EXPECT_EQ(codec::encode(kTextEncodingISOLatin1, kHangulUtf8), std::nullopt);
  EXPECT_EQ(codec::encode(0x12345u, "ABC"), std::nullopt);
  EXPECT_EQ(codec::encode(kTextEncodingUTF8, kHangulUtf8), std::string(kHangulUtf8));
}

// Code page 949 text encoded by the table gives the converter's bytes; what the table does not hold (a
// character outside the encoding or above U+FFFF, text that is not UTF-8, another encoding) is left to the
// converter.
TEST(TextCodec, EncodesCodePage949ByTableAsTheConverterDoes) {
  const struct {
    uint32_t encoding;
    std::string text;
    bool byTable;
  } cases[] = {
      {kTextEncodingCP949, "KODEX 200", true},
      {kTextEncodingCP949, std::string(kHangulUtf8), true},
      {kTextEncodingCP949, "TIGER \xEB\xAF\xB8\xEA\xB5\xADS&P500", true},  // ASCII runs between Hangul
      {kTextEncodingCP949, "\xEB\x98\xA0", true},                          // extended Hangul
      {kTextEncodingCP949,
       "\xE2\x82\xAC"
       "1",
       true},                                           // the euro sign, in code page 949 too
      {kTextEncodingCP949, "A\xE0\xB8\x81", false},     // Thai: no character of it
      {kTextEncodingCP949, "\xF0\x9F\x98\x80", false},  // above U+FFFF
      {kTextEncodingCP949, "\xED\x95", false},          // cut UTF-8
      {kTextEncodingCP949, "A\xC0\xAF", false},         // an overlong '/'
      {kTextEncodingCP949, "\xED\xA0\x80", false},      // a surrogate
      {kTextEncodingCP949,
       "\x80"
       "A",
       false},  // a stray continuation byte
      {kTextEncodingUTF8, std::string(kHangulUtf8), false},
      {kTextEncodingEUCKR, std::string(kHangulUtf8), false},
  };
  for (const auto& c : cases) {
    std::string out(c.text.size(), '#');
    const char* end = codec::encodeInto(c.encoding, c.text, out.data());
    EXPECT_EQ(end != nullptr, c.byTable) << c.text;
    if (end == nullptr) continue;
    out.resize(static_cast<size_t>(end - out.data()));
    EXPECT_EQ(std::optional<std::string>(out), codec::encode(c.encoding, c.text)) << c.text;
    EXPECT_EQ(codec::decode(c.encoding, out), std::optional<std::string>(c.text)) << c.text;
  }
}

// The names a definition's encoding attribute and the tool's --encoding take: any case, '-' and '_' left
// out, and the usual other names of code page 949; the name shown for an encoding is taken back.
TEST(TextCodec, NamesAUserWrites) {
  const std::pair<const char*, std::optional<uint32_t>> rows[] = {{"cp949", kTextEncodingCP949},
                                                                  {"MS949", kTextEncodingCP949},
                                                                  {"windows-949", kTextEncodingCP949},
                                                                  {"uhc", kTextEncodingCP949},
                                                                  {"UTF8", kTextEncodingUTF8},
                                                                  {"utf-8", kTextEncodingUTF8},
                                                                  {"EUC_KR", kTextEncodingEUCKR},
                                                                  {"ascii", kTextEncodingASCII},
                                                                  {"latin1", kTextEncodingISOLatin1},
                                                                  {"ISO-8859-1", kTextEncodingISOLatin1},
                                                                  {"klingon", std::nullopt},
                                                                  {"", std::nullopt},
                                                                  {"utf-16", std::nullopt}};
  for (const auto& [name, id] : rows) EXPECT_EQ(codec::encodingFromName(name), id) << name;
  for (uint32_t id : {kTextEncodingCP949, kTextEncodingUTF8, kTextEncodingEUCKR, kTextEncodingASCII,
                      kTextEncodingISOLatin1})
    EXPECT_EQ(codec::encodingFromName(codec::encodingName(id)), id);
}

TEST(Utf8, LengthsTrimsAndWidths) {
  EXPECT_EQ(utf8::utf16Length("abc"), 3);
  EXPECT_EQ(utf8::utf16Length(kHangulUtf8), 2);
  EXPECT_EQ(utf8::utf16Length("\xF0\x9F\x98\x80"), 2);  // a surrogate pair
  EXPECT_EQ(utf8::trimSpaceSeparators("\xE3\x80\x80 \tABC\xC2\xA0\xE3\x80\x80"), "ABC");
  EXPECT_EQ(utf8::trimSpaceSeparators("\xE3\x80\x80"), "");
  EXPECT_TRUE(utf8::endsWithIdeographicSpace("ABC\xE3\x80\x80"));
  EXPECT_FALSE(utf8::endsWithIdeographicSpace("ABC "));
  EXPECT_EQ(utf8::displayWidth("AB" + std::string(kHangulUtf8)), 6u);
  EXPECT_EQ(utf8::validPrefix("AB\xEA\xB0"), 2u);  // where the first character that is not UTF-8 starts
  std::string latin;
  codec::appendLatin1(latin, "A\xE9");
  EXPECT_EQ(latin, "A\xC3\xA9");
}

// One character decoded and checked: the code point and the bytes taken, or kNotValid with nothing taken;
// validPrefix stops where nextValid refuses.
TEST(Utf8, NextValidDecodesOneCharacterOrRefusesIt) {
  const struct {
    std::string text;
    char32_t code;
    size_t taken;
  } cases[] = {
      {"A", U'A', 1},
      {"\xC2\xA0", 0xA0, 2},
      {"\xED\x95\x9C", 0xD55C, 3},  // a Hangul syllable
      {"\xEF\xBF\xBF", 0xFFFF, 3},
      {"\xF0\x9F\x98\x80", 0x1F600, 4},
      {"\xF4\x8F\xBF\xBF", 0x10FFFF, 4},
      {"\x80", utf8::kNotValid, 0},              // a continuation byte
      {"\xC1\xBF", utf8::kNotValid, 0},          // overlong, two bytes
      {"\xE0\x9F\xBF", utf8::kNotValid, 0},      // overlong, three bytes
      {"\xF0\x8F\xBF\xBF", utf8::kNotValid, 0},  // overlong, four bytes
      {"\xED\xA0\x80", utf8::kNotValid, 0},      // a surrogate
      {"\xF4\x90\x80\x80", utf8::kNotValid, 0},  // above U+10FFFF
      {"\xED\x95", utf8::kNotValid, 0},          // cut
      {"\xC2"
       "A",
       utf8::kNotValid, 0},                      // a lead without its continuation
      {"\xF5\x80\x80\x80", utf8::kNotValid, 0},  // no such lead byte
  };
  for (const auto& c : cases) {
    size_t i = 0;
    EXPECT_EQ(utf8::nextValid(c.text, i), c.code) << c.text;
    EXPECT_EQ(i, c.taken) << c.text;
    EXPECT_EQ(utf8::validPrefix("AB" + c.text), 2 + (c.taken == c.text.size() ? c.taken : 0)) << c.text;
  }
}

// Every control character a terminal acts on (C0, DEL, C1) is shown as \xNN, byte by byte; the characters
// around them, U+00A0 and Hangul included, are kept.
TEST(Utf8, ShowsControlCharactersPrintable) {
  const struct {
    std::string_view text;
    size_t first;  // where findControl finds the first control character
    std::string shown;
  } cases[] = {{"plain \xEA\xB0\x80", std::string_view::npos, "plain \xEA\xB0\x80"},
               {"\xC2\xA0\xC2\xB7", std::string_view::npos, "\xC2\xA0\xC2\xB7"},  // U+00A0, U+00B7
               {"\x1B[2J", 0, "\\x1B[2J"},
               {std::string_view("a\0b", 3), 1, "a\\x00b"},
               {"a\nb\tc\rd", 1, "a\\x0Ab\\x09c\\x0Dd"},
               {"~\x7F", 1, "~\\x7F"},
               {"x\xC2\x9B"
                "2J",
                1, "x\\xC2\\x9B2J"},  // U+009B, the one-character escape
               {"\xC2\x80\xC2\x9F", 0, "\\xC2\\x80\\xC2\\x9F"},
               {"\xC2\xA0\xC2\x7F", 3, "\xC2\xA0\xC2\\x7F"}};  // U+00A0 is none, nor C2 before DEL
  for (const auto& c : cases) {
    EXPECT_EQ(utf8::findControl(c.text), c.first) << c.shown;
    EXPECT_EQ(utf8::hasControl(c.text), c.first != std::string_view::npos) << c.shown;
    EXPECT_EQ(internal::printable(c.text), c.shown);
  }
  EXPECT_EQ(internal::printable("two\nlines\x1B", true), "two\nlines\\x1B");
}

TEST(TextCodec, CodePage949AgreesWithTheCLibraryOnEveryBytePair) {
  iconv_t cd = iconv_open("UTF-8", "CP949");
  ASSERT_NE(cd, reinterpret_cast<iconv_t>(-1));
  int mismatches = 0;
  for (unsigned lead = 0x80; lead <= 0xFF; ++lead) {
    for (unsigned trail = 0; trail <= 0xFF; ++trail) {
      // The pair alone, then inside ASCII text.
      const std::string pair{static_cast<char>(lead), static_cast<char>(trail)};
      for (std::string in : {pair, "A" + pair + "B"}) {
        char converted[16];
        char* src = in.data();
        char* dst = converted;
        size_t srcLeft = in.size(), dstLeft = sizeof converted;
        const bool ok = iconv(cd, &src, &srcLeft, &dst, &dstLeft) != static_cast<size_t>(-1) && srcLeft == 0;
        iconv(cd, nullptr, nullptr, nullptr, nullptr);
        const auto ours = codec::decode(kTextEncodingCP949, in);
        if (ours.has_value() != ok || (ok && *ours != std::string(converted, dst))) ++mismatches;
      }
    }
  }
  iconv_close(cd);
  EXPECT_EQ(mismatches, 0);
}

}  // namespace
}  // namespace blockproc
