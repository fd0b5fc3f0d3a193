// The processor object, its record buffer and field lookup.

#include "blockproc/data/KXBlockDataProc.h"

#include <gtest/gtest.h>

#include <cstring>

#include "TestBlocks.h"

namespace blockproc {
namespace {

using testing::bufferBytes;

// A 10-byte record: text(3) num(7, 2 places).
std::unique_ptr<BlockInfo> tenByteBlock(int8_t type = 0, int32_t repeat = 0) {
  auto block = std::make_unique<BlockInfo>("OutBlock");
  block->m_nBlockType = type;
  block->m_nRepeatCount = repeat;
  block->addField("name", kFieldText, 3);
  block->addField("price", kFieldNumText, 7, 2);
  return block;
}

TEST(KXBlockDataProcObject, NewProcessorState) {
  auto block = tenByteBlock();
  KXBlockDataProc proc(block.get());
  EXPECT_EQ(proc.getLinkCount(), 0);
  EXPECT_EQ(proc.getRealAPLinkCount(), 0);
  EXPECT_EQ(proc.getValidCount(), 0);
  EXPECT_EQ(proc.getLinkInfo(0), nullptr);
  EXPECT_EQ(proc.getRealAPLinkInfo(0), nullptr);
  EXPECT_EQ(proc.getData(), nullptr);
  EXPECT_FALSE(proc.getReceived());
  EXPECT_TRUE(proc.getConnCtlList().empty());
  EXPECT_EQ(proc.getBlockName(), "OutBlock");
  EXPECT_EQ(proc.getEncodingType(), kTextEncodingCP949);
  EXPECT_EQ(proc.getDataProc(), nullptr);
  EXPECT_EQ(proc.getBlockBuffSize(), 0);
}

TEST(KXBlockDataProcObject, ConnectedControlsAreComparedByIdentity) {
  KXBlockDataProc proc(nullptr);
  auto a = std::make_shared<std::string>("same");
  auto b = std::make_shared<std::string>("same");  // equal value, distinct object
  proc.addConnCtl(a);
  proc.addConnCtl(a);
  proc.addConnCtl(b);
  EXPECT_EQ(proc.getConnCtlList().size(), 2u);
  int never = 0;
  proc.removeConnCtl(&never);
  EXPECT_EQ(proc.getConnCtlList().size(), 2u);
  proc.removeConnCtl(a.get());
  ASSERT_EQ(proc.getConnCtlList().size(), 1u);
  EXPECT_EQ(proc.getConnCtlList()[0].get(), b.get());
}

TEST(KXBlockDataProcObject, LinkListsAndAccessors) {
  auto block = tenByteBlock(0, 7);
  KXBlockDataProc proc(block.get());
  proc.addFieldLinkInfo(std::make_unique<FieldLinkInfo>(0));
  proc.addFieldLinkInfo(std::make_unique<FieldLinkInfo>(1));
  proc.addRealAPLinkInfo(std::make_unique<RealAPLinkInfo>(0));
  EXPECT_EQ(proc.getLinkCount(), 2);
  EXPECT_EQ(proc.getLinkInfo(1)->nFieldIndex, 1);
  EXPECT_EQ(proc.getLinkInfo(2), nullptr);
  EXPECT_EQ(proc.getLinkInfo(-1), nullptr);
  EXPECT_EQ(proc.getRealAPLinkCount(), 1);
  EXPECT_EQ(proc.getBlockRepCount(), 7);  // the definition's count even with the repeat bit clear
  EXPECT_FALSE(proc.isOccursBlock());
  proc.setBlockName("Renamed");
  EXPECT_EQ(proc.getBlockName(), "Renamed");
  proc.setValidCount(-3);  // stored unchecked
  EXPECT_EQ(proc.getValidCount(), -3);
}

TEST(KXBlockDataProcBuffer, PacketSize) {
  struct Case {
    int8_t type;
    int32_t repeat;
    int32_t size;
  } cases[] = {{0, 3, 10}, {4, 3, 30}, {4, 0, 10}, {5, 2, 20}, {4, -2, 0}};
  for (const auto& c : cases) {
    auto block = tenByteBlock(c.type, c.repeat);
    EXPECT_EQ(KXBlockDataProc(block.get()).calcPacketSize(), c.size) << int{c.type} << "/" << c.repeat;
  }
  EXPECT_EQ(KXBlockDataProc(nullptr).calcPacketSize(), 0);
}

TEST(KXBlockDataProcBuffer, DefaultContentsByTypeAndDecimalShape) {
  BlockInfo block("B");
  block.addField("t", kFieldText, 3);
  block.addField("n72", kFieldNumText, 7, 2);
  block.addField("n32", kFieldNumText, 3, 2);
  block.addField("n22", kFieldNumText, 2, 2);
  block.addField("n70", kFieldNumText, 7, 0);
  block.addField("i16", kFieldInt16, 2);
  block.addField("f64", kFieldDouble, 8);
  block.addField("none", kFieldNumText, 0, 0);
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();
  EXPECT_EQ(bufferBytes(proc), "   0000.00.00000000000          ");
  EXPECT_EQ(proc.getBufCount(), 1);
  EXPECT_EQ(proc.getValidCount(), 1);
}

TEST(KXBlockDataProcBuffer, RepeatedLayoutAndEmptyCounts) {
  auto block = tenByteBlock(4, 3);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  EXPECT_EQ(proc.getBlockBuffSize(), 30);
  EXPECT_EQ(bufferBytes(proc), "   0000.00   0000.00   0000.00");
  EXPECT_EQ(proc.getValidCount(), 3);

  auto none = tenByteBlock(4, 0);
  KXBlockDataProc empty(none.get());
  empty.DefaultMemory();
  EXPECT_EQ(empty.getData(), nullptr);
  EXPECT_EQ(empty.getBufCount(), 0);
  EXPECT_EQ(empty.getValidCount(), 0);
}

TEST(KXBlockDataProcBuffer, DefaultMemoryReusesALargeEnoughBufferAndKeepsGapBytes) {
  BlockInfo block("B");
  block.m_bAttribute = true;
  block.addField("t", kFieldText, 3);  // attribute byte at 3
  block.addField("n", kFieldNumText, 4, 1);
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();
  const uint8_t* first = proc.getData();
  const_cast<uint8_t*>(first)[3] = 'A';  // the attribute byte belongs to no field's data
  const_cast<uint8_t*>(first)[0] = 'x';
  proc.DefaultMemory();
  EXPECT_EQ(proc.getData(), first);
  EXPECT_EQ(bufferBytes(proc), "   A00.0 ");
}

TEST(KXBlockDataProcBuffer, DefaultMemoryRelaysOutWhenTheBufferIsTooSmall) {
  auto block = tenByteBlock(4, 2);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  block->m_nRepeatCount = 4;
  proc.DefaultMemory();
  EXPECT_EQ(proc.getBufCount(), 4);
  EXPECT_EQ(proc.getBlockBuffSize(), 40);
  EXPECT_EQ(bufferBytes(proc, 30, 10), "   0000.00");
}

TEST(KXBlockDataProcBuffer, WipesBlankEverythingAndKeepTheLayout) {
  auto block = tenByteBlock(4, 2);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  proc.clearData();
  EXPECT_EQ(bufferBytes(proc), std::string(20, ' '));
  EXPECT_EQ(proc.getValidCount(), 0);
  EXPECT_EQ(proc.getBufCount(), 2);
  EXPECT_EQ(proc.getBlockBuffSize(), 20);

  // The length form blanks only dynamic-length data: nothing when there is none.
  proc.DefaultMemory();
  proc.wipeBuffer(1000);
  EXPECT_EQ(bufferBytes(proc), "   0000.00   0000.00");
  EXPECT_EQ(proc.getValidCount(), 0);
}

TEST(KXBlockDataProcBuffer, ReSizeBytesCopiesTheRecordsItHolds) {
  auto block = tenByteBlock(4, 2);
  KXBlockDataProc proc(block.get());
  auto fresh = proc.reSizeBytes(nullptr, 5);
  EXPECT_EQ(std::memcmp(fresh.get(), "     \0", 6), 0);

  proc.DefaultMemory();
  auto grown = proc.reSizeBytes(proc.getData(), 25);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(grown.get()), 26),
            std::string("   0000.00   0000.00     \0", 26));
  auto shrunk = proc.reSizeBytes(proc.getData(), 4);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(shrunk.get()), 5), std::string("   0\0", 5));
  auto negative = proc.reSizeBytes(proc.getData(), -4);
  EXPECT_EQ(negative[0], 0);
}

