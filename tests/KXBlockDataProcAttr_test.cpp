// Stored attribute bytes and derived attributes.

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "TestBlocks.h"
#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {
namespace {

using testing::bufferBytes;

// Every field carries an attribute byte: code(5) @0, attr @5; qty(4) @6, attr @10. R = 11.
std::unique_ptr<BlockInfo> attrBlock(int32_t repeat) {
  auto block = std::make_unique<BlockInfo>("AttrBlock");
  block->m_bAttribute = true;
  block->setRepeat(repeat);
  block->addField("code", kFieldText, 5);
  block->addField("qty", kFieldText, 4);
  return block;
}

TEST(KXBlockDataProcAttr, DerivedAttributeMapping) {
  for (int b = 0; b < 256; ++b) {
    const char c = static_cast<char>(b);
    uint8_t expected = 0;
    if (c == '+' || c == '1' || c == '2') expected = '1';
    if (c == '3') expected = '3';
    if (c == '-' || c == '4' || c == '5') expected = '5';
    EXPECT_EQ(KXBlockDataProc::getAttrValueFromData(c), expected) << "byte " << b;
  }
}

TEST(KXBlockDataProcAttr, HexaTextParsing) {
  const struct {
    std::optional<std::string_view> text;
    uint8_t value;
  } cases[] = {
      {"0x41", 0x41}, {"65", 0x41},    {"-1", 0xFF}, {"300", 0x2C},  {"0x7f", 0x7F},  {"0xFf", 0xFF},
      {"12", 0x0C},   {"0X1F", 0},     {"0x", 0},    {"abc", 0},     {"", 0},         {std::nullopt, 0},
      {" +7z", 7},    {"0x 1a", 0x1A}, {"0x1g", 1},  {"0x-1", 0xFF}, {"0x123", 0x23}, {"99999999999", 0xFF},
  };
  auto block = attrBlock(1);
  const FieldInfo* code = block->getFieldInfoFromName("code");
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  for (const auto& c : cases) {
    proc.setFieldAttrFromInfo(code, 0, 0x99);  // so that a written 0 shows
    proc.setFieldAttrHexa(code, 0, c.text);
    EXPECT_EQ(proc.getFieldAttrFromInfo(code, 0), c.value) << (c.text ? *c.text : "<none>");
  }
  EXPECT_EQ(bufferBytes(proc, 0, 5), "     ");  // the field's data is never touched
}

TEST(KXBlockDataProcAttr, PlainWriterChecksValidRecordsHexaWriterLaidOutRecords) {
  auto block = attrBlock(3);
  const FieldInfo* qty = block->getFieldInfoFromName("qty");
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  proc.setValidCount(2);
  const std::string before = bufferBytes(proc);

  proc.setFieldAttrFromInfo(qty, 2, 'P');  // not a valid record
  proc.setFieldAttrFromInfo(qty, -1, 'P');
  proc.setFieldAttrHexa(qty, 3, "0x48");  // past the laid-out records
  proc.setFieldAttrHexa(qty, -1, "0x48");
  proc.setFieldAttrFromName("nope", 0, 'P');
  proc.setFieldAttrFromInfo(nullptr, 0, 'P');
  EXPECT_EQ(bufferBytes(proc), before);

  proc.setFieldAttrHexa(qty, 2, "0x48");  // laid out though not valid
  EXPECT_EQ(bufferBytes(proc, 2 * 11 + 10, 1), "H");
  EXPECT_EQ(proc.getFieldAttrFromInfo(qty, 2), 0);  // the reader still sees only valid records
}

TEST(KXBlockDataProcAttr, AttributeByteSitsBesideTheDataAndLeavesItAlone) {
  auto block = attrBlock(2);
  const FieldInfo* code = block->getFieldInfoFromName("code");
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  proc.setFieldDataFromInfoEX(code, 1, "ABCDE");
  proc.setFieldDataFromInfoEX(block->getFieldInfoFromName("qty"), 1, "wxyz");

  proc.setFieldAttrFromInfo(code, 0, 0x31);
  proc.setFieldAttrFromName("code", 1, 0x32);
  proc.setFieldAttrFromName("qty", 1, 0x33);
  EXPECT_EQ(bufferBytes(proc),
            "     1     "
            "ABCDE2wxyz3");
  EXPECT_EQ(proc.getFieldAttrFromInfo(code, 0), 0x31);
  EXPECT_EQ(proc.getFieldAttrFromInfo(code, 1), 0x32);
  EXPECT_EQ(proc.getFieldAttrFromInfo(code, 2), 0);  // outside the valid records
  EXPECT_EQ(proc.getFieldAttrFromInfo(nullptr, 0), 0);
}

TEST(KXBlockDataProcAttr, FieldWithoutAttributeByteIsNeitherReadNorWritten) {
  BlockInfo block("Plain");
  block.setRepeat(2);
  block.m_nRecordIOMemSize = 10;  // fixed, so that giving b an attribute below keeps the layout
  const FieldInfo& a = block.addField("a", kFieldText, 5);
  FieldInfo& b = block.addField("b", kFieldText, 5);  // starts right where a's attribute would be
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();
  proc.setFieldDataFromInfoEX(&b, 0, "bbbbb");
  proc.setFieldDataFromInfoEX(&b, 1, "BBBBB");
  const std::string before = bufferBytes(proc);

  proc.setFieldAttrFromInfo(&a, 0, 'X');
  proc.setFieldAttrHexa(&a, 0, "0x58");
  proc.setFieldAttrFromInfo(&b, 1, 'X');  // last field of the last record: past the buffer
  proc.setFieldAttrHexa(&b, 1, "88");
  EXPECT_EQ(bufferBytes(proc), before);
  EXPECT_EQ(proc.getFieldAttrFromInfo(&a, 0), 0);  // b's first byte is not an attribute

  // A field's own nAttr makes it carry one even when the block does not; the position is still bounded.
  b.nAttr = 1;
  proc.setFieldAttrFromInfo(&b, 0, 'X');  // byte 10 is record 1's first byte: inside the buffer
  proc.setFieldAttrFromInfo(&b, 1, 'X');  // byte 20 is past the buffer
  EXPECT_EQ(bufferBytes(proc), "     bbbbbX    BBBBB");
  EXPECT_EQ(proc.getFieldAttrFromInfo(&b, 1), 0);
}

// sign(5) @0 is the attribute source of price(5) @5; plain(3) @10 has no source.
struct KXBlockDataProcDerivedAttr : ::testing::Test {
  BlockInfo block{"Derived"};
  FieldInfo& sign = block.addField("sign", kFieldText, 5);
  FieldInfo& price = block.addField("price", kFieldText, 5);
  FieldInfo& plain = block.addField("plain", kFieldText, 3);
  KXBlockDataProc proc{&block};
  KXBlockDataProcDerivedAttr() {
    price.szAttrRefKey = "sign";
    proc.DefaultMemory();
    proc.setFieldDataFromInfoEX(&price, 0, "12345");
  }
};

TEST_F(KXBlockDataProcDerivedAttr, FillTakesTheSourceFieldsFirstByte) {
  const struct {
    const char* source;
    uint8_t attr;
  } cases[] = {{"+150", '1'}, {"-20", '5'}, {"3", '3'}, {" 5", 0}, {"2", '1'}, {"4", '5'}, {"0", 0}};
  for (const auto& c : cases) {
    proc.setFieldDataFromInfoEX(&sign, 0, c.source);
    FieldData data;
    data.setAttrAble(7);
    ASSERT_TRUE(proc.getFieldAttrFromInfo(&price, 0, data)) << c.source;
    EXPECT_EQ(data.getAttr(), c.attr) << c.source;
    EXPECT_EQ(data.getAttrAble(), 7) << c.source;  // untouched when there is a source
    EXPECT_EQ(proc.getFieldAttrFromName("price", 0), c.attr) << c.source;
  }
}

TEST_F(KXBlockDataProcDerivedAttr, NoSourceClearsTheEnableByteOnly) {
  FieldData data;
  data.setAttr(0x77);
  ASSERT_TRUE(proc.getFieldAttrFromInfo(&plain, 0, data));
  EXPECT_EQ(data.getAttr(), 0x77);
  EXPECT_EQ(data.getAttrAble(), 0);

  EXPECT_EQ(proc.getFieldEnableFromName("plain", 0), "0");
  EXPECT_EQ(proc.getFieldEnableFromName("price", 0), "1");
  EXPECT_EQ(proc.getFieldAttrFromName("plain", 0), 0);
  EXPECT_EQ(proc.getFieldAttrFromName("unknown", 0), 0);
}

TEST_F(KXBlockDataProcDerivedAttr, RecordsOutsideTheValidOnesAreLeftAsTheyWere) {
  for (int32_t index : {-1, 1}) {
    FieldData data;
    data.setData("keep");
    data.setAttr(9);
    EXPECT_FALSE(proc.getFieldAttrFromInfo(&price, index, data));
    EXPECT_EQ(data.getData(), "keep");
    EXPECT_EQ(data.getAttr(), 9);
    EXPECT_EQ(data.getAttrAble(), 1);
  }
  FieldData none;
  none.setData("keep");
  EXPECT_FALSE(proc.getFieldAttrFromInfo(nullptr, 0, none));
  EXPECT_EQ(none.getData(), "keep");

  // The one-call fill still reports true and stores the empty display value.
  EXPECT_TRUE(proc.getFieldDataFromInfo(&price, 1, none));
  EXPECT_EQ(none.getData(), "");
}

TEST_F(KXBlockDataProcDerivedAttr, FillCarriesTheDisplayValue) {
  proc.setFieldDataFromInfoEX(&sign, 0, "-7");
  FieldData data;
  EXPECT_TRUE(proc.getFieldDataFromInfo(&price, 0, data));
  EXPECT_EQ(data.getData(), "12345");
  EXPECT_EQ(data.getAttr(), '5');
}

}  // namespace
}  // namespace blockproc
