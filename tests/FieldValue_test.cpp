// Field values as the engine shows and takes them: canonical text for wire bytes, the check of a caller's
// value, and random values of every type through a built reply and back.

#include "blockproc/engine/FieldValue.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "blockproc/engine/TransactionProc.h"

namespace blockproc::value {
namespace {

FieldInfo fieldOf(int32_t type, int32_t length, int32_t decimals = 0) {
  const int32_t widths[] = {0, 0, 2, 8, 4, 8, 8};
  return FieldInfo("f", type, widths[type] > 0 ? widths[type] : length, decimals);
}

FieldInfo impliedPoint(FieldInfo field) {
  field.bImpliedPoint = true;
  return field;
}

FieldInfo keyEncrypted(FieldInfo field) {
  field.bKeyEnc = true;
  return field;
}

template <typename T>
std::string bytesOf(T value) {
  std::string bytes(sizeof(T), '\0');
  std::memcpy(bytes.data(), &value, sizeof(T));
  return bytes;
}

TEST(FieldValue, RendersWireBytesCanonicallyAndSaysWhatIsOdd) {
  const struct {
    FieldInfo field;
    std::string bytes;
    std::string text;
    ValueIssue issue = ValueIssue::None;
    int32_t offset = -1;
    uint32_t encoding = kTextEncodingCP949;
  } cases[] = {
      // Numbers: no zero fill, no '+', exactly the field's places; an implied point; blank is empty.
      {fieldOf(kFieldNumText, 10, 2), "0000123450", "1234.50"},
      {fieldOf(kFieldNumText, 10, 2), "-000012.30", "-12.30"},
      {fieldOf(kFieldNumText, 10, 2), "+0000012.3", "12.30"},
      {fieldOf(kFieldNumText, 10, 2), "-000000.00", "0.00"},
      {fieldOf(kFieldNumText, 5, 3), "   12", "0.012"},
      {fieldOf(kFieldNumText, 10, 2), "          ", ""},
      {fieldOf(kFieldText, 6, 2), "-00.70", "-0.70"},
      {fieldOf(kFieldNumText, 8), "00071000", "71000"},
      {fieldOf(kFieldNumText, 10, 2), "000000.125", "0.125", ValueIssue::MorePlaces},
      {fieldOf(kFieldNumText, 8), "000012.5", "12.5", ValueIssue::MorePlaces},
      {fieldOf(kFieldNumText, 5), "12a4 ", "12a4", ValueIssue::NotANumber, 2},
      // Text: trailing blanks dropped, leading spaces kept, bad bytes escaped with the first one's offset.
      {fieldOf(kFieldText, 6), "  AB\0 ", "  AB"},
      {fieldOf(kFieldText, 3),
       "A\xFF"
       "B",
       "A\\xFFB", ValueIssue::BadBytes, 1},
      {fieldOf(kFieldText, 3), "\xC7\xD1\xFF", "\xED\x95\x9C\\xFF", ValueIssue::BadBytes, 2},
      {fieldOf(kFieldText, 2), "\xC3\x28", "\\xC3(", ValueIssue::BadBytes, 0, kTextEncodingUTF8},
      {fieldOf(kFieldText, 2), "A\x80", "A\\x80", ValueIssue::BadBytes, 1, kTextEncodingASCII},
      // Binary numbers: sint64 is the 8 little-endian bytes, float is divided by 10^places, double is not.
      {fieldOf(kFieldInt16, 2), bytesOf<int16_t>(-1), "-1"},
      {fieldOf(kFieldSInt64, 8), bytesOf<int64_t>(-42), "-42"},
      {fieldOf(kFieldInt64, 8), bytesOf<int64_t>(INT64_MIN), "-9223372036854775808"},
      {fieldOf(kFieldFloat, 4, 2), bytesOf<float>(12345.0F), "123.45"},
      {fieldOf(kFieldFloat, 4), bytesOf<float>(3e38F), "300000000000000000000000000000000000000"},
      {fieldOf(kFieldDouble, 8, 2), bytesOf<double>(12.35), "12.35"},
      {fieldOf(kFieldDouble, 8, 2), bytesOf<double>(-0.0), "0.00"},
      // A float's or a double's places pad what is shown, never cap it: computed values come in full.
      {fieldOf(kFieldDouble, 8), bytesOf<double>(0.1), "0.1"},
      {fieldOf(kFieldDouble, 8, 2), bytesOf<double>(10300.921), "10300.921"},
      {fieldOf(kFieldDouble, 8, 2), bytesOf<double>(-41207.0 / 3), "-13735.666666666666"},
      {fieldOf(kFieldDouble, 8, 2), bytesOf<double>(0x1p58), "288230376151711740.00"},
      {fieldOf(kFieldDouble, 8, 2), bytesOf<double>(1092378358114.84375), "1092378358114.8438"},
      {fieldOf(kFieldFloat, 4, 2), bytesOf<float>(1.5F), "0.015"},
      {fieldOf(kFieldFloat, 4), bytesOf<float>(INFINITY), "inf", ValueIssue::NotFinite},
  };
  for (const auto& c : cases) {
    std::string out = "<";
    const RenderResult r = appendValue(out, c.field, c.bytes, c.encoding, BadByteStyle::Escaped);
    EXPECT_EQ(out, "<" + c.text) << c.bytes;
    EXPECT_EQ(r.issue, c.issue) << c.bytes;
    EXPECT_EQ(r.offset, c.offset) << c.bytes;
  }
  std::string json;
  appendValue(json, fieldOf(kFieldText, 3),
              "A\xFF"
              "B",
              kTextEncodingCP949, BadByteStyle::Replacement);
  EXPECT_EQ(json,
            "A\xEF\xBF\xBD"
            "B");
  std::string why;
  appendIssue(why, {ValueIssue::BadBytes, 2}, fieldOf(kFieldText, 3), "\xC7\xD1\xFF", kTextEncodingCP949);
  EXPECT_EQ(why, "byte 2 (0xFF) is not cp949 text");
}

TEST(FieldValue, TakesAValueOnlyWhenTheFieldGivesItBackExactly) {
  const struct {
    FieldInfo field;
    std::string value;
    std::string written;   // what the writer gets; "" when refused
    std::string expected;  // the canonical read-back, or the refusal
  } cases[] = {
      // One canonical form for the writer: a digit before the point, no '+', the field's places.
      {fieldOf(kFieldNumText, 21, 2), ".58", "0.58", "0.58"},
      {fieldOf(kFieldNumText, 21, 2), "+0.580", "0.58", "0.58"},
      {fieldOf(kFieldNumText, 10, 2), " -12.3 ", "-12.30", "-12.30"},
      {fieldOf(kFieldNumText, 10, 2), "1e3", "1000.00", "1000.00"},
      // Short of room for all its places, a point with the places that are not zero, as a reply carries
      // a value that fills the field; without the point only when even that has no room.
      {fieldOf(kFieldNumText, 6, 2), "1234.5", "1234.5", "1234.50"},
      {fieldOf(kFieldNumText, 10, 2), "99999999.9", "99999999.9", "99999999.90"},
      {fieldOf(kFieldNumText, 10, 2), "-9999999.9", "-9999999.9", "-9999999.90"},
      {fieldOf(kFieldNumText, 6, 2), "9999.99", "999999", "9999.99"},  // the implied point's extra digit
      {fieldOf(kFieldText, 6, 2), "1234.5", "1234.5", "1234.50"},
      {fieldOf(kFieldNumText, 10, 2), "900400000.00", "900400000.", "900400000.00"},  // decimals not written
      {fieldOf(kFieldNumText, 10, 3), "-1234567.5", "-1234567.5", "-1234567.500"},
      // A field whose point is implied is written without it: sign, zero fill, digits.
      {impliedPoint(fieldOf(kFieldNumText, 12, 2)), "71250.5", "000007125050", "71250.50"},
      {impliedPoint(fieldOf(kFieldNumText, 12, 2)), "-0.07", "-00000000007", "-0.07"},
      {impliedPoint(fieldOf(kFieldNumText, 5, 2)), "999.99", "99999", "999.99"},
      {impliedPoint(fieldOf(kFieldText, 6, 1)), "12.5", "000125", "12.5"},
      {impliedPoint(fieldOf(kFieldNumText, 5)), "-12", "-12", "-12"},  // no places: nothing to leave out
      // More digits than the implied point leaves room for: the point and the places that are not zero, the
      // form a reply carries such a value in.
      {impliedPoint(fieldOf(kFieldNumText, 10, 4)), "4300000.0000", "004300000.", "4300000.0000"},
      {impliedPoint(fieldOf(kFieldNumText, 10, 4)), "-430000.5", "-0430000.5", "-430000.5000"},
      {fieldOf(kFieldSInt64, 8), "-42", "-42", "-42"},
      {fieldOf(kFieldInt16, 2), "-32768", "-32768", "-32768"},
      {fieldOf(kFieldInt16, 2), "7.00", "7", "7"},
      {fieldOf(kFieldFloat, 4, 2), "123.45", "12345", "123.45"},
      {fieldOf(kFieldFloat, 4, 1), "0.1", "1", "0.1"},
      {fieldOf(kFieldDouble, 8, 2), "0.1", "0.1", "0.10"},
      // A float or a double takes what it holds exactly, or the shortest text of what it holds, with any
      // number of places; it reads back as that binary value's shortest text.
      {fieldOf(kFieldDouble, 8, 2), "288230376151711744", "288230376151711744", "288230376151711740.00"},
      {fieldOf(kFieldDouble, 8, 2), "288230376151711740", "288230376151711744", "288230376151711740.00"},
      {fieldOf(kFieldDouble, 8, 2), "2305843009213693952", "2305843009213693952", "2305843009213694000.00"},
      {fieldOf(kFieldDouble, 8, 2), "1092378358114.84375", "1092378358114.8438", "1092378358114.8438"},
      {fieldOf(kFieldDouble, 8, 2), "10300.9210", "10300.921", "10300.921"},
      {fieldOf(kFieldDouble, 8), "5e-324", "5e-324", "0." + std::string(323, '0') + "5"},
      {fieldOf(kFieldDouble, 8, 2), "-0", "0", "0.00"},
      {fieldOf(kFieldFloat, 4), "3.5", "3.5", "3.5"},
      {fieldOf(kFieldFloat, 4, 2), "1.005", "100.5", "1.005"},
      {fieldOf(kFieldFloat, 4, 2), "10300.92", "1030092", "10300.92"},
      {fieldOf(kFieldText, 6), "  \xED\x95\x9C", "  \xED\x95\x9C", "  \xED\x95\x9C"},
      // Refusals: places, digits, range, infinity, not a number, text that does not fit or would change.
      {fieldOf(kFieldNumText, 10, 2), "0.125", "", "'0.125' has 3 decimal places; the field holds 2"},
      {fieldOf(kFieldNumText, 10, 2), "1234567.899", "",
       "'1234567.899' has 3 decimal places; the field holds 2"},
      {fieldOf(kFieldNumText, 8), "12.5", "", "'12.5' has 1 decimal place; the field holds whole numbers"},
      {fieldOf(kFieldNumText, 10, 2), "-123456789", "",
       "'-123456789' has 9 digits before the point; the field has room for 8 beside the sign"},
      {fieldOf(kFieldNumText, 5), "1,5", "", "'1,5' is not a number"},
      {impliedPoint(fieldOf(kFieldNumText, 6, 2)), "-1234.5", "",
       "'-1234.5' has 4 digits before the point; the field has room for 3 beside the sign"},
      {fieldOf(kFieldDouble, 8, 2), "288230376151711745", "",
       "'288230376151711745' is not held exactly by a double (it would read back as 288230376151711740.00)"},
      {fieldOf(kFieldDouble, 8, 2), "0.1000000000000000001", "",
       "'0.1000000000000000001' is not held exactly by a double (it would read back as 0.10)"},
      {fieldOf(kFieldFloat, 4), "0.30000001", "",
       "'0.30000001' is not held exactly by a float (it would read back as 0.3)"},
      {fieldOf(kFieldFloat, 4, 2), "0.0030000001", "",
       "'0.0030000001' is not held exactly by a float (it would read back as 0.003)"},
      {fieldOf(kFieldFloat, 4), "1e39", "", "'1e39' lies outside the range of a float"},
      {fieldOf(kFieldDouble, 8), "1e400", "", "'1e400' lies outside the range of a double"},
      {fieldOf(kFieldFloat, 4), "16777217", "",
       "'16777217' is not held exactly by a float (it would read back as 16777216)"},
      {fieldOf(kFieldInt16, 2), "70000", "", "'70000' lies outside -32,768 to 32,767"},
      {fieldOf(kFieldInt64, 8), "9223372036854775808", "",
       "'9223372036854775808' lies outside -9,223,372,036,854,775,808 to 9,223,372,036,854,775,807"},
      {fieldOf(kFieldText, 3), "ABCD", "", "'ABCD' takes 4 bytes; the field holds 3 bytes"},
      {fieldOf(kFieldText, 3), "AB ", "", "'AB ' ends in a space, which the field's padding does not keep"},
      {fieldOf(kFieldText, 4), "\xF0\x9F\x98\x80", "",
       "'\xF0\x9F\x98\x80' has a character, '\xF0\x9F\x98\x80', that cp949 cannot hold"},
      {fieldOf(kFieldText, 4), "A\x80", "", "'A\x80' is not UTF-8 text from byte 1 (0x80)"},
      {keyEncrypted(fieldOf(kFieldText, 8)), "secret", "",
       "'secret' goes to a key-encrypted field, whose value is not carried in the bytes"},
      {keyEncrypted(fieldOf(kFieldInt16, 2)), "", "",
       "'' goes to a key-encrypted field, whose value is not carried in the bytes"},
  };
  for (const auto& c : cases) {
    PreparedValue p;
    std::string why;
    const bool ok = prepareValue(c.field, c.value, kTextEncodingCP949, p, why);
    EXPECT_EQ(ok, !c.written.empty()) << c.value << ": " << why;
    EXPECT_EQ(ok ? p.write : "", c.written) << c.value;
    EXPECT_EQ(ok ? p.expected : why, c.expected) << c.value;
  }
  PreparedValue p;
  std::string why;
  ASSERT_TRUE(prepareValue(fieldOf(kFieldSInt64, 8), "1", kTextEncodingCP949, p, why));
  EXPECT_EQ(p.writeType, kFieldInt64);  // the main writer would store digit text
  ASSERT_TRUE(prepareValue(fieldOf(kFieldNumText, 8, 2), " ", kTextEncodingCP949, p, why));
  EXPECT_TRUE(p.blank);
  ASSERT_TRUE(prepareValue(keyEncrypted(fieldOf(kFieldText, 8)), "", kTextEncodingCP949, p, why));
  EXPECT_TRUE(p.blank);  // no value for a key-encrypted field: it stays blank, as it reads back
}

// Random values of every type go out in a built reply and come back as their canonical text; the reply
// built again from what was read is the same bytes.
TEST(FieldValue, RandomValuesOfEveryTypeRoundTripThroughTheEngine) {
  const auto loaded = DefinitionLoader::loadString(R"(<transaction code='T'><output>
    <block name='R' repeat='50' count='rest'>
      <field name='t' type='text' length='7'/><field name='n' type='number' length='9' decimals='3'/>
      <field name='w' type='number' length='6'/><field name='i' type='int16'/><field name='l' type='int64'/>
      <field name='s' type='sint64'/><field name='f' type='float' decimals='2'/>
      <field name='d' type='double' decimals='4'/>
    </block></output></transaction>)");
  ASSERT_TRUE(loaded) << loaded.description();
  TransactionProc proc(*loaded.definition);
  std::mt19937_64 rng(0x5EEDF1E1D);
  const auto digits = [&](int n) {
    std::string s;
    for (int k = 0; k < n; ++k) s.push_back(static_cast<char>('0' + rng() % 10));
    return s;
  };
  // A decimal with up to `whole` integer digits and up to `places` decimals, and its canonical text.
  const auto decimal = [&](int whole, int places, bool sign, std::string& canonical) {
    const bool negative = sign && rng() % 2 == 0;
    std::string integer = digits(static_cast<int>(rng() % (whole + 1)));
    const std::string fraction = digits(static_cast<int>(rng() % (places + 1)));
    const std::string value = (negative ? "-" : "") + integer + (fraction.empty() ? "" : "." + fraction);
    integer.erase(0, std::min(integer.find_first_not_of('0'), integer.size()));
    std::string frac = fraction + std::string(static_cast<size_t>(places) - fraction.size(), '0');
    const bool zero = integer.empty() && frac.find_first_not_of('0') == std::string::npos;
    canonical =
        (negative && !zero ? "-" : "") + (integer.empty() ? "0" : integer) + (places > 0 ? "." + frac : "");
    return value.empty() || value == "-" ? canonical : value;
  };
  const char* const kText[] = {"A", "b", " ", "\xED\x95\x9C", "9", "~"};
  std::vector<std::vector<std::string>> expected;
  BlockValues values{"R", {}};
  for (int i = 0; i < 50; ++i) {
    std::vector<std::string> row(8);
    RecordValues record;
    std::string text;
    for (size_t k = rng() % 4; k > 0; --k) text += kText[rng() % 6];
    while (!text.empty() && text.back() == ' ') text.pop_back();
    row[0] = text;
    record.fields.emplace_back("t", text);
    record.fields.emplace_back("n", decimal(5, 3, true, row[1]));
    record.fields.emplace_back("w", decimal(5, 0, true, row[2]));
    row[3] = std::to_string(static_cast<int16_t>(rng()));
    row[4] = std::to_string(static_cast<int64_t>(rng()));
    row[5] = std::to_string(static_cast<int64_t>(rng()));
    record.fields.emplace_back("i", row[3]);
    record.fields.emplace_back("l", row[4]);
    record.fields.emplace_back("s", row[5]);
    record.fields.emplace_back("f", decimal(5, 2, true, row[6]));   // at most 7 digits: exact in a float
    record.fields.emplace_back("d", decimal(11, 4, true, row[7]));  // at most 15 digits: exact in a double
    expected.push_back(row);
    values.records.push_back(std::move(record));
  }
  const auto built = proc.buildReply({values});
  ASSERT_TRUE(built.ok) << built.message;
  ASSERT_TRUE(proc.receiveReply(built.bytes.data(), static_cast<int64_t>(built.bytes.size())).ok);
  const KXBlockDataProc& block = *proc.findBlockProc("R");
  ASSERT_EQ(block.getValidCount(), 50);
  BlockValues again{"R", {}};
  for (int32_t i = 0; i < 50; ++i) {
    again.records.emplace_back();
    for (int32_t j = 0; j < 8; ++j) {
      const FieldInfo& f = *block.getBlockInfo()->getFieldInfoFromIndex(j);
      std::string text;
      const RenderResult r =
          appendValue(text, f, fieldBytes(block, f, i), kTextEncodingCP949, BadByteStyle::Escaped);
      EXPECT_EQ(r.issue, ValueIssue::None) << i << " " << f.szFieldName;
      EXPECT_EQ(text, expected[static_cast<size_t>(i)][static_cast<size_t>(j)]) << i << " " << f.szFieldName;
      again.records.back().fields.emplace_back(f.szFieldName, text);
    }
  }
  const auto rebuilt = proc.buildReply({again});
  ASSERT_TRUE(rebuilt.ok) << rebuilt.message;
  EXPECT_EQ(rebuilt.bytes, built.bytes);
}

}  // namespace
}  // namespace blockproc::value
