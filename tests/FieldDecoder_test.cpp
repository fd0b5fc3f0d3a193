// The field decoder and the record view: canonical values of wire bytes as gateways send them, read where
// they lie, and the same text and issues as the reference rendering on generated quote captures.

#include "blockproc/engine/FieldDecoder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/QuoteLayout.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/engine/RecordView.h"

namespace blockproc::value {
namespace {

template <typename T>
std::string bytesOf(T value) {
  std::string bytes(sizeof value, '\0');
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

struct Case {
  int32_t type, length, places;
  std::string bytes;
  std::string canonical;
  ValueIssue issue;
  bool written;  // the fast writer takes the bytes
};

TEST(FieldDecoder, GivesTheCanonicalValueOfWireBytes) {
  const std::vector<Case> cases = {
      {kFieldText, 12, 0, "A005930     ", "A005930", ValueIssue::None, true},
      {kFieldText, 8, 0, std::string("  KB\0\0  ", 8), "  KB", ValueIssue::None, true},
      {kFieldText, 12, 0, "\xBB\xEF\xBC\xBA\xC0\xFC\xC0\xDA    ", "삼성전자", ValueIssue::None, true},
      {kFieldText, 4, 0, "A\xFF  ", "A\\xFF", ValueIssue::BadBytes, false},
      {kFieldText, 3, 0, "   ", "", ValueIssue::None, true},
      {kFieldNumText, 10, 2, "0000123450", "1234.50", ValueIssue::None, true},
      {kFieldNumText, 8, 2, "-0000070", "-0.70", ValueIssue::None, true},
      {kFieldNumText, 8, 2, "+0012.30", "12.30", ValueIssue::None, true},
      {kFieldNumText, 6, 2, "-00.00", "0.00", ValueIssue::None, true},
      {kFieldNumText, 6, 2, "  7   ", "0.07", ValueIssue::None, true},
      {kFieldNumText, 10, 0, "          ", "", ValueIssue::None, true},
      {kFieldNumText, 10, 0, "0900400000", "900400000", ValueIssue::None, true},
      {kFieldNumText, 10, 2, "900400000.", "900400000.00", ValueIssue::None, true},
      {kFieldNumText, 6, 2, "12.345", "12.345", ValueIssue::MorePlaces, false},
      {kFieldNumText, 6, 2, "12-345", "12-345", ValueIssue::NotANumber, false},
      {kFieldText, 4, 3, "1898", "1.898", ValueIssue::None, true},
      {kFieldInt16, 2, 0, bytesOf<int16_t>(-14794), "-14794", ValueIssue::None, true},
      {kFieldInt64, 8, 0, bytesOf<int64_t>(1597135087000), "1597135087000", ValueIssue::None, true},
      {kFieldSInt64, 8, 0, bytesOf<int64_t>(-1), "-1", ValueIssue::None, true},
      {kFieldInt16, 1, 0, "\x01", "", ValueIssue::NotANumber, false},
      {kFieldFloat, 4, 2, bytesOf<float>(15433.0F), "154.33", ValueIssue::None, true},
      {kFieldFloat, 4, 2, bytesOf<float>(-0.0F), "0.00", ValueIssue::None, true},
      {kFieldFloat, 4, 2, bytesOf<float>(1234.5F), "12.345", ValueIssue::None, false},
      {kFieldFloat, 4, 0, bytesOf<float>(16777216.0F), "16777216", ValueIssue::None, false},
      {kFieldDouble, 8, 2, bytesOf<double>(527897.43), "527897.43", ValueIssue::None, true},
      {kFieldDouble, 8, 2, bytesOf<double>(10300.5), "10300.50", ValueIssue::None, true},
      {kFieldDouble, 8, 2, bytesOf<double>(30901.0 / 3), "10300.333333333334", ValueIssue::None, false},
      {kFieldDouble, 8, 2, bytesOf<double>(0.1 + 0.2), "0.30000000000000004", ValueIssue::None, false},
      {kFieldDouble, 8, 0, bytesOf<double>(1e300), "1" + std::string(300, '0'), ValueIssue::None, false},
      {kFieldDouble, 8, 2, bytesOf<double>(-1.0 / 0.0), "-inf", ValueIssue::NotFinite, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.canonical);
    const FieldInfo field("f", c.type, c.length, c.places);
    const FieldDecoder decoder(field, kTextEncodingCP949);
    std::string text;
    const RenderResult r = decoder.append(text, c.bytes, BadByteStyle::Escaped);
    EXPECT_EQ(text, c.canonical);
    EXPECT_EQ(r.issue, c.issue);
    // The writer, with the slack that lets it read text 16 and 64 bytes at a time, and without.
    for (const size_t slack : {size_t{0}, size_t{64}}) {
      const std::string padded = c.bytes + std::string(slack, 'Z');
      char area[FieldDecoder::kRoom];
      const char* end = decoder.write(reinterpret_cast<const uint8_t*>(padded.data()),
                                      static_cast<int64_t>(padded.size()), area);
      EXPECT_EQ(end != nullptr, c.written) << "slack " << slack;
      if (end != nullptr) {
        EXPECT_EQ(std::string(area, static_cast<size_t>(end - area)), c.canonical);
      }
    }
  }
}

// Every field of generated captures, as the benchmarks write them and as a gateway does (computed
// averages, blanks, the point left out, Hangul names): the decoder's text and issue are the reference's,
// and the benchmarks' records never leave the fast writer.
TEST(FieldDecoder, AgreesWithTheReferenceOnGeneratedCaptures) {
  BlockInfo block("OutBlock1");
  quote::addFields(block);
  for (const auto values : {quote::Values::Bench, quote::Values::Computed}) {
    quote::Dice dice(static_cast<uint32_t>(values == quote::Values::Bench ? 7 : 11));
    std::string capture;
    for (int i = 0; i < 2000; ++i) capture += quote::quoteRecord(dice, values);
    const RecordView records(block, capture.data(), static_cast<int64_t>(capture.size()));
    ASSERT_EQ(records.count(), 2000);
    int64_t notWritten = 0;
    for (int32_t j = 0; j < block.getFieldCount(); ++j) {
      const FieldInfo& field = *block.getFieldInfoFromIndex(j);
      const FieldDecoder decoder(field, kTextEncodingCP949);
      for (int64_t i = 0; i < records.count(); ++i) {
        const std::string_view bytes = records.field(i, field);
        std::string got, want;
        const RenderResult r = decoder.append(got, bytes, BadByteStyle::Replacement);
        const RenderResult w = appendValue(want, field, bytes, kTextEncodingCP949, BadByteStyle::Replacement);
        ASSERT_EQ(got, want) << field.szFieldName << " record " << i;
        ASSERT_EQ(r.issue, w.issue);
        char area[FieldDecoder::kRoom];
        const auto* at = reinterpret_cast<const uint8_t*>(bytes.data());
        notWritten += decoder.write(at, records.readable(at), area) == nullptr ? 1 : 0;
      }
    }
    if (values == quote::Values::Bench) {
      EXPECT_EQ(notWritten, 0);
    }
  }
}

TEST(RecordView, ReadsRecordsWhereTheyLie) {
  BlockInfo block("OutBlock1");
  quote::addFields(block);
  quote::Dice dice;
  std::string capture;
  for (int i = 0; i < 3; ++i) capture += quote::quoteRecord(dice);
  const FieldInfo& shcode = *block.getFieldInfoFromName("shcode");
  const FieldInfo& flag = *block.getFieldInfoFromName("flag");
  const auto at = [&](int64_t record, const FieldInfo& f) {
    return std::string_view(capture).substr(static_cast<size_t>(record * quote::kRecordSize + f.nDataPos),
                                            static_cast<size_t>(f.nLength));
  };
  struct ViewCase {
    int64_t size;
    bool newestFirst;
    std::vector<int64_t> order;  // the capture's record shown as record 0, 1, ...
  };
  for (const ViewCase& c : std::vector<ViewCase>{{360, false, {0, 1, 2}},
                                                 {360, true, {2, 1, 0}},
                                                 {300, false, {0, 1}},  // a record cut short is not one
                                                 {119, false, {}}}) {
    const RecordView view(block, capture.data(), c.size, c.newestFirst);
    ASSERT_EQ(view.count(), static_cast<int64_t>(c.order.size()));
    for (size_t i = 0; i < c.order.size(); ++i) {
      EXPECT_EQ(view.field(static_cast<int64_t>(i), shcode).data(), at(c.order[i], shcode).data());
      EXPECT_EQ(view.field(static_cast<int64_t>(i), flag), at(c.order[i], flag));
    }
    EXPECT_EQ(view.field(view.count(), shcode).data(), nullptr);
    EXPECT_EQ(view.field(-1, shcode).data(), nullptr);
  }
  FieldInfo beyond("beyond", kFieldText, 8);
  beyond.nDataPos = quote::kRecordSize - 4;  // runs past the last record
  EXPECT_EQ(RecordView(block, capture.data(), 360).field(2, beyond).data(), nullptr);
  EXPECT_EQ(RecordView(block, capture.data(), 360).field(1, beyond),
            std::string_view(capture).substr(236, 8));
}

// The records a processor holds after a receive are the caller's bytes: the same fields and attribute bytes
// from the processor's buffer as from the bytes it was handed.
TEST(RecordView, SeesAProcessorsRecordsAsTheBytesItWasHanded) {
  BlockInfo block("B");
  block.m_bAttribute = true;
  block.m_nRepeatCount = 10;
  block.m_nRecordLenApplyType = RCL_RESTDATA;
  const FieldInfo& code = block.addField("code", kFieldText, 6);
  const FieldInfo& qty = block.addField("qty", kFieldNumText, 5, 1);
  const std::string bytes = std::string("A001  ") + "1" + "01250" + "1" + "B002  " + "5" + "-0007" + "5";
  ASSERT_EQ(block.getRecordMemSize(), 13);
  KXBlockDataProc proc(&block);
  proc.setData(bytes.data(), 0, static_cast<int32_t>(bytes.size()));
  const RecordView held = RecordView::of(proc),
                   caller(block, bytes.data(), static_cast<int64_t>(bytes.size()));
  ASSERT_EQ(held.count(), 2);
  ASSERT_EQ(caller.count(), 2);
  for (int64_t i = 0; i < 2; ++i) {
    EXPECT_EQ(held.field(i, code), caller.field(i, code));
    EXPECT_EQ(held.field(i, qty), caller.field(i, qty));
    EXPECT_EQ(held.attr(i, code), caller.attr(i, code));
    EXPECT_EQ(caller.attr(i, qty), static_cast<uint8_t>(i == 0 ? '1' : '5'));
  }
  EXPECT_EQ(RecordView::of(KXBlockDataProc(&block)).count(), 0);
}

}  // namespace
}  // namespace blockproc::value
