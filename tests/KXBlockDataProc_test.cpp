// The processor object, its record buffer and field lookup.

#include "blockproc/data/KXBlockDataProc.h"

#include <gtest/gtest.h>

#include <string>

#include "TestBlocks.h"

namespace blockproc {
namespace {

using testing::bufferBytes;
using namespace std::string_literals;

// A 10-byte record: text(3) num(7, 2 places).
std::unique_ptr<BlockInfo> tenByteBlock(int8_t type = 0, int32_t repeat = 0) {
  auto block = std::make_unique<BlockInfo>("OutBlock");
  block->m_nBlockType = type;
  block->m_nRepeatCount = repeat;
  block->addField("name", kFieldText, 3);
  block->addField("price", kFieldNumText, 7, 2);
  return block;
}

// "bytes|buffer size/laid-out records/valid records", the bytes "none" when there is no buffer.
std::string state(const KXBlockDataProc& p) {
  return (p.getData() != nullptr ? bufferBytes(p) : "none") + "|" + std::to_string(p.getBlockBuffSize()) +
         "/" + std::to_string(p.getBufCount()) + "/" + std::to_string(p.getValidCount());
}

// The state of a fresh processor after laying out the block's defaults.
std::string laidOut(BlockInfo& block) {
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();
  return state(proc);
}

TEST(KXBlockDataProcObject, NewProcessorAndItsLists) {
  auto block = tenByteBlock(0, 7);
  KXBlockDataProc proc(block.get());
  EXPECT_EQ(state(proc), "none|0/0/0");
  EXPECT_EQ(proc.getBlockRepCount(), 7);  // the definition's count even with the repeat bit clear
  EXPECT_FALSE(proc.isOccursBlock());
  proc.addFieldLinkInfo(std::make_unique<FieldLinkInfo>(0));
  proc.addFieldLinkInfo(std::make_unique<FieldLinkInfo>(1));
  EXPECT_EQ(proc.getLinkInfo(1)->nFieldIndex, 1);
  EXPECT_EQ(proc.getLinkInfo(2), nullptr);
  EXPECT_EQ(proc.getLinkInfo(-1), nullptr);

  // Connected controls are compared by identity, not by value.
  auto a = std::make_shared<std::string>("same");
  auto b = std::make_shared<std::string>("same");
  for (const auto& control : {a, a, b}) proc.addConnCtl(control);
  proc.removeConnCtl(a.get());
  ASSERT_EQ(proc.getConnCtlList().size(), 1u);
  EXPECT_EQ(proc.getConnCtlList()[0].get(), b.get());
}

TEST(KXBlockDataProcBuffer, PacketSizeAndLaidOutRecords) {
  const struct {
    int8_t type;
    int32_t repeat, packetSize;
    std::string layout;
  } cases[] = {{0, 3, 10, "   0000.00|10/1/1"},
               {4, 3, 30, "   0000.00   0000.00   0000.00|30/3/3"},
               {4, 0, 10, "none|0/0/0"},
               {4, -2, 0, "none|0/0/0"}};
  for (const auto& c : cases) {
    auto block = tenByteBlock(c.type, c.repeat);
    EXPECT_EQ(KXBlockDataProc(block.get()).calcPacketSize(), c.packetSize) << int{c.type} << "/" << c.repeat;
    EXPECT_EQ(laidOut(*block), c.layout) << int{c.type} << "/" << c.repeat;
  }
  EXPECT_EQ(KXBlockDataProc(nullptr).calcPacketSize(), 0);

  // Laying out a given number of records: that many whatever the repeat, the definition left as it was.
  for (const auto& c : cases) {
    auto block = tenByteBlock(c.type, c.repeat);
    KXBlockDataProc proc(block.get());
    proc.layOutDefaults(2);
    EXPECT_EQ(state(proc), "   0000.00   0000.00|20/2/2") << int{c.type} << "/" << c.repeat;
    proc.layOutDefaults(0);
    EXPECT_EQ(state(proc), "   0000.00   0000.00|20/0/0");  // nothing laid out; the buffer stays
    EXPECT_EQ(block->m_nRepeatCount, c.repeat);
  }
}

TEST(KXBlockDataProcBuffer, DefaultContentsByTypeAndDecimalShape) {
  BlockInfo block("B");
  const int32_t shapes[][3] = {{kFieldText, 3, 0},    {kFieldNumText, 7, 2}, {kFieldNumText, 3, 2},
                               {kFieldNumText, 2, 2}, {kFieldNumText, 7, 0}, {kFieldInt16, 2, 0},
                               {kFieldDouble, 8, 0},  {kFieldNumText, 0, 0}};
  for (const auto& [type, length, decimals] : shapes) block.addField("f", type, length, decimals);
  EXPECT_EQ(laidOut(block), "   0000.00.00000000000          |32/1/1");
}

TEST(KXBlockDataProcBuffer, LayoutIsRedoneInPlaceOrAnewAndWipesBlankIt) {
  BlockInfo block("B");
  block.m_bAttribute = true;
  block.setRepeat(2);
  block.addField("t", kFieldText, 3);  // attribute byte at 3
  block.addField("n", kFieldNumText, 4, 1);
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();
  auto* first = const_cast<uint8_t*>(proc.getData());
  first[3] = 'A';  // the attribute byte belongs to no field's data
  first[0] = 'x';
  proc.DefaultMemory();  // a large enough buffer is reused
  EXPECT_EQ(proc.getData(), first);
  const std::string defaults = "   A00.0     00.0 ";
  EXPECT_EQ(bufferBytes(proc), defaults);

  // The length form blanks only dynamic-length data: nothing when there is none.
  proc.wipeBuffer(1000);
  EXPECT_EQ(bufferBytes(proc), defaults);
  EXPECT_EQ(proc.getValidCount(), 0);
  proc.DefaultMemory();
  proc.clearData();
  EXPECT_EQ(state(proc), std::string(18, ' ') + "|18/2/0");
  proc.initRealBufferIndex();  // real-time records start past the laid-out ones
  EXPECT_EQ(proc.getStartIndex(), 2);
  EXPECT_EQ(proc.getValidCount(), 0);

  block.setRepeat(3);  // more records than the buffer holds: laid out anew
  proc.DefaultMemory();
  EXPECT_EQ(state(proc), "    00.0     00.0     00.0 |27/3/3");
}

TEST(KXBlockDataProcBuffer, ReSizeBytesCopiesTheRecordsItHolds) {
  auto block = tenByteBlock(4, 2);
  KXBlockDataProc proc(block.get());
  const auto resized = [&](const uint8_t* old, int32_t length) {  // with the terminating zero
    return std::string(reinterpret_cast<const char*>(proc.reSizeBytes(old, length).get()), length + 1);
  };
  EXPECT_EQ(resized(nullptr, 5), "     \0"s);
  proc.DefaultMemory();
  EXPECT_EQ(resized(proc.getData(), 25), "   0000.00   0000.00     \0"s);
  EXPECT_EQ(resized(proc.getData(), 4), "   0\0"s);
  EXPECT_EQ(proc.reSizeBytes(proc.getData(), -4)[0], 0);
}

TEST(KXBlockDataProcBuffer, BadDefinitionsLayOutNothingAndNeverCrash) {
  BlockInfo negative("N");
  negative.setRepeat(-5);
  negative.addField("a", kFieldText, 4);
  negative.addField("b", kFieldNumText, -3, 2);
  negative.addField("c", kFieldNumText, 4, 9, 2'000'000'000);  // far past the record
  EXPECT_EQ(laidOut(negative), "none|0/0/0");

  BlockInfo huge("H");
  huge.setRepeat(1'000'000);
  huge.addField("a", kFieldText, 100'000);
  EXPECT_EQ(laidOut(huge), "none|0/0/0");  // 10^11 bytes do not fit 32 bits

  BlockInfo outside("O");
  outside.m_nRecordIOMemSize = 4;  // a record size shorter than its fields
  outside.addField("a", kFieldNumText, 8, 2);
  EXPECT_EQ(laidOut(outside), "    |4/1/1");
}

TEST(KXBlockDataProcLookup, ExactNamesFirstInBlockOrder) {
  BlockInfo block("L");
  block.addField("A", kFieldText, 1);
  FieldInfo& b = block.addField("B", kFieldText, 1);
  block.addField("A", kFieldText, 1);
  b.bPassword = b.bAccountNo = true;
  KXBlockDataProc proc(&block);
  for (const auto& [name, index] : {std::pair{"A", 0}, {"B", 1}, {"C", -1}, {"a", -1}})
    EXPECT_EQ(proc.getFieldIndexFromName(name), index) << name;
  EXPECT_EQ(proc.findFieldInfo("B"), &b);
  EXPECT_TRUE(proc.isPasswordField("B"));
  EXPECT_TRUE(proc.isAccountNoField("B"));
  EXPECT_FALSE(proc.isItemCodeField("B"));
  EXPECT_FALSE(proc.isPasswordField("missing"));
  EXPECT_EQ(KXBlockDataProc(nullptr).getFieldIndexFromName("A"), -1);
}

}  // namespace
}  // namespace blockproc