TEST(KXBlockDataProcBuffer, InitRealBufferIndexMovesToTheEnd) {
  auto block = tenByteBlock(4, 20);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  proc.initRealBufferIndex();
  EXPECT_EQ(proc.getStartIndex(), 20);
  EXPECT_EQ(proc.getValidCount(), 0);
}

TEST(KXBlockDataProcBuffer, BadDefinitionsLayOutNothingAndNeverCrash) {
  BlockInfo negative("N");
  negative.setRepeat(-5);
  negative.addField("a", kFieldText, 4);
  negative.addField("b", kFieldNumText, -3, 2);
  negative.addField("c", kFieldNumText, 4, 9, 2'000'000'000);  // far past the record
  KXBlockDataProc proc(&negative);
  proc.DefaultMemory();
  EXPECT_EQ(proc.getData(), nullptr);
  EXPECT_EQ(proc.getValidCount(), 0);

  BlockInfo huge("H");
  huge.setRepeat(1'000'000);
  huge.addField("a", kFieldText, 100'000);
  KXBlockDataProc big(&huge);
  big.DefaultMemory();  // 10^11 bytes do not fit 32 bits
  EXPECT_EQ(big.getData(), nullptr);
  EXPECT_EQ(big.getBufCount(), 0);

  BlockInfo outside("O");
  outside.m_nRecordIOMemSize = 4;  // a record size shorter than its fields
  outside.addField("a", kFieldNumText, 8, 2);
  KXBlockDataProc shortRecord(&outside);
  shortRecord.DefaultMemory();
  EXPECT_EQ(bufferBytes(shortRecord), "    ");
}

TEST(KXBlockDataProcLookup, ExactNamesFirstInBlockOrder) {
  BlockInfo block("L");
  block.addField("A", kFieldText, 1);
  FieldInfo& b = block.addField("B", kFieldText, 1);
  block.addField("A", kFieldText, 1);
  b.bPassword = true;
  b.bAccountNo = true;
  KXBlockDataProc proc(&block);
  EXPECT_EQ(proc.getFieldIndexFromName("A"), 0);
  EXPECT_EQ(proc.getFieldIndexFromName("B"), 1);
  EXPECT_EQ(proc.getFieldIndexFromName("C"), -1);
  EXPECT_EQ(proc.getFieldIndexFromName("a"), -1);
  EXPECT_EQ(proc.findFieldInfo("B"), &b);
  EXPECT_TRUE(proc.isPasswordField("B"));
  EXPECT_TRUE(proc.isAccountNoField("B"));
  EXPECT_FALSE(proc.isItemCodeField("B"));
  EXPECT_FALSE(proc.isPasswordField("missing"));
  EXPECT_EQ(KXBlockDataProc(nullptr).getFieldIndexFromName("A"), -1);
}

}  // namespace
}  // namespace blockproc
