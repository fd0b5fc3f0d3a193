// The transaction-level parent: the three record-count rules, precise refusals of short and long replies,
// requests and replies built from values, and the sample's decode -> encode round trip.

#include "blockproc/engine/TransactionProc.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>

namespace blockproc {
namespace {

// A loaded definition and its parent.
struct Loaded {
  std::unique_ptr<TransactionDefinition> def;
  std::unique_ptr<TransactionProc> proc;
};

Loaded load(const std::string& xml) {
  DefinitionResult result = DefinitionLoader::loadString(xml, "test.xml");
  EXPECT_TRUE(result) << result.description();
  Loaded loaded;
  loaded.def = std::move(result.definition);
  if (loaded.def) loaded.proc = std::make_unique<TransactionProc>(*loaded.def);
  return loaded;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// A one-record block "Head" (name text 4, n number 3) followed by a repeated block "Rows" of 3-byte records
// whose count rule is `count`.
std::string twoBlocks(const std::string& count, int occursLen = 0) {
  return "<transaction code=\"T\" occurslen=\"" + std::to_string(occursLen) + R"(">
<output>
<block name="Head"><field name="name" type="text" length="4"/><field name="n" type="number" length="3"/></block>
<block name="Rows" repeat="5" count=")" +
         count + R"("><field name="v" type="text" length="3"/></block>
</output>
</transaction>
)";
}

struct CountRule {
  const char* what;
  std::string xml;
  std::string reply;
  int32_t rows;
  std::string lastRow;
};

class CountRules : public ::testing::TestWithParam<CountRule> {};

TEST_P(CountRules, SplitTheReplyAmongTheBlocks) {
  const CountRule& c = GetParam();
  Loaded t = load(c.xml);
  ASSERT_TRUE(t.proc);
  const auto result = t.proc->receiveReply(c.reply.data(), static_cast<int64_t>(c.reply.size()));
  ASSERT_TRUE(result.ok) << result.message;
  EXPECT_EQ(result.used, static_cast<int64_t>(c.reply.size()));
  const KXBlockDataProc& head = *t.proc->findBlockProc("Head");
  const KXBlockDataProc& rows = *t.proc->findBlockProc("Rows");
  EXPECT_EQ(head.getValidCount(), 1);
  EXPECT_EQ(head.getFieldDataFromName("name", 0), "HEAD");
  EXPECT_EQ(rows.getValidCount(), c.rows);
  if (c.rows > 0) {
    EXPECT_EQ(rows.getFieldDataFromName("v", c.rows - 1), c.lastRow);
  }
  ASSERT_EQ(result.slices.size(), 2u);
  EXPECT_EQ(result.slices[1].records, c.rows);
  EXPECT_EQ(result.slices[1].length, int64_t{3} * c.rows);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, CountRules,
    ::testing::Values(CountRule{"prefix", twoBlocks("prefix", 2), "HEAD00903aaabbbccc", 3, "ccc"},
                      CountRule{"prefix_of_zero", twoBlocks("prefix", 2), "HEAD00900", 0, ""},
                      CountRule{"rest", twoBlocks("rest"), "HEAD009aaabbb", 2, "bbb"},
                      CountRule{"rest_empty", twoBlocks("rest"), "HEAD009", 0, ""},
                      CountRule{"field", twoBlocks("Head.n"), "HEAD004aaabbbcccddd", 4, "ddd"},
                      CountRule{"field_beyond_the_laid_out_records", twoBlocks("Head.n"),
                                "HEAD006aaabbbcccdddeeefff", 6, "fff"}),
    [](const ::testing::TestParamInfo<CountRule>& param) { return std::string(param.param.what); });

struct BadReply {
  const char* what;
  std::string xml;
  std::string reply;
  std::string message;
};

class BadReplies : public ::testing::TestWithParam<BadReply> {};

TEST_P(BadReplies, AreRefusedWithTheBlockAndByteCounts) {
  const BadReply& c = GetParam();
  Loaded t = load(c.xml);
  ASSERT_TRUE(t.proc);
  const auto result = t.proc->receiveReply(c.reply.data(), static_cast<int64_t>(c.reply.size()));
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.message, c.message);
}

// A block of 120-byte records behind a 4-digit count: ten records announced, 1,130 bytes sent.
std::string bigRecords() {
  return R"(<transaction code="T" occurslen="4"><output>
<block name="OutBlock1" repeat="10" count="prefix"><field name="v" type="text" length="120"/></block>
</output></transaction>)";
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadReplies,
    ::testing::Values(
        BadReply{"short_records", bigRecords(), "0010" + std::string(1130, 'x'),
                 "block OutBlock1 needs 1,200 bytes for 10 records; 1,130 remain"},
        BadReply{"short_one_record_block", twoBlocks("rest"), "HEA",
                 "block Head needs 7 bytes for 1 record; 3 remain"},
        BadReply{"short_prefix", twoBlocks("prefix", 4), "HEAD00912",
                 "block Rows needs a 4-digit record count; 2 remain"},
        BadReply{"prefix_not_a_number", twoBlocks("prefix", 2), "HEAD0090xaaa",
                 "block Rows's record count '0x' (at byte 7) is not a number"},
        BadReply{
            "rest_not_whole_records", twoBlocks("rest"), "HEAD009aaab",
            "block Rows takes the rest of the reply, 4 bytes, which is not a whole number of 3-byte records"},
        BadReply{"count_field_not_a_count", twoBlocks("Head.n"), "HEAD-01aaa",
                 "block Rows takes its record count from Head.n, which reads '-01', not a record count"},
        BadReply{"count_field_says_too_many", twoBlocks("Head.n"), "HEAD003aaabbb",
                 "block Rows needs 9 bytes for 3 records; 6 remain"},
        BadReply{"bytes_after_the_last_block", twoBlocks("Head.n"), "HEAD001aaazz",
                 "the reply has 12 bytes, but its blocks take 10; 2 remain after block Rows"}),
    [](const ::testing::TestParamInfo<BadReply>& param) { return std::string(param.param.what); });

