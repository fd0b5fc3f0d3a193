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

  // "bytes|buffer size/laid-out records/valid records/block data length"
  static std::string state(const KXBlockDataProc& p) {
    return bufferBytes(p) + "|" + std::to_string(p.getBlockBuffSize()) + "/" +
           std::to_string(p.getBufCount()) + "/" + std::to_string(p.getValidCount()) + "/" +
           std::to_string(p.getBlockDataLen());
  }
  // The dynamic input list as "head:tail|" per position.
  std::string list() const {
    std::string out;
    for (int32_t i = 0; i < proc.getDynamicInputCnt(); ++i)
      out += proc.getFieldDataDynamicLen(&head, i) + ":" + proc.getFieldDataDynamicLen(&tail, i) + "|";
    return out;
  }
};

TEST_F(KXBlockDataProcDynamic, ListAppendsNewRecordsWhateverTheirIndex) {
  proc.setFieldDataDynamicLen(&head, 0, "A");
  proc.setFieldDataDynamicLen(&head, 0, "B");  // an existing record is overwritten
  EXPECT_EQ(list(), "B:|");
  EXPECT_EQ(proc.getValidCount(), 1);
  proc.setFieldDataDynamicLen(&head, 5, "X");  // list position 1, valid count index + 1
  EXPECT_EQ(proc.getValidCount(), 6);
  proc.setFieldDataDynamicLen(&tail, -1, "N");   // appended as well, the valid count stays
  proc.setFieldDataDynamicLen(nullptr, 7, "Y");  // no field or no value: nothing stored, no record made
  proc.setFieldDataDynamicLen(&head, 7, std::nullopt);
  EXPECT_EQ(list(), "B:|X:|:N|");
  EXPECT_EQ(proc.getValidCount(), 6);
  for (const int32_t outside : {-1, 3, 5}) EXPECT_EQ(proc.getFieldDataDynamicLen(&head, outside), "");
  EXPECT_EQ(proc.getFieldDataDynamicLen(nullptr, 0), "");
  proc.setFieldDataDynamicLen(&head, INT32_MAX, "big");
  EXPECT_EQ(proc.getValidCount(), INT32_MAX);
  EXPECT_EQ(proc.getData(), nullptr);  // the list is never formatted into a buffer
}

TEST_F(KXBlockDataProcDynamic, FillNeedsABufferAndAValidRecord) {
  tail.nAttr = 1;  // attribute byte at 10, R = 11
  proc.setFieldDataDynamicLen(&tail, 0, "value");
  FieldData data;
  data.setData("keep");
  EXPECT_FALSE(proc.getFieldDataDynamicLen(&tail, 0, data));  // no buffer, though the value is listed

  proc.DefaultMemory();
  proc.setFieldDataDynamicLen(&tail, 0, "value");
  proc.setFieldAttrFromInfo(&tail, 0, 'Q');
  data.setAttrAble(5);
  for (const int32_t bad : {1, -1}) EXPECT_FALSE(proc.getFieldDataDynamicLen(&tail, bad, data)) << bad;
  EXPECT_FALSE(proc.getFieldDataDynamicLen(nullptr, 0, data));
  EXPECT_EQ(data.getData(), "keep");
  ASSERT_TRUE(proc.getFieldDataDynamicLen(&tail, 0, data));
  EXPECT_EQ(data.getData(), "value");
  EXPECT_EQ(data.getAttr(), 'Q');
  EXPECT_EQ(data.getAttrAble(), 5);
  ASSERT_TRUE(proc.getFieldDataDynamicLen(&head, 0, data));  // nothing set, no attribute byte
  EXPECT_EQ(data.getData(), "");
  EXPECT_EQ(data.getAttr(), 0);
}

TEST_F(KXBlockDataProcDynamic, ListSurvivesDynamicReceivesButNotNormalOnes) {
  proc.setFieldDataDynamicLen(&head, 0, "A");
  proc.setFieldDataDynamicLen(&head, 1, "B");
  proc.setDataDynamic(kBytes, 0, 25);
  proc.setDataDynamic(kBytes, 0, 45);  // replaces the area
  proc.resetDataDynamic(kBytes, 60);   // replaces it again
  proc.resetDataDynamic(kBytes, 3);
  proc.initRealBufferIndex();
  proc.initDynamicRealBufferIndex();  // back to the first record; list and buffer stay
  EXPECT_EQ(proc.getStartIndex(), 0);
  EXPECT_EQ(state(proc), "012" + std::string(57, ' ') + "|60/1/0/60");
  EXPECT_EQ(list(), "A:|B:|");

  // A normal receive of more records than the buffer holds wipes the old buffer and so the list.
  proc.resetDataDynamic(kBytes, 10);  // buffer record count 1
  proc.setData(kBytes, 0, 30);
  EXPECT_EQ(list(), "");
}

