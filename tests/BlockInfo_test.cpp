#include "blockproc/data/BlockInfo.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace blockproc {
namespace {

TEST(BlockInfo, PositionsFollowFieldsAndAttributeBytes) {
  BlockInfo plain("A");
  plain.addField("code", kFieldText, 6);
  plain.addField("price", kFieldNumText, 10, 2);
  plain.addField("gap", kFieldText, 4, 0, 30);  // explicit position leaves a gap
  plain.addField("empty", kFieldText, 0);
  EXPECT_EQ(plain.getFieldInfoFromIndex(1)->nDataPos, 6);
  EXPECT_EQ(plain.getFieldInfoFromIndex(3)->nDataPos, 34);
  EXPECT_EQ(plain.getRecordMemSize(), 34);    // furthest field end
  EXPECT_EQ(plain.getRecordFieldSize(), 20);  // lengths back to back

  // The worked-out sizes are kept, and worked out again once a field is added or the attribute flag flips.
  plain.addField("tail", kFieldText, 3);
  EXPECT_EQ(plain.getRecordMemSize(), 37);
  EXPECT_EQ(plain.getRecordFieldSize(), 23);
  plain.m_bAttribute = true;
  EXPECT_EQ(plain.getRecordMemSize(), 38);
  plain.m_nRecordIOMemSize = 40;  // set explicitly by an engine
  EXPECT_EQ(plain.getRecordMemSize(), 40);
}

TEST(BlockInfo, SizesNeverOverflow) {
  BlockInfo block("Huge");
  block.addField("a", kFieldText, 2'000'000'000, 0, 2'000'000'000);
  block.addField("b", kFieldText, -5);
  EXPECT_EQ(block.getRecordMemSize(), 2'147'483'647);
  EXPECT_EQ(block.getRecordFieldSize(), 2'000'000'000);
}

TEST(BlockInfo, LookupsAreExactAndKeepTheFirstOfAName) {
  BlockInfo block("A");
  const FieldInfo& first = block.addField("dup", kFieldText, 1);
  block.addField("dup", kFieldText, 1);
  EXPECT_EQ(block.getFieldInfoFromName("dup"), &first);
  EXPECT_EQ(block.getFieldInfoFromName("DUP"), nullptr);
  EXPECT_EQ(block.getFieldInfoFromIndex(2), nullptr);
  EXPECT_EQ(block.getFieldInfoFromIndex(-1), nullptr);
  EXPECT_NE(block.getFieldInfoFromIndex(0)->hash(), block.getFieldInfoFromIndex(1)->hash());

  // Names of every length around the hash's 4- and 8-byte steps, through several growths of the index.
  BlockInfo wide("W");
  std::vector<const FieldInfo*> fields;
  for (int i = 0; i < 600; ++i)
    fields.push_back(
        &wide.addField(std::string(1 + i % 19, 'a' + i % 26) + std::to_string(i), kFieldText, 1));
  for (int i = 0; i < 600; ++i)
    ASSERT_EQ(wide.getFieldInfoFromName(fields[static_cast<size_t>(i)]->szFieldName),
              fields[static_cast<size_t>(i)]);
  EXPECT_EQ(wide.getFieldInfoFromName(""), nullptr);
  EXPECT_EQ(wide.getFieldInfoFromName("a0 "), nullptr);
}

TEST(BlockInfo, KeyEncryptionDictionaryOnlyForKeyEncryptedFields) {
  BlockInfo block("A");
  block.addField("pwd", kFieldText, 8).bKeyEnc = true;
  block.addField("acct", kFieldText, 8);
  KeyEncDict* dict = block.getKeyEncValue("pwd");
  ASSERT_NE(dict, nullptr);
  EXPECT_EQ(block.getKeyEncValue("pwd"), dict);  // one dictionary per field name
  EXPECT_EQ(block.getKeyEncValue("acct"), nullptr);
  EXPECT_EQ(block.getKeyEncValue("none"), nullptr);
}

TEST(BlockInfo, AttributeSourceByRegistrationOrByName) {
  BlockInfo block("A");
  const FieldInfo& sign = block.addField("sign", kFieldText, 1);
  const FieldInfo& other = block.addField("other", kFieldText, 1);
  block.setAttrSource("diffKey", &other);
  EXPECT_EQ(block.getAttrRefSourceFieldInfo("sign"), &sign);
  EXPECT_EQ(block.getAttrRefSourceFieldInfo("diffKey"), &other);
  EXPECT_EQ(block.getAttrRefSourceFieldInfo("missing"), nullptr);
}

}  // namespace
}  // namespace blockproc
