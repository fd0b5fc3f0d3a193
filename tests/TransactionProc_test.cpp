// The transaction-level parent: the three record-count rules, precise refusals of short and long replies,
// requests built from values and refused values, and the sample's links.

#include "blockproc/engine/TransactionProc.h"

#include <gtest/gtest.h>

#include "blockproc/engine/FieldValue.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "blockproc/detail/Internal.h"

namespace blockproc {
namespace {

// A loaded definition and its parent.
struct Loaded {
  std::unique_ptr<TransactionDefinition> def;
  std::unique_ptr<TransactionProc> proc;
};

Loaded load(DefinitionResult result) {
  EXPECT_TRUE(result) << result.description();
  Loaded loaded{std::move(result.definition), nullptr};
  if (loaded.def) loaded.proc = std::make_unique<TransactionProc>(*loaded.def);
  return loaded;
}

Loaded load(const std::string& xml) {
  return load(DefinitionLoader::loadString(xml, "test.xml"));
}

// A one-record block "Head" (name text 4, n number 3) followed by a repeated block "Rows" of 3-byte records
// whose count rule is `count`.
std::string twoBlocks(const std::string& count, int occursLen) {
  return "<transaction code='T' occurslen='" + std::to_string(occursLen) + R"('><output>
<block name='Head'><field name='name' type='text' length='4'/><field name='n' type='number' length='3'/></block>
<block name='Rows' repeat='5' count=')" +
         count + "'><field name='v' type='text' length='3'/></block>\n</output></transaction>";
}

// Replies to twoBlocks(count): taken and split among the blocks, or refused with the block and byte counts.
struct ReplyCase {
  std::string count;  // the count rule of Rows
  int occursLen;
  std::string reply;
  size_t reached;       // blocks handed their records
  int32_t rows;         // records of Rows afterwards
  std::string lastRow;  // the value of the last of them
  std::string message;  // the refusal; "" when the reply is taken
};

void checkReply(const ReplyCase& c) {
  Loaded t = load(twoBlocks(c.count, c.occursLen));
  ASSERT_TRUE(t.proc);
  const auto result = t.proc->receiveReply(c.reply.data(), static_cast<int64_t>(c.reply.size()));
  EXPECT_EQ(result.ok, c.message.empty());
  EXPECT_EQ(result.message, c.message);
  if (result.ok) {
    EXPECT_EQ(result.used, static_cast<int64_t>(c.reply.size()));
  }
  // Blocks reached before a refusal keep their records; the others, laid out with defaults, hold none.
  ASSERT_EQ(result.slices.size(), c.reached);
  const KXBlockDataProc& head = *t.proc->findBlockProc("Head");
  const KXBlockDataProc& rows = *t.proc->findBlockProc("Rows");
  EXPECT_EQ(head.getValidCount(), c.reached > 0 ? 1 : 0);
  if (c.reached > 0) {
    EXPECT_EQ(head.getFieldDataFromName("name", 0), "HEAD");
  }
  EXPECT_EQ(rows.getValidCount(), c.rows);
  if (c.rows > 0) {
    EXPECT_EQ(rows.getFieldDataFromName("v", c.rows - 1), c.lastRow);
  }
  if (c.reached == 2) {
    EXPECT_EQ(result.slices[1].records, c.rows);
    EXPECT_EQ(result.slices[1].length, int64_t{3} * c.rows);
  }
}

TEST(TransactionProc, SplitsRepliesByTheirCountRulesOrRefusesThem) {
  const ReplyCase cases[] = {
      {"prefix", 2, "HEAD00903aaabbbccc", 2, 3, "ccc", ""},
      {"prefix", 2, "HEAD00900", 2, 0, "", ""},
      {"rest", 0, "HEAD009aaabbb", 2, 2, "bbb", ""},
      {"rest", 0, "HEAD009", 2, 0, "", ""},
      {"Head.n", 0, "HEAD005aaabbbcccdddeee", 2, 5, "eee", ""},
      // The repeat is the most records a block takes, whatever the count rule.
      {"Head.n", 0, "HEAD006aaabbbcccdddeeefff", 1, 0, "",
       "block Rows holds at most 5 records (its repeat); the reply has 6 records"},
      {"rest", 0, "HEAD009" + std::string(18, 'x'), 1, 0, "",
       "block Rows holds at most 5 records (its repeat); the reply has 6 records"},
      {"prefix", 4, "HEAD0090004" + std::string(10, 'x'), 1, 0, "",
       "block Rows needs 12 bytes for 4 records; 10 remain"},
      {"rest", 0, "HEA", 0, 0, "", "block Head needs 7 bytes for 1 record; 3 remain"},
      {"prefix", 4, "HEAD00912", 1, 0, "", "block Rows needs a 4-digit record count; 2 remain"},
      {"prefix", 2, "HEAD0090xaaa", 1, 0, "", "block Rows's record count '0x' (at byte 7) is not a number"},
      {"rest", 0, "HEAD009aaab", 1, 0, "",
       "block Rows takes the rest of the reply, 4 bytes, which is not a whole number of 3-byte records"},
      {"Head.n", 0, "HEAD-01aaa", 1, 0, "",
       "block Rows takes its record count from Head.n, which reads '-01', not a record count"},
      {"Head.n", 0, "HEAD003aaabbb", 1, 0, "", "block Rows needs 9 bytes for 3 records; 6 remain"},
      {"Head.n", 0, "HEAD001aaazz", 2, 1, "aaa",
       "the reply has 12 bytes, but its blocks take 10; 2 remain after block Rows"}};
  for (const ReplyCase& c : cases) {
    SCOPED_TRACE(c.count + " " + c.reply.substr(0, 20));
    checkReply(c);
  }
}

// A reply read in pieces: the head stops at the rest block and says where its records start, or how many
// more bytes a block ahead of it needs; checkRest words the rest's refusals as a whole reply's.
TEST(TransactionProc, ReceivesTheHeadOfAReplyThatEndsInARestBlock) {
  Loaded t = load(twoBlocks("rest", 0));
  ASSERT_TRUE(t.proc);
  const std::string head = "abcd002";
  const auto part = t.proc->receiveReplyHead(head.data(), 5);
  EXPECT_FALSE(part.ok);
  EXPECT_EQ(part.more, 2);
  const std::string reply = head + "x01x02";
  const auto r = t.proc->receiveReplyHead(reply.data(), static_cast<int64_t>(reply.size()));
  ASSERT_TRUE(r.ok) << r.message;
  ASSERT_EQ(r.slices.size(), 2u);
  EXPECT_FALSE(r.slices[0].open);
  EXPECT_TRUE(r.slices[1].open);
  EXPECT_EQ(r.slices[1].offset, 7);
  EXPECT_EQ(r.slices[1].proc->getValidCount(), 0);
  const BlockInfo& rows = *r.slices[1].proc->getBlockInfo();
  EXPECT_EQ(TransactionProc::checkRest(rows, 15, false), "");
  EXPECT_EQ(
      TransactionProc::checkRest(rows, 16, false),
      "block Rows takes the rest of the reply, 16 bytes, which is not a whole number of 3-byte records");
  EXPECT_EQ(TransactionProc::checkRest(rows, 18, false),
            "block Rows holds at most 5 records (its repeat); the reply has 6 records");
}

// The sample's parent links itself and each block's link element and lays out defaults (the tool's tests
// rebuild the sample reply from its decoded values).
TEST(TransactionProc, LinksTheSampleAndLaysOutItsDefaults) {
  Loaded t = load(DefinitionLoader::loadFile(BLOCKPROC_SOURCE_DIR "/examples/current_price.xml"));
  ASSERT_TRUE(t.proc);
  TransactionProc& proc = *t.proc;
  EXPECT_EQ(proc.getTranInfo(), &t.def->tran);
  const KXBlockDataProc& in = *proc.findBlockProc("InBlock");
  const KXBlockDataProc& out = *proc.findBlockProc("OutBlock");
  EXPECT_EQ(out.getDataProc(), &proc);
  ASSERT_EQ(out.getRealAPLinkCount(), 3);
  EXPECT_EQ(out.getRealAPLinkInfo(0)->sExpression(), "price > 0");
  EXPECT_EQ(out.getRealAPLinkInfo(2)->pFieldInfo()[0], 7);
  ASSERT_EQ(in.getLinkCount(), 1);
  EXPECT_EQ(in.getLinkInfo(0)->szDefaultValue, "123450");
  EXPECT_EQ(out.getFieldDataFromName("price", 0), "00000000");
  EXPECT_EQ(proc.findBlockProc("OutBlock1")->getValidCount(), 1);  // one default record, not its repeat
}

// Input blocks: a header with a count field, a repeated block counted by it, one counted by a prefix.
const std::string kRequestBlocks = R"(<transaction code='T' occurslen='3'><input>
<block name='In'><field name='code' type='text' length='4'/><field name='n' type='int16'/>
  <field name='qty' type='number' length='6' decimals='2'/><field name='flag' type='int16'/>
  <field name='vol' type='int64'/></block>
<block name='Items' repeat='3' count='In.n'><field name='id' type='text' length='2'/></block>
<block name='Tags' repeat='1000' count='prefix'><field name='t' type='text' length='1'/></block>
</input></transaction>)";

// Block In with one record of these field values.
BlockValues inBlock(std::vector<std::pair<std::string, std::string>> fields) {
  return {"In", {{std::move(fields), {}}}};
}

TEST(TransactionProc, BuildsRequestsOrSaysWhatIsWrong) {
  Loaded t = load(kRequestBlocks);
  ASSERT_TRUE(t.proc);
  auto built = t.proc->buildRequest({inBlock({{"code", "AB"}, {"qty", " 1.5 "}}),
                                     {"Items", {{{{"id", "x1"}}, {}}, {{{"id", "y2"}}, {}}}},
                                     {"Tags", {{{{"t", "k"}}, {}}}}});
  EXPECT_TRUE(built.ok) << built.message;  // the count field and the count prefix filled in
  EXPECT_EQ(built.bytes, "AB  \x02" + std::string(1, '\0') + "001.50" + std::string(10, '\0') + "x1y2001k");
  // Blocks left out: the one-record block sends its defaults (binary fields 0), the repeated ones nothing
  // but their count.
  built = t.proc->buildRequest({});
  EXPECT_TRUE(built.ok) << built.message;
  EXPECT_EQ(built.bytes, "    " + std::string(2, '\0') + "000.00" + std::string(10, '\0') + "000");

  const std::pair<std::vector<BlockValues>, std::string> refusals[] = {
      {{{"Out", {}}}, "'Out' is not an input block of T (its input blocks: In, Items, Tags)"},
      {{inBlock({{"cod", "A"}})}, "block In has no field 'cod'"},
      {{inBlock({{"code", "ABCDE"}})},
       "block In, record 0, field code: 'ABCDE' takes 5 bytes; the field holds 4 bytes"},
      // The value checks themselves are pinned in the field-value tests; one shows the place they name.
      {{inBlock({{"flag", "40000"}})},
       "block In, record 0, field flag: '40000' lies outside -32,768 to 32,767"},
      {{{"In", {{}, {}}}}, "block In holds one record; 2 were given"},
      {{{"Tags", {}}, {"Tags", {}}}, "values for block Tags are given twice"},
      {{inBlock({{"n", "3"}}), {"Items", {{}, {}}}}, "In.n says '3', but block Items is given 2 records"},
      {{{"In", {{{}, {{"code", 1}}}}}}, "block In, record 0, field code carries no attribute byte"},
      {{{"Items", std::vector<RecordValues>(4)}},
       "block Items holds at most 3 records (its repeat); 4 were given"},
      {{{"Tags", std::vector<RecordValues>(1000)}},
       "block Tags has 1,000 records, more than a 3-digit count holds"}};
  for (const auto& [values, message] : refusals) {
    built = t.proc->buildRequest(values);
    EXPECT_FALSE(built.ok) << message;
    EXPECT_EQ(built.bytes, "") << message;
    EXPECT_EQ(built.message, message);
  }
}

// A repeat is a cap on the records a block takes, not memory laid out up front: a parent of a definition
// capping its blocks at 500,000 records of 120 bytes starts with one record each, takes and builds exactly
// the records it is given, and still refuses one more than the cap.
TEST(TransactionProc, LaysOutTheRecordsGivenNotTheRepeat) {
  Loaded t = load(R"(<transaction code='T' occurslen='2'>
<input><block name='Keys' repeat='500000' count='prefix'><field name='k' type='text' length='120'/></block></input>
<output><block name='Head'><field name='name' type='text' length='4'/></block>
<block name='Rows' repeat='500000' count='rest'><field name='v' type='text' length='120'/></block></output>
</transaction>)");
  ASSERT_TRUE(t.proc);
  KXBlockDataProc& rows = *t.proc->findBlockProc("Rows");
  EXPECT_LE(rows.getBufCount(), 1);
  EXPECT_LE(t.proc->findBlockProc("Keys")->getBufCount(), 1);

  const auto row = [](char c) { return std::string(120, c); };
  const std::string reply = "HEAD" + row('a') + row('b') + row('c');
  const auto received = t.proc->receiveReply(reply.data(), static_cast<int64_t>(reply.size()));
  ASSERT_TRUE(received.ok) << received.message;
  EXPECT_EQ(rows.getValidCount(), 3);
  EXPECT_EQ(rows.getFieldDataFromName("v", 2), row('c'));
  const auto rebuilt = t.proc->buildReply(
      {{"Head", {{{{"name", "HEAD"}}, {}}}},
       {"Rows", {{{{"v", row('a')}}, {}}, {{{"v", row('b')}}, {}}, {{{"v", row('c')}}, {}}}}});
  ASSERT_TRUE(rebuilt.ok) << rebuilt.message;
  EXPECT_EQ(rebuilt.bytes, reply);
  EXPECT_LE(rows.getBufCount(), 1);  // built straight into the bytes: the processor lays out no records
  EXPECT_EQ(rows.getBlockInfo()->m_nRepeatCount, 500000);  // the definition is left as loaded

  const auto request = t.proc->buildRequest({{"Keys", {{{{"k", "x"}}, {}}, {{{"k", "y"}}, {}}}}});
  ASSERT_TRUE(request.ok) << request.message;
  EXPECT_EQ(request.bytes, "02x" + std::string(119, ' ') + "y" + std::string(119, ' '));

  const std::string over = "HEAD" + std::string(size_t{500001} * 120, 'z');
  EXPECT_EQ(t.proc->receiveReply(over.data(), static_cast<int64_t>(over.size())).message,
            "block Rows holds at most 500,000 records (its repeat); the reply has 500,001 records");
}

// Number fields written with or without their point, blank, and computed doubles: a reply read and built
// again from its canonical values (a blank number given as no value) is the same bytes, or, for a form the
// writer does not use, the same values in the writer's form.
TEST(TransactionProc, RebuildsRepliesWrittenWithOrWithoutPoints) {
  Loaded t = load(R"(<transaction code='T'><output><block name='R' repeat='9' count='rest'>
<field name='imp' type='number' length='12' decimals='2' point='implied'/>
<field name='exp' type='number' length='9' decimals='2'/>
<field name='txt' type='text' length='6' decimals='1' point='implied'/>
<field name='d' type='double' decimals='2'/></block></output></transaction>)");
  ASSERT_TRUE(t.proc);
  const auto dbl = [](double v) {
    std::string bytes(8, '\0');
    std::memcpy(bytes.data(), &v, 8);
    return bytes;
  };
  const std::string blank12(12, ' '), blank9(9, ' '), blank6(6, ' ');
  const struct {
    std::string record;               // imp, exp, txt, d
    std::vector<std::string> values;  // canonical; "" for a blank number
    std::string rebuilt;              // "" when the record itself comes back
  } cases[] = {
      {"000007125050000123.45000125" + dbl(10300.921), {"71250.50", "123.45", "12.5", "10300.921"}, ""},
      {"-00007125050-00123.45-00125" + dbl(0x1p58),
       {"-71250.50", "-123.45", "-12.5", "288230376151711740.00"},
       ""},
      {blank12 + blank9 + blank6 + dbl(1092378358114.84375), {"", "", "", "1092378358114.8438"}, ""},
      {"000000000000000000.00000000" + dbl(-41207.0 / 3), {"0.00", "0.00", "0.0", "-13735.666666666666"}, ""},
      // Values that fill the field: an explicit point with only the places that are not zero.
      {"9999999999999999999.9-99999" + dbl(1e300),
       {"9999999999.99", "9999999.90", "-9999.9", "1" + std::string(300, '0') + ".00"},
       ""},
      // Forms the writer does not use come back as the same values in its own.
      {"+00007125050   123.45   125" + dbl(-0.0),
       {"71250.50", "123.45", "12.5", "0.00"},
       "000007125050000123.45000125" + dbl(0.0)},
      {"000071250.50000012345 012.5" + dbl(2.5),
       {"71250.50", "123.45", "12.5", "2.50"},
       "000007125050000123.45000125" + dbl(2.5)},
  };
  for (const auto& c : cases) {
    const auto received = t.proc->receiveReply(c.record.data(), static_cast<int64_t>(c.record.size()));
    ASSERT_TRUE(received.ok) << received.message;
    const KXBlockDataProc& rows = *t.proc->findBlockProc("R");
    RecordValues values;
    for (int32_t j = 0; j < 4; ++j) {
      const FieldInfo& f = *rows.getBlockInfo()->getFieldInfoFromIndex(j);
      std::string text;
      value::appendValue(text, f, value::fieldBytes(rows, f, 0), kTextEncodingCP949,
                         value::BadByteStyle::Escaped);
      EXPECT_EQ(text, c.values[static_cast<size_t>(j)]) << f.szFieldName;
      if (text.empty()) {
        values.nulls.push_back(f.szFieldName);
      } else {
        values.fields.emplace_back(f.szFieldName, text);
      }
    }
    const auto rebuilt = t.proc->buildReply({{"R", {values}}});
    ASSERT_TRUE(rebuilt.ok) << rebuilt.message;
    EXPECT_EQ(rebuilt.bytes, c.rebuilt.empty() ? c.record : c.rebuilt) << c.values[0];
  }
  // Fields the values leave out: a number whose point is left out gets its zeros without the point (a
  // reader of twelve digits would not take "000000000.00"); text with decimals stays blank.
  const auto leftOut = t.proc->buildReply({{"R", {RecordValues{}}}});
  ASSERT_TRUE(leftOut.ok) << leftOut.message;
  EXPECT_EQ(leftOut.bytes, "000000000000000000.00" + blank6 + dbl(0.0));
  const auto leftOutRequest = load(R"(<transaction code='T'><input><block name='In'>
<field name='imp' type='number' length='5' decimals='2' point='implied'/>
<field name='tiny' type='number' length='3' decimals='2' point='implied'/></block></input></transaction>)");
  ASSERT_TRUE(leftOutRequest.proc);
  EXPECT_EQ(leftOutRequest.proc->buildRequest({}).bytes, "00000000");
  // The point left out takes one byte less: a value that needs it is refused with the room there is.
  const auto tooWide = t.proc->buildReply({{"R", {{{{"imp", "12345678901.5"}}, {}}}}});
  EXPECT_EQ(
      tooWide.message,
      "block R, record 0, field imp: '12345678901.5' has 11 digits before the point; the field has room "
      "for 10");
}

// One definition shared by parents on 8 threads: each builds replies and requests of its own record
// counts, splits them again and reads every value back, while the definition stays as loaded (run under
// ThreadSanitizer by scripts/tsan.sh).
TEST(TransactionProc, ParentsOnManyThreadsShareOneDefinition) {
  const auto loaded = DefinitionLoader::loadString(R"(<transaction code='T'>
<input><block name='Key'><field name='acct' type='text' length='8'/><field name='pin' type='text' length='4'
  keyenc='true'/></block></input>
<output><block name='Head'><field name='n' type='int16'/></block>
<block name='Rows' repeat='400' count='Head.n'><field name='name' type='text' length='6'/>
  <field name='px' type='number' length='9' decimals='2'/><field name='vol' type='int64'/></block></output>
</transaction>)",
                                                   "shared.xml");
  ASSERT_TRUE(loaded) << loaded.description();
  TransactionDefinition& def = *loaded.definition;
  const BlockInfo& rowsDef = *def.tran.findBlock("Rows");
  // Values as the fields show them: text filling its field, numbers zero-padded.
  const auto padded = [](int value, size_t digits) {
    const std::string text = std::to_string(value);
    return std::string(digits - text.size(), '0') + text;
  };
  const auto row = [&](int thread, int i) {
    return RecordValues{{{"name", "t" + std::to_string(thread) + "r" + padded(i, 3)},
                         {"px", padded(thread * 100 + i % 50, 6) + ".25"},
                         {"vol", std::to_string(-int64_t{thread} * 1'000'000'007 - i)}},
                        {}};
  };
  std::vector<std::string> failures(8);
  const auto work = [&](int thread) {
    std::string& failure = failures[static_cast<size_t>(thread)];
    for (int round = 0; round < 6 && failure.empty(); ++round) {
      const int count = 1 + (thread * 37 + round * 61) % 400;
      BlockValues rows{"Rows", {}};
      for (int i = 0; i < count; ++i) rows.records.push_back(row(thread, i));
      TransactionProc builder(def);
      const auto reply = builder.buildReply({rows});
      const auto request = builder.buildRequest({{"Key", {{{{"acct", "A" + std::to_string(thread)}}, {}}}}});
      if (!reply.ok || !request.ok) failure = reply.message + request.message;
      TransactionProc reader(def);
      const auto split = reader.receiveReply(reply.bytes.data(), static_cast<int64_t>(reply.bytes.size()));
      const KXBlockDataProc& got = *reader.findBlockProc("Rows");
      if (!split.ok || got.getValidCount() != count) failure = "split: " + split.message;
      for (int i = 0; i < count && failure.empty(); ++i)
        for (const auto& [field, value] : row(thread, i).fields)
          if (got.getFieldDataFromName(field, i) != value)
            failure = field + " of record " + std::to_string(i) + ": " + got.getFieldDataFromName(field, i);
    }
  };
  std::vector<std::thread> threads;
  for (int k = 0; k < 8; ++k) threads.emplace_back(work, k);
  for (std::thread& t : threads) t.join();
  for (size_t k = 0; k < failures.size(); ++k) EXPECT_EQ(failures[k], "") << "thread " << k;
  EXPECT_TRUE(rowsDef.isOccursBlock());
  EXPECT_EQ(rowsDef.m_nRepeatCount, 400);
}

TEST(TransactionProc, WritesThousandsSeparators) {
  const std::pair<int64_t, const char*> cases[] = {
      {0, "0"},          {999, "999"},
      {1000, "1,000"},   {1234567, "1,234,567"},
      {-1200, "-1,200"}, {std::numeric_limits<int64_t>::min(), "-9,223,372,036,854,775,808"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(internal::withThousands(value), text);
}

// A caller that found a record's fields by name hands them over with the values: the same bytes as by the
// names, and a field that is missing or not the block's own is looked up by its name after all.
TEST(TransactionProc, TakesTheFieldsACallerFoundAsTheNamesGiveThem) {
  Loaded t = load(twoBlocks("rest", 0));
  ASSERT_TRUE(t.proc);
  KXBlockDataProc& head = *t.proc->findBlockProc("Head");
  const FieldInfo* name = head.findFieldInfo("name");
  const FieldInfo* n = head.findFieldInfo("n");
  const FieldInfo* other = t.proc->findBlockProc("Rows")->findFieldInfo("v");
  const std::pair<std::string_view, std::string_view> values[] = {{"name", "ab"}, {"n", "-5"}};
  std::string byName;
  ASSERT_EQ(t.proc->appendRecord(byName, head, RecordValueViews{values}, 0, false), "");
  EXPECT_EQ(byName.substr(0, 7), "ab  -05");
  const std::vector<std::vector<const FieldInfo*>> founds = {
      {name, n}, {nullptr, n}, {other, n}, {name}, {name, other}};
  for (const auto& found : founds) {
    std::string out;
    RecordValueViews views{values};
    views.found = found;
    EXPECT_EQ(t.proc->appendRecord(out, head, views, 0, false), "");
    EXPECT_EQ(out, byName);
  }
  // A refusal still names the field the value was given for.
  const std::pair<std::string_view, std::string_view> bad[] = {{"name", "ab"}, {"n", "12345"}};
  std::string out;
  RecordValueViews views{bad};
  views.found = founds[0];
  EXPECT_NE(t.proc->appendRecord(out, head, views, 3, false).find("record 3, field n:"), std::string::npos);
  EXPECT_TRUE(out.empty());
}

// A definition changed in memory so that a field lies past its record: building through the processor must
// refuse that field's value rather than drop it.
TEST(TransactionProcBuild, AFieldPastItsRecordIsRefusedNotDropped) {
  Loaded t = load(twoBlocks("rest", 0));
  ASSERT_TRUE(t.def);
  // The block owns its fields; reaching one stands for a block whose own layout puts it there.
  auto* n = const_cast<FieldInfo*>(t.def->tran.m_OutBlockList[0]->getFieldInfoFromName("n"));
  ASSERT_NE(n, nullptr);
  n->nDataPos = 100;
  TransactionProc proc(*t.def);
  const auto built = proc.buildReply({{"Head", {{{{"name", "ab"}, {"n", "5"}}, {}}}}});
  EXPECT_FALSE(built.ok) << "built " << built.bytes.size() << " bytes";
  EXPECT_NE(built.message.find("record 0, field n:"), std::string::npos) << built.message;
  std::string out;
  const std::string why = proc.appendRecord(out, *proc.findBlockProc("Head"), {{{"n", "5"}}, {}}, 0, false);
  EXPECT_NE(why.find("record 0, field n:"), std::string::npos) << why;
  EXPECT_TRUE(out.empty());
}

}  // namespace
}  // namespace blockproc
