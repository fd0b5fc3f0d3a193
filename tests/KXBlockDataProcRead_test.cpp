// Reading fields as display strings: one occurrence, the extended variant and all occurrences.

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "TestBlocks.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/Utf8.h"

namespace blockproc {
namespace {

using testing::ParentWithMode;

const std::string kHangulCp949 = "\xC7\xD1\xB1\xDB";  // 한글
const std::string kHangulUtf8 = "한글";
const std::string kIdeoSpace = "\xA1\xA1";  // U+3000 in code page 949

std::string bytesOf(std::initializer_list<uint8_t> bytes) {
  return std::string(bytes.begin(), bytes.end());
}

// A block whose record is one field, holding the given records.
struct OneField {
  BlockInfo block{"Out"};
  const FieldInfo* field;
  KXBlockDataProc proc{&block};
  OneField(int32_t type, int32_t length, int32_t places, const std::string& records)
      : field(&block.addField("f", type, length, places)) {
    proc.setData(records.data(), 0, static_cast<int32_t>(records.size()));
  }
  std::string read(int32_t index = 0) const { return proc.getFieldDataFromInfo(field, index); }
  std::string readAll() const { return proc.getDataValueAllIdxFromName("f"); }
};

std::string readOne(int32_t type, int32_t places, const std::string& bytes) {
  return OneField(type, static_cast<int32_t>(bytes.size()), places, bytes).read();
}

TEST(KXBlockDataProcRead, DecimalInsertion) {
  const std::string digits300 = "1" + std::string(299, '0');
  struct Case {
    std::string bytes;
    int32_t places;
    std::string expected;
  } cases[] = {
      {"  123", 2, "1.23"},
      {"+5   ", 2, "+0.05"},
      {"-    ", 2, "-0.00"},
      {"12.5  ", 2, "12.5"},
      {"   12", 3, "0.012"},
      {"     ", 2, "0.00"},
      {"     ", 0, ""},
      {"-012", 1, "-01.2"},
      {"0012345", 2, "00123.45"},
      {"123", 1101, ""},
      {std::string{'1', '2', '\0', '4', '5'}, 2, " 12.45"},  // a NUL ends the part, padded on its left
      {std::string("\xB0") + "12", 1, "\u00B0" + std::string("1.2")},  // one byte, one character
      {digits300, 2, std::string(digits300, 0, 298) + ".00"},
      {digits300, 300, "0." + digits300},
  };
  for (const auto& c : cases)
    for (int32_t type : {kFieldText, kFieldNumText})
      EXPECT_EQ(readOne(type, c.places, c.bytes), c.expected) << "'" << c.bytes << "' " << c.places;
}

TEST(KXBlockDataProcRead, TextTrimAndDecoding) {
  struct Case {
    std::string bytes;
    std::string expected;
  } cases[] = {
      {std::string("AB \0 \0", 6), "AB"},
      {"   ABC", "   ABC"},  // right-aligned text keeps its leading spaces
      {"ABC" + kIdeoSpace, "ABC"},
      {"  A\tB" + kIdeoSpace + "  ", "A\tB"},
      {kHangulCp949 + "  ", kHangulUtf8},
      {"ABC\xB0", "ABC"},    // a character cut at the field's end is dropped
      {"ABC\xB0  ", ""},     // after a trim there is no retry
      {"\x80\x80\xB0", ""},  // the retry fails too
  };
  for (const auto& c : cases) EXPECT_EQ(readOne(kFieldText, 0, c.bytes), c.expected) << c.bytes;
}

TEST(KXBlockDataProcRead, BinaryTypes) {
  const std::string f125 = bytesOf({0x00, 0x00, 0xFA, 0x42});
  const std::string d125 = bytesOf({0, 0, 0, 0, 0, 0x40, 0x5F, 0x40});
  struct Case {
    int32_t type;
    int32_t places;
    std::string bytes;
    std::string expected;
  } cases[] = {
      {kFieldInt16, 0, bytesOf({0x7B, 0x00}), "123"},
      {kFieldInt16, 3, bytesOf({0xFF, 0xFF}), "-1"},
      {kFieldInt64, 2, bytesOf({0x7B, 0, 0, 0, 0, 0, 0, 0}), "123"},
      {kFieldInt64, 0, bytesOf({0, 0, 0, 0, 0, 0, 0, 0x80}), "-9223372036854775808"},
      {kFieldFloat, 2, f125, "1.25"},
      {kFieldFloat, 1, bytesOf({0xCD, 0xCC, 0x8C, 0x3F}), "0.1"},  // 1.1f / 10, narrowed to a float
      {kFieldFloat, -1, f125, "1250.000000"},
      {kFieldFloat, 1101, f125, ""},
      {kFieldDouble, 2, bytesOf({0x6E, 0x86, 0x1B, 0xF0, 0xF9, 0x21, 0x09, 0x40}), "3.14"},
      {kFieldDouble, 2, d125, "125.00"},  // no division
      {kFieldDouble, 1101, d125, ""},
      {kFieldSInt64, 0, bytesOf({0xFB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), "-5"},
      {7, 0, "12345678", ""},
      // A field of another length than its value: the low-order bytes, zero-extended, or the width only.
      {kFieldInt16, 0, "\xFF", "255"},
      {kFieldInt64, 0, bytesOf({0xFF, 0xFF, 0xFF, 0xFF}), "4294967295"},
      {kFieldInt16, 0, bytesOf({0x7B, 0x00, 0xFF, 0xFF}), "123"},
      {kFieldDouble, 0, bytesOf({0, 0, 0, 0, 0, 0x40}), "0"},  // the buffer ends before 8 bytes
  };
  for (const auto& c : cases)
    EXPECT_EQ(readOne(c.type, c.places, c.bytes), c.expected) << "type " << c.type << " places " << c.places;

  // Type 5 takes 8 bytes from the field's start, past a short field into the record.
  BlockInfo block("B");
  const FieldInfo& head = block.addField("head", kFieldDouble, 4, 1);
  block.addField("tail", kFieldText, 4);
  KXBlockDataProc proc(&block);
  proc.setData(d125.data(), 0, 8);
  EXPECT_EQ(proc.getFieldDataFromInfo(&head, 0), "125.0");
}

// The appending read gives the bytes of getFieldDataFromInfo after what the caller holds, and on failure
// leaves the caller's string as it was.
TEST(KXBlockDataProcRead, AppendingReadAddsExactlyTheRead) {
  struct Case {
    int32_t type, places;
    std::string bytes;
    int32_t index;
    bool read;
  } cases[] = {
      {kFieldText, 0, "AB  ", 0, true},
      {kFieldText, 0, kHangulCp949 + kIdeoSpace + "  ", 0, true},  // trimmed: the caller's bytes stay
      {kFieldText, 0, "    ", 0, true},                            // blank: true, nothing appended
      {kFieldText, 0, "AB\xB0  ", 0, false},                       // undecodable
      {kFieldNumText, 2, "-0012345", 0, true},
      {kFieldInt16, 0, bytesOf({0xFF, 0x7F}), 0, true},
      {kFieldDouble, 1101, bytesOf({0, 0, 0, 0, 0, 0x40, 0x5F, 0x40}), 0, false},
      {7, 0, "12345678", 0, false},
      {kFieldText, 0, "ABCD", 1, false},  // outside the valid records
      {kFieldText, 0, "ABCD", -1, false},
  };
  const std::string prefix = "x \u3000";  // ends as padded text would: nothing of it may be trimmed
  for (const auto& c : cases) {
    const OneField one(c.type, static_cast<int32_t>(c.bytes.size()), c.places, c.bytes);
    std::string out = prefix;
    EXPECT_EQ(one.proc.appendFieldDataFromInfo(one.field, c.index, out), c.read) << c.bytes;
    EXPECT_EQ(out, prefix + one.read(c.index)) << c.bytes;
  }
  const OneField one(kFieldText, 4, 0, "ABCD");
  std::string out = prefix;
  EXPECT_FALSE(one.proc.appendFieldDataFromInfo(nullptr, 0, out));
  EXPECT_EQ(out, prefix);
}

TEST(KXBlockDataProcRead, EntryChecksAndBounds) {
  OneField one(kFieldText, 4, 0, "AAAABBBBCCCC");
  one.proc.setValidCount(2);
  EXPECT_EQ(one.read(1), "BBBB");
  EXPECT_EQ(one.read(2), "") << "held in the buffer, but not valid";
  EXPECT_EQ(one.read(-1), "");
  EXPECT_EQ(one.proc.getFieldDataFromInfo(nullptr, 0), "");
  EXPECT_EQ(one.proc.getFieldDataFromName("f", 1), one.proc.getFieldDataFromIndex(0, 1));
  EXPECT_EQ(one.proc.getFieldDataFromName("F", 1), "");
  EXPECT_EQ(one.proc.getFieldDataFromIndex(1, 1), "");
  EXPECT_EQ(KXBlockDataProc(nullptr).getFieldDataFromName("f", 0), "");

  // Records and fields outside the buffer read nothing, whatever the counters and the definition say.
  one.proc.setValidCount(1000);
  EXPECT_EQ(one.read(3), "");
  EXPECT_EQ(one.proc.getFieldDataAllIdxFromInfo(one.field), "");
  for (int32_t type = kFieldText; type <= kFieldSInt64; ++type) {
    FieldInfo f("x", type, 8, 2);
    for (int32_t pos : {-1, 5, 1 << 30}) {
      f.nDataPos = pos;
      EXPECT_EQ(one.proc.getFieldDataFromInfo(&f, 0), "") << "type " << type << " at " << pos;
    }
    f.nDataPos = 0;
    for (int32_t length : {0, -4, 1 << 30}) {
      f.nLength = length;
      EXPECT_EQ(one.proc.getFieldDataFromInfo(&f, 0), "") << "type " << type << " length " << length;
      EXPECT_EQ(one.proc.getFieldDataAllIdxFromInfo(&f), "") << "type " << type << " length " << length;
    }
  }
  // A record size shorter than the field: the last record's field passes the buffer.
  BlockInfo shortRecord("S");
  shortRecord.m_nRecordIOMemSize = 2;
  const FieldInfo& wide = shortRecord.addField("w", kFieldText, 4);
  KXBlockDataProc proc(&shortRecord);
  proc.setData("ABCDEF", 0, 6);
  EXPECT_EQ(proc.getFieldDataFromInfo(&wide, 1), "CDEF");
  EXPECT_EQ(proc.getFieldDataFromInfo(&wide, 2), "");
  EXPECT_EQ(proc.getFieldDataAllIdxFromInfo(&wide), "");

  // Records of size 0 and a valid count near the 32-bit limit: the join is refused at once rather than
  // repeating the same bytes two billion times.
  BlockInfo noSize("Z");
  noSize.m_nRecordIOMemSize = 1;
  const FieldInfo& z = noSize.addField("z", kFieldText, 2);
  KXBlockDataProc zero(&noSize);
  zero.setData("AB", 0, 2);
  noSize.m_nRecordIOMemSize = 0;  // the definition changed under a laid-out buffer
  zero.setValidCount(INT32_MAX);
  EXPECT_EQ(zero.getFieldDataFromInfo(&z, 5), "AB");
  EXPECT_EQ(zero.getFieldDataAllIdxFromInfo(&z), "");

  // A record size the definition cannot give reads nothing, never record 0's bytes.
  testing::FailingSizeBlock failing("F");
  const FieldInfo& g = failing.addField("g", kFieldText, 4);
  KXBlockDataProc unsized(&failing);
  unsized.setData("AAAABBBBCCCC", 0, 12);
  failing.failSize = true;
  EXPECT_EQ(unsized.getFieldDataFromInfo(&g, 2), "");
  EXPECT_EQ(unsized.getFieldDataFromInfoEX(&g, 2), "");
  EXPECT_EQ(unsized.getFieldDataAllIdxFromInfo(&g), "");

  // A subclass's record size is the one the reads step by, not the size its fields work out to.
  struct SixByteRecords : BlockInfo {
    using BlockInfo::BlockInfo;
    int32_t getRecordMemSize() const override { return 6; }
  } six("S");
  const FieldInfo& h = six.addField("h", kFieldText, 4);
  KXBlockDataProc stepped(&six);
  stepped.setData("AAAA--BBBB--", 0, 12);
  std::string row = "|";
  EXPECT_TRUE(stepped.appendFieldDataFromInfo(&h, 1, row));
  EXPECT_EQ(row, "|BBBB");
}

TEST(KXBlockDataProcRead, EveryResultIsUtf8) {
  std::mt19937 random(7);
  for (int round = 0; round < 3000; ++round) {
    std::string bytes(1 + random() % 16, ' ');
    for (char& b : bytes) b = static_cast<char>(random());
    const auto type = static_cast<int32_t>(random() % 8);
    OneField one(type, static_cast<int32_t>(bytes.size()), static_cast<int32_t>(random() % 5), bytes);
    EXPECT_TRUE(utf8::isValid(one.read())) << "type " << type;
    EXPECT_TRUE(utf8::isValid(one.readAll())) << "type " << type;
  }
}

TEST(KXBlockDataProcRead, WebSocketJsonModeDecodesTextAsUtf8) {
  OneField text(kFieldText, 8, 0, kHangulUtf8 + "  ");
  OneField cutCp949(kFieldText, 5, 0, kHangulCp949 + "A");
  OneField number(kFieldNumText, 5, 2, "  123");
  OneField binary(kFieldInt16, 2, 0, bytesOf({0xFF, 0xFF}));
  ASSERT_EQ(text.read(), "") << "not code page 949, and trimmed: no retry";
  for (const char* mode : {".WSKJson", ".WSKJsonFeed", "", ".wskjson", ".WSKJson ", "WSKJsonFeed"}) {
    const bool json = mode == std::string(".WSKJson") || mode == std::string(".WSKJsonFeed");
    ParentWithMode parent(mode);
    for (OneField* one : {&text, &cutCp949, &number, &binary}) one->proc.setDataProc(&parent.parent);
    EXPECT_EQ(text.read(), json ? kHangulUtf8 : "") << mode;
    EXPECT_EQ(text.proc.getFieldDataFromNameEX("f", 0), "") << "the EX variant never looks at the mode";
    EXPECT_EQ(text.readAll(), "") << "nor does the all-records read";
    // Not UTF-8: the untrimmed field is decoded again, less its last byte, in the processor's encoding.
    EXPECT_EQ(cutCp949.read(), json ? kHangulUtf8 : kHangulUtf8 + "A") << mode;
    EXPECT_EQ(number.read(), "1.23") << mode;
    EXPECT_EQ(binary.read(), "-1") << mode;
  }
  TranInfo* none = nullptr;
  BaseDataProc withoutTransaction(none);
  text.proc.setDataProc(&withoutTransaction);
  EXPECT_EQ(text.read(), "");
}

// ---- the record read ----------------------------------------------------------------------------------

// One record with a field of every shape the readers tell apart, by the bytes it holds.
struct MixedLayout {
  struct Field {
    const char* name;
    int32_t type, places;
    std::string bytes;
  };
  BlockInfo block{"Mixed"};
  std::vector<const FieldInfo*> fields;
  std::string record;

  MixedLayout() {
    std::string longNumber(20, '0');
    longNumber.back() = '7';
    const Field layout[] = {
        {"code", kFieldText, 0, "A005930     "},
        {"name", kFieldText, 0, kHangulCp949 + "SK" + std::string(34, ' ')},  // 40 bytes, read by blocks
        {"ideo", kFieldText, 0, "AB" + kIdeoSpace + "    "},                  // trimmed after decoding
        {"cut", kFieldText, 0, "ABC\xB0 "},                                   // undecodable: the read fails
        {"price", kFieldNumText, 2, "0000123450"},
        {"change", kFieldNumText, 2, "-0000500"},
        {"rate", kFieldNumText, 2, "+12.34"},  // its own point
        {"blank", kFieldNumText, 2, "     "},
        {"small", kFieldText, 3, "   12"},
        {"nul", kFieldNumText, 2, std::string{'1', '2', '\0', '4', '5'}},
        {"high", kFieldNumText, 1,
         "\xB0"
         "12"},
        {"wide", kFieldNumText, 2, longNumber},                        // a number longer than one block
        {"memo", kFieldText, 0, std::string(70, 'm') + "          "},  // longer than four blocks
        {"i16", kFieldInt16, 0, bytesOf({0x85, 0xFF})},
        {"i64", kFieldInt64, 0, bytesOf({0x87, 0xD6, 0x12, 0, 0, 0, 0, 0})},
        {"f", kFieldFloat, 2, bytesOf({0x00, 0x00, 0xFA, 0x42})},
        {"d", kFieldDouble, 2, bytesOf({0x6E, 0x86, 0x1B, 0xF0, 0xF9, 0x21, 0x09, 0x40})},
        {"s", kFieldSInt64, 0, bytesOf({0xFB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
        {"short", kFieldInt64, 0, bytesOf({0xFF, 0xFF})},  // fewer bytes than the value's width
        {"bad", 7, 0, "1234"},
        {"flag", kFieldText, 0, " "},
    };
    for (const Field& f : layout) {
      fields.push_back(&block.addField(f.name, f.type, static_cast<int32_t>(f.bytes.size()), f.places));
      record += f.bytes;
    }
  }
};

// The record read gives, after the caller's bytes, what the one-field reads give one after another, ends
// between them, and true exactly when every one-field read does; outside the valid records, nothing.
void expectOneFieldReads(const KXBlockDataProc& proc, std::span<const FieldInfo* const> fields,
                         int32_t index) {
  std::string expected = "caller's", out = expected;
  std::vector<size_t> expectedEnds(fields.size(), out.size()), ends(fields.size());
  bool every = index >= 0 && index < proc.getValidCount();
  if (every) {
    for (size_t k = 0; k < fields.size(); ++k) {
      every = proc.appendFieldDataFromInfo(fields[k], index, expected) && every;
      expectedEnds[k] = expected.size();
    }
  }
  EXPECT_EQ(proc.appendRecordDataFromInfo(index, fields, out, ends), every) << "record " << index;
  EXPECT_EQ(out, expected) << "record " << index;
  EXPECT_EQ(ends, expectedEnds) << "record " << index;
}

TEST(KXBlockDataProcRecordRead, GivesWhatTheOneFieldReadsGive) {
  MixedLayout mixed;
  const std::string records = mixed.record + mixed.record + mixed.record;
  KXBlockDataProc proc(&mixed.block);
  proc.setData(records.data(), 0, static_cast<int32_t>(records.size()));
  ASSERT_EQ(proc.getValidCount(), 3);
  std::string out;
  std::vector<size_t> ends(mixed.fields.size());
  EXPECT_FALSE(proc.appendRecordDataFromInfo(0, mixed.fields, out, ends)) << "'cut' and 'bad' fail";
  EXPECT_EQ(out.substr(0, ends[2]), "A005930" + kHangulUtf8 + "SKAB");
  EXPECT_EQ(ends[3], ends[2]) << "a failed field adds nothing";

  // Every encoding and data mode, and the buffer cut at every length: fields near its end, where the
  // block reads cannot be made, and records the cut leaves out.
  for (const uint32_t encoding : {kTextEncodingCP949, kTextEncodingUTF8, kTextEncodingEUCKR, 0u}) {
    for (const char* mode : {"", ".WSKJson"}) {
      ParentWithMode parent(mode);
      proc.setDataProc(&parent.parent);
      proc.setEncodingType(encoding);
      for (size_t cut = 0; cut <= records.size(); ++cut) {
        proc.setData(records.data(), 0, static_cast<int32_t>(cut));
        for (int32_t index = -1; index <= 3; ++index) expectOneFieldReads(proc, mixed.fields, index);
      }
      proc.setDataProc(nullptr);
    }
  }
}

TEST(KXBlockDataProcRecordRead, RefusesWithoutTouchingTheCallersString) {
  MixedLayout mixed;
  KXBlockDataProc proc(&mixed.block);
  std::string out = "caller's";
  std::vector<size_t> ends(mixed.fields.size(), 99);
  EXPECT_FALSE(proc.appendRecordDataFromInfo(0, mixed.fields, out, ends)) << "no buffer";
  EXPECT_EQ(ends, std::vector<size_t>(ends.size(), out.size()));
  proc.setData(mixed.record.data(), 0, static_cast<int32_t>(mixed.record.size()));
  ends.pop_back();
  EXPECT_FALSE(proc.appendRecordDataFromInfo(0, mixed.fields, out, ends)) << "fewer ends than fields";
  EXPECT_EQ(out, "caller's");
  EXPECT_EQ(ends, std::vector<size_t>(ends.size(), out.size()));

  // A null field fails alone; an empty list reads a valid record and nothing else.
  const FieldInfo* withNull[] = {mixed.fields[0], nullptr, mixed.fields[0]};
  std::array<size_t, 3> three{};
  EXPECT_FALSE(proc.appendRecordDataFromInfo(0, withNull, out, three));
  EXPECT_EQ(out, "caller'sA005930A005930");
  EXPECT_EQ(three, (std::array<size_t, 3>{15, 15, 22}));
  EXPECT_TRUE(proc.appendRecordDataFromInfo(0, {}, out, {}));
  EXPECT_FALSE(proc.appendRecordDataFromInfo(1, {}, out, {}));
}

TEST(KXBlockDataProcReadAll, TextJoinsEveryValidRecordUntrimmed) {
  EXPECT_EQ(OneField(kFieldText, 5, 0, "AB   CD   EF   ").readAll(), "AB   CD   EF   ");
  EXPECT_EQ(OneField(kFieldNumText, 5, 2, "00.1201.5099.99").readAll(), "00.1201.5099.99");
  EXPECT_EQ(OneField(kFieldText, 3, 0, " A" + kIdeoSpace + "B ").readAll(), " A\u3000B ");
  // A cut character at the end of the last record is dropped; one inside the run spoils it.
  EXPECT_EQ(OneField(kFieldText, 3, 0, std::string("AB CD") + "\xB0").readAll(), "AB CD");
  EXPECT_EQ(OneField(kFieldText, 3, 0, std::string("AB\xB0") + " CD").readAll(), "");
  OneField some(kFieldText, 2, 0, "AABBCC");
  some.proc.setValidCount(2);
  EXPECT_EQ(some.readAll(), "AABB");
}

TEST(KXBlockDataProcReadAll, BinaryTypesGiveTheFirstValue) {
  struct Case {
    int32_t type;
    std::string first;
    std::string expected;
  } cases[] = {
      {kFieldInt64, bytesOf({5, 0, 0, 0, 0, 0, 0, 0}), "000005"},
      {kFieldInt64, bytesOf({0xF4, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), "-00012"},
      {kFieldInt64, bytesOf({0x87, 0xD6, 0x12, 0, 0, 0, 0, 0}), "1234567"},
      {kFieldSInt64, bytesOf({5, 0, 0, 0, 0, 0, 0, 0}), "5"},
      {kFieldInt16, bytesOf({0xFF, 0xFF}), "-1"},
      {kFieldFloat, bytesOf({0x00, 0x00, 0xFA, 0x42}), "1.25"},
      {kFieldDouble, bytesOf({0, 0, 0, 0, 0, 0x40, 0x5F, 0x40}), "125.00"},
      {kFieldInt64, bytesOf({5, 0, 0, 0}), "72340172821233669"},  // a short field: two records' bytes
  };
  for (const auto& c : cases) {
    const std::string later(c.first.size(), '\x01');
    OneField three(c.type, static_cast<int32_t>(c.first.size()), 2, c.first + later + later);
    EXPECT_EQ(three.readAll(), c.expected) << "type " << c.type;
    three.proc.setValidCount(0);
    EXPECT_EQ(three.readAll(), "") << "type " << c.type;
  }
}

}  // namespace
}  // namespace blockproc