TEST_F(KXBlockDataProcDynamic, SetDataDynamicReusesTheAreaOnlyWhenItFits) {
  proc.setDataDynamic(kBytes, 0, 25);  // the half record left over is dropped
  EXPECT_EQ(state(proc), "0123456789abcdefghij|20/2/2/20");
  const uint8_t* area = proc.getData();
  proc.setDataDynamic(kBytes, 3, 15);  // one record from position 3: the rest keeps its bytes
  EXPECT_EQ(proc.getData(), area);
  EXPECT_EQ(state(proc), "3456789abcabcdefghij|20/2/1/20");
  proc.setDataDynamic(kBytes, 0, 39);  // three records do not fit: a new area of exactly three
  EXPECT_EQ(state(proc), std::string(kBytes, 30) + "|30/3/3/30");

  proc.setDataDynamic(kBytes, 0, 0);
  EXPECT_EQ(state(proc), std::string(kBytes, 30) + "|30/3/0/30");
  proc.resetDataDynamic(kBytes, 0);  // the block data length drops to 0: the area is not reused
  proc.setDataDynamic(kBytes, 0, 10);
  EXPECT_EQ(state(proc), "0123456789|10/1/1/10");
  proc.setDataDynamic(nullptr, 0, 10);
  EXPECT_EQ(proc.getValidCount(), 0);
}

TEST_F(KXBlockDataProcDynamic, ShortReceiveGetsAnAreaOfExactlyItsBytes) {
  proc.setDataDynamic(kBytes, 0, 4);
  EXPECT_EQ(state(proc), "0123|4/1/1/4");
  proc.setDataDynamic(kBytes, 0, 6);  // still less than one record, but the 4-byte area is too small
  EXPECT_EQ(state(proc), "012345|6/1/1/6");

  // head fits, tail would need bytes 4 to 9: it reads as nothing.
  EXPECT_EQ(proc.getFieldDataFromInfo(&head, 0), "0123");
  EXPECT_EQ(proc.getFieldDataFromInfo(&tail, 0), "");
  EXPECT_EQ(proc.getFieldDataFromInfoEX(&tail, 0), "");
  EXPECT_EQ(proc.getFieldDataAllIdxFromInfo(&tail), "");
  FieldData data;
  EXPECT_TRUE(proc.getFieldDataFromInfo(&tail, 0, data));
  EXPECT_EQ(data.getData(), "");

  // A block without record size takes whatever it receives as one record.
  BlockInfo empty("Empty");
  KXBlockDataProc bare(&empty);
  bare.setDataDynamic(kBytes, 1, 5);
  EXPECT_EQ(state(bare), "12345|5/1/1/5");
}

TEST_F(KXBlockDataProcDynamic, ResetReusesTheAreaItCoversAndBlanksItsTail) {
  proc.resetDataDynamic(kBytes, 30);
  const uint8_t* area = proc.getData();
  proc.resetDataDynamic(kBytes + 1, 30);  // exactly as long as the area: reused
  EXPECT_EQ(proc.getData(), area);
  proc.resetDataDynamic("ABCDEFGHIJKL", 12);
  EXPECT_EQ(proc.getData(), area);
  EXPECT_EQ(state(proc), "ABCDEFGHIJKL" + std::string(18, ' ') + "|30/1/1/30");
  proc.resetDataDynamic(kBytes, 40);  // grows
  EXPECT_EQ(state(proc), std::string(kBytes, 40) + "|40/1/1/40");

  // Another operation replaced the area with a smaller one: a reset stays inside it.
  block.setRepeat(2);
  proc.DefaultMemory();  // one record held: replaced by a 20-byte buffer
  ASSERT_EQ(proc.getBlockBuffSize(), 20);
  EXPECT_LE(proc.getBlockDataLen(), 20);
  proc.resetDataDynamic("abcdefghijklmno", 15);
  EXPECT_EQ(bufferBytes(proc), "abcdefghijklmno     ");
  EXPECT_LE(proc.getBlockDataLen(), 20);
  proc.resetDataDynamic(kBytes, 25);  // more than the area holds: a new one
  EXPECT_EQ(state(proc), std::string(kBytes, 25) + "|25/1/1/25");

  proc.resetDataDynamic(kBytes, 0);  // the area stays
  EXPECT_EQ(state(proc), std::string(kBytes, 25) + "|25/1/0/0");
  proc.resetDataDynamic(kBytes, 5);  // nothing of the block data length is left to reuse
  EXPECT_EQ(state(proc), "01234|5/1/1/5");
}

TEST_F(KXBlockDataProcDynamic, OwnBytesAreTakenAsACopyOfThemWould) {
  // Each dynamic receive of the block's own bytes ends as the receive of a copy of them does.
  const struct {
    int32_t from, size;
    bool reset;
  } rows[] = {{5, 5, true}, {0, 20, true}, {0, 25, true}, {3, 20, false}, {5, 20, false}, {0, 25, false}};
  for (const auto& r : rows) {
    KXBlockDataProc own(&block), copy(&block);
    for (KXBlockDataProc* p : {&own, &copy}) p->resetDataDynamic(kBytes, 25);
    const std::string bytes(reinterpret_cast<const char*>(own.getData()), 25);
    if (r.reset) {
      own.resetDataDynamic(own.getData() + r.from, r.size);
      copy.resetDataDynamic(bytes.data() + r.from, r.size);
    } else {
      own.setDataDynamic(own.getData(), r.from, r.size);
      copy.setDataDynamic(bytes.data(), r.from, r.size);
    }
    EXPECT_EQ(state(own), state(copy)) << r.from << "+" << r.size << (r.reset ? " reset" : "");
  }
}

}  // namespace
}  // namespace blockproc
