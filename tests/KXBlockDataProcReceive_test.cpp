// Receiving record data: normal, reverse and real-time receives.

#include <gtest/gtest.h>

#include <string>

#include "TestBlocks.h"
#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {
namespace {

using testing::bufferBytes;

// A repeated block of 10-byte records: code(4) name(6).
struct TenByteBlock {
  BlockInfo block{"OutBlock"};
  KXBlockDataProc proc{&block};

  explicit TenByteBlock(int32_t repeat = 5) {
    block.setRepeat(repeat);
    block.addField("code", kFieldText, 4);
    block.addField("name", kFieldText, 6);
  }
  // The code field of every valid record, joined by '|'.
  std::string codes() const {
    std::string all;
    for (int32_t i = 0; i < proc.getValidCount(); ++i)
      all += (i > 0 ? "|" : "") + proc.getFieldDataFromName("code", i);
    return all;
  }
};

bool receive(KXBlockDataProc& proc, const std::string& bytes, bool reverse = false) {
  const auto size = static_cast<int32_t>(bytes.size());
  return reverse ? proc.setDataReverse(bytes.data(), 0, size) : proc.setData(bytes.data(), 0, size);
}

bool insert(KXBlockDataProc& proc, const std::string& bytes) {
  return proc.insertRealData(bytes.data(), 0, static_cast<int32_t>(bytes.size()));
}

TEST(KXBlockDataProcReceive, NormalReceiveTakesWholeRecordsInOrder) {
  TenByteBlock t;
  const std::string reply = "xxAAAA111111BBBB222222CCCC33333";
  EXPECT_TRUE(t.proc.setData(reply.data(), 2, 25));  // 2 records and 5 bytes: the 5 are dropped
  EXPECT_EQ(t.proc.getValidCount(), 2);
  EXPECT_EQ(t.proc.getBufCount(), 2);
  EXPECT_EQ(t.proc.getBlockBuffSize(), 20);
  EXPECT_EQ(bufferBytes(t.proc), "AAAA111111BBBB222222");
  EXPECT_EQ(t.proc.getFieldDataFromName("name", 1), "222222");
  EXPECT_EQ(t.proc.getStartIndex(), 0);
}

TEST(KXBlockDataProcReceive, NormalReceiveKeepsALargeEnoughBuffer) {
  TenByteBlock t;
  t.proc.DefaultMemory();
  const uint8_t* laidOut = t.proc.getData();
  receive(t.proc, "AAAA111111BBBB222222CCCC333333");
  EXPECT_EQ(t.proc.getData(), laidOut);
  EXPECT_EQ(t.proc.getBufCount(), 5);
  EXPECT_EQ(t.proc.getValidCount(), 3);
  EXPECT_EQ(t.codes(), "AAAA|BBBB|CCCC");

  // A short record keeps the former tail; records beyond N keep their bytes, out of the readers' sight.
  receive(t.proc, "DD");
  EXPECT_EQ(t.proc.getValidCount(), 1);
  EXPECT_EQ(bufferBytes(t.proc, 0, 30), "DDAA111111BBBB222222CCCC333333");
  EXPECT_EQ(t.proc.getFieldDataFromName("code", 1), "");

  // More records than the buffer holds: a new buffer of exactly that many.
  const std::string six = "111111111122222222223333333333444444444455555555556666666666";
  receive(t.proc, six);
  EXPECT_EQ(t.proc.getBufCount(), 6);
  EXPECT_EQ(t.proc.getBlockBuffSize(), 60);
  EXPECT_EQ(bufferBytes(t.proc), six);
}

TEST(KXBlockDataProcReceive, ReverseReceivePutsTheLastRecordFirst) {
  TenByteBlock t;
  t.proc.DefaultMemory();
  EXPECT_TRUE(receive(t.proc, "AAAA111111BBBB222222CCCC333333", true));
  EXPECT_EQ(t.codes(), "CCCC|BBBB|AAAA");
  EXPECT_EQ(t.proc.getBufCount(), 5);

  // Unlike the normal receive, the rest of a short record becomes spaces.
  EXPECT_TRUE(receive(t.proc, "DD", true));
  EXPECT_EQ(bufferBytes(t.proc, 0, 20), "DD        BBBB222222");
  EXPECT_EQ(t.proc.getValidCount(), 1);

  // Remainder dropped, buffer grown.
  receive(t.proc, "1111111111222222222233333333334444444444555555555566666666667", true);
  EXPECT_EQ(t.proc.getBufCount(), 6);
  EXPECT_EQ(bufferBytes(t.proc), "666666666655555555554444444444333333333322222222221111111111");
}

TEST(KXBlockDataProcReceive, EmptyReceivesOnlyHideTheRecords) {
  for (bool reverse : {false, true}) {
    TenByteBlock t;
    receive(t.proc, "AAAA111111BBBB222222");
    const uint8_t* held = t.proc.getData();
    for (int32_t size : {0, -5}) {
      t.proc.setValidCount(2);
      EXPECT_TRUE(reverse ? t.proc.setDataReverse("AAAA", 0, size) : t.proc.setData("AAAA", 0, size));
      EXPECT_EQ(t.proc.getValidCount(), 0);
    }
    t.proc.setValidCount(2);
    EXPECT_TRUE(reverse ? t.proc.setDataReverse(nullptr, 0, 10) : t.proc.setData(nullptr, 0, 10));
    EXPECT_EQ(t.proc.getValidCount(), 0);
    EXPECT_EQ(t.proc.getData(), held);
    EXPECT_EQ(t.proc.getBufCount(), 2);
    EXPECT_EQ(bufferBytes(t.proc), "AAAA111111BBBB222222");
  }
  // A block whose records have no bytes takes nothing.
  BlockInfo empty("E");
  KXBlockDataProc proc(&empty);
  EXPECT_TRUE(proc.setData("AAAA", 0, 4));
  EXPECT_EQ(proc.getData(), nullptr);
  EXPECT_EQ(proc.getValidCount(), 0);
}

TEST(KXBlockDataProcReceive, BufferOfAnotherStrideIsReplaced) {
  TenByteBlock t(3);
  t.proc.DefaultMemory();                    // 3 records of 10 bytes
  t.block.addField("more", kFieldText, 10);  // now 20-byte records
  receive(t.proc, "AAAA111111xxxxxxxxxxBBBB222222yyyyyyyyyy");
  EXPECT_EQ(t.proc.getBufCount(), 2);
  EXPECT_EQ(t.proc.getBlockBuffSize(), 40);
  EXPECT_EQ(t.proc.getDataValueAllIdxFromName("more"), "xxxxxxxxxxyyyyyyyyyy");
}

TEST(KXBlockDataProcReceive, OwnBytesCanBeReceivedAgain) {
  TenByteBlock t(2);
  receive(t.proc, "AAAA111111BBBB222222");
  EXPECT_TRUE(t.proc.setDataReverse(t.proc.getData(), 0, 20));
  EXPECT_EQ(t.codes(), "BBBB|AAAA");
  // As 5-byte records the same bytes need a larger buffer, which replaces the one they are taken from.
  t.block.m_nRecordIOMemSize = 5;
  EXPECT_TRUE(t.proc.setData(t.proc.getData(), 0, 20));
  EXPECT_EQ(t.proc.getBufCount(), 4);
  EXPECT_EQ(bufferBytes(t.proc), "BBBB222222AAAA111111");
  t.proc.initRealBufferIndex();
  EXPECT_TRUE(t.proc.insertRealData(t.proc.getData(), 0, 5));
  EXPECT_EQ(bufferBytes(t.proc), "BBBB222222AAAA1BBBB2");
}

TEST(KXBlockDataProcReceive, EveryTruncationOfAReplyStaysInsideTheBuffer) {
  const std::string reply = "AAAA111111BBBB222222CCCC333333DDDD444444";
  for (int op = 0; op < 3; ++op) {
    TenByteBlock t(2);
    t.proc.DefaultMemory();
    for (size_t length = 0; length <= reply.size(); ++length) {
      const std::string part = reply.substr(0, length);
      if (op == 2) {
        t.proc.initRealBufferIndex();
        insert(t.proc, part);
      } else {
        EXPECT_TRUE(receive(t.proc, part, op == 1));
        const int32_t records = length == 0 ? 0 : std::max<int32_t>(static_cast<int32_t>(length) / 10, 1);
        EXPECT_EQ(t.proc.getValidCount(), records) << length;
        EXPECT_GE(t.proc.getBufCount(), records);
        const size_t copied = std::min<size_t>(static_cast<size_t>(records) * 10, length);
        if (op == 0) {
          EXPECT_EQ(bufferBytes(t.proc, 0, static_cast<int64_t>(copied)), part.substr(0, copied));
        }
      }
      std::string joined;
      for (int32_t i = 0; i < t.proc.getValidCount(); ++i) joined += t.proc.getFieldDataFromName("name", i);
      EXPECT_LE(joined.size(), 6u * static_cast<size_t>(t.proc.getValidCount()));
    }
  }
}

TEST(KXBlockDataProcRealTime, InsertsPutTheNewestRecordFirst) {
  TenByteBlock t(20);
  t.proc.DefaultMemory();
  t.proc.initRealBufferIndex();
  for (const char* record : {"AAAA111111", "BBBB222222", "CCCC333333"}) EXPECT_TRUE(insert(t.proc, record));
  EXPECT_EQ(t.proc.getStartIndex(), 17);
  EXPECT_EQ(t.proc.getValidCount(), 3);
  EXPECT_EQ(t.codes(), "CCCC|BBBB|AAAA");

  // A short record keeps what its buffer record held.
  EXPECT_TRUE(insert(t.proc, "DD"));
  EXPECT_EQ(t.proc.getFieldDataFromName("code", 0), "DD");
  EXPECT_EQ(t.proc.getFieldDataFromName("name", 0), "");
  EXPECT_EQ(bufferBytes(t.proc, 160, 10), "DD        ");
}

TEST(KXBlockDataProcRealTime, InsertWithoutBufferMakesNinetyNineRecords) {
  TenByteBlock t(3);
  EXPECT_TRUE(insert(t.proc, "AAAA111111"));
  EXPECT_EQ(t.proc.getBufCount(), 99);
  EXPECT_EQ(t.proc.getBlockBuffSize(), 990);
  EXPECT_EQ(t.proc.getStartIndex(), 98);
  EXPECT_EQ(t.proc.getValidCount(), 1);
  EXPECT_EQ(bufferBytes(t.proc, 970, 20), std::string(10, ' ') + "AAAA111111");

  // Two records do not fit behind the last record of a new buffer: refused, the buffer stays made.
  TenByteBlock two(3);
  EXPECT_FALSE(insert(two.proc, "AAAA111111BBBB222222"));
  EXPECT_EQ(two.proc.getBufCount(), 99);
  EXPECT_EQ(two.proc.getValidCount(), 0);
  EXPECT_EQ(bufferBytes(two.proc), std::string(990, ' '));
  EXPECT_TRUE(insert(two.proc, "CCCC333333"));
  EXPECT_EQ(two.proc.getStartIndex(), 98);
  EXPECT_EQ(two.codes(), "CCCC");
}

TEST(KXBlockDataProcRealTime, RefusalsChangeNothing) {
  TenByteBlock t(3);
  t.proc.DefaultMemory();
  t.proc.initRealBufferIndex();
  EXPECT_TRUE(insert(t.proc, "AAAA111111"));
  EXPECT_FALSE(insert(t.proc, "BBBB222222CCCC333333")) << "start 1 + valid 1 + 2 records > 3";
  EXPECT_TRUE(insert(t.proc, "BBBB222222"));
  EXPECT_TRUE(insert(t.proc, "CCCC333333"));
  const std::string full = bufferBytes(t.proc);

  // The start index is 0: no record is free before the first valid one.
  struct Refused {
    const void* bytes;
    int32_t size;
  } refused[] = {{"DDDD444444", 10}, {"DDDD444444", 0}, {"DDDD444444", -1}, {nullptr, 10}};
  for (const auto& r : refused) {
    EXPECT_FALSE(t.proc.insertRealData(r.bytes, 0, r.size)) << r.size;
    EXPECT_EQ(t.proc.getStartIndex(), 0);
    EXPECT_EQ(t.proc.getValidCount(), 3);
    EXPECT_EQ(bufferBytes(t.proc), full);
    EXPECT_EQ(t.codes(), "CCCC|BBBB|AAAA");
  }

  // After a normal receive the start index stays where the inserts left it.
  TenByteBlock moved(3);
  moved.proc.DefaultMemory();
  moved.proc.initRealBufferIndex();
  insert(moved.proc, "AAAA111111");
  receive(moved.proc, "XXXX999999");
  EXPECT_EQ(moved.proc.getStartIndex(), 2);
  EXPECT_EQ(moved.codes(), "AAAA");
}

}  // namespace
}  // namespace blockproc
