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

  explicit TenByteBlock(int32_t repeat) {
    block.setRepeat(repeat);
    block.addField("code", kFieldText, 4);
    block.addField("name", kFieldText, 6);
    proc.DefaultMemory();
  }
  bool receive(const std::string& bytes, bool reverse = false) {
    const auto size = static_cast<int32_t>(bytes.size());
    return reverse ? proc.setDataReverse(bytes.data(), 0, size) : proc.setData(bytes.data(), 0, size);
  }
  bool insert(const std::string& bytes) {
    return proc.insertRealData(bytes.data(), 0, static_cast<int32_t>(bytes.size()));
  }
  // The code field of every valid record, joined by '|'.
  std::string codes() const {
    std::string all;
    for (int32_t i = 0; i < proc.getValidCount(); ++i)
      all += (i > 0 ? "|" : "") + proc.getFieldDataFromName("code", i);
    return all;
  }
};

TEST(KXBlockDataProcReceive, NormalReceive) {
  TenByteBlock t(5);
  const uint8_t* laidOut = t.proc.getData();
  const std::string reply = "xxAAAA111111BBBB222222CCCC333333DDDD4";
  EXPECT_TRUE(t.proc.setData(reply.data(), 2, 35));  // 3 records and 5 bytes: the 5 are dropped
  EXPECT_EQ(t.proc.getData(), laidOut) << "a buffer that holds the records stays";
  EXPECT_EQ(t.proc.getBufCount(), 5);
  EXPECT_EQ(t.codes(), "AAAA|BBBB|CCCC");
  EXPECT_EQ(bufferBytes(t.proc, 30, 10), std::string(10, ' '));

  // A short record keeps the former tail; records beyond N keep their bytes, out of the readers' sight.
  EXPECT_TRUE(t.receive("DD"));
  EXPECT_EQ(t.proc.getValidCount(), 1);
  EXPECT_EQ(bufferBytes(t.proc, 0, 30), "DDAA111111BBBB222222CCCC333333");

  // More records than the buffer holds, or a buffer laid out with another stride: a new buffer.
  const std::string six = "111111111122222222223333333333444444444455555555556666666666";
  t.receive(six);
  EXPECT_EQ(t.proc.getBufCount(), 6);
  EXPECT_EQ(bufferBytes(t.proc), six);
  t.block.addField("more", kFieldText, 10);  // 20-byte records: 4 of them need more than the 60 bytes
  t.receive("AAAA111111wwwwwwwwwwBBBB222222xxxxxxxxxxCCCC333333yyyyyyyyyyDDDD444444zzzzzzzzzz");
  EXPECT_EQ(t.proc.getBufCount(), 4);
  EXPECT_EQ(t.proc.getBlockBuffSize(), 80);
  EXPECT_EQ(t.proc.getDataValueAllIdxFromName("more"), "wwwwwwwwwwxxxxxxxxxxyyyyyyyyyyzzzzzzzzzz");
}

TEST(KXBlockDataProcReceive, ReverseReceive) {
  TenByteBlock t(5);
  EXPECT_TRUE(t.receive("AAAA111111BBBB222222CCCC333333", true));
  EXPECT_EQ(t.codes(), "CCCC|BBBB|AAAA");
  // Unlike the normal receive, the rest of a short record becomes spaces.
  EXPECT_TRUE(t.receive("DD", true));
  EXPECT_EQ(bufferBytes(t.proc, 0, 20), "DD        BBBB222222");
  t.receive("1111111111222222222233333333334444444444555555555566666666667", true);
  EXPECT_EQ(bufferBytes(t.proc), "666666666655555555554444444444333333333322222222221111111111");
}

TEST(KXBlockDataProcReceive, EmptyReceivesOnlyHideTheRecords) {
  for (bool reverse : {false, true}) {
    TenByteBlock t(2);
    t.receive("AAAA111111BBBB222222");
    struct Empty {
      const char* bytes;
      int32_t size;
    } empties[] = {{"AAAA", 0}, {"AAAA", -5}, {nullptr, 10}};
    for (const auto& e : empties) {
      t.proc.setValidCount(2);
      EXPECT_TRUE(reverse ? t.proc.setDataReverse(e.bytes, 0, e.size) : t.proc.setData(e.bytes, 0, e.size));
      EXPECT_EQ(t.proc.getValidCount(), 0);
      EXPECT_EQ(bufferBytes(t.proc), "AAAA111111BBBB222222");
    }
  }
}

TEST(KXBlockDataProcReceive, EveryTruncationOfAReplyStaysInsideTheBuffer) {
  const std::string reply = "AAAA111111BBBB222222CCCC333333DDDD444444";
  for (bool reverse : {false, true}) {
    TenByteBlock t(2);
    for (size_t length = 0; length <= reply.size(); ++length) {
      const std::string part = reply.substr(0, length);
      EXPECT_TRUE(t.receive(part, reverse));
      const int32_t records = length == 0 ? 0 : std::max(static_cast<int32_t>(length) / 10, 1);
      EXPECT_EQ(t.proc.getValidCount(), records) << length;
      const size_t copied = std::min<size_t>(static_cast<size_t>(records) * 10, length);
      if (records > 0) {  // the first received record: buffer record 0, or N - 1 when reversed
        const int64_t at = reverse ? (records - 1) * 10 : 0;
        EXPECT_EQ(bufferBytes(t.proc, at, std::min<int64_t>(copied, 10)),
                  part.substr(0, std::min<size_t>(copied, 10)));
      }
      t.proc.initRealBufferIndex();
      t.insert(part);  // accepted or refused, never outside the buffer
      for (int32_t i = -1; i <= t.proc.getValidCount(); ++i) t.proc.getFieldDataFromName("name", i);
      t.proc.initDynamicRealBufferIndex();
    }
  }
}

