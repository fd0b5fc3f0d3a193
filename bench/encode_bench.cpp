// Writing a caller's value into a field, on the quote layout's 14 fields: the field encoder against the way
// values were written before it (prepareValue, the processor's main writer, the field read back and
// compared). The values are the canonical texts of generated quote records, computed ones included
// (averages with all their places, blank numbers, negatives, Hangul names). Figures: ns per value.

#include <benchmark/benchmark.h>

#include <optional>
#include <string>
#include <vector>

#include "QuoteLayout.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/engine/FieldCodec.h"
#include "blockproc/engine/FieldValue.h"

namespace blockproc {
namespace {

constexpr int kRecords = 1024;

struct Quotes {
  BlockInfo block{"OutBlock1"};
  std::vector<std::vector<std::string>> values;  // per record, the 14 fields' canonical texts

  Quotes() {
    quote::addFields(block);
    quote::Dice dice;
    for (int i = 0; i < kRecords; ++i) {
      const std::string rec =
          quote::quoteRecord(dice, i % 2 == 0 ? quote::Values::Bench : quote::Values::Computed);
      auto& row = values.emplace_back();
      for (int32_t j = 0; j < block.getFieldCount(); ++j) {
        const FieldInfo& f = *block.getFieldInfoFromIndex(j);
        std::string text;
        value::appendValue(
            text, f,
            std::string_view(rec).substr(static_cast<size_t>(f.nDataPos), static_cast<size_t>(f.nLength)),
            kTextEncodingCP949, value::BadByteStyle::Escaped);
        row.push_back(std::move(text));
      }
    }
  }
};

const Quotes& quotes() {
  static const Quotes q;
  return q;
}

void BM_EncodeQuoteFieldEncoder(benchmark::State& state) {
  const Quotes& q = quotes();
  std::vector<value::FieldEncoder> encoders;
  for (int32_t j = 0; j < q.block.getFieldCount(); ++j)
    encoders.emplace_back(*q.block.getFieldInfoFromIndex(j), kTextEncodingCP949);
  std::string record(quote::kRecordSize, ' '), why;
  size_t i = 0;
  for (auto _ : state) {
    const auto& row = q.values[i++ % kRecords];
    for (size_t j = 0; j < encoders.size(); ++j) {
      auto* at = reinterpret_cast<uint8_t*>(record.data()) + encoders[j].field().nDataPos;
      if (!encoders[j].encode(row[j], at, why)) state.SkipWithError(why.c_str());
    }
    benchmark::DoNotOptimize(record.data());
  }
  state.counters["ns/value"] = benchmark::Counter(static_cast<double>(state.iterations()) * quote::kFields,
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_EncodeQuoteFieldEncoder);

void BM_EncodeQuoteWriterAndReadBack(benchmark::State& state) {
  Quotes& q = const_cast<Quotes&>(quotes());
  KXBlockDataProc proc(&q.block);
  proc.setEncodingType(kTextEncodingCP949);
  proc.DefaultMemory();
  size_t i = 0;
  std::string why, back;
  for (auto _ : state) {
    const auto& row = q.values[i++ % kRecords];
    for (int32_t j = 0; j < q.block.getFieldCount(); ++j) {
      const FieldInfo& field = *q.block.getFieldInfoFromIndex(j);
      value::PreparedValue prepared;
      if (!value::prepareValue(field, row[static_cast<size_t>(j)], kTextEncodingCP949, prepared, why))
        state.SkipWithError(why.c_str());
      const std::optional<std::string_view> write =
          prepared.blank ? std::nullopt : std::optional<std::string_view>(prepared.write);
      if (prepared.writeType < 0) {
        proc.setFieldDataFromInfo(&field, 0, write);
      } else {
        FieldInfo asType(field.szFieldName, prepared.writeType, field.nLength, field.nDecimalLen);
        asType.nDataPos = field.nDataPos;
        proc.setFieldDataFromInfo(&asType, 0, write);
      }
      back.clear();
      value::appendValue(back, field, value::fieldBytes(proc, field, 0), kTextEncodingCP949,
                         value::BadByteStyle::Escaped);
      if (back != prepared.expected) state.SkipWithError("read back otherwise");
    }
  }
  state.counters["ns/value"] = benchmark::Counter(static_cast<double>(state.iterations()) * quote::kFields,
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_EncodeQuoteWriterAndReadBack);

}  // namespace
}  // namespace blockproc
