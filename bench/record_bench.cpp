// Reading every field of a record: a 14-field, 120-byte quote layout, 1,000 generated records.
//
// The records come from a fixed seed: item codes, names of cp949 Hangul and ASCII, prices and signed changes
// as numeric text with implied places, a rate with its own point, times, binary volumes and values, a float
// and a double with places, and a flag that is mostly blank. Each iteration reads the 14 fields of the next
// record (cycling through all of them); "per_field" is the time of one field read, read off directly.

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "blockproc/codec/TextCodec.h"
#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {
namespace {

constexpr int32_t kRecords = 1000;
constexpr int32_t kRecordSize = 120;
constexpr int32_t kFields = 14;

// Uniform enough for test data, and the same on every standard library (unlike the distributions).
class Dice {
 public:
  uint32_t below(uint32_t n) { return static_cast<uint32_t>(gen_() % n); }
  bool chance(uint32_t percent) { return below(100) < percent; }

 private:
  std::mt19937 gen_{20261123};
};

std::string padded(std::string bytes, size_t width) {
  bytes.resize(width, ' ');
  return bytes;
}

std::string digits(uint64_t value, size_t width) {
  std::string text(width, '0');
  for (size_t i = width; i-- > 0 && value > 0; value /= 10) text[i] = static_cast<char>('0' + value % 10);
  return text;
}

// A sign byte then zero-filled digits: "-0001250".
std::string signedDigits(int64_t value, size_t width) {
  return (value < 0 ? "-" : "+") + digits(static_cast<uint64_t>(value < 0 ? -value : value), width - 1);
}

template <typename T>
std::string binary(T value) {
  std::string bytes(sizeof value, '\0');
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

std::string name(Dice& dice) {
  static constexpr std::array<const char*, 12> kHeads{
      "삼성전자",  "SK하이닉스", "LG에너지솔루션", "현대차",           "NAVER",  "카카오",
      "KODEX 200", "셀트리온",   "POSCO홀딩스",    "TIGER 미국S&P500", "KB금융", "기아"};
  static constexpr std::array<const char*, 5> kTails{"", "우", " 2X", "레버리지", " ETN"};
  const std::string utf8 = std::string(kHeads[dice.below(kHeads.size())]) + kTails[dice.below(kTails.size())];
  return padded(codec::encode(kTextEncodingCP949, utf8).value_or(""), 40);
}

std::string quoteRecord(Dice& dice) {
  const int64_t price = 1000 + dice.below(90'000'000);
  const int64_t change = static_cast<int64_t>(dice.below(2'000'000)) - 1'000'000;
  const uint32_t rate = dice.below(3000);
  std::string rec;
  rec += padded("A" + digits(dice.below(1'000'000), 6), 12);                              // shcode
  rec += name(dice);                                                                      // hname
  rec += digits(static_cast<uint64_t>(price), 10);                                        // price
  rec += change > 0 ? "2" : change < 0 ? "5" : "3";                                       // sign
  rec += signedDigits(change, 8);                                                         // change
  rec += (change < 0 ? "-" : "+") + digits(rate / 100, 2) + "." + digits(rate % 100, 2);  // drate
  rec += digits(dice.below(2'000'000'000), 10);                                           // volume
  rec += digits(90000 + dice.below(63000), 6);                                            // time
  rec += binary<int16_t>(static_cast<int16_t>(dice.below(60000)));                        // cvolume
  rec += binary<int64_t>(int64_t{dice.below(2'000'000'000)} * 1000);                      // value
  rec += binary<float>(static_cast<float>(dice.below(100'000)));                          // per
  rec += binary<double>(static_cast<double>(price) / 100.0 + 0.25);                       // avgprice
  rec += digits(dice.below(10'000), 4);                                                   // ticks
  rec += dice.chance(80) ? " " : "*";                                                     // flag
  return rec;
}

struct QuoteReply {
  TranInfo tran;
  BaseDataProc parent{&tran};
  BlockInfo block{"OutBlock1"};
  KXBlockDataProc proc{&block};
  std::vector<const FieldInfo*> fields;
  std::string reply;

  QuoteReply() {
    block.setRepeat(kRecords);
    block.addField("shcode", kFieldText, 12);
    block.addField("hname", kFieldText, 40);
    block.addField("price", kFieldNumText, 10, 2);
    block.addField("sign", kFieldText, 1);
    block.addField("change", kFieldNumText, 8, 2);
    block.addField("drate", kFieldNumText, 6, 2);
    block.addField("volume", kFieldNumText, 10);
    block.addField("time", kFieldText, 6);
    block.addField("cvolume", kFieldInt16, 2);
    block.addField("value", kFieldInt64, 8);
    block.addField("per", kFieldFloat, 4, 2);
    block.addField("avgprice", kFieldDouble, 8, 2);
    block.addField("ticks", kFieldNumText, 4, 3);
    block.addField("flag", kFieldText, 1);
    for (int32_t f = 0; f < kFields; ++f) fields.push_back(block.getFieldInfoFromIndex(f));
    Dice dice;
    for (int32_t i = 0; i < kRecords; ++i) reply += quoteRecord(dice);
    proc.setDataProc(&parent);
    proc.setData(reply.data(), 0, static_cast<int32_t>(reply.size()));
  }

  bool wellFormed() const {
    return block.getRecordMemSize() == kRecordSize && block.getFieldCount() == kFields &&
           reply.size() == size_t{kRecords} * kRecordSize && proc.getValidCount() == kRecords &&
           !proc.getFieldDataFromInfo(fields[1], 0).empty();
  }
};

QuoteReply& quoteReply() {
  static QuoteReply reply;
  return reply;
}

void countFields(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * kFields);
  state.counters["per_field"] = benchmark::Counter(
      kFields, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// All 14 fields of a record, each as a new string.
void BM_RecordByGet(benchmark::State& state) {
  QuoteReply& r = quoteReply();
  if (!r.wellFormed()) return state.SkipWithError("unexpected quote layout");
  int32_t record = 0;
  for (auto _ : state) {
    for (const FieldInfo* f : r.fields) benchmark::DoNotOptimize(r.proc.getFieldDataFromInfo(f, record));
    if (++record == kRecords) record = 0;
  }
  countFields(state);
}

// All 14 fields of a record appended to one warm string, as a writer of rows would.
void BM_RecordByAppend(benchmark::State& state) {
  QuoteReply& r = quoteReply();
  if (!r.wellFormed()) return state.SkipWithError("unexpected quote layout");
  std::string row;
  row.reserve(1024);
  int32_t record = 0;
  for (auto _ : state) {
    row.clear();
    for (const FieldInfo* f : r.fields) r.proc.appendFieldDataFromInfo(f, record, row);
    benchmark::DoNotOptimize(row.data());
    if (++record == kRecords) record = 0;
  }
  countFields(state);
}

BENCHMARK(BM_RecordByGet);
BENCHMARK(BM_RecordByAppend);

}  // namespace
}  // namespace blockproc
