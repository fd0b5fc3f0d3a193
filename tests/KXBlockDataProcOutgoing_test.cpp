// Handing the block's bytes out: packing the first record for sending, and the block as text.

#include <gtest/gtest.h>

#include <string>

#include "TestBlocks.h"
#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {
namespace {

using testing::bufferBytes;
using namespace std::string_literals;

// Puts raw bytes into the record buffer at an offset (the buffer must already hold them).
void poke(const KXBlockDataProc& proc, int64_t offset, std::string_view bytes) {
  ASSERT_LE(offset + static_cast<int64_t>(bytes.size()), proc.getBlockBuffSize());
  std::copy(bytes.begin(), bytes.end(), const_cast<uint8_t*>(proc.getData()) + offset);
}

// Packs the processor's first record into a guarded send buffer; checks nothing is written past `expected`.
std::string pack(const KXBlockDataProc& proc, size_t expected) {
  std::string send(expected + 8, '#');
  proc.getStructInputData(send.data());
  EXPECT_EQ(send.substr(expected), std::string(8, '#')) << "written past the fields";
  return send.substr(0, expected);
}

TEST(KXBlockDataProcOutgoing, PacksFieldsBackToBackWithoutAttributeBytes) {
  BlockInfo block("In");
  block.addField("a", kFieldText, 10).nAttr = 1;  // attribute byte at 10
  block.addField("b", kFieldNumText, 5, 1);       // at 11: a 16-byte record
  KXBlockDataProc proc(&block);
  proc.setFieldDataFromName("a", 0, "hello");
  proc.setFieldDataFromName("b", 0, "3.5");
  poke(proc, 10, "A");
  ASSERT_EQ(proc.getBlockBuffSize(), 16);
  EXPECT_EQ(pack(proc, 15), "hello     003.5");
}

TEST(KXBlockDataProcOutgoing, BlockOrderWhateverThePositionsAndOnlyTheFirstRecord) {
  BlockInfo block("In");
  block.setRepeat(4);
  block.addField("late", kFieldText, 3, 0, 6);
  block.addField("none", kFieldText, 0, 0, 2);  // adds nothing, does not move the write position
  block.addField("early", kFieldText, 2, 0, 0);
  block.addField("bin", kFieldInt16, 2, 0, 3);
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();
  for (int32_t i = 0; i < 4; ++i) {
    const std::string tag = std::to_string(i);
    proc.setFieldDataFromName("late", i, "L" + tag);
    proc.setFieldDataFromName("early", i, "E" + tag);
    proc.setFieldDataFromName("bin", i, "258");
  }
  poke(proc, 5, "#");  // a gap byte that belongs to no field
  EXPECT_EQ(proc.getValidCount(), 4);
  EXPECT_EQ(pack(proc, 7), "L0 E0\x02\x01"s);
}

TEST(KXBlockDataProcOutgoing, EveryFieldLengthIsCopiedExactly) {
  // Lengths 1 to 40, each field one gap byte after the previous, every byte distinct from its neighbours.
  BlockInfo block("Lengths");
  std::string expected;
  int32_t pos = 0;
  for (int32_t length = 1; length <= 40; ++length) {
    block.addField("f" + std::to_string(length), kFieldText, length, 0, pos);
    pos += length + 1;
  }
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();
  std::string record(static_cast<size_t>(proc.getBlockBuffSize()), ' ');
  for (size_t i = 0; i < record.size(); ++i) record[i] = static_cast<char>('!' + i % 90);
  poke(proc, 0, record);
  pos = 0;
  for (int32_t length = 1; length <= 40; ++length) {
    expected += record.substr(static_cast<size_t>(pos), static_cast<size_t>(length));
    pos += length + 1;
  }
  EXPECT_EQ(pack(proc, expected.size()), expected);
}

TEST(KXBlockDataProcOutgoing, WorksFromBufferRecordZeroIgnoringTheStartIndex) {
  auto block = std::make_unique<BlockInfo>("In");
  block->setRepeat(3);
  block->addField("t", kFieldText, 2);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  poke(proc, 0, "r0r1r2");
  proc.initRealBufferIndex();
  EXPECT_EQ(pack(proc, 2), "r0");
}

TEST(KXBlockDataProcOutgoing, BytesOutsideTheBufferGoAsSpaces) {
  BlockInfo block("Short");
  block.m_nRecordIOMemSize = 6;  // a buffer shorter than the record its fields describe
  block.addField("a", kFieldText, 4);
  block.addField("b", kFieldText, 4);        // bytes 4 to 7: two inside, two outside
  block.addField("c", kFieldText, 3, 0, 9);  // wholly outside
  block.addField("neg", kFieldText, -5);     // adds nothing
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();
  poke(proc, 0, "abcdef");
  EXPECT_EQ(pack(proc, 11), "abcdef     ");

  // Without a buffer nothing is written at all.
  KXBlockDataProc empty(&block);
  EXPECT_EQ(pack(empty, 0), "");
  std::string untouched(4, '#');
  empty.getStructInputData(untouched.data());
  EXPECT_EQ(untouched, "####");
  proc.getStructInputData(nullptr);
  KXBlockDataProc(nullptr).getStructInputData(untouched.data());
  EXPECT_EQ(untouched, "####");
}

TEST(KXBlockDataProcBlockData, RecordCountFollowsTheRepeatBit) {
  auto block = std::make_unique<BlockInfo>("B");
  block->addField("t", kFieldText, 4);
  KXBlockDataProc none(block.get());
  EXPECT_EQ(none.getBlockData(), "");  // no buffer

  // A one-record block gives its record even with no valid record.
  KXBlockDataProc single(block.get());
  single.DefaultMemory();
  poke(single, 0, "abcd");
  single.setValidCount(0);
  EXPECT_EQ(single.getBlockData(), "abcd");

  // A repeated block gives its valid records, never more than the buffer holds.
  block->setRepeat(3);
  KXBlockDataProc repeated(block.get());
  repeated.DefaultMemory();
  poke(repeated, 0, "r0  r1  r2  ");
  repeated.setValidCount(0);
  EXPECT_EQ(repeated.getBlockData(), "");
  repeated.setValidCount(2);
  EXPECT_EQ(repeated.getBlockData(), "r0  r1  ");
  repeated.setValidCount(50);
  EXPECT_EQ(repeated.getBlockData(), "r0  r1  r2  ");
  repeated.setValidCount(-1);
  EXPECT_EQ(repeated.getBlockData(), "");
}

TEST(KXBlockDataProcBlockData, Utf8FirstThenCodePage949ThenNothing) {
  auto block = std::make_unique<BlockInfo>("B");
  block->addField("t", kFieldText, 6);
  KXBlockDataProc proc(block.get());
  proc.setEncodingType(kTextEncodingASCII);  // the processor's encoding plays no part
  proc.DefaultMemory();

  poke(proc, 0, "\xEA\xB0\x80\xEB\x82\x98");  // valid UTF-8 stays as it is
  EXPECT_EQ(proc.getBlockData(), "\xEA\xB0\x80\xEB\x82\x98");
  poke(proc, 0, "\xB0\xA1\xB3\xAA\xB4\xD9");  // cp949 only
  EXPECT_EQ(proc.getBlockData(), "\xEA\xB0\x80\xEB\x82\x98\xEB\x8B\xA4");
  poke(proc, 0, "ab\xFF\xFF  ");  // neither
  EXPECT_EQ(proc.getBlockData(), std::nullopt);
}

TEST(KXBlockDataProcBlockData, CutAtTheFirstZeroByte) {
  auto block = std::make_unique<BlockInfo>("B");
  block->addField("t", kFieldText, 10);
  KXBlockDataProc proc(block.get());
  proc.DefaultMemory();
  poke(proc, 0, "abcde\0\xFF\xFFgh"s);  // the undecodable bytes after the zero do not count
  EXPECT_EQ(proc.getBlockData(), "abcde");
  poke(proc, 0, "\0"s);
  EXPECT_EQ(proc.getBlockData(), "");
}

}  // namespace
}  // namespace blockproc
