// The dynamic input list and the dynamic receives.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "TestBlocks.h"
#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {
namespace {

using testing::bufferBytes;

constexpr const char* kBytes = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

// head(4) @0, tail(6) @4: R = 10.
struct KXBlockDataProcDynamic : ::testing::Test {
  BlockInfo block{"Dyn"};
  FieldInfo& head = block.addField("head", kFieldText, 4);
  FieldInfo& tail = block.addField("tail", kFieldText, 6);
  KXBlockDataProc proc{&block};
};

TEST_F(KXBlockDataProcDynamic, ValuesAreKeptPerRecordAndField) {
  proc.setFieldDataDynamicLen(&head, 0, "A");
  EXPECT_EQ(proc.getDynamicInputCnt(), 1);
  EXPECT_EQ(proc.getValidCount(), 1);
  EXPECT_EQ(proc.getFieldDataDynamicLen(&head, 0), "A");
  EXPECT_EQ(proc.getFieldDataDynamicLen(&tail, 0), "");
  EXPECT_EQ(proc.getFieldDataDynamicLen(&head, 1), "");
  EXPECT_EQ(proc.getFieldDataDynamicLen(nullptr, 0), "");

  proc.setFieldDataDynamicLen(&head, 0, "B");
  EXPECT_EQ(proc.getFieldDataDynamicLen(&head, 0), "B");
  EXPECT_EQ(proc.getDynamicInputCnt(), 1);
  EXPECT_EQ(proc.getData(), nullptr);  // never formatted into a buffer
}

TEST_F(KXBlockDataProcDynamic, NewRecordsAreAppendedWhateverTheirIndex) {
  proc.setFieldDataDynamicLen(&head, 0, "A");
  proc.setFieldDataDynamicLen(&head, 5, "X");
  EXPECT_EQ(proc.getDynamicInputCnt(), 2);
  EXPECT_EQ(proc.getFieldDataDynamicLen(&head, 1), "X");
  EXPECT_EQ(proc.getFieldDataDynamicLen(&head, 5), "");
  EXPECT_EQ(proc.getValidCount(), 6);

  proc.setFieldDataDynamicLen(&tail, -1, "N");
  EXPECT_EQ(proc.getDynamicInputCnt(), 3);
  EXPECT_EQ(proc.getFieldDataDynamicLen(&tail, 2), "N");
  EXPECT_EQ(proc.getFieldDataDynamicLen(&tail, -1), "");
  EXPECT_EQ(proc.getValidCount(), 6);

  // No field or no value: nothing stored, no record made.
  proc.setFieldDataDynamicLen(nullptr, 7, "Y");
  proc.setFieldDataDynamicLen(&head, 7, std::nullopt);
  EXPECT_EQ(proc.getDynamicInputCnt(), 3);
  EXPECT_EQ(proc.getValidCount(), 6);

  proc.setFieldDataDynamicLen(&head, INT32_MAX, "big");
  EXPECT_EQ(proc.getValidCount(), INT32_MAX);
}

TEST_F(KXBlockDataProcDynamic, FillNeedsABufferAndAValidRecord) {
  tail.nAttr = 1;  // attribute byte at 10, R = 11
  proc.setFieldDataDynamicLen(&tail, 0, "value");
  FieldData data;
  data.setData("keep");
  EXPECT_FALSE(proc.getFieldDataDynamicLen(&tail, 0, data));  // no buffer, though the value is listed
  EXPECT_EQ(data.getData(), "keep");

  proc.DefaultMemory();
  proc.setFieldDataDynamicLen(&tail, 0, "value");
  proc.setFieldAttrFromInfo(&tail, 0, 'Q');
  data.setAttrAble(5);
  ASSERT_TRUE(proc.getFieldDataDynamicLen(&tail, 0, data));
  EXPECT_EQ(data.getData(), "value");
  EXPECT_EQ(data.getAttr(), 'Q');
  EXPECT_EQ(data.getAttrAble(), 5);
  ASSERT_TRUE(proc.getFieldDataDynamicLen(&head, 0, data));  // nothing set, no attribute byte
  EXPECT_EQ(data.getData(), "");
  EXPECT_EQ(data.getAttr(), 0);

  data.setData("keep");
  EXPECT_FALSE(proc.getFieldDataDynamicLen(&tail, 1, data));
  EXPECT_FALSE(proc.getFieldDataDynamicLen(&tail, -1, data));
  EXPECT_FALSE(proc.getFieldDataDynamicLen(nullptr, 0, data));
  EXPECT_EQ(data.getData(), "keep");
}

TEST_F(KXBlockDataProcDynamic, ListSurvivesDynamicReceivesButNotNormalOnes) {
  proc.setFieldDataDynamicLen(&head, 0, "A");
  proc.setFieldDataDynamicLen(&head, 1, "B");
  proc.setDataDynamic(kBytes, 0, 25);
  proc.setDataDynamic(kBytes, 0, 45);  // replaces the area
  proc.resetDataDynamic(kBytes, 60);   // replaces it again
  proc.resetDataDynamic(kBytes, 3);
  proc.initDynamicRealBufferIndex();
  EXPECT_EQ(proc.getDynamicInputCnt(), 2);
  EXPECT_EQ(proc.getFieldDataDynamicLen(&head, 1), "B");

  // A normal receive of more records than the buffer holds wipes the old buffer and so the list.
  proc.resetDataDynamic(kBytes, 10);  // buffer record count 1
  proc.setData(kBytes, 0, 30);
  EXPECT_EQ(proc.getDynamicInputCnt(), 0);
  EXPECT_EQ(proc.getFieldDataDynamicLen(&head, 0), "");
}

TEST_F(KXBlockDataProcDynamic, SetDataDynamicSizesTheArea) {
  proc.setDataDynamic(kBytes, 0, 25);
  EXPECT_EQ(proc.getBlockBuffSize(), 20);
  EXPECT_EQ(proc.getBufCount(), 2);
  EXPECT_EQ(proc.getValidCount(), 2);
  EXPECT_EQ(proc.getBlockDataLen(), 20);
  EXPECT_EQ(bufferBytes(proc), "0123456789abcdefghij");
  const uint8_t* area = proc.getData();

  // One record from position 3 fits the area: reused, the rest keeps its bytes.
  proc.setDataDynamic(kBytes, 3, 15);
  EXPECT_EQ(proc.getData(), area);
  EXPECT_EQ(bufferBytes(proc), "3456789abcabcdefghij");
  EXPECT_EQ(proc.getValidCount(), 1);
  EXPECT_EQ(proc.getBufCount(), 2);
  EXPECT_EQ(proc.getBlockDataLen(), 20);

  // Three records do not fit: a new area of exactly three records.
  proc.setDataDynamic(kBytes, 0, 39);
  EXPECT_EQ(proc.getBlockBuffSize(), 30);
  EXPECT_EQ(proc.getBufCount(), 3);
  EXPECT_EQ(proc.getBlockDataLen(), 30);

  proc.setDataDynamic(kBytes, 0, 0);
  EXPECT_EQ(proc.getValidCount(), 0);
  EXPECT_EQ(proc.getBlockBuffSize(), 30);
  proc.setDataDynamic(nullptr, 0, 10);
  EXPECT_EQ(proc.getValidCount(), 0);
}

TEST_F(KXBlockDataProcDynamic, ShortReceiveGetsAnAreaOfExactlyItsBytes) {
  proc.setDataDynamic(kBytes, 0, 4);
  EXPECT_EQ(bufferBytes(proc), "0123");
  EXPECT_EQ(proc.getBufCount(), 1);
  EXPECT_EQ(proc.getValidCount(), 1);
  EXPECT_EQ(proc.getBlockDataLen(), 4);

  // More bytes, still less than one record: the 4-byte area is too small and is replaced.
  proc.setDataDynamic(kBytes, 0, 7);
  EXPECT_EQ(bufferBytes(proc), "0123456");
  EXPECT_EQ(proc.getBlockDataLen(), 7);

  // A block without record size takes whatever it receives as one record.
  BlockInfo empty("Empty");
  KXBlockDataProc bare(&empty);
  bare.setDataDynamic(kBytes, 1, 5);
  EXPECT_EQ(bufferBytes(bare), "12345");
  EXPECT_EQ(bare.getValidCount(), 1);
}

TEST_F(KXBlockDataProcDynamic, ReadsOfAFieldPastAShortAreaGiveNothing) {
  proc.setDataDynamic(kBytes, 0, 6);  // head fits, tail would need bytes 4 to 9
  EXPECT_EQ(proc.getFieldDataFromInfo(&head, 0), "0123");
  EXPECT_EQ(proc.getFieldDataFromInfo(&tail, 0), "");
  EXPECT_EQ(proc.getFieldDataFromInfoEX(&tail, 0), "");
  EXPECT_EQ(proc.getFieldDataAllIdxFromInfo(&tail), "");
  FieldData data;
  EXPECT_TRUE(proc.getFieldDataFromInfo(&tail, 0, data));
  EXPECT_EQ(data.getData(), "");
}

TEST_F(KXBlockDataProcDynamic, ResetReusesTheLargestAreaAndBlanksItsTail) {
  proc.resetDataDynamic(kBytes, 30);
  const uint8_t* area = proc.getData();
  proc.resetDataDynamic("ABCDEFGHIJKL", 12);
  EXPECT_EQ(proc.getData(), area);
  EXPECT_EQ(bufferBytes(proc), "ABCDEFGHIJKL" + std::string(18, ' '));
  EXPECT_EQ(proc.getBlockDataLen(), 30);
  EXPECT_EQ(proc.getBufCount(), 1);
  EXPECT_EQ(proc.getValidCount(), 1);

  proc.resetDataDynamic(kBytes, 40);  // grows
  EXPECT_EQ(proc.getBlockBuffSize(), 40);
  EXPECT_EQ(proc.getBlockDataLen(), 40);

  proc.resetDataDynamic(kBytes, 0);
  EXPECT_EQ(proc.getValidCount(), 0);
  EXPECT_EQ(proc.getBlockDataLen(), 0);
  EXPECT_EQ(proc.getBlockBuffSize(), 40);  // the area stays

  proc.resetDataDynamic(kBytes, 5);  // nothing of the block data length is left to reuse
  EXPECT_EQ(bufferBytes(proc), "01234");
  EXPECT_EQ(proc.getBlockDataLen(), 5);
}

TEST_F(KXBlockDataProcDynamic, ResetAfterAnotherOperationReplacedTheAreaStaysInside) {
  block.setRepeat(2);
  proc.resetDataDynamic(kBytes, 30);
  proc.DefaultMemory();  // one record held: replaced by a 20-byte buffer
  ASSERT_EQ(proc.getBlockBuffSize(), 20);
  EXPECT_LE(proc.getBlockDataLen(), proc.getBlockBuffSize());

  proc.resetDataDynamic("abcdefghijklmno", 15);
  EXPECT_EQ(bufferBytes(proc), "abcdefghijklmno     ");
  EXPECT_LE(proc.getBlockDataLen(), 20);

  proc.resetDataDynamic(kBytes, 25);  // more than the area holds: a new one
  EXPECT_EQ(proc.getBlockBuffSize(), 25);
  EXPECT_EQ(proc.getBlockDataLen(), 25);
  EXPECT_EQ(bufferBytes(proc), std::string(kBytes, 25));
}

TEST_F(KXBlockDataProcDynamic, InitDynamicRealBufferIndexKeepsListAndBuffer) {
  block.setRepeat(4);
  proc.DefaultMemory();
  proc.setFieldDataDynamicLen(&head, 4, "v");
  proc.initRealBufferIndex();
  proc.initDynamicRealBufferIndex();
  EXPECT_EQ(proc.getStartIndex(), 0);
  EXPECT_EQ(proc.getValidCount(), 0);
  EXPECT_EQ(proc.getDynamicInputCnt(), 1);
  EXPECT_EQ(proc.getBlockBuffSize(), 40);
}

}  // namespace
}  // namespace blockproc
