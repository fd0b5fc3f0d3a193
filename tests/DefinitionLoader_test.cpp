// Loading transaction definition files: the sample, the layout rules, and refusals with their lines.

#include "blockproc/engine/DefinitionLoader.h"

#include <gtest/gtest.h>

#include <string>

namespace blockproc {
namespace {

// A transaction whose <output> holds `blocks`: line 1 is <transaction>, line 2 <output>, so the first line of
// `blocks` is line 3.
std::string outputs(const std::string& blocks, const std::string& tranAttrs = "") {
  return "<transaction code=\"T1\"" + tranAttrs + ">\n<output>\n" + blocks + "</output>\n</transaction>\n";
}

DefinitionResult load(const std::string& xml) {
  return DefinitionLoader::loadString(xml, "def.xml");
}

TEST(DefinitionLoader, LoadsTheSampleTransaction) {
  const DefinitionResult result =
      DefinitionLoader::loadFile(BLOCKPROC_SOURCE_DIR "/examples/current_price.xml");
  ASSERT_TRUE(result) << result.description();
  const TransactionDefinition& def = *result.definition;
  EXPECT_EQ(def.tran.getTrCode(), "Q10100");
  EXPECT_EQ(def.title, "현재가 조회");
  EXPECT_EQ(def.tran.m_nOccursLen, 4);
  EXPECT_EQ(def.encoding, kTextEncodingCP949);
  ASSERT_EQ(def.tran.m_InBlockList.size(), 1u);
  ASSERT_EQ(def.tran.m_OutBlockList.size(), 2u);

  const BlockInfo& in = *def.tran.m_InBlockList[0];
  EXPECT_TRUE(in.getFieldInfoFromName("shcode")->isSTCodeField());

  const BlockInfo& out = *def.tran.findBlock("OutBlock");
  const FieldInfo& price = *out.getFieldInfoFromName("price");
  EXPECT_EQ(price.szKorFieldName, "현재가");
  EXPECT_EQ(price.szEngFieldName, "Price");
  EXPECT_EQ(price.nDataType, kFieldNumText);
  EXPECT_EQ(price.nDataPos, 20);
  EXPECT_EQ(price.nLength, 8);
  EXPECT_NE(price.nAttr, 0);
  // The field after price starts behind its attribute byte.
  EXPECT_EQ(out.getFieldInfoFromName("sign")->nDataPos, 29);
  EXPECT_EQ(out.getAttrRefSourceFieldInfo(out.getFieldInfoFromName("rate")->getAttrRefDicKey()),
            out.getFieldInfoFromName("sign"));
  EXPECT_EQ(out.getFieldInfoFromName("volume")->nLength, 8);
  EXPECT_EQ(out.getFieldInfoFromName("per")->nDecimalLen, 2);
  EXPECT_FALSE(out.isOccursBlock());

  const BlockInfo& ticks = *def.tran.findBlock("OutBlock1");
  EXPECT_TRUE(ticks.isOccursBlock());
  EXPECT_EQ(ticks.m_nRepeatCount, 20);
  EXPECT_EQ(ticks.m_nRecordLenApplyType, RCL_BLOCKFIELD_ID);
  EXPECT_EQ(ticks.m_strRecordLenSubInfo, "OutBlock.cnt");
  EXPECT_EQ(ticks.getRecordMemSize(), 31);

  // The link element is kept as written, entity references and all.
  EXPECT_NE(def.extra(out).linkXml.find("exp=\"price &gt; 0\""), std::string::npos) << def.extra(out).linkXml;
  EXPECT_EQ(def.extra(ticks).linkXml, "");
  EXPECT_GT(def.extra(ticks).line, def.extra(out).line);
}

TEST(DefinitionLoader, PlacesFieldsWithoutPositionsBehindThePreviousOne) {
  const DefinitionResult result = load(outputs(R"(<block name="A" attr="true">
<field name="a" type="text" length="3"/>
<field name="b" type="int16"/>
<field name="c" type="text" length="2" pos="10"/>
<field name="d" type="double" decimals="3"/>
</block>
)"));
  ASSERT_TRUE(result) << result.description();
  const BlockInfo& block = *result.definition->tran.findBlock("A");
  EXPECT_EQ(block.getFieldInfoFromName("b")->nDataPos, 4);  // 3 bytes and an attribute byte
  EXPECT_EQ(block.getFieldInfoFromName("c")->nDataPos, 10);
  EXPECT_EQ(block.getFieldInfoFromName("d")->nDataPos, 13);
  EXPECT_EQ(block.getRecordMemSize(), 22);
  EXPECT_EQ(block.getRecordFieldSize(), 15);  // 3 + 2 + 2 + 8 bytes of data
}

TEST(DefinitionLoader, KeepsTheCountRuleOfEachRepeatedBlock) {
  const DefinitionResult result =
      load(outputs(R"(<block name="A"><field name="n" type="number" length="3"/></block>
<block name="B" repeat="2" count="prefix"><field name="x" type="text" length="1"/></block>
<block name="C" repeat="2" count="A.n"><field name="x" type="text" length="1"/></block>
<block name="D" repeat="2" count="rest"><field name="x" type="text" length="1"/></block>
)",
                   " occurslen=\"5\""));
  ASSERT_TRUE(result) << result.description();
  const TranInfo& tran = result.definition->tran;
  EXPECT_EQ(tran.findBlock("B")->m_nRecordLenApplyType, RCL_OCCURSLEN);
  EXPECT_EQ(tran.findBlock("C")->m_nRecordLenApplyType, RCL_BLOCKFIELD_ID);
  EXPECT_EQ(tran.findBlock("C")->m_strRecordLenSubInfo, "A.n");
  EXPECT_EQ(tran.findBlock("D")->m_nRecordLenApplyType, RCL_RESTDATA);
}

struct Refusal {
  const char* what;
  std::string xml;
  DefinitionStatus status;
  std::string description;  // exactly as reported
};

class DefinitionRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(DefinitionRefusal, NamesTheFileLineAndProblem) {
  const Refusal& c = GetParam();
  const DefinitionResult result = load(c.xml);
  EXPECT_FALSE(result);
  EXPECT_EQ(result.status, c.status);
  EXPECT_EQ(result.definition, nullptr);
  EXPECT_EQ(result.description(), c.description);
}

const std::string kBlockA = "<block name=\"A\"><field name=\"cnt\" type=\"int16\"/></block>\n";

INSTANTIATE_TEST_SUITE_P(
    Cases, DefinitionRefusal,
    ::testing::Values(
        Refusal{
            "unknown type",
            outputs("<block name=\"A\">\n<field name=\"x\" type=\"txt\" length=\"3\"/>\n</block>\n"),
            DefinitionStatus::BadDefinition,
            "def.xml:4: field 'x': unknown type 'txt' (expected text, number, int16, int64, float, double or "
            "sint64)"},
        Refusal{"explicit positions overlap",
                outputs("<block name=\"A\">\n<field name=\"x\" type=\"text\" length=\"4\" pos=\"0\"/>\n"
                        "<field name=\"y\" type=\"text\" length=\"2\" pos=\"2\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition,
                "def.xml:5: field 'y' (bytes 2 to 3) overlaps field 'x' (bytes 0 to 3)"},
        Refusal{"a field over an attribute byte",
                outputs("<block name=\"A\">\n<field name=\"y\" type=\"text\" length=\"2\" pos=\"4\"/>\n"
                        "<field name=\"x\" type=\"text\" length=\"4\" pos=\"0\" attr=\"true\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition,
                "def.xml:5: field 'x' (bytes 0 to 4) overlaps field 'y' (bytes 4 to 5)"},
        Refusal{
            "count field missing",
            outputs(kBlockA +
                    "<block name=\"B\" repeat=\"3\" count=\"A.n\">\n<field name=\"x\" type=\"text\" "
                    "length=\"1\"/></block>\n"),
            DefinitionStatus::BadDefinition,
            "def.xml:4: block B takes its record count from 'A.n', which does not exist: name a field of an "
            "earlier output block"},
        Refusal{"count field in a later block",
                outputs("<block name=\"B\" repeat=\"3\" count=\"A.cnt\"><field name=\"x\" type=\"text\" "
                        "length=\"1\"/></block>\n" +
                        kBlockA),
                DefinitionStatus::BadDefinition,
                "def.xml:3: block B takes its record count from 'A.cnt', which does not exist: name a field "
                "of an "
                "earlier output block"},
        Refusal{
            "count field with decimals",
            outputs(
                "<block name=\"A\"><field name=\"n\" type=\"number\" length=\"5\" decimals=\"1\"/></block>\n"
                "<block name=\"B\" repeat=\"3\" count=\"A.n\"><field name=\"x\" type=\"text\" "
                "length=\"1\"/></block>\n"),
            DefinitionStatus::BadDefinition,
            "def.xml:4: block B takes its record count from 'A.n', which is not a whole-number field"},
        Refusal{"duplicate block", outputs(kBlockA + kBlockA), DefinitionStatus::BadDefinition,
                "def.xml:4: duplicate block name 'A'"},
        Refusal{"duplicate field",
                outputs("<block name=\"A\">\n<field name=\"x\" type=\"int16\"/>\n<field name=\"x\" "
                        "type=\"int16\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition, "def.xml:5: block A already has a field named 'x'"},
        Refusal{"missing name",
                outputs("<block name=\"A\">\n<field type=\"text\" length=\"3\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition, "def.xml:4: <field> needs the attribute 'name'"},
        Refusal{"missing length",
                outputs("<block name=\"A\">\n<field name=\"x\" type=\"text\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition, "def.xml:4: field 'x' needs the attribute 'length'"},
        Refusal{"bad number",
                outputs("<block name=\"A\">\n<field name=\"x\" type=\"text\" length=\"1O\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition, "def.xml:4: 'length' must be a whole number, not '1O'"},
        Refusal{"number out of range",
                outputs("<block name=\"A\">\n<field name=\"x\" type=\"text\" length=\"0\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition, "def.xml:4: 'length' must lie between 1 and 1000000, not 0"},
        Refusal{"binary field of the wrong length",
                outputs("<block name=\"A\">\n<field name=\"n\" type=\"int16\" length=\"4\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition,
                "def.xml:4: field 'n' of type int16 is 2 bytes long, not 4; leave 'length' out"},
        Refusal{
            "no room for the point",
            outputs("<block name=\"A\">\n<field name=\"r\" type=\"number\" length=\"3\" decimals=\"3\"/>\n"
                    "</block>\n"),
            DefinitionStatus::BadDefinition,
            "def.xml:4: field 'r' has 3 decimals in 3 bytes; it needs at least one byte more for the point"},
        Refusal{"repeated without count rule",
                outputs("<block name=\"A\" repeat=\"2\">\n<field name=\"x\" type=\"int16\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition,
                "def.xml:3: block A is repeated: say how its record count is given with count=\"prefix\", "
                "count=\"rest\" or count=\"Block.field\""},
        Refusal{
            "count on a one-record block",
            outputs("<block name=\"A\" count=\"rest\">\n<field name=\"x\" type=\"int16\"/>\n</block>\n"),
            DefinitionStatus::BadDefinition,
            "def.xml:3: block A holds one record, so 'count' does not apply; add repeat=\"N\" to repeat it"},
        Refusal{
            "prefix without digits",
            outputs("<block name=\"A\" repeat=\"2\" count=\"prefix\">\n<field name=\"x\" type=\"int16\"/>\n"
                    "</block>\n"),
            DefinitionStatus::BadDefinition,
            "def.xml:3: block A has a count prefix, but the transaction's 'occurslen' (its digits) is 0"},
        Refusal{"rest before another block",
                outputs("<block name=\"A\" repeat=\"2\" count=\"rest\">\n<field name=\"x\" type=\"int16\"/>\n"
                        "</block>\n<block name=\"B\"><field name=\"x\" type=\"int16\"/></block>\n"),
                DefinitionStatus::BadDefinition,
                "def.xml:3: block A takes the rest of the data, so it must be the last output block"},
        Refusal{"misspelt attribute",
                outputs("<block name=\"A\">\n<field name=\"x\" type=\"text\" lenght=\"3\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition,
                "def.xml:4: unknown attribute 'lenght' on <field> (known: name, kor, eng, type, length, "
                "decimals, "
                "pos, attr, keyenc, account, itemcode, password, attrref)"},
        Refusal{"bad flag",
                outputs("<block name=\"A\">\n<field name=\"x\" type=\"int16\" attr=\"maybe\"/>\n</block>\n"),
                DefinitionStatus::BadDefinition, "def.xml:4: 'attr' must be true or false, not 'maybe'"},
        Refusal{
            "unknown attribute source",
            outputs("<block name=\"A\">\n<field name=\"x\" type=\"int16\" attrref=\"sign\"/>\n</block>\n"),
            DefinitionStatus::BadDefinition,
            "def.xml:4: field 'x' takes its attribute from 'sign', which is not a field of block A"},
        Refusal{
            "link of another block",
            outputs("<block name=\"A\">\n<field name=\"x\" type=\"int16\"/>\n<link name=\"B\"/>\n</block>\n"),
            DefinitionStatus::BadDefinition, "def.xml:5: the <link> of block A names another block, 'B'"},
        Refusal{"block without fields", outputs("<block name=\"A\">\n</block>\n"),
                DefinitionStatus::BadDefinition, "def.xml:3: block A has no fields"},
        Refusal{"unknown element", outputs("<block name=\"A\">\n<feild/>\n</block>\n"),
                DefinitionStatus::BadDefinition,
                "def.xml:4: unknown element <feild> in <block> (expected <field> or <link>)"},
        Refusal{"unknown encoding", outputs(kBlockA, " encoding=\"klingon\""),
                DefinitionStatus::BadDefinition,
                "def.xml:1: unknown encoding 'klingon' (try cp949, euc-kr, utf-8, ascii)"},
        Refusal{"wrong root", "<?xml version=\"1.0\"?>\n<transactions/>\n", DefinitionStatus::BadDefinition,
                "def.xml:2: the top-level element must be <transaction>, not <transactions>"},
        Refusal{"no blocks", "<transaction code=\"T1\">\n</transaction>\n", DefinitionStatus::BadDefinition,
                "def.xml:1: the transaction has no blocks; add <input> or <output> with a <block>"},
        Refusal{
            "not UTF-8",
            outputs("<block name=\"A\">\n<field name=\"x\" kor=\"\xB0\xA1\" type=\"int16\"/>\n</block>\n"),
            DefinitionStatus::BadDefinition, "def.xml:4: the file is not UTF-8 text; save it as UTF-8"},
        Refusal{"tags do not match",
                outputs("<block name=\"A\">\n<field name=\"x\" type=\"int16\">\n</block>\n"),
                DefinitionStatus::XmlError, "def.xml:5: Start-end tags mismatch"}),
    [](const ::testing::TestParamInfo<Refusal>& param) {
      std::string name = param.param.what;
      for (char& c : name)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
      return name;
    });

TEST(DefinitionLoader, ReportsAFileThatCannotBeRead) {
  const DefinitionResult result = DefinitionLoader::loadFile("/nonexistent/def.xml");
  EXPECT_EQ(result.status, DefinitionStatus::FileError);
  EXPECT_EQ(result.line, 0);
  EXPECT_EQ(result.description(), "/nonexistent/def.xml: cannot open: No such file or directory");
}

TEST(DefinitionLoader, NamesTypesBothWays) {
  for (int32_t type = kFieldText; type <= kFieldSInt64; ++type)
    EXPECT_EQ(dataTypeFromName(dataTypeName(type)), type);
  EXPECT_EQ(dataTypeFromName("Text"), -1);
  EXPECT_STREQ(dataTypeName(7), "unknown");
}

}  // namespace
}  // namespace blockproc
