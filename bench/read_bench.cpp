// Reading fields of a received reply, and taking a reply into the record buffer.
//
// The block is a current-price reply of 100 records of 120 bytes: item code, Hangul and English names,
// price and change as numeric text with two implied decimals, volume as int64, rate as float, amount as
// double, time, sign and a filler. Every read goes through a processor whose parent's transaction has no
// data mode, as in a normal reply.

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "QuoteLayout.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/TextCodec.h"

namespace blockproc {
namespace {

constexpr int32_t kRecords = 100;
constexpr int32_t kRecordSize = 120;
constexpr int32_t kReadIndex = 37;

using quote::binary;
using quote::padded;

struct PriceReply {
  TranInfo tran;
  BaseDataProc parent{&tran};
  BlockInfo block{"OutBlock1"};
  KXBlockDataProc proc{&block};
  std::string reply;

  PriceReply() {
    block.setRepeat(kRecords);
    block.addField("shcode", kFieldText, 6);
    block.addField("hname", kFieldText, 40);
    block.addField("ename", kFieldText, 12);
    block.addField("price", kFieldNumText, 10, 2);
    block.addField("volume", kFieldInt64, 8);
    block.addField("rate", kFieldFloat, 4, 2);
    block.addField("amount", kFieldDouble, 8, 0);
    block.addField("time", kFieldText, 6);
    block.addField("sign", kFieldText, 1);
    block.addField("change", kFieldNumText, 8, 2);
    block.addField("filler", kFieldText, 17);
    for (int32_t i = 0; i < kRecords; ++i) {
      std::string record =
          "005930" +
          padded(codec::encode(kTextEncodingCP949, "삼성전자 보통주 한국거래소 유가증권").value_or(""), 40) +
          "SAMSUNG ELEC" + "0007150000" + binary<int64_t>(12'345'678 + i) + binary<float>(-125.0f) +
          binary<double>(882'716'400'000.0) + "153012" + "2" + "00012500" + std::string(17, ' ');
      reply += record;
    }
    proc.setDataProc(&parent);
    proc.setData(reply.data(), 0, static_cast<int32_t>(reply.size()));
  }
  const FieldInfo* field(const char* name) const { return block.getFieldInfoFromName(name); }
};

PriceReply& priceReply() {
  static PriceReply reply;
  return reply;
}

void readByInfo(benchmark::State& state, const char* name, const char* expected) {
  PriceReply& r = priceReply();
  const FieldInfo* info = r.field(name);
  if (r.block.getRecordMemSize() != kRecordSize ||
      r.proc.getFieldDataFromInfo(info, kReadIndex) != expected) {
    state.SkipWithError("unexpected block layout or value");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(r.proc.getFieldDataFromInfo(info, kReadIndex));
}

void BM_ReadNumericText(benchmark::State& state) {
  readByInfo(state, "price", "00071500.00");
}
void BM_ReadInt64(benchmark::State& state) {
  readByInfo(state, "volume", "12345715");
}
void BM_ReadHangulText(benchmark::State& state) {
  readByInfo(state, "hname", "삼성전자 보통주 한국거래소 유가증권");
}
void BM_ReadAsciiText(benchmark::State& state) {
  readByInfo(state, "ename", "SAMSUNG ELEC");
}

void BM_ReadNumericTextByName(benchmark::State& state) {
  PriceReply& r = priceReply();
  for (auto _ : state) benchmark::DoNotOptimize(r.proc.getFieldDataFromName("price", kReadIndex));
}

void BM_SetData(benchmark::State& state) {
  PriceReply& r = priceReply();
  const auto size = static_cast<int32_t>(r.reply.size());
  for (auto _ : state) {
    r.proc.setData(r.reply.data(), 0, size);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * size);
}

void BM_MemcpySameBytes(benchmark::State& state) {
  const std::string& from = priceReply().reply;
  std::vector<char> to(from.size());
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(from.size()));
}

BENCHMARK(BM_ReadNumericText);
BENCHMARK(BM_ReadInt64);
BENCHMARK(BM_ReadHangulText);
BENCHMARK(BM_ReadAsciiText);
BENCHMARK(BM_ReadNumericTextByName);
BENCHMARK(BM_SetData);
BENCHMARK(BM_MemcpySameBytes);

}  // namespace
}  // namespace blockproc
