// Writing field values: the main writer, the positional writer and the raw-text writer.

#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <string>

#include "TestBlocks.h"
#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {
namespace {

using testing::bufferBytes;
using namespace std::string_literals;

// cp949 bytes of the Hangul syllables U+AC00, U+B098, U+B2E4 (written in UTF-8 in the values).
constexpr const char* kGaNaDa = "\xEA\xB0\x80\xEB\x82\x98\xEB\x8B\xA4";
const std::string kGaNaDaCp949 = "\xB0\xA1\xB3\xAA\xB4\xD9";
constexpr const char* kEmoji = "\xF0\x9F\x98\x80";  // not representable in cp949

// A block with one field of the given shape at position 0.
std::unique_ptr<BlockInfo> oneField(int32_t type, int32_t length, int32_t decimals = 0) {
  auto block = std::make_unique<BlockInfo>("In");
  block->addField("f", type, length, decimals);
  return block;
}

// A 10-byte record: text t(4) at 0, numeric text n(6, 2 places) at 4.
std::unique_ptr<BlockInfo> textAndNumber() {
  auto block = std::make_unique<BlockInfo>("In");
  block->addField("t", kFieldText, 4);
  block->addField("n", kFieldNumText, 6, 2);
  return block;
}

// A block whose key-encrypted fields have no dictionary to receive their values.
class NoDictionaryBlock : public BlockInfo {
 public:
  KeyEncDict* getKeyEncValue(std::string_view) override { return nullptr; }
};

// A field definition whose key-encryption question fails.
class ThrowingField : public FieldInfo {
 public:
  using FieldInfo::FieldInfo;
  bool getKeyEncState() const override { throw std::runtime_error("definition unavailable"); }
};

// ---- main writer ----------------------------------------------------------------------------------------

TEST(KXBlockDataProcWrite, NumericTextWorkedExamples) {
  const struct {
    const char* value;
    int32_t length;
    int32_t decimals;
    const char* field;
  } rows[] = {
      {"12.3", 10, 2, "0000012.30"},   {"-12.3", 10, 2, "-000012.30"},
      {"123", 10, 2, "0000123.00"},    {"12.", 10, 2, "0000012.00"},
      {"", 10, 2, "0000000.00"},       {"7", 6, 2, "007.00"},
      {"12.345", 10, 2, "000012.345"}, {"12345.678", 8, 2, "12345.67"},
      {"-9999.99", 8, 2, "-9999.99"},  {".5", 10, 2, "000000.500"},
      {"123", 5, 0, "00123"},          {"-12", 5, 0, "-0012"},
      {"+12", 5, 0, "+0012"},          {"", 5, 0, "00000"},
      {"1234567", 5, 0, "12345"},      {"5-3", 6, 0, "-000-3"},
  };
  for (const auto& r : rows) {
    // A trailing text field shows that the numeric text never spills into its neighbour.
    auto block = oneField(kFieldNumText, r.length, r.decimals);
    block->addField("after", kFieldText, 2);
    KXBlockDataProc proc(block.get());
    EXPECT_FALSE(proc.setFieldDataFromName("after", 0, "zz"));
    EXPECT_FALSE(proc.setFieldDataFromName("f", 0, r.value));
    EXPECT_EQ(bufferBytes(proc), std::string(r.field) + "zz")
        << r.value << " L" << r.length << " D" << r.decimals;
  }
}

TEST(KXBlockDataProcWrite, TextIsLeftAlignedAndCutAtTheFieldLength) {
  auto block = oneField(kFieldText, 5);
  KXBlockDataProc proc(block.get());
  proc.setFieldDataFromName("f", 0, "ABC");
  EXPECT_EQ(bufferBytes(proc), "ABC  ");
  proc.setFieldDataFromName("f", 0, "ABCDEFG");
  EXPECT_EQ(bufferBytes(proc), "ABCDE");
  proc.setFieldDataFromName("f", 0, kGaNaDa);  // six bytes in cp949: the third syllable is cut in half
  EXPECT_EQ(bufferBytes(proc), kGaNaDaCp949.substr(0, 5));
  proc.setFieldDataFromName("f", 0, "");
  EXPECT_EQ(bufferBytes(proc), "     ");

  proc.setEncodingType(kTextEncodingUTF8);
  proc.setFieldDataFromName("f", 0, "A"s + kGaNaDa);
  EXPECT_EQ(bufferBytes(proc), "A\xEA\xB0\x80\xEB");
}

TEST(KXBlockDataProcWrite, BinaryTypesFromTheLeadingNumber) {
  const struct {
    int32_t type;
    int32_t length;
    int32_t decimals;
    const char* value;
    std::string field;
  } rows[] = {
      {kFieldInt16, 2, 0, "1234", "\xD2\x04"s},
      {kFieldInt16, 2, 0, "70000", "\x70\x11"s},  // the low 16 bits
      {kFieldInt16, 2, 0, "-2", "\xFE\xFF"s},
      {kFieldInt16, 2, 0, "", "\x00\x00"s},
      {kFieldInt16, 2, 0, "x12", "\x00\x00"s},
      {kFieldInt16, 4, 0, " 1234abc", "\xD2\x04  "s},  // the rest of the field stays spaces
      {kFieldInt64, 8, 0, "1234567890123", "\xCB\x04\xFB\x71\x1F\x01\x00\x00"s},
      {kFieldInt64, 8, 0, "99999999999999999999", "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F"s},  // clamped
      {kFieldInt64, 8, 0, "-1", "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"s},
      {kFieldFloat, 4, 2, "12.5", "\x00\x00\x48\x41"s},  // not scaled by the places
      {kFieldFloat, 4, 0, "0.1", "\xCD\xCC\xCC\x3D"s},
      {kFieldDouble, 8, 3, "12.5", "\x00\x00\x00\x00\x00\x00\x29\x40"s},
      {kFieldDouble, 8, 0, "-1e400", "\x00\x00\x00\x00\x00\x00\xF0\xFF"s},
      {kFieldInt64, 3, 0, "1234567890123", "\xCB\x04\xFB"s},  // a short field takes the low-order bytes
      {kFieldDouble, 1, 0, "12.5", "\x00"s},
  };
  for (const auto& r : rows) {
    auto block = oneField(r.type, r.length, r.decimals);
    block->addField("after", kFieldText, 2);
    KXBlockDataProc proc(block.get());
    proc.setFieldDataFromName("after", 0, "zz");
    proc.setFieldDataFromName("f", 0, r.value);
    EXPECT_EQ(bufferBytes(proc), r.field + "zz") << "type " << r.type << " value " << r.value;
  }
}

TEST(KXBlockDataProcWrite, OtherTypesAsDigitsTextWithoutSignHandling) {
  const struct {
    int32_t type;
    int32_t length;
    const char* value;
    const char* field;
  } rows[] = {
      {kFieldSInt64, 8, "123", "00000123"},
      {kFieldSInt64, 6, "-12", "000-12"},
      {kFieldSInt64, 3, "12345", "123"},
      {42, 4, "", "0000"},
  };
  for (const auto& r : rows) {
    auto block = oneField(r.type, r.length);
    KXBlockDataProc proc(block.get());
    proc.setFieldDataFromName("f", 0, r.value);
    EXPECT_EQ(bufferBytes(proc), r.field) << r.value;
  }
}

TEST(KXBlockDataProcWrite, AbsentOrUnconvertibleValuesLeaveTheFieldBlank) {
  auto block = textAndNumber();
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();  // "    000.00"
  proc.setValidCount(0);
  EXPECT_FALSE(proc.setFieldDataFromName("n", 0, std::nullopt));
  EXPECT_EQ(bufferBytes(proc), "          ");
  EXPECT_EQ(proc.getValidCount(), 1);  // the record still counts as valid

  proc.setFieldDataFromName("t", 0, "abcd");
  proc.setFieldDataFromName("t", 0, kEmoji);
  EXPECT_EQ(bufferBytes(proc, 0, 4), "    ");
  proc.setEncodingType(kTextEncodingASCII);
  proc.setFieldDataFromName("n", 0, "1.5");
  proc.setFieldDataFromName("t", 0, kGaNaDa);
  EXPECT_EQ(bufferBytes(proc), "    001.50");
  proc.setEncodingType(0xDEAD);  // no codec knows it: even ASCII text cannot be converted
  proc.setFieldDataFromName("n", 0, "1.5");
  EXPECT_EQ(bufferBytes(proc), "          ");
}

TEST(KXBlockDataProcWrite, GrowthIsExactAndNewRecordsArePlainSpaces) {
  auto block = textAndNumber();
  block->setRepeat(1);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  proc.setFieldDataFromName("t", 0, "r0");
  proc.setFieldDataFromName("t", 3, "r3");
  EXPECT_EQ(proc.getBufCount(), 4);
  EXPECT_EQ(proc.getBlockBuffSize(), 40);
  EXPECT_EQ(proc.getValidCount(), 4);
  // Record 0 keeps its bytes; records 1 to 3 are spaces (no default zeros) apart from the written field.
  EXPECT_EQ(bufferBytes(proc), "r0  000.00" + std::string(20, ' ') + "r3        ");

  KXBlockDataProc fresh(block.get());
  for (int32_t i = 0; i < 3; ++i) {
    fresh.setFieldDataFromName("n", i, "1");
    EXPECT_EQ(fresh.getBufCount(), i + 1);
    EXPECT_EQ(fresh.getBlockBuffSize(), 10 * (i + 1));
  }
  EXPECT_EQ(bufferBytes(fresh), "    001.00    001.00    001.00");
}

TEST(KXBlockDataProcWrite, ValidCountIsRaisedNeverLowered) {
  auto block = textAndNumber();
  block->setRepeat(5);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  EXPECT_EQ(proc.getValidCount(), 5);
  proc.setFieldDataFromName("t", 0, "x");
  EXPECT_EQ(proc.getValidCount(), 5);
  proc.setValidCount(0);
  proc.setFieldDataFromName("t", 2, "x");
  EXPECT_EQ(proc.getValidCount(), 3);
  EXPECT_EQ(proc.getBufCount(), 5);  // no growth inside the buffer
}

TEST(KXBlockDataProcWrite, KeyEncryptedValuesGoToTheDictionaryNotTheRecord) {
  auto block = textAndNumber();
  block->addField("pw", kFieldText, 8).bKeyEnc = true;
  KXBlockDataProc proc(block.get());
  proc.setFieldDataFromName("pw", 0, "secret");
  EXPECT_EQ(bufferBytes(proc, 10, 8), "        ");
  EXPECT_EQ(proc.getValidCount(), 1);
  const KeyEncDict* dict = block->findKeyEncValue("pw");
  ASSERT_NE(dict, nullptr);
  EXPECT_EQ(dict->at("size"), "0006");
  EXPECT_EQ(dict->at("data"), "secret");

  // Lengths count UTF-16 units: three Hangul syllables are 3, an emoji 2. Earlier entries are replaced.
  proc.setFieldDataFromName("pw", 0, kGaNaDa);
  EXPECT_EQ(dict->at("size"), "0003");
  EXPECT_EQ(dict->at("data"), kGaNaDa);
  const std::string longValue(12345, '7');
  proc.setFieldDataFromName("pw", 0, longValue);
  EXPECT_EQ(dict->at("size"), "12345");

  // A value the encoding cannot represent stops before the routing.
  proc.setFieldDataFromName("pw", 0, "x"s + kEmoji);
  EXPECT_EQ(dict->at("data"), longValue);
  // An absent value neither.
  proc.setFieldDataFromName("pw", 0, std::nullopt);
  EXPECT_EQ(dict->at("data"), longValue);
}

TEST(KXBlockDataProcWrite, KeyEncryptedWithoutDictionaryDropsTheValue) {
  NoDictionaryBlock block;
  block.addField("pw", kFieldNumText, 6, 2).bKeyEnc = true;
  KXBlockDataProc proc(&block);
  EXPECT_FALSE(proc.setFieldDataFromName("pw", 0, "12.5"));
  EXPECT_EQ(bufferBytes(proc), "      ");
}

TEST(KXBlockDataProcWrite, NothingOutsideTheBuffer) {
  auto block = textAndNumber();
  block->setRepeat(2);
  KXBlockDataProc proc(block.get());

  // A negative record index changes nothing at all.
  proc.setFieldDataFromName("t", -1, "x");
  EXPECT_EQ(proc.getData(), nullptr);
  EXPECT_EQ(proc.getValidCount(), 0);

  // The start index at the end of the buffer puts record 0 past it: nothing is written or counted.
  proc.DefaultMemory();
  proc.initRealBufferIndex();
  proc.setFieldDataFromName("t", 0, "x");
  proc.setFieldDataFromName("t", 1, "x");
  EXPECT_EQ(bufferBytes(proc), "    000.00    000.00");
  EXPECT_EQ(proc.getValidCount(), 0);
  // Growth looks at the record index alone; the record still lies past the grown buffer.
  proc.setFieldDataFromName("t", 2, "x");
  EXPECT_EQ(proc.getBufCount(), 3);
  EXPECT_EQ(bufferBytes(proc, 0, 20), "    000.00    000.00");
  EXPECT_EQ(proc.getValidCount(), 0);

  // Fields of a bad definition: past the record size, of negative length.
  BlockInfo bad("Bad");
  bad.m_nRecordIOMemSize = 4;
  FieldInfo& far = bad.addField("far", kFieldText, 8, 0, 2);
  FieldInfo& negative = bad.addField("neg", kFieldNumText, -3, 2, 0);
  KXBlockDataProc badProc(&bad);
  badProc.setFieldDataFromInfo(&far, 0, "abcdefgh");
  badProc.setFieldDataFromInfo(&negative, 0, "1");
  EXPECT_EQ(bufferBytes(badProc), "    ");
  badProc.setFieldDataFromInfo(&far, INT32_MAX, "x");  // a size beyond 32 bits
  EXPECT_EQ(badProc.getBufCount(), 1);

  // No record size: no block definition, or a block without fields.
  KXBlockDataProc orphan(nullptr);
  FieldInfo loose("f", kFieldText, 4);
  orphan.setFieldDataFromInfo(&loose, 0, "x");
  EXPECT_EQ(orphan.getData(), nullptr);
  BlockInfo empty("E");
  KXBlockDataProc emptyProc(&empty);
  emptyProc.setFieldDataFromInfo(&loose, 0, "x");
  EXPECT_EQ(emptyProc.getData(), nullptr);
}

TEST(KXBlockDataProcWrite, MissingFieldsAndFailingDefinitionsAreCaught) {
  auto block = textAndNumber();
  KXBlockDataProc proc(block.get());
  EXPECT_FALSE(proc.setFieldDataFromName("nope", 0, "x"));
  EXPECT_FALSE(proc.setFieldDataFromInfo(nullptr, 0, "x"));
  EXPECT_EQ(proc.getData(), nullptr);

  // What the write did before the failure stays: the record exists and counts.
  ThrowingField field("t", kFieldText, 4);
  EXPECT_FALSE(proc.setFieldDataFromInfo(&field, 1, "x"));
  EXPECT_EQ(proc.getBufCount(), 2);
  EXPECT_EQ(proc.getValidCount(), 2);
  EXPECT_EQ(proc.setFieldDataExFromInfo(&field, 0, "1", 0), 4);
  EXPECT_FALSE(proc.setFieldDataFromInfoEX(&field, 0, "x"));  // the raw writer never asks
  EXPECT_EQ(bufferBytes(proc, 0, 4), "x   ");
}

TEST(KXBlockDataProcWrite, FindIndexCountsUtf16Units) {
  EXPECT_EQ(KXBlockDataProc::findIndex("-12.3", "."), 3);
  EXPECT_EQ(KXBlockDataProc::findIndex("12", "."), -1);
  EXPECT_EQ(KXBlockDataProc::findIndex(kGaNaDa + "+"s, "+"), 3);
  EXPECT_EQ(KXBlockDataProc::findIndex("abc", ""), 0);
  EXPECT_EQ(KXBlockDataProc::findIndex("a.b.c", ".c"), 3);
}

// ---- positional writer ------------------------------------------------------------------------------------

TEST(KXBlockDataProcWriteEx, TextTypesReceiveTheRoundedNumber) {
  const struct {
    int32_t type;
    const char* value;
    int32_t decimals;
    const char* text;
  } rows[] = {
      {kFieldNumText, "12.345", 2, "12.35"},
      {kFieldNumText, "-12.345", 2, "-12.34"},
      {kFieldNumText, "1.005", 2, "1.00"},
      {kFieldNumText, "99.999", 2, "100.00"},
      {kFieldNumText, "1234567.89", 2, "1234567.88"},
      {kFieldNumText, " -2.5xyz", 0, "-2"},
      {kFieldNumText, "abc", 2, "0.00"},
      {kFieldText, "abc", 0, "0"},
      {kFieldText, "12", 3, "12.000"},
  };
  for (const auto& r : rows) {
    auto block = oneField(r.type, 12, r.decimals);
    KXBlockDataProc proc(block.get());
    proc.DefaultMemory();
    const FieldInfo* f = block->getFieldInfoFromIndex(0);
    std::string expected = r.text;
    expected +=
        bufferBytes(proc, static_cast<int64_t>(expected.size()), 12 - static_cast<int64_t>(expected.size()));
    EXPECT_EQ(proc.setFieldDataExFromInfo(f, 0, r.value, 0), 12);
    EXPECT_EQ(bufferBytes(proc), expected) << r.value << " D" << r.decimals;  // no fill: the rest is kept
  }
}

TEST(KXBlockDataProcWriteEx, NoBlankingAndThePositionAfterTheField) {
  BlockInfo block("In");
  block.addField("a", kFieldNumText, 5, 2);
  block.addField("b", kFieldSInt64, 3);
  block.addField("c", kFieldInt16, 2);
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();
  proc.setFieldDataFromName("a", 0, "12.5");  // "12.50"
  int32_t pos = 0;
  pos = proc.setFieldDataExFromInfo(block.getFieldInfoFromIndex(0), 0, "3.1", pos);
  EXPECT_EQ(pos, 5);
  pos = proc.setFieldDataExFromInfo(block.getFieldInfoFromIndex(1), 0, "777", pos);  // type 6: nothing
  EXPECT_EQ(pos, 8);
  pos = proc.setFieldDataExFromInfo(block.getFieldInfoFromIndex(2), 0, std::nullopt, pos);
  EXPECT_EQ(pos, 10);
  EXPECT_EQ(bufferBytes(proc), "3.100     ");  // 3.10 over 12.50 keeps the last 0
  proc.setFieldDataExFromInfo(block.getFieldInfoFromIndex(2), 0, "-2", 8);
  EXPECT_EQ(bufferBytes(proc, 8, 2), "\xFE\xFF");
  EXPECT_EQ(proc.setFieldDataExFromInfo(nullptr, 0, "1", 8), 0);
}

TEST(KXBlockDataProcWriteEx, GrowthUsesTheFieldStrideAndWipesTheOldBuffer) {
  BlockInfo block("In");
  block.m_bAttribute = true;  // record memory size 8 (two attribute bytes), record field size 6
  block.addField("a", kFieldText, 3);
  block.addField("b", kFieldText, 3);
  KXBlockDataProc proc(&block);
  const FieldInfo* a = block.getFieldInfoFromIndex(0);

  // Growing a processor without a buffer leaves the valid count as it was.
  proc.setValidCount(7);
  EXPECT_EQ(proc.setFieldDataExFromInfo(a, 1, "5", 6), 9);
  EXPECT_EQ(proc.getBufCount(), 2);
  EXPECT_EQ(proc.getBlockBuffSize(), 12);
  EXPECT_EQ(proc.getValidCount(), 7);
  EXPECT_EQ(bufferBytes(proc), "      5     ");

  // Growing an existing buffer wipes it: the valid count drops to 0; the copied bytes stay.
  proc.setValidCount(2);
  proc.setFieldDataExFromInfo(a, 2, "6", 12);
  EXPECT_EQ(proc.getBufCount(), 3);
  EXPECT_EQ(proc.getBlockBuffSize(), 18);
  EXPECT_EQ(proc.getValidCount(), 0);
  EXPECT_EQ(bufferBytes(proc), "      5     6     ");

  // An index inside the buffer: no growth and no counter changes.
  proc.setValidCount(3);
  proc.setFieldDataExFromInfo(a, 0, "1", 0);
  EXPECT_EQ(proc.getValidCount(), 3);
  EXPECT_EQ(proc.getBlockBuffSize(), 18);
}

TEST(KXBlockDataProcWriteEx, GrowthEmptiesTheDynamicInputList) {
  auto block = oneField(kFieldText, 4);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  proc.setFieldDataDynamicLen(block->getFieldInfoFromIndex(0), 0, "dyn");
  if (proc.getDynamicInputCnt() == 0) GTEST_SKIP() << "the dynamic input list takes no values here";
  proc.setFieldDataExFromInfo(block->getFieldInfoFromIndex(0), 3, "1", 0);
  EXPECT_EQ(proc.getDynamicInputCnt(), 0);
}

TEST(KXBlockDataProcWriteEx, KeyEncryptedRoutingEvenForUnconvertibleValues) {
  auto block = oneField(kFieldNumText, 6, 2);
  FieldInfo& pw = block->addField("pw", kFieldText, 6);
  pw.bKeyEnc = true;
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  const std::string before = bufferBytes(proc);
  EXPECT_EQ(proc.setFieldDataExFromInfo(&pw, 0, "x"s + kEmoji, 6), 12);
  const KeyEncDict* dict = block->findKeyEncValue("pw");
  ASSERT_NE(dict, nullptr);
  EXPECT_EQ(dict->at("size"), "0003");
  EXPECT_EQ(dict->at("data"), "x"s + kEmoji);
  EXPECT_EQ(bufferBytes(proc), before);
}

TEST(KXBlockDataProcWriteEx, NothingPastTheBufferOrTheField) {
  auto block = oneField(kFieldNumText, 6, 2);
  block->addField("i64", kFieldInt64, 8);
  block->addField("i64short", kFieldInt64, 3);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();  // 17 bytes: "000.00" + 11 spaces
  const FieldInfo* num = block->getFieldInfoFromIndex(0);
  const FieldInfo* i64 = block->getFieldInfoFromIndex(1);
  const FieldInfo* shortI64 = block->getFieldInfoFromIndex(2);
  const std::string start = bufferBytes(proc);

  EXPECT_EQ(proc.setFieldDataExFromInfo(num, 0, "1.5", 12), 18);  // "1.50" fits at 12
  EXPECT_EQ(bufferBytes(proc, 12, 5), "1.50 ");
  EXPECT_EQ(proc.setFieldDataExFromInfo(num, 0, "12345.5", 12), 18);  // "12345.50" would pass the end
  EXPECT_EQ(bufferBytes(proc, 12, 5), "1.50 ");
  EXPECT_EQ(proc.setFieldDataExFromInfo(i64, 0, "1", 10), 18);  // 8 bytes from 10 pass the end
  EXPECT_EQ(proc.setFieldDataExFromInfo(i64, 0, "1", -1), 7);
  EXPECT_EQ(proc.setFieldDataExFromInfo(shortI64, 0, "1234567890123", 14), 17);  // low-order bytes
  EXPECT_EQ(bufferBytes(proc, 12, 5), "1.\xCB\x04\xFB");
  EXPECT_EQ(bufferBytes(proc, 0, 12), start.substr(0, 12));

  // A negative index, negative or too many places, a length of 0 or below: nothing written, no growth.
  EXPECT_EQ(proc.setFieldDataExFromInfo(num, -1, "9", 0), 6);
  FieldInfo negPlaces("p", kFieldNumText, 6, -1), manyPlaces("m", kFieldNumText, 6, 1101),
      zero("z", kFieldNumText, 0, 0), negative("n", kFieldInt16, -2, 0);
  EXPECT_EQ(proc.setFieldDataExFromInfo(&negPlaces, 0, "9", 0), 6);
  EXPECT_EQ(proc.setFieldDataExFromInfo(&manyPlaces, 0, "9", 0), 6);
  EXPECT_EQ(proc.setFieldDataExFromInfo(&zero, 0, "9", 0), 0);
  EXPECT_EQ(proc.setFieldDataExFromInfo(&negative, 0, "9", 4), 2);
  EXPECT_EQ(bufferBytes(proc, 0, 12), start.substr(0, 12));
  EXPECT_EQ(proc.getBufCount(), 1);

  // The returned position wraps like the 32-bit sum instead of overflowing.
  EXPECT_EQ(proc.setFieldDataExFromInfo(num, 0, "1", INT32_MAX), INT32_MIN + 5);
}

// ---- raw-text writer --------------------------------------------------------------------------------------

TEST(KXBlockDataProcWriteRaw, BytesAsTheyAreIntoTextFieldsOnly) {
  BlockInfo block("In");
  block.addField("t", kFieldText, 5);
  block.addField("n", kFieldNumText, 5, 2);
  block.addField("pw", kFieldText, 3).bKeyEnc = true;
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();  // "     00.00   "
  EXPECT_FALSE(proc.setFieldDataFromNameEX("t", 0, "\xB0\xA1\xB3\xAA\xB4\xD9Z"));
  EXPECT_EQ(bufferBytes(proc, 0, 5), "\xB0\xA1\xB3\xAA\xB4");  // cut inside a double-byte character
  proc.setFieldDataFromNameEX("t", 0, "ab");
  EXPECT_EQ(bufferBytes(proc, 0, 5), "ab   ");
  proc.setFieldDataFromNameEX("n", 0, "12.34");
  EXPECT_EQ(bufferBytes(proc, 5, 5), "     ");
  proc.setFieldDataFromNameEX("pw", 0, "key");  // no routing: written like any text
  EXPECT_EQ(bufferBytes(proc, 10, 3), "key");
  EXPECT_EQ(block.findKeyEncValue("pw"), nullptr);
  proc.setFieldDataFromNameEX("t", 0, nullptr);
  EXPECT_EQ(bufferBytes(proc, 0, 5), "     ");
  EXPECT_FALSE(proc.setFieldDataFromNameEX("nope", 0, "x"));
}

TEST(KXBlockDataProcWriteRaw, ValidCountIsAssignedAndGrowthWipes) {
  auto block = oneField(kFieldText, 4);
  block->setRepeat(5);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  EXPECT_EQ(proc.getValidCount(), 5);
  proc.setFieldDataFromNameEX("f", 0, "r0");
  EXPECT_EQ(proc.getValidCount(), 1);  // an assignment, not a maximum

  auto single = oneField(kFieldText, 4);
  KXBlockDataProc grown(single.get());
  grown.DefaultMemory();
  grown.setFieldDataFromNameEX("f", 0, "keep");
  grown.setFieldDataDynamicLen(single->getFieldInfoFromIndex(0), 0, "dyn");
  const bool hadDynamic = grown.getDynamicInputCnt() > 0;
  grown.setFieldDataFromNameEX("f", 2, "r2");
  EXPECT_EQ(grown.getBufCount(), 3);
  EXPECT_EQ(grown.getValidCount(), 3);
  EXPECT_EQ(grown.getBlockBuffSize(), 12);
  EXPECT_EQ(bufferBytes(grown), "keep    r2  ");  // the new buffer holds the old bytes
  if (hadDynamic) {
    EXPECT_EQ(grown.getDynamicInputCnt(), 0);
  }
}

TEST(KXBlockDataProcWriteRaw, NothingOutsideTheBuffer) {
  auto block = oneField(kFieldText, 4);
  block->setRepeat(2);
  KXBlockDataProc proc(block.get());
  proc.setFieldDataFromNameEX("f", -1, "x");
  EXPECT_EQ(proc.getData(), nullptr);
  proc.DefaultMemory();
  proc.initRealBufferIndex();
  proc.setFieldDataFromNameEX("f", 0, "x");
  EXPECT_EQ(bufferBytes(proc), "        ");
  EXPECT_EQ(proc.getValidCount(), 0);
  FieldInfo negative("n", kFieldText, -4);
  proc.setFieldDataFromInfoEX(&negative, 0, "x");
  EXPECT_EQ(bufferBytes(proc), "        ");
}

}  // namespace
}  // namespace blockproc
