// Writing field values: the main writer, the positional writer and the raw-text writer.

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include "TestBlocks.h"
#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {
namespace {

using testing::bufferBytes;
using namespace std::string_literals;

// The Hangul syllables U+AC00, U+B098, U+B2E4 in UTF-8; in cp949 they are B0A1 B3AA B4D9.
constexpr const char* kGaNaDa = "\xEA\xB0\x80\xEB\x82\x98\xEB\x8B\xA4";
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

// A field definition whose key-encryption question writes "ZZZZZ" into a processor first, as a caller's
// subclass may.
class WritingField : public FieldInfo {
 public:
  using FieldInfo::FieldInfo;
  KXBlockDataProc* into = nullptr;
  const FieldInfo* target = nullptr;
  int32_t record = 0;
  bool getKeyEncState() const override {
    if (into != nullptr) into->setFieldDataFromInfo(target, record, "ZZZZZ");
    return false;
  }
};

// ---- main writer ----------------------------------------------------------------------------------------

// Writes the value into field "f" of that shape, followed by a text field holding "zz", and returns the
// field's bytes; the neighbour must come out untouched.
std::string written(int32_t type, int32_t length, int32_t decimals, const char* value) {
  auto block = oneField(type, length, decimals);
  block->addField("after", kFieldText, 2);
  KXBlockDataProc proc(block.get());
  proc.setFieldDataFromName("after", 0, "zz");
  EXPECT_FALSE(proc.setFieldDataFromName("f", 0, value));
  const std::string record = bufferBytes(proc);
  EXPECT_EQ(record.substr(static_cast<size_t>(length)), "zz") << "spilled past the field";
  return record.substr(0, static_cast<size_t>(length));
}

TEST(KXBlockDataProcWrite, TextBinaryAndOtherTypesLayout) {
  // Numeric text: zero-filled, sign first, the point at the field's places, cut at the field's end (the
  // layout's own table is in NumericText_test).
  EXPECT_EQ(written(kFieldNumText, 10, 2, "-12.3"), "-000012.30");
  EXPECT_EQ(written(kFieldNumText, 8, 2, "12345.678"), "12345.67");
  EXPECT_EQ(written(kFieldNumText, 10, 2, ""), "0000000.00");
  // Text is left-aligned and cut, inside a double-byte character too.
  EXPECT_EQ(written(kFieldText, 5, 0, "ABC"), "ABC  ");
  EXPECT_EQ(written(kFieldText, 5, 0, "ABCDEFG"), "ABCDE");
  EXPECT_EQ(written(kFieldText, 5, 0, kGaNaDa), "\xB0\xA1\xB3\xAA\xB4");
  // Binary types take the leading number, little-endian and unscaled by the places.
  EXPECT_EQ(written(kFieldInt16, 2, 0, "1234"), "\xD2\x04");
  EXPECT_EQ(written(kFieldInt16, 2, 0, "70000"), "\x70\x11");       // the low 16 bits
  EXPECT_EQ(written(kFieldInt16, 2, 0, "3000000000"), "\xFF\xFF");  // of the value clamped to 32 bits
  EXPECT_EQ(written(kFieldInt16, 2, 0, "-2"), "\xFE\xFF");
  EXPECT_EQ(written(kFieldInt16, 2, 0, "x12"), "\x00\x00"s);
  EXPECT_EQ(written(kFieldInt16, 4, 0, " 1234abc"), "\xD2\x04  ");  // the rest of the field stays spaces
  EXPECT_EQ(written(kFieldInt64, 8, 0, "1234567890123"), "\xCB\x04\xFB\x71\x1F\x01\x00\x00"s);
  EXPECT_EQ(written(kFieldInt64, 8, 0, "99999999999999999999"), "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F");
  EXPECT_EQ(written(kFieldInt64, 8, 0, "18446744073709551620"),
            "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F");                           // 2^64 + 4
  EXPECT_EQ(written(kFieldInt64, 3, 0, "1234567890123"), "\xCB\x04\xFB");  // the low-order bytes
  EXPECT_EQ(written(kFieldFloat, 4, 2, "12.5"), "\x00\x00\x48\x41"s);
  EXPECT_EQ(written(kFieldDouble, 8, 3, "12.5"), "\x00\x00\x00\x00\x00\x00\x29\x40"s);
  EXPECT_EQ(written(kFieldDouble, 8, 0, "-1e400"), "\x00\x00\x00\x00\x00\x00\xF0\xFF"s);
  EXPECT_EQ(written(kFieldDouble, 1, 0, "12.5"), "\x00"s);
  // Other types: the digits text right-aligned behind zeros, with no sign handling.
  EXPECT_EQ(written(kFieldSInt64, 8, 0, "123"), "00000123");
  EXPECT_EQ(written(kFieldSInt64, 6, 0, "-12"), "000-12");
  EXPECT_EQ(written(kFieldSInt64, 3, 0, "12345"), "123");
  EXPECT_EQ(written(42, 4, 0, ""), "0000");
}

TEST(KXBlockDataProcWrite, EncodingDecidesTheBytesAndUnconvertibleValuesLeaveTheFieldBlank) {
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
  proc.setEncodingType(kTextEncodingUTF8);  // the cut falls inside a three-byte character
  proc.setFieldDataFromName("t", 0, "AB"s + kGaNaDa);
  EXPECT_EQ(bufferBytes(proc, 0, 4), "AB\xEA\xB0");
  proc.setEncodingType(0xDEAD);  // no codec knows it: even ASCII text cannot be converted
  proc.setFieldDataFromName("n", 0, "1.5");
  proc.setFieldDataFromName("t", 0, "ab");
  EXPECT_EQ(bufferBytes(proc), "          ");
}

TEST(KXBlockDataProcWrite, ValidCountIsRaisedNeverLoweredAndGrowthIsExact) {
  auto block = textAndNumber();
  block->setRepeat(2);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  proc.setValidCount(0);
  proc.setFieldDataFromName("t", 1, "r1");
  EXPECT_EQ(proc.getValidCount(), 2);
  proc.setFieldDataFromName("t", 0, "r0");
  EXPECT_EQ(proc.getValidCount(), 2);
  EXPECT_EQ(proc.getBufCount(), 2);  // no growth inside the buffer

  // Growth to exactly index + 1 records; the old records keep their bytes, the new ones are plain spaces
  // (no default zeros) apart from the written field. The dynamic input list is kept.
  proc.setFieldDataDynamicLen(block->getFieldInfoFromIndex(0), 0, "dyn");
  proc.setFieldDataFromName("t", 4, "r4");
  EXPECT_EQ(proc.getBufCount(), 5);
  EXPECT_EQ(proc.getValidCount(), 5);
  EXPECT_EQ(proc.getDynamicInputCnt(), 1);
  EXPECT_EQ(bufferBytes(proc), "r0  000.00r1  000.00" + std::string(20, ' ') + "r4        ");

  KXBlockDataProc fresh(block.get());  // no buffer yet
  fresh.setFieldDataFromName("n", 1, "1");
  EXPECT_EQ(fresh.getBufCount(), 2);
  EXPECT_EQ(fresh.getValidCount(), 2);
  EXPECT_EQ(bufferBytes(fresh), "              001.00");
}

TEST(KXBlockDataProcWrite, KeyEncryptedValuesGoToTheDictionaryNotTheRecord) {
  auto block = textAndNumber();
  FieldInfo& pw = block->addField("pw", kFieldText, 8);
  pw.bKeyEnc = true;
  KXBlockDataProc proc(block.get());
  proc.setFieldDataFromName("pw", 0, "secret");
  EXPECT_EQ(bufferBytes(proc, 10, 8), "        ");
  EXPECT_EQ(proc.getValidCount(), 1);
  const KeyEncDict* dict = block->findKeyEncValue("pw");
  ASSERT_NE(dict, nullptr);
  EXPECT_EQ(dict->at("size"), "0006");
  EXPECT_EQ(dict->at("data"), "secret");

  // Lengths count UTF-16 units: three Hangul syllables are 3. Earlier entries are replaced.
  proc.setFieldDataFromName("pw", 0, kGaNaDa);
  EXPECT_EQ(dict->at("size"), "0003");
  EXPECT_EQ(dict->at("data"), kGaNaDa);
  const std::string longValue(12345, '7');
  proc.setFieldDataFromName("pw", 0, longValue);
  EXPECT_EQ(dict->at("size"), "12345");

  // The main writer stops before the routing on a value the encoding cannot represent, and on none.
  proc.setFieldDataFromName("pw", 0, "x"s + kEmoji);
  proc.setFieldDataFromName("pw", 0, std::nullopt);
  EXPECT_EQ(dict->at("data"), longValue);

  // The positional writer routes even that value (an emoji is 2 units) and leaves the record alone.
  const std::string before = bufferBytes(proc);
  EXPECT_EQ(proc.setFieldDataExFromInfo(&pw, 0, "x"s + kEmoji, 10), 18);
  EXPECT_EQ(dict->at("size"), "0003");
  EXPECT_EQ(dict->at("data"), "x"s + kEmoji);
  EXPECT_EQ(bufferBytes(proc), before);

  // Without a dictionary to receive it the value is dropped.
  NoDictionaryBlock bare;
  bare.addField("pw", kFieldNumText, 6, 2).bKeyEnc = true;
  KXBlockDataProc bareProc(&bare);
  EXPECT_FALSE(bareProc.setFieldDataFromName("pw", 0, "12.5"));
  EXPECT_EQ(bufferBytes(bareProc), "      ");
}

TEST(KXBlockDataProcWrite, NothingOutsideTheBuffer) {
  auto block = textAndNumber();
  block->setRepeat(2);
  KXBlockDataProc proc(block.get());
  // A negative record index changes nothing at all, for the main and the raw writer.
  proc.setFieldDataFromName("t", -1, "x");
  proc.setFieldDataFromNameEX("t", -1, "x");
  EXPECT_EQ(proc.getData(), nullptr);
  EXPECT_EQ(proc.getValidCount(), 0);

  // The start index at the end of the buffer puts record 0 past it: nothing is written or counted.
  // Growth looks at the record index alone, so record 2 still lies past the grown buffer.
  proc.DefaultMemory();
  proc.initRealBufferIndex();
  proc.setFieldDataFromName("t", 0, "x");
  proc.setFieldDataFromName("t", 1, "x");
  proc.setFieldDataFromNameEX("t", 0, "x");
  proc.setFieldDataFromName("t", 2, "x");
  EXPECT_EQ(proc.getBufCount(), 3);
  EXPECT_EQ(bufferBytes(proc), "    000.00    000.00" + std::string(10, ' '));
  EXPECT_EQ(proc.getValidCount(), 0);

  // Fields of a bad definition: past the record size, of negative length; a size beyond 32 bits.
  BlockInfo bad("Bad");
  bad.m_nRecordIOMemSize = 4;
  FieldInfo& far = bad.addField("far", kFieldText, 8, 0, 2);
  FieldInfo& negative = bad.addField("neg", kFieldNumText, -3, 2, 0);
  KXBlockDataProc badProc(&bad);
  badProc.setFieldDataFromInfo(&far, 0, "abcdefgh");
  badProc.setFieldDataFromInfo(&negative, 0, "1");
  badProc.setFieldDataFromInfoEX(&far, 0, "abcdefgh");
  EXPECT_EQ(bufferBytes(badProc), "    ");
  badProc.setFieldDataFromInfo(&far, INT32_MAX, "x");
  EXPECT_EQ(badProc.getBufCount(), 1);

  // No record size: no block definition, or a block without fields.
  FieldInfo loose("f", kFieldText, 4);
  BlockInfo empty("E");
  for (BlockInfo* definition : {static_cast<BlockInfo*>(nullptr), &empty}) {
    KXBlockDataProc orphan(definition);
    orphan.setFieldDataFromInfo(&loose, 0, "x");
    EXPECT_EQ(orphan.getData(), nullptr);
  }
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

TEST(KXBlockDataProcWrite, ADescriptorWritingElsewhereCannotChangeTheValueWritten) {
  auto block = oneField(kFieldText, 5);
  const FieldInfo* plain = block->getFieldInfoFromIndex(0);
  KXBlockDataProc proc(block.get()), other(block.get());
  WritingField field("f", kFieldText, 5);
  // Into another processor, and into this one where the inner write grows the buffer under the outer.
  for (auto [into, record] : {std::pair{&other, 0}, std::pair{&proc, 3}}) {
    field.into = into;
    field.target = plain;
    field.record = record;
    proc.setFieldDataFromInfo(&field, 0, "ABC");
    EXPECT_EQ(bufferBytes(proc, 0, 5), "ABC  ");
    EXPECT_EQ(into->getFieldDataFromInfo(plain, record), "ZZZZZ");
  }
}

// Where a sign or point stands, in the UTF-16 units a caller's string length counts.
TEST(KXBlockDataProcWrite, FindIndexCountsUtf16Units) {
  const struct {
    std::string text, find;
    int32_t at;
  } rows[] = {{"12.34", ".", 2},
              {"1234", ".", -1},
              {kGaNaDa + "+"s, "+", 3},       // three Hangul syllables, one unit each
              {"\xF0\x9F\x98\x80-", "-", 2},  // a character above U+FFFF takes two
              {"abc", "", 0},
              {"", ".", -1}};
  for (const auto& r : rows) EXPECT_EQ(KXBlockDataProc::findIndex(r.text, r.find), r.at) << r.text;
}

// ---- positional writer ------------------------------------------------------------------------------------

TEST(KXBlockDataProcWriteEx, RoundedNumbersAndBinariesWithoutBlankingTheField) {
  // Both text types receive the number rounded to the places, cut at the field length; types other than text
  // and binary, or no value, write nothing.
  const struct {
    int32_t type;
    const char* value;  // nullptr: no value
    int32_t decimals;
    const char* text;
  } rows[] = {
      {kFieldNumText, "12.345", 2, "12.35"},  // the rounding's own table is in NumericText_test
      {kFieldNumText, " -2.5xyz", 0, "-2"},  {kFieldNumText, "abc", 2, "0.00"},
      {kFieldText, "12", 3, "12.000"},       {kFieldNumText, "1.5", 11, "1.5000000000"},
      {kFieldInt16, "-2", 0, "\xFE\xFF"},    {kFieldSInt64, "777", 0, ""},
      {kFieldNumText, nullptr, 2, ""},
  };
  for (const auto& r : rows) {
    auto block = oneField(r.type, 12, r.decimals);
    KXBlockDataProc proc(block.get());
    proc.DefaultMemory();
    // The bytes after the written ones keep what the field held.
    const std::string expected = r.text + bufferBytes(proc).substr(std::strlen(r.text));
    const auto value = r.value ? std::optional<std::string_view>(r.value) : std::nullopt;
    EXPECT_EQ(proc.setFieldDataExFromInfo(block->getFieldInfoFromIndex(0), 0, value, 0), 12);
    EXPECT_EQ(bufferBytes(proc), expected) << (r.value ? r.value : "(none)") << " D" << r.decimals;
  }
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
  EXPECT_EQ(proc.getValidCount(), 7);
  EXPECT_EQ(bufferBytes(proc), "      5     ");

  // Growing an existing buffer wipes it: the valid count drops to 0 and the dynamic input list empties;
  // the copied bytes stay.
  proc.setValidCount(2);
  proc.setFieldDataDynamicLen(a, 0, "dyn");
  ASSERT_EQ(proc.getDynamicInputCnt(), 1);
  proc.setFieldDataExFromInfo(a, 2, "6", 12);
  EXPECT_EQ(proc.getBufCount(), 3);
  EXPECT_EQ(proc.getValidCount(), 0);
  EXPECT_EQ(proc.getDynamicInputCnt(), 0);
  EXPECT_EQ(bufferBytes(proc), "      5     6     ");

  // An index inside the buffer, or a negative one: no growth and no counter changes; the value is still
  // written at the position, and a key-encrypted one still routed.
  proc.setValidCount(3);
  proc.setFieldDataExFromInfo(a, 0, "1", 0);
  EXPECT_EQ(proc.setFieldDataExFromInfo(a, -1, "2", 3), 6);
  EXPECT_EQ(proc.getValidCount(), 3);
  EXPECT_EQ(proc.getBlockBuffSize(), 18);
  EXPECT_EQ(bufferBytes(proc, 0, 6), "1  2  ");
  FieldInfo& pw = block.addField("pw", kFieldText, 4);
  pw.bKeyEnc = true;
  EXPECT_EQ(proc.setFieldDataExFromInfo(&pw, -1, "secret", 100), 104);
  ASSERT_NE(block.findKeyEncValue("pw"), nullptr);
  EXPECT_EQ(block.findKeyEncValue("pw")->at("data"), "secret");
  EXPECT_EQ(proc.getBlockBuffSize(), 18);
}

TEST(KXBlockDataProcWriteEx, NothingPastTheBufferOrTheField) {
  auto block = oneField(kFieldNumText, 6, 2);
  block->addField("i64", kFieldInt64, 8);
  block->addField("i64short", kFieldInt64, 3);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();  // 17 bytes: "000.00" + 11 spaces
  const FieldInfo* num = block->getFieldInfoFromIndex(0);
  const FieldInfo* i64 = block->getFieldInfoFromIndex(1);
  // What fits before the end is written: "1.50" at 12, then a short binary field's low-order bytes at 14.
  EXPECT_EQ(proc.setFieldDataExFromInfo(num, 0, "1.5", 12), 18);
  EXPECT_EQ(proc.setFieldDataExFromInfo(block->getFieldInfoFromIndex(2), 0, "1234567890123", 14), 17);
  const std::string start = bufferBytes(proc);
  EXPECT_EQ(start, "000.00      1.\xCB\x04\xFB");

  // Past the end or before the start, no field, negative or too many places, a length
  // of 0 or below: nothing written, no growth. The returned position wraps like the 32-bit sum.
  FieldInfo negPlaces("p", kFieldNumText, 6, -1), manyPlaces("m", kFieldNumText, 6, 1101),
      zero("z", kFieldNumText, 0, 0), negative("n", kFieldInt16, -2, 0);
  const struct {
    const FieldInfo* info;
    int32_t index;
    const char* value;
    int32_t pos, next;
  } refused[] = {
      {num, 0, "12345.5", 12, 18}, {i64, 0, "1", 10, 18},      {i64, 0, "1", -1, 7},
      {nullptr, 0, "9", 8, 0},     {&negPlaces, 0, "9", 0, 6}, {&manyPlaces, 0, "9", 0, 6},
      {&zero, 0, "9", 0, 0},       {&negative, 0, "9", 4, 2},  {num, 0, "1", INT32_MAX, INT32_MIN + 5},
  };
  for (const auto& r : refused) {
    EXPECT_EQ(proc.setFieldDataExFromInfo(r.info, r.index, r.value, r.pos), r.next) << r.pos;
    EXPECT_EQ(bufferBytes(proc), start) << r.pos;
  }
  EXPECT_EQ(proc.getBufCount(), 1);
}

// ---- raw-text writer --------------------------------------------------------------------------------------

TEST(KXBlockDataProcWriteRaw, BytesAsTheyAreIntoTextFieldsOnly) {
  BlockInfo block("In");
  block.addField("t", kFieldText, 5);
  block.addField("n", kFieldNumText, 5, 2);
  block.addField("pw", kFieldText, 3).bKeyEnc = true;
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();  // "     00.00   "
  // Cut inside a double-byte character; numeric text only blanked; a key-encrypted field written as text.
  EXPECT_FALSE(proc.setFieldDataFromNameEX("t", 0, "\xB0\xA1\xB3\xAA\xB4\xD9Z"));
  proc.setFieldDataFromNameEX("n", 0, "12.34");
  proc.setFieldDataFromNameEX("pw", 0, "key");
  EXPECT_EQ(bufferBytes(proc), "\xB0\xA1\xB3\xAA\xB4     key");
  EXPECT_EQ(block.findKeyEncValue("pw"), nullptr);
  proc.setFieldDataFromNameEX("t", 0, "ab");
  EXPECT_EQ(bufferBytes(proc, 0, 5), "ab   ");
  proc.setFieldDataFromNameEX("t", 0, nullptr);
  EXPECT_EQ(bufferBytes(proc, 0, 5), "     ");
  EXPECT_FALSE(proc.setFieldDataFromNameEX("nope", 0, "x"));
}

TEST(KXBlockDataProcWriteRaw, ValidCountIsAssignedAndGrowthWipes) {
  auto block = oneField(kFieldText, 4);
  block->setRepeat(2);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  proc.setFieldDataFromNameEX("f", 1, "keep");
  proc.setFieldDataFromNameEX("f", 0, "r0");
  EXPECT_EQ(proc.getValidCount(), 1);  // an assignment, not a maximum

  proc.setFieldDataDynamicLen(block->getFieldInfoFromIndex(0), 0, "dyn");
  ASSERT_EQ(proc.getDynamicInputCnt(), 1);
  proc.setFieldDataFromNameEX("f", 3, "r3");
  EXPECT_EQ(proc.getBufCount(), 4);
  EXPECT_EQ(proc.getValidCount(), 4);
  EXPECT_EQ(proc.getDynamicInputCnt(), 0);
  EXPECT_EQ(bufferBytes(proc), "r0  keep    r3  ");  // the new buffer holds the old bytes
}

}  // namespace
}  // namespace blockproc
