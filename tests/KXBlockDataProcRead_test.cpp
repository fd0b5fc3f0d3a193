// Reading fields as display strings: one occurrence, the extended variant and all occurrences.

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "TestBlocks.h"
#include "blockproc/codec/Utf8.h"
#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {
namespace {

using testing::ParentWithMode;

const std::string kHangulCp949 = "\xC7\xD1\xB1\xDB";  // the word 한글 in code page 949
const std::string kHangulUtf8 = "한글";
const std::string kIdeographicSpaceCp949 = "\xA1\xA1";

std::string bytesOf(std::initializer_list<uint8_t> bytes) {
  return std::string(bytes.begin(), bytes.end());
}

// A block of one field that fills the record, holding the given records.
struct OneField {
  BlockInfo block{"Out"};
  const FieldInfo* field;
  KXBlockDataProc proc{&block};

  OneField(int32_t type, int32_t length, int32_t places, const std::string& records)
      : field(&block.addField("f", type, length, places)) {
    block.setRepeat(static_cast<int32_t>(records.size() / static_cast<size_t>(length)));
    proc.setData(records.data(), 0, static_cast<int32_t>(records.size()));
  }
  std::string read(int32_t index = 0) const { return proc.getFieldDataFromInfo(field, index); }
};

std::string readOne(int32_t type, int32_t length, int32_t places, const std::string& bytes) {
  return OneField(type, length, places, bytes).read();
}

TEST(KXBlockDataProcRead, DecimalInsertion) {
  struct Case {
    std::string bytes;
    int32_t places;
    std::string expected;
  } cases[] = {
      {"  123", 2, "1.23"},
      {"+5   ", 2, "+0.05"},
      {"-    ", 2, "-0.00"},
      {"12.5  ", 2, "12.5"},
      {"123", 3, "0.123"},
      {"   12", 3, "0.012"},
      {"     ", 2, "0.00"},
      {"     ", 0, ""},
      {"-012", 1, "-01.2"},
      {"0012345", 2, "00123.45"},
      {"-1234", 2, "-12.34"},
      {"12", 2, "0.12"},
      {std::string{'1', '2', '\0', '4', '5'}, 2, " 12.45"},  // a NUL ends the part, padded on its left
      {std::string("\xB0") + "12", 1, "\u00B0" + std::string("1.2")},  // one byte one character
      {"123", 1101, ""},                                               // more places than a display can hold
  };
  for (const auto& c : cases) {
    for (int32_t type : {kFieldText, kFieldNumText})
      EXPECT_EQ(readOne(type, static_cast<int32_t>(c.bytes.size()), c.places, c.bytes), c.expected)
          << "'" << c.bytes << "' places " << c.places << " type " << type;
  }
}

TEST(KXBlockDataProcRead, DecimalInsertionOfLongFields) {
  const std::string digits = "1" + std::string(299, '0');
  EXPECT_EQ(readOne(kFieldNumText, 300, 2, digits), "1" + std::string(297, '0') + ".00");
  EXPECT_EQ(readOne(kFieldNumText, 300, 2, std::string(300, ' ')), "0.00");
  EXPECT_EQ(readOne(kFieldNumText, 300, 300, digits), "0." + digits);
  const std::string sevens(256, '7');
  EXPECT_EQ(readOne(kFieldNumText, 256, 255, sevens), "7." + std::string(255, '7'));
}

TEST(KXBlockDataProcRead, TextTrimAndDecoding) {
  struct Case {
    std::string bytes;
    std::string expected;
  } cases[] = {
      {"ABC   ", "ABC"},
      {std::string("AB\0\0 \0", 6), "AB"},
      {"   ABC", "   ABC"},  // right-aligned text keeps its leading spaces
      {"ABC" + kIdeographicSpaceCp949, "ABC"},
      {"  A\tB" + kIdeographicSpaceCp949 + "  ", "A\tB"},
      {kIdeographicSpaceCp949 + " ABC " + kIdeographicSpaceCp949, "ABC"},
      {kHangulCp949 + "  ", kHangulUtf8},
      {"ABC\xB0", "ABC"},    // a character cut at the field's end is dropped
      {"ABC\xB0  ", ""},     // after a trim there is no retry
      {"\x80\x80\xB0", ""},  // the retry fails too
      {"\xB0", ""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(readOne(kFieldText, static_cast<int32_t>(c.bytes.size()), 0, c.bytes), c.expected) << c.bytes;
}

TEST(KXBlockDataProcRead, TextWithAnotherEncoding) {
  OneField latin(kFieldText, 3, 0, "A\xE9 ");
  EXPECT_EQ(latin.read(), "") << "a lone lead byte in code page 949, and the field was trimmed";
  latin.proc.setEncodingType(kTextEncodingISOLatin1);
  EXPECT_EQ(latin.read(), "A\xC3\xA9");
}

TEST(KXBlockDataProcRead, BinaryTypes) {
  struct Case {
    int32_t type;
    int32_t places;
    std::string bytes;
    std::string expected;
  } cases[] = {
      {kFieldInt16, 0, bytesOf({0x7B, 0x00}), "123"},
      {kFieldInt16, 3, bytesOf({0xFF, 0xFF}), "-1"},
      {kFieldInt16, 0, bytesOf({0x00, 0x80}), "-32768"},
      {kFieldInt64, 2, bytesOf({0x7B, 0, 0, 0, 0, 0, 0, 0}), "123"},
      {kFieldInt64, 0, bytesOf({0, 0, 0, 0, 0, 0, 0, 0x80}), "-9223372036854775808"},
      {kFieldFloat, 2, bytesOf({0x00, 0x00, 0xFA, 0x42}), "1.25"},  // 125.0
      {kFieldFloat, 0, bytesOf({0x00, 0x00, 0xFA, 0x42}), "125"},
      {kFieldFloat, 1, bytesOf({0xCD, 0xCC, 0x8C, 0x3F}), "0.1"},  // 1.1f / 10 narrowed to float
      {kFieldFloat, 12, bytesOf({0xCD, 0xCC, 0x8C, 0x3F}), "0.000000000001"},
      {kFieldFloat, -1, bytesOf({0x00, 0x00, 0xFA, 0x42}), "1250.000000"},
      {kFieldFloat, 1101, bytesOf({0x00, 0x00, 0xFA, 0x42}), ""},
      {kFieldDouble, 2, bytesOf({0x6E, 0x86, 0x1B, 0xF0, 0xF9, 0x21, 0x09, 0x40}), "3.14"},
      {kFieldDouble, 2, bytesOf({0, 0, 0, 0, 0, 0x40, 0x5F, 0x40}), "125.00"},  // no division
      {kFieldDouble, 0, bytesOf({0, 0, 0, 0, 0, 0, 0xF0, 0x7F}), "inf"},
      {kFieldDouble, 1101, bytesOf({0, 0, 0, 0, 0, 0x40, 0x5F, 0x40}), ""},
      {kFieldSInt64, 0, bytesOf({0xFB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), "-5"},
      {7, 0, "12345678", ""},
      {-1, 0, "12345678", ""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(readOne(c.type, static_cast<int32_t>(c.bytes.size()), c.places, c.bytes), c.expected)
        << "type " << c.type << " places " << c.places;
}

TEST(KXBlockDataProcRead, BinaryFieldsOfAnotherLengthAreZeroExtended) {
  // A field shorter than its value gives the low-order bytes; a longer one is read for its width only.
  EXPECT_EQ(readOne(kFieldInt16, 1, 0, "\xFF"), "255");
  EXPECT_EQ(readOne(kFieldInt64, 4, 0, bytesOf({0xFF, 0xFF, 0xFF, 0xFF})), "4294967295");
  EXPECT_EQ(readOne(kFieldInt16, 4, 0, bytesOf({0x7B, 0x00, 0xFF, 0xFF})), "123");

  // Type 5 takes 8 bytes from the field's start: past a short field into the record, never past the buffer.
  BlockInfo block("B");
  const FieldInfo& head = block.addField("head", kFieldDouble, 4, 1);
  block.addField("tail", kFieldText, 4);
  KXBlockDataProc proc(&block);
  const std::string record = bytesOf({0, 0, 0, 0, 0, 0x40, 0x5F, 0x40});
  proc.setData(record.data(), 0, 8);
  EXPECT_EQ(proc.getFieldDataFromInfo(&head, 0), "125.0");
  FieldInfo last("last", kFieldDouble, 2, 1);
  last.nDataPos = 6;  // only two bytes left in the buffer: 0x5F40 as the low-order bytes
  EXPECT_EQ(proc.getFieldDataFromInfo(&last, 0), "0.0");
}

TEST(KXBlockDataProcRead, EntryChecks) {
  OneField one(kFieldText, 4, 0, "AAAABBBBCCCC");
  EXPECT_EQ(one.read(2), "CCCC");
  one.proc.setValidCount(2);
  EXPECT_EQ(one.read(2), "") << "the buffer holds it, but it is not valid";
  EXPECT_EQ(one.read(-1), "");
  EXPECT_EQ(one.proc.getFieldDataFromInfo(nullptr, 0), "");
  EXPECT_EQ(one.proc.getFieldDataFromName("f", 1), "BBBB");
  EXPECT_EQ(one.proc.getFieldDataFromName("F", 1), "");
  EXPECT_EQ(one.proc.getFieldDataFromIndex(0, 1), "BBBB");
  EXPECT_EQ(one.proc.getFieldDataFromIndex(1, 1), "");
  EXPECT_EQ(one.proc.getFieldDataFromIndex(-1, 1), "");

  FieldInfo empty("e", kFieldText, 0);
  EXPECT_EQ(one.proc.getFieldDataFromInfo(&empty, 0), "");

  KXBlockDataProc noBuffer(&one.block);
  noBuffer.setValidCount(1);
  EXPECT_EQ(noBuffer.getFieldDataFromInfo(one.field, 0), "");
  KXBlockDataProc noBlock(nullptr);
  EXPECT_EQ(noBlock.getFieldDataFromName("f", 0), "");
  EXPECT_EQ(noBlock.getFieldDataFromIndex(0, 0), "");
}

TEST(KXBlockDataProcRead, NothingOutsideTheBufferIsRead) {
  OneField one(kFieldNumText, 4, 2, "12341234");
  one.proc.setValidCount(1000);  // far beyond the two records held
  EXPECT_EQ(one.read(1), "12.34");
  EXPECT_EQ(one.read(2), "");
  EXPECT_EQ(one.read(999), "");
  EXPECT_EQ(one.proc.getFieldDataAllIdxFromInfo(one.field), "");

  for (int32_t type = kFieldText; type <= kFieldSInt64; ++type) {
    FieldInfo f("x", type, 8, 2);
    for (int32_t pos : {-1, 1, 7, 8, 1 << 30}) {
      f.nDataPos = pos;
      EXPECT_EQ(one.proc.getFieldDataFromInfo(&f, 1), "") << "type " << type << " at " << pos;
    }
    f.nDataPos = 0;
    f.nLength = 1 << 30;
    EXPECT_EQ(one.proc.getFieldDataFromInfo(&f, 0), "") << "type " << type;
    EXPECT_EQ(one.proc.getFieldDataAllIdxFromInfo(&f), "") << "type " << type;
  }

  // A record size shorter than the fields.
  BlockInfo shortRecord("S");
  shortRecord.m_nRecordIOMemSize = 2;
  const FieldInfo& wide = shortRecord.addField("w", kFieldText, 4);
  KXBlockDataProc proc(&shortRecord);
  proc.setData("ABCDEF", 0, 6);
  EXPECT_EQ(proc.getValidCount(), 3);
  EXPECT_EQ(proc.getFieldDataFromInfo(&wide, 1), "CDEF");
  EXPECT_EQ(proc.getFieldDataFromInfo(&wide, 2), "");
  EXPECT_EQ(proc.getFieldDataAllIdxFromInfo(&wide), "");
}

TEST(KXBlockDataProcRead, EveryResultIsUtf8) {
  std::mt19937 random(7);
  std::string bytes(16, ' ');
  for (int round = 0; round < 3000; ++round) {
    for (char& b : bytes) b = static_cast<char>(random());
    const auto type = static_cast<int32_t>(random() % 8);
    const auto places = static_cast<int32_t>(random() % 5);
    const auto length = static_cast<int32_t>(1 + random() % 16);
    OneField one(type, length, places, bytes.substr(0, static_cast<size_t>(length)));
    const std::string shown = one.read();
    EXPECT_TRUE(utf8::isValid(shown)) << "type " << type << " places " << places;
    EXPECT_TRUE(utf8::isValid(one.proc.getFieldDataAllIdxFromInfo(one.field)));
  }
}

TEST(KXBlockDataProcRead, WebSocketJsonModeDecodesTextAsUtf8) {
  OneField one(kFieldText, 8, 0, kHangulUtf8 + "  ");
  const std::string asCp949 = readOne(kFieldText, 8, 0, kHangulUtf8 + "  ");
  ASSERT_NE(asCp949, kHangulUtf8);

  for (const char* mode : {".WSKJson", ".WSKJsonFeed"}) {
    ParentWithMode parent(mode);
    one.proc.setDataProc(&parent.parent);
    EXPECT_EQ(one.read(), kHangulUtf8) << mode;
    EXPECT_EQ(one.proc.getFieldDataFromName("f", 0), kHangulUtf8) << mode;
    EXPECT_EQ(one.proc.getFieldDataFromInfoEX(one.field, 0), asCp949) << mode;
    EXPECT_EQ(one.proc.getFieldDataFromNameEX("f", 0), asCp949) << mode;
    EXPECT_EQ(one.proc.getFieldDataAllIdxFromInfo(one.field), "") << "never in the mode: not code page 949";
    one.proc.setDataProc(nullptr);
  }
  for (const char* mode : {"", ".wskjson", ".WSKJson ", ".WSKJsonFeedX", "WSKJson"}) {
    ParentWithMode parent(mode);
    one.proc.setDataProc(&parent.parent);
    EXPECT_EQ(one.read(), asCp949) << "'" << mode << "'";
    EXPECT_EQ(one.proc.getFieldDataFromInfoEX(one.field, 0), asCp949);
  }
  TranInfo* none = nullptr;
  BaseDataProc withoutTransaction(none);
  one.proc.setDataProc(&withoutTransaction);
  EXPECT_EQ(one.read(), asCp949);
}

TEST(KXBlockDataProcRead, WebSocketJsonModeKeepsNumbersAndRetriesInTheOwnEncoding) {
  ParentWithMode parent(".WSKJson");
  // Numeric text gets its point from the raw bytes in either mode; binary types read as outside the mode.
  OneField number(kFieldNumText, 5, 2, "  123");
  number.proc.setDataProc(&parent.parent);
  EXPECT_EQ(number.read(), "1.23");
  OneField binary(kFieldInt16, 2, 0, bytesOf({0xFF, 0xFF}));
  binary.proc.setDataProc(&parent.parent);
  EXPECT_EQ(binary.read(), "-1");
  OneField unknown(9, 2, 0, "12");
  unknown.proc.setDataProc(&parent.parent);
  EXPECT_EQ(unknown.read(), "");

  // Code page 949 bytes are not UTF-8: the untrimmed field is decoded again, less its last byte, in the
  // processor's encoding.
  OneField cp949(kFieldText, 5, 0, kHangulCp949 + "A");
  cp949.proc.setDataProc(&parent.parent);
  EXPECT_EQ(cp949.read(), kHangulUtf8);
  OneField trimmed(kFieldText, 6, 0, kHangulCp949 + "  ");
  trimmed.proc.setDataProc(&parent.parent);
  EXPECT_EQ(trimmed.read(), "");
  EXPECT_EQ(trimmed.proc.getFieldDataFromInfoEX(trimmed.field, 0), kHangulUtf8);
}

TEST(KXBlockDataProcRead, ExtendedVariantMatchesOutsideTheMode) {
  BlockInfo block("B");
  block.setRepeat(2);
  block.addField("t", kFieldText, 6);
  block.addField("n", kFieldNumText, 5, 2);
  block.addField("i", kFieldInt16, 2);
  block.addField("d", kFieldDouble, 8, 3);
  KXBlockDataProc proc(&block);
  const std::string records = kHangulCp949 + "AB" + "-0012" + bytesOf({0x39, 0x30}) +
                              bytesOf({0x6E, 0x86, 0x1B, 0xF0, 0xF9, 0x21, 0x09, 0x40}) + "ABC" +
                              kIdeographicSpaceCp949 + " " + "12.50" + bytesOf({0, 0}) + std::string(8, '\0');
  proc.setData(records.data(), 0, static_cast<int32_t>(records.size()));
  ASSERT_EQ(proc.getValidCount(), 2);
  ParentWithMode parent("REAL");
  proc.setDataProc(&parent.parent);
  for (int32_t field = 0; field < 4; ++field)
    for (int32_t index = 0; index < 2; ++index)
      EXPECT_EQ(proc.getFieldDataFromIndex(field, index),
                proc.getFieldDataFromInfoEX(block.getFieldInfoFromIndex(field), index))
          << field << "/" << index;
  EXPECT_EQ(proc.getFieldDataFromName("t", 0), kHangulUtf8 + "AB");
  EXPECT_EQ(proc.getFieldDataFromName("t", 1), "ABC");
  EXPECT_EQ(proc.getFieldDataFromName("n", 0), "-00.12");
  EXPECT_EQ(proc.getFieldDataFromName("i", 0), "12345");
  EXPECT_EQ(proc.getFieldDataFromName("d", 0), "3.142");
  EXPECT_EQ(proc.getFieldDataFromNameEX("missing", 0), "");
  EXPECT_EQ(KXBlockDataProc(nullptr).getFieldDataFromInfoEX(block.getFieldInfoFromIndex(0), 0), "");
}

std::string readAll(int32_t type, int32_t length, int32_t places, const std::string& records) {
  return OneField(type, length, places, records).proc.getDataValueAllIdxFromName("f");
}

TEST(KXBlockDataProcReadAll, TextJoinsEveryValidRecordUntrimmed) {
  EXPECT_EQ(readAll(kFieldText, 5, 0, "AB   CD   EF   "), "AB   CD   EF   ");
  EXPECT_EQ(readAll(kFieldNumText, 5, 2, "00.1201.5099.99"), "00.1201.5099.99");
  EXPECT_EQ(readAll(kFieldNumText, 3, 0, "001002003"), "001002003");
  EXPECT_EQ(readAll(kFieldText, 3, 0, " A" + kIdeographicSpaceCp949 + "B "), " A\u3000B ");
  EXPECT_EQ(OneField(kFieldText, 3, 0, "AAABBB").proc.getDataValueAllIdxFromName("g"), "");

  // A cut character at the end of the last record is dropped; one inside the run spoils it.
  EXPECT_EQ(readAll(kFieldText, 3, 0, std::string("AB CD") + "\xB0"), "AB CD");
  EXPECT_EQ(readAll(kFieldText, 3, 0, std::string("AB\xB0") + " CD"), "");

  OneField some(kFieldText, 2, 0, "AABBCC");
  some.proc.setValidCount(2);
  EXPECT_EQ(some.proc.getFieldDataAllIdxFromInfo(some.field), "AABB");
}

TEST(KXBlockDataProcReadAll, BinaryTypesGiveTheFirstValue) {
  struct Case {
    int32_t type;
    int32_t places;
    std::string first;
    std::string expected;
  } cases[] = {
      {kFieldInt64, 0, bytesOf({5, 0, 0, 0, 0, 0, 0, 0}), "000005"},
      {kFieldInt64, 0, bytesOf({0xF4, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), "-00012"},
      {kFieldInt64, 0, bytesOf({0x87, 0xD6, 0x12, 0, 0, 0, 0, 0}), "1234567"},
      {kFieldSInt64, 0, bytesOf({5, 0, 0, 0, 0, 0, 0, 0}), "5"},
      {kFieldInt16, 0, bytesOf({0xFF, 0xFF}), "-1"},
      {kFieldFloat, 2, bytesOf({0x00, 0x00, 0xFA, 0x42}), "1.25"},
      {kFieldDouble, 2, bytesOf({0, 0, 0, 0, 0, 0x40, 0x5F, 0x40}), "125.00"},
  };
  for (const auto& c : cases) {
    const auto length = static_cast<int32_t>(c.first.size());
    const std::string later(c.first.size(), '\x01');
    OneField three(c.type, length, c.places, c.first + later + later);
    EXPECT_EQ(three.proc.getFieldDataAllIdxFromInfo(three.field), c.expected) << "type " << c.type;
    three.proc.setValidCount(0);
    EXPECT_EQ(three.proc.getFieldDataAllIdxFromInfo(three.field), "") << "type " << c.type;
  }
  // The value is taken from the start of the joined bytes, across records when the field is short.
  OneField shortInt(kFieldInt64, 4, 0, bytesOf({5, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(shortInt.proc.getFieldDataAllIdxFromInfo(shortInt.field), "4294967301");
  OneField single(kFieldInt64, 4, 0, bytesOf({5, 0, 0, 0}));
  EXPECT_EQ(single.proc.getFieldDataAllIdxFromInfo(single.field), "000005");
  EXPECT_EQ(OneField(7, 2, 0, "AB").proc.getFieldDataAllIdxFromInfo(nullptr), "");
  EXPECT_EQ(OneField(7, 2, 0, "AB").proc.getDataValueAllIdxFromName("f"), "");
}

}  // namespace
}  // namespace blockproc
