// Writing request fields and packing the request record.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "blockproc/data/KXBlockDataProc.h"

namespace {

using blockproc::BlockInfo;
using blockproc::FieldInfo;
using blockproc::KXBlockDataProc;

// A typical 20-field order request record: codes, names, prices, quantities and a few binary numbers.
std::unique_ptr<BlockInfo> requestBlock() {
  auto block = std::make_unique<BlockInfo>("OrderIn");
  block->addField("acnt", blockproc::kFieldText, 11);
  block->addField("pwd", blockproc::kFieldText, 8);
  block->addField("code", blockproc::kFieldText, 12);
  block->addField("name", blockproc::kFieldText, 40);
  block->addField("price", blockproc::kFieldNumText, 10, 2);
  block->addField("qty", blockproc::kFieldNumText, 12, 0);
  block->addField("ordno", blockproc::kFieldInt64, 8);
  block->addField("side", blockproc::kFieldText, 1);
  block->addField("type", blockproc::kFieldText, 2);
  block->addField("cond", blockproc::kFieldText, 1);
  block->addField("rate", blockproc::kFieldDouble, 8);
  block->addField("amt", blockproc::kFieldNumText, 15, 0);
  block->addField("fee", blockproc::kFieldNumText, 10, 2);
  block->addField("tick", blockproc::kFieldInt16, 2);
  block->addField("memo", blockproc::kFieldText, 20);
  block->addField("branch", blockproc::kFieldText, 3);
  block->addField("media", blockproc::kFieldText, 2);
  block->addField("seq", blockproc::kFieldSInt64, 8);
  block->addField("ratio", blockproc::kFieldFloat, 4);
  block->addField("filler", blockproc::kFieldText, 10);
  return block;
}

// Argument 0: the block definition works its record size out from the fields at every call (the default);
// 1: the definition carries its record size, as an engine that records it when loading does.
struct Fixture {
  std::unique_ptr<BlockInfo> block = requestBlock();
  KXBlockDataProc proc{block.get()};
  explicit Fixture(const benchmark::State& state) {
    if (state.range(0) != 0) block->m_nRecordIOMemSize = block->getRecordMemSize();
    proc.DefaultMemory();
  }
  const FieldInfo* field(const char* name) const { return block->getFieldInfoFromName(name); }
};

void BM_WriteNumericText10x2(benchmark::State& state) {
  Fixture f(state);
  const FieldInfo* price = f.field("price");
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.proc.setFieldDataFromInfo(price, 0, "12345.67"));
  }
}
BENCHMARK(BM_WriteNumericText10x2)->ArgName("sizeCarried")->Arg(0)->Arg(1);

void BM_WriteInt64(benchmark::State& state) {
  Fixture f(state);
  const FieldInfo* ordno = f.field("ordno");
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.proc.setFieldDataFromInfo(ordno, 0, "1234567890123"));
  }
}
BENCHMARK(BM_WriteInt64)->ArgName("sizeCarried")->Arg(0)->Arg(1);

void BM_WriteHangulText40Cp949(benchmark::State& state) {
  Fixture f(state);
  const FieldInfo* name = f.field("name");
  // 15 Hangul syllables and 10 ASCII bytes: 40 bytes in code page 949.
  const std::string value =
      "\xEC\x82\xBC\xEC\x84\xB1\xEC\xA0\x84\xEC\x9E\x90 \xEB\xB3\xB4\xED\x86\xB5"
      "\xEC\xA3\xBC (KOSPI) \xEB\xA7\xA4\xEC\x88\x98\xEC\xA3\xBC\xEB\xAC\xB8"
      "\xEC\xA0\x91\xEC\x88\x98\xEC\x99\x84\xEB\xA3\x8C";
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.proc.setFieldDataFromInfo(name, 0, value));
  }
}
BENCHMARK(BM_WriteHangulText40Cp949)->ArgName("sizeCarried")->Arg(0)->Arg(1);

void BM_WriteNumericTextByName(benchmark::State& state) {
  Fixture f(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.proc.setFieldDataFromName("price", 0, "12345.67"));
  }
}
BENCHMARK(BM_WriteNumericTextByName)->ArgName("sizeCarried")->Arg(0)->Arg(1);

void BM_PackRequestRecord20Fields(benchmark::State& state) {
  Fixture f(state);
  f.proc.setFieldDataFromName("acnt", 0, "12345678901");
  f.proc.setFieldDataFromName("price", 0, "12345.67");
  std::vector<uint8_t> send(static_cast<size_t>(f.block->getRecordFieldSize()));
  for (auto _ : state) {
    f.proc.getStructInputData(send.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_PackRequestRecord20Fields)->ArgName("sizeCarried")->Arg(0)->Arg(1);

}  // namespace
