// Stored attribute bytes and derived attributes.

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <utility>

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
  std::string mapped;  // "byte value " for every byte of the 256 that maps to an attribute
  for (int b = 0; b < 256; ++b)
    if (const uint8_t v = KXBlockDataProc::getAttrValueFromData(static_cast<char>(b)); v != 0)
      mapped += std::string{static_cast<char>(b), static_cast<char>(v), ' '};
  EXPECT_EQ(mapped, "+1 -5 11 21 33 45 55 ");
}

TEST(KXBlockDataProcAttr, HexaTextParsing) {
  const struct {
    std::optional<std::string_view> text;
    uint8_t value;
  } cases[] = {
      {"0x41", 0x41}, {"65", 0x41},      {"-1", 0xFF}, {"300", 0x2C},   {"0xFf", 0xFF}, {"0X1F", 0},
      {"abc", 0},     {std::nullopt, 0}, {" +7z", 7},  {"0x 1a", 0x1A}, {"0x1g", 1},    {"99999999999", 0xFF},
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

TEST(KXBlockDataProcAttr, PlainWriterTakesValidRecordsHexaWriterLaidOutOnesBothBesideTheData) {
  auto block = attrBlock(3);
  const FieldInfo* code = block->getFieldInfoFromName("code");
  const FieldInfo* qty = block->getFieldInfoFromName("qty");
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  proc.setFieldDataFromInfoEX(code, 1, "ABCDE");
  proc.setFieldDataFromInfoEX(qty, 1, "wxyz");
  proc.setValidCount(2);
  proc.setFieldAttrFromInfo(code, 0, 0x31);
  proc.setFieldAttrFromName("code", 1, 0x32);
  proc.setFieldAttrFromName("qty", 1, 0x33);
  proc.setFieldAttrFromInfo(qty, 2, 'P');  // not a valid record
  proc.setFieldAttrFromInfo(qty, -1, 'P');
  proc.setFieldAttrHexa(qty, 3, "0x48");  // past the laid-out records
  proc.setFieldAttrHexa(qty, -1, "0x48");
  proc.setFieldAttrFromName("nope", 0, 'P');
  proc.setFieldAttrFromInfo(nullptr, 0, 'P');
  const std::string valid = "     1     ABCDE2wxyz3";
  EXPECT_EQ(bufferBytes(proc), valid + std::string(11, ' '));
  proc.setFieldAttrHexa(qty, 2, "0x48");  // laid out though not valid
  EXPECT_EQ(bufferBytes(proc), valid + "          H");

  EXPECT_EQ(proc.getFieldAttrFromInfo(code, 0), 0x31);
  EXPECT_EQ(proc.getFieldAttrFromInfo(code, 1), 0x32);
  EXPECT_EQ(proc.getFieldAttrFromInfo(qty, 2), 0);  // the reader sees only valid records
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

TEST(KXBlockDataProcAttr, RecordSizeTheDefinitionCannotGiveEndsEveryOperation) {
  testing::FailingSizeBlock block("Failing");
  block.m_bAttribute = true;
  FieldInfo& sign = block.addField("sign", kFieldText, 2);
  FieldInfo& price = block.addField("price", kFieldText, 2);
  price.szAttrRefKey = "sign";
  KXBlockDataProc proc(&block);
  proc.setData("+1A-5B+1C-5D", 0, 12);  // two records: sign "+1" attr 'A', price "-5" attr 'B'
  const std::string before = bufferBytes(proc);
  block.failSize = true;
  proc.setFieldAttrFromInfo(&sign, 1, 'X');
  proc.setFieldAttrHexa(&sign, 1, "0x58");
  EXPECT_EQ(bufferBytes(proc), before) << "record 0 must not be addressed";
  EXPECT_EQ(proc.getFieldAttrFromInfo(&sign, 1), 0);
  FieldData data;
  EXPECT_FALSE(proc.getFieldAttrFromInfo(&price, 1, data));
  EXPECT_EQ(data.getAttr(), FieldData().getAttr());
}

// A fill's data, attribute and enable byte.
using Fill = std::tuple<std::string, int, int>;
Fill filled(const FieldData& d) {
  return {d.getData(), d.getAttr(), d.getAttrAble()};
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

TEST_F(KXBlockDataProcDerivedAttr, FillTakesTheSourceFieldsFirstByteOrClearsTheEnableByte) {
  const struct {
    const char* source;
    int attr;
  } cases[] = {{"+150", '1'}, {"-20", '5'}, {"3", '3'}, {" 5", 0}};  // the first byte, blank or not
  for (const auto& c : cases) {
    proc.setFieldDataFromInfoEX(&sign, 0, c.source);
    FieldData data;
    data.setAttrAble(7);  // untouched when there is a source
    ASSERT_TRUE(proc.getFieldAttrFromInfo(&price, 0, data)) << c.source;
    EXPECT_EQ(filled(data), (Fill{"12345", c.attr, 7})) << c.source;
    EXPECT_EQ(proc.getFieldAttrFromName("price", 0), c.attr) << c.source;
    FieldData full;  // the one-call fill
    ASSERT_TRUE(proc.getFieldDataFromInfo(&price, 0, full)) << c.source;
    EXPECT_EQ(filled(full), (Fill{"12345", c.attr, 1})) << c.source;
  }

  // No source: the enable byte is cleared, the attribute left alone.
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
  const std::pair<const FieldInfo*, int32_t> outside[] = {{&price, -1}, {&price, 1}, {nullptr, 0}};
  for (const auto& [info, index] : outside) {
    FieldData data;
    data.setData("keep");
    data.setAttr(9);
    EXPECT_FALSE(proc.getFieldAttrFromInfo(info, index, data)) << index;
    EXPECT_EQ(filled(data), (Fill{"keep", 9, 1})) << index;
    // The one-call fill still reports true and stores the empty display value.
    EXPECT_TRUE(proc.getFieldDataFromInfo(info, index, data)) << index;
    EXPECT_EQ(data.getData(), "") << index;
  }
}

}  // namespace
}  // namespace blockproc
