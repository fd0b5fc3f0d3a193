// Reading every field of a record: a 14-field, 120-byte quote layout, 1,000 generated records.
//
// The records come from QuoteLayout.h (a fixed seed). Each iteration reads the 14 fields of the next
// record (cycling through all of them); "per_field" is the time of one field read, read off directly.

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "QuoteLayout.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/engine/FieldDecoder.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/engine/RecordView.h"

namespace blockproc {
namespace {

constexpr int32_t kRecords = 1000;
using quote::Dice;
using quote::kFields;
using quote::kRecordSize;

struct QuoteReply {
  TranInfo tran;
  BaseDataProc parent{&tran};
  BlockInfo block{"OutBlock1"};
  KXBlockDataProc proc{&block};
  std::vector<const FieldInfo*> fields;
  std::string reply;

  QuoteReply() {
    block.setRepeat(kRecords);
    quote::addFields(block);
    for (int32_t f = 0; f < kFields; ++f) fields.push_back(block.getFieldInfoFromIndex(f));
    Dice dice;
    for (int32_t i = 0; i < kRecords; ++i) reply += quote::quoteRecord(dice);
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

// Reads record after record into one warm string with `read(record, row)`, cycling through them all.
template <typename Read>
void readRows(benchmark::State& state, Read read) {
  QuoteReply& r = quoteReply();
  if (!r.wellFormed()) return state.SkipWithError("unexpected quote layout");
  std::string row;
  row.reserve(1024);
  int32_t record = 0;
  for (auto _ : state) {
    row.clear();
    read(r, record, row);
    benchmark::DoNotOptimize(row.data());
    if (++record == kRecords) record = 0;
  }
  countFields(state);
}

// All 14 fields of a record appended one by one, as a writer of rows would.
void BM_RecordByAppend(benchmark::State& state) {
  readRows(state, [](const QuoteReply& r, int32_t record, std::string& row) {
    for (const FieldInfo* f : r.fields) r.proc.appendFieldDataFromInfo(f, record, row);
  });
}

// All 14 fields of a record in one record read, with each field's end.
void BM_RecordByRecordRead(benchmark::State& state) {
  std::array<size_t, kFields> ends{};
  readRows(state, [&ends](const QuoteReply& r, int32_t record, std::string& row) {
    r.proc.appendRecordDataFromInfo(record, r.fields, row, ends);
  });
}

// The canonical values of all 14 fields, as the tool read them before the record view: each field's bytes
// located in the processor (fieldBytes), then rendered by value::appendValue.
void BM_RecordCanonicalByAppendValue(benchmark::State& state) {
  readRows(state, [](const QuoteReply& r, int32_t record, std::string& row) {
    for (const FieldInfo* f : r.fields)
      value::appendValue(row, *f, value::fieldBytes(r.proc, *f, record), kTextEncodingCP949,
                         value::BadByteStyle::Escaped);
  });
}

// The same values read where they lie in the reply (RecordView) by each field's decoder, written into a
// stack area handed to the row once, as the tool's CSV and JSON Lines writers do.
void BM_RecordCanonicalByDecoder(benchmark::State& state) {
  QuoteReply& r = quoteReply();
  const RecordView view(r.block, r.reply.data(), static_cast<int64_t>(r.reply.size()));
  std::vector<value::FieldDecoder> decoders;
  for (const FieldInfo* f : r.fields) decoders.emplace_back(*f, kTextEncodingCP949);
  readRows(state, [&](const QuoteReply&, int32_t record, std::string& row) {
    std::array<char, kFields * value::FieldDecoder::kRoom> area;
    char* at = area.data();
    const int64_t base = view.recordOffset(record);
    for (const value::FieldDecoder& d : decoders) {
      const uint8_t* field = view.bytes() + base + d.field().nDataPos;
      char* end = d.write(field, view.readable(field), at);
      if (end == nullptr) {
        row.append(area.data(), at);
        d.append(row, view.field(record, d.field()), value::BadByteStyle::Escaped);
        end = at = area.data();
      }
      at = end;
    }
    row.append(area.data(), at);
  });
}

BENCHMARK(BM_RecordByGet);
BENCHMARK(BM_RecordByAppend);
BENCHMARK(BM_RecordByRecordRead);
BENCHMARK(BM_RecordCanonicalByAppendValue);
BENCHMARK(BM_RecordCanonicalByDecoder);

}  // namespace
}  // namespace blockproc
