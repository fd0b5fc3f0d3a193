// Handing the block's bytes out: packing the first record for sending, and the block as text.

#include <gtest/gtest.h>

#include <string>

#include "TestBlocks.h"
#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {
namespace {

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

TEST(KXBlockDataProcOutgoing, FieldsBackToBackInBlockOrderFromBufferRecordZero) {
  // Positions out of block order, an attribute byte, a gap byte and a field of length 0: the send buffer
  // gets only the fields' bytes, back to back in block order, from the buffer's first record.
  BlockInfo block("In");
  block.setRepeat(4);
  block.addField("late", kFieldText, 3, 0, 6).nAttr = 1;  // attribute byte at 9
  block.addField("none", kFieldText, 0, 0, 2);
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
  poke(proc, 5, "#");
  poke(proc, 9, "A");
  EXPECT_EQ(pack(proc, 7), "L0 E0\x02\x01"s);
  proc.initRealBufferIndex();  // the start index plays no part
  EXPECT_EQ(pack(proc, 7), "L0 E0\x02\x01"s);
}

TEST(KXBlockDataProcOutgoing, EveryFieldLengthIsCopiedExactly) {
  // Lengths 1 to 40, each field one gap byte after the previous, every byte distinct from its neighbours.
  const auto byteAt = [](int32_t offset) { return static_cast<char>('!' + offset % 90); };
  BlockInfo block("Lengths");
  std::string expected;
  for (int32_t length = 1, pos = 0; length <= 40; pos += length + 1, ++length) {
    block.addField("f" + std::to_string(length), kFieldText, length, 0, pos);
    for (int32_t i = pos; i < pos + length; ++i) expected += byteAt(i);
  }
  KXBlockDataProc proc(&block);
  proc.DefaultMemory();
  std::string record;
  for (int32_t i = 0; i < proc.getBlockBuffSize(); ++i) record += byteAt(i);
  poke(proc, 0, record);
  EXPECT_EQ(pack(proc, expected.size()), expected);
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

  // Without a buffer, a send buffer or a block definition nothing is written at all.
  KXBlockDataProc empty(&block);
  EXPECT_EQ(pack(empty, 0), "");
  proc.getStructInputData(nullptr);
  EXPECT_EQ(pack(KXBlockDataProc(nullptr), 0), "");
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
  const struct {
    int32_t valid;
    const char* text;
  } rows[] = {{0, ""}, {2, "r0  r1  "}, {50, "r0  r1  r2  "}, {-1, ""}};
  for (const auto& r : rows) {
    repeated.setValidCount(r.valid);
    EXPECT_EQ(repeated.getBlockData(), r.text) << r.valid;
  }
}

TEST(KXBlockDataProcBlockData, Utf8FirstThenCodePage949ThenNothingCutAtTheFirstZeroByte) {
  auto block = std::make_unique<BlockInfo>("B");
  block->addField("t", kFieldText, 10);
  KXBlockDataProc proc(block.get());
  proc.setEncodingType(kTextEncodingASCII);  // the processor's encoding plays no part
  proc.DefaultMemory();
  const struct {
    std::string bytes;
    std::optional<std::string> text;
  } rows[] = {
      {"\xEA\xB0\x80\xEB\x82\x98    ", "\xEA\xB0\x80\xEB\x82\x98    "},  // valid UTF-8 stays as it is
      {"\xB0\xA1\xB3\xAA\xB4\xD9    ", "\xEA\xB0\x80\xEB\x82\x98\xEB\x8B\xA4    "},  // cp949 only
      {"ab\xFF\xFF      ", std::nullopt},                                            // neither
      {"abcde\0\xFF\xFFgh"s, "abcde"},  // the undecodable bytes after the zero do not count
      {"\0         "s, ""},
  };
  for (const auto& r : rows) {
    poke(proc, 0, r.bytes);
    EXPECT_EQ(proc.getBlockData(), r.text);
  }
}

}  // namespace
}  // namespace blockproc