TEST(TransactionProc, BlocksAfterARefusalHoldNoRecords) {
  Loaded t = load(twoBlocks("prefix", 2));
  ASSERT_TRUE(t.proc);
  const std::string good = "HEAD00902aaabbb";
  ASSERT_TRUE(t.proc->receiveReply(good.data(), static_cast<int64_t>(good.size())).ok);
  const std::string shorter = "HEAD00903aaa";
  const auto result = t.proc->receiveReply(shorter.data(), static_cast<int64_t>(shorter.size()));
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.slices.size(), 1u);
  EXPECT_EQ(t.proc->findBlockProc("Head")->getValidCount(), 1);
  EXPECT_EQ(t.proc->findBlockProc("Rows")->getValidCount(), 0);
}

TEST(TransactionProc, LinksItselfAndLoadsEachBlocksLinkElement) {
  const DefinitionResult result =
      DefinitionLoader::loadFile(BLOCKPROC_SOURCE_DIR "/examples/current_price.xml");
  ASSERT_TRUE(result) << result.description();
  TransactionProc proc(*result.definition);
  EXPECT_EQ(proc.getTranInfo(), &result.definition->tran);
  const KXBlockDataProc& in = *proc.findBlockProc("InBlock");
  const KXBlockDataProc& out = *proc.findBlockProc("OutBlock");
  EXPECT_EQ(out.getDataProc(), &proc);
  EXPECT_EQ(out.getBlockName(), "OutBlock");
  ASSERT_EQ(out.getRealAPLinkCount(), 3);
  EXPECT_EQ(out.getRealAPLinkInfo(0)->sFieldName(), "price");
  EXPECT_EQ(out.getRealAPLinkInfo(0)->sExpression(), "price > 0");
  EXPECT_EQ(out.getRealAPLinkInfo(0)->nFuncIndex(), FUNC_COMPARE_INDEX);
  EXPECT_EQ(out.getRealAPLinkInfo(2)->pFieldInfo()[0], 7);
  ASSERT_EQ(in.getLinkCount(), 1);
  EXPECT_EQ(in.getLinkInfo(0)->szDefaultValue, "123450");
  // Laid out with defaults before any reply: numbers as zeros.
  EXPECT_EQ(out.getFieldDataFromName("price", 0), "00000000");
  EXPECT_EQ(proc.findBlockProc("OutBlock1")->getValidCount(), 20);
}

RecordValues valuesOf(const KXBlockDataProc& proc, int32_t index) {
  RecordValues record;
  const BlockInfo& block = *proc.getBlockInfo();
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo* field = block.getFieldInfoFromIndex(j);
    record.fields.emplace_back(field->szFieldName, proc.getFieldDataFromInfo(field, index));
    if (block.carriesAttr(*field))
      record.attrs.emplace_back(field->szFieldName, proc.getFieldAttrFromInfo(field, index));
  }
  return record;
}

TEST(TransactionProc, RebuildsTheSampleReplyFromItsDecodedValues) {
  const DefinitionResult result =
      DefinitionLoader::loadFile(BLOCKPROC_SOURCE_DIR "/examples/current_price.xml");
  ASSERT_TRUE(result) << result.description();
  TransactionProc proc(*result.definition);
  const std::string reply = readFile(BLOCKPROC_SOURCE_DIR "/examples/current_price.reply");
  ASSERT_TRUE(proc.receiveReply(reply.data(), static_cast<int64_t>(reply.size())).ok);
  EXPECT_EQ(proc.findBlockProc("OutBlock")->getFieldDataFromName("hname", 0), "한빛전자");
  EXPECT_EQ(proc.findBlockProc("OutBlock1")->getValidCount(), 5);

  std::vector<BlockValues> values;
  for (const KXBlockDataProc* block : proc.outputProcs()) {
    values.push_back({block->getBlockName(), {}});
    for (int32_t i = 0; i < block->getValidCount(); ++i) values.back().records.push_back(valuesOf(*block, i));
  }
  const auto rebuilt = proc.buildReply(values);
  ASSERT_TRUE(rebuilt.ok) << rebuilt.message;
  EXPECT_EQ(rebuilt.bytes, reply);
}