TEST(KXBlockDataProcRealTime, InsertsPutTheNewestRecordFirst) {
  TenByteBlock t(20);
  t.proc.initRealBufferIndex();
  for (const char* record : {"AAAA111111", "BBBB222222", "CCCC333333"}) EXPECT_TRUE(t.insert(record));
  EXPECT_EQ(t.proc.getStartIndex(), 17);
  EXPECT_EQ(t.codes(), "CCCC|BBBB|AAAA");
  EXPECT_TRUE(t.insert("DD"));  // a short record keeps what its buffer record held
  EXPECT_EQ(bufferBytes(t.proc, 160, 10), "DD        ");

  // Without a buffer: 99 records, the first insert in the last; two records do not fit behind it.
  BlockInfo block("R");
  block.addField("code", kFieldText, 10);
  KXBlockDataProc fresh(&block);
  EXPECT_FALSE(fresh.insertRealData("AAAA111111BBBB222222", 0, 20));
  EXPECT_EQ(fresh.getBufCount(), 99) << "the buffer made stays";
  EXPECT_EQ(fresh.getValidCount(), 0);
  EXPECT_TRUE(fresh.insertRealData("CCCC333333", 0, 10));
  EXPECT_EQ(fresh.getStartIndex(), 98);
  EXPECT_EQ(fresh.getValidCount(), 1);
  EXPECT_EQ(bufferBytes(fresh, 970, 20), std::string(10, ' ') + "CCCC333333");

  // The buffer an insert makes takes its record whatever valid count the block held before.
  KXBlockDataProc counted(&block);
  counted.setValidCount(2);
  EXPECT_TRUE(counted.insertRealData("DDDD444444", 0, 10));
  EXPECT_EQ(counted.getStartIndex(), 98);
  EXPECT_EQ(counted.getValidCount(), 3);
  EXPECT_EQ(counted.getFieldDataFromName("code", 0), "DDDD444444");
  EXPECT_EQ(counted.getFieldDataFromName("code", 1), "") << "past the buffer: nothing";
}

TEST(KXBlockDataProcRealTime, RefusalsChangeNothing) {
  TenByteBlock t(3);
  t.proc.initRealBufferIndex();
  EXPECT_TRUE(t.insert("AAAA111111"));
  EXPECT_FALSE(t.insert("BBBB222222CCCC333333")) << "start 1 + valid 1 + 2 records > 3";
  EXPECT_EQ(t.proc.getStartIndex(), 2);
  EXPECT_TRUE(t.insert("BBBB222222"));
  EXPECT_TRUE(t.insert("CCCC333333"));
  const std::string full = bufferBytes(t.proc);
  // Start index 0: no record is free before the first valid one. No bytes: nothing to insert.
  struct Refused {
    const char* bytes;
    int32_t size;
  } refused[] = {{"DDDD444444", 10}, {"DDDD444444", -1}, {nullptr, 10}};
  for (const auto& r : refused) {
    EXPECT_FALSE(t.proc.insertRealData(r.bytes, 0, r.size)) << r.size;
    EXPECT_EQ(t.proc.getStartIndex(), 0);
    EXPECT_EQ(bufferBytes(t.proc), full);
    EXPECT_EQ(t.codes(), "CCCC|BBBB|AAAA");
  }
  // An insert of 0 bytes, like the other receives, empties the block for the readers and keeps the rest.
  EXPECT_TRUE(t.proc.insertRealData(nullptr, 0, 0));
  EXPECT_EQ(t.proc.getValidCount(), 0);
  EXPECT_EQ(t.proc.getStartIndex(), 0);
  EXPECT_EQ(bufferBytes(t.proc), full);
  // A normal receive leaves the start index where the inserts left it.
  t.proc.initRealBufferIndex();
  t.insert("EEEE555555");
  t.receive("XXXX999999");
  EXPECT_EQ(t.proc.getStartIndex(), 2);
  EXPECT_EQ(t.codes(), "EEEE");
}

TEST(KXBlockDataProcReceive, OwnBytesCanBeReceivedAgain) {
  TenByteBlock t(2);
  t.receive("AAAA111111BBBB222222");
  EXPECT_TRUE(t.proc.setDataReverse(t.proc.getData(), 0, 20));
  EXPECT_EQ(t.codes(), "BBBB|AAAA");
  // As 5-byte records the same bytes need a larger buffer, which replaces the one they are taken from.
  t.block.m_nRecordIOMemSize = 5;
  EXPECT_TRUE(t.proc.setData(t.proc.getData(), 0, 20));
  EXPECT_EQ(bufferBytes(t.proc), "BBBB222222AAAA111111");
  t.proc.initRealBufferIndex();
  EXPECT_TRUE(t.proc.insertRealData(t.proc.getData(), 0, 5));
  EXPECT_EQ(bufferBytes(t.proc), "BBBB222222AAAA1BBBB2");
}

}  // namespace
}  // namespace blockproc