// Input blocks: a header with a count field, a repeated block counted by it, one counted by a prefix.
std::string requestBlocks() {
  return R"(<transaction code="T" occurslen="3"><input>
<block name="In"><field name="code" type="text" length="4"/><field name="n" type="int16"/>
  <field name="qty" type="number" length="6" decimals="2"/><field name="flag" type="int16"/></block>
<block name="Items" repeat="3" count="In.n"><field name="id" type="text" length="2"/></block>
<block name="Tags" repeat="2" count="prefix"><field name="t" type="text" length="1"/></block>
</input></transaction>)";
}

TEST(TransactionProc, BuildsRequestsWithCountsFilledIn) {
  Loaded t = load(requestBlocks());
  ASSERT_TRUE(t.proc);
  const auto built = t.proc->buildRequest({{"In", {{{{"code", "AB"}, {"qty", "1.5"}}, {}}}},
                                           {"Items", {{{{"id", "x1"}}, {}}, {{{"id", "y2"}}, {}}}},
                                           {"Tags", {{{{"t", "k"}}, {}}}}});
  ASSERT_TRUE(built.ok) << built.message;
  EXPECT_EQ(built.bytes, std::string("AB  \x02\x00"
                                     "001.50  "
                                     "x1y2"
                                     "001k",
                                     4 + 2 + 6 + 2 + 4 + 4));

  // Blocks left out: the one-record block sends its defaults, the repeated ones nothing but their count.
  const auto defaults = t.proc->buildRequest({});
  ASSERT_TRUE(defaults.ok) << defaults.message;
  EXPECT_EQ(defaults.bytes, std::string("    \x00\x00"
                                        "000.00  "
                                        "000",
                                        4 + 2 + 6 + 2 + 3));
}

struct BadValues {
  const char* what;
  std::vector<BlockValues> values;
  std::string message;
};

class BadRequests : public ::testing::TestWithParam<BadValues> {};

TEST_P(BadRequests, AreRefusedWithWhatIsWrong) {
  Loaded t = load(requestBlocks());
  ASSERT_TRUE(t.proc);
  const auto built = t.proc->buildRequest(GetParam().values);
  EXPECT_FALSE(built.ok);
  EXPECT_EQ(built.bytes, "");
  EXPECT_EQ(built.message, GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadRequests,
    ::testing::Values(
        BadValues{"unknown_block",
                  {{"Out", {}}},
                  "'Out' is not an input block of T (its input blocks: In, Items, Tags)"},
        BadValues{"unknown_field", {{"In", {{{{"cod", "A"}}, {}}}}}, "block In has no field 'cod'"},
        BadValues{"text_too_long",
                  {{"In", {{{{"code", "ABCDE"}}, {}}}}},
                  "In.code: 'ABCDE' takes 5 bytes; the field holds 4 bytes"},
        BadValues{"not_a_number", {{"In", {{{{"qty", "1,5"}}, {}}}}}, "In.qty: '1,5' is not a number"},
        BadValues{"number_too_long",
                  {{"In", {{{{"qty", "1234.5"}}, {}}}}},
                  "In.qty: '1234.5' does not fit: the field has room for 3 digits before the point"},
        BadValues{"int16_out_of_range",
                  {{"In", {{{{"flag", "40000"}}, {}}}}},
                  "In.flag: '40000' lies outside -32,768 to 32,767"},
        BadValues{"not_in_the_encoding",
                  {{"In", {{{{"code", "\xF0\x9F\x98\x80"}}, {}}}}},
                  "In.code: '\xF0\x9F\x98\x80' cannot be written in cp949"},
        BadValues{"two_records_for_one", {{"In", {{}, {}}}}, "block In holds one record; 2 were given"},
        BadValues{"given_twice", {{"Tags", {}}, {"Tags", {}}}, "values for block Tags are given twice"},
        BadValues{"count_field_disagrees",
                  {{"In", {{{{"n", "3"}}, {}}}}, {"Items", {{}, {}}}},
                  "In.n says '3', but block Items is given 2 records"},
        BadValues{
            "attribute_without_byte", {{"In", {{{}, {{"code", 1}}}}}}, "In.code carries no attribute byte"},
        BadValues{"too_many_for_the_prefix",
                  {{"Tags", std::vector<RecordValues>(1000)}},
                  "block Tags has 1,000 records, more than a 3-digit count holds"}),
    [](const ::testing::TestParamInfo<BadValues>& param) { return std::string(param.param.what); });

TEST(TransactionProc, WritesThousandsSeparators) {
  const std::pair<int64_t, const char*> cases[] = {
      {0, "0"},          {999, "999"},
      {1000, "1,000"},   {1234567, "1,234,567"},
      {-1200, "-1,200"}, {std::numeric_limits<int64_t>::min(), "-9,223,372,036,854,775,808"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(withThousands(value), text);
}

}  // namespace
}  // namespace blockproc
