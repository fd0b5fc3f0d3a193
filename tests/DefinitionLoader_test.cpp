// Loading transaction definition files: the sample, the layout rules, and refusals with their lines.

#include "blockproc/engine/DefinitionLoader.h"

#include <gtest/gtest.h>

#include <string>

namespace blockproc {
namespace {

// A transaction whose <output> holds `blocks`: line 1 is <transaction>, line 2 <output>, so the first line of
// `blocks` is line 3.
std::string outputs(const std::string& blocks, const std::string& tranAttrs = "") {
  return "<transaction code='T1'" + tranAttrs + ">\n<output>\n" + blocks + "</output>\n</transaction>\n";
}

// Block A (line 3) with `attrs`, holding `body` from line 4 on.
std::string blockA(const std::string& body, const std::string& attrs = "") {
  return outputs("<block name='A'" + attrs + ">\n" + body + "\n</block>\n");
}

// Block A holding one field, on line 4, with these attributes.
std::string fieldA(const std::string& attrs) {
  return blockA("<field " + attrs + "/>");
}

// Block B of three records counted by `count`, all on one line.
std::string countedB(const std::string& count) {
  return "<block name='B' repeat='3' count='" + count +
         "'><field name='x' type='text' length='1'/></block>\n";
}

// Block A with one int16 field and a <link> whose child, `child`, is on line 6.
std::string linkA(const std::string& child) {
  return blockA("<field name='x' type='int16'/>\n<link>\n" + child + "\n</link>");
}

const std::string kBlockA = "<block name='A'><field name='cnt' type='int16'/></block>\n";

DefinitionResult load(const std::string& xml) {
  return DefinitionLoader::loadString(xml, "def.xml");
}

// The sample's layout is pinned by the tool's inspect golden output; here, what that output does not show.
TEST(DefinitionLoader, LoadsTheSampleTransaction) {
  const DefinitionResult result =
      DefinitionLoader::loadFile(BLOCKPROC_SOURCE_DIR "/examples/current_price.xml");
  ASSERT_TRUE(result) << result.description();
  const TransactionDefinition& def = *result.definition;
  const BlockInfo& out = *def.tran.findBlock("OutBlock");
  const BlockInfo& ticks = *def.tran.findBlock("OutBlock1");
  EXPECT_EQ(out.getAttrRefSourceFieldInfo(out.getFieldInfoFromName("rate")->getAttrRefDicKey()),
            out.getFieldInfoFromName("sign"));
  EXPECT_EQ(ticks.m_nRecordLenApplyType, RCL_BLOCKFIELD_ID);
  // The link element is kept as written, entity references and all.
  EXPECT_NE(def.extra(out).linkXml.find("exp=\"price &gt; 0\""), std::string::npos) << def.extra(out).linkXml;
  EXPECT_EQ(def.extra(ticks).linkXml, "");
  EXPECT_TRUE(def.extra(out).link && !def.extra(ticks).link);
  EXPECT_GT(def.extra(ticks).line, def.extra(out).line);
}

// References in values read as XML reads them; one that is none stays as written.
TEST(DefinitionLoader, ResolvesReferencesInValues) {
  const DefinitionResult result = load(
      blockA("<field name='a' type='text' length='3' kor='&lt;&amp;&#65;&#xAC00;&#xD800;&x;' eng='&amp'/>"));
  ASSERT_TRUE(result) << result.description();
  const FieldInfo& a = *result.definition->tran.findBlock("A")->getFieldInfoFromName("a");
  EXPECT_EQ(a.szKorFieldName, "<&A\xEA\xB0\x80&#xD800;&x;");
  EXPECT_EQ(a.szEngFieldName, "&amp");
}

TEST(DefinitionLoader, PlacesFieldsWithoutPositionsBehindThePreviousOne) {
  const DefinitionResult result = load(blockA(R"(<field name='a' type='text' length='3'/>
<field name='b' type='int16'/>
<field name='c' type='text' length='2' pos='10'/>
<field name='d' type='double' decimals='3'/>)",
                                              " attr='true'"));
  ASSERT_TRUE(result) << result.description();
  const BlockInfo& block = *result.definition->tran.findBlock("A");
  EXPECT_EQ(block.getFieldInfoFromName("b")->nDataPos, 4);  // 3 bytes and an attribute byte
  EXPECT_EQ(block.getFieldInfoFromName("c")->nDataPos, 10);
  EXPECT_EQ(block.getFieldInfoFromName("d")->nDataPos, 13);
  EXPECT_EQ(block.getRecordMemSize(), 22);
  EXPECT_EQ(block.getRecordFieldSize(), 15);  // 3 + 2 + 2 + 8 bytes of data
}

// Whether a number field's point is written: point="implied" leaves it out, "explicit" (the default) writes
// it.
TEST(DefinitionLoader, ReadsWhetherANumberWritesItsPoint) {
  const DefinitionResult result =
      load(blockA(R"(<field name='a' type='number' length='12' decimals='2' point='implied'/>
<field name='b' type='number' length='9' decimals='2' point='explicit'/>
<field name='c' type='number' length='9' decimals='2'/>
<field name='d' type='text' length='6' decimals='1' point='implied'/>)"));
  ASSERT_TRUE(result) << result.description();
  const BlockInfo& block = *result.definition->tran.findBlock("A");
  const std::pair<const char*, bool> cases[] = {{"a", true}, {"b", false}, {"c", false}, {"d", true}};
  for (const auto& [name, implied] : cases)
    EXPECT_EQ(block.getFieldInfoFromName(name)->bImpliedPoint, implied);
}

TEST(DefinitionLoader, RefusesABrokenDefinitionNamingTheLineAndProblem) {
  const struct {
    std::string xml;
    std::string description;  // exactly as reported, after "def.xml:"
    DefinitionStatus status = DefinitionStatus::BadDefinition;
  } cases[] = {
      {fieldA("name='x' type='txt' length='3'"),
       "4: field 'x': unknown type 'txt' (expected text, number, int16, int64, float, double or sint64)"},
      {fieldA("name='x' type='Text' length='3'"),  // type names are exact
       "4: field 'x': unknown type 'Text' (expected text, number, int16, int64, float, double or sint64)"},
      {blockA("<field name='x' type='text' length='4' pos='0'/>\n"
              "<field name='y' type='text' length='2' pos='2'/>"),
       "5: field 'y' (bytes 2 to 3) overlaps field 'x' (bytes 0 to 3)"},
      {blockA("<field name='y' type='text' length='2' pos='4'/>\n"
              "<field name='x' type='text' length='4' pos='0' attr='true'/>"),
       "5: field 'x' (bytes 0 to 4) overlaps field 'y' (bytes 4 to 5)"},  // over the attribute byte
      {outputs(kBlockA + countedB("A.n")),
       "4: block B takes its record count from 'A.n', which does not exist: name a field of an earlier "
       "output block"},
      {outputs(countedB("A.cnt") + kBlockA),
       "3: block B takes its record count from 'A.cnt', which does not exist: name a field of an earlier "
       "output block"},
      {outputs("<block name='A'><field name='n' type='number' length='5' decimals='1'/></block>\n" +
               countedB("A.n")),
       "4: block B takes its record count from 'A.n', which is not a whole-number field"},
      {outputs(kBlockA + kBlockA), "4: duplicate block name 'A'"},
      {blockA("<field name='x' type='int16'/>\n<field name='x' type='int16'/>"),
       "5: block A already has a field named 'x'"},
      {fieldA("type='text' length='3'"), "4: <field> needs the attribute 'name'"},
      {fieldA("name='x' type='text'"), "4: field 'x' needs the attribute 'length'"},
      {fieldA("name='x' type='text' length='1O'"), "4: 'length' must be a whole number, not '1O'"},
      {fieldA("name='x' type='text' length='0'"), "4: 'length' must lie between 1 and 1000000, not 0"},
      {fieldA("name='n' type='int16' length='4'"),
       "4: field 'n' of type int16 is 2 bytes long, not 4; leave 'length' out"},
      {fieldA("name='r' type='number' length='3' decimals='3'"),
       "4: field 'r' has 3 decimals in 3 bytes; it needs at least one byte more for the point"},
      {blockA("<field name='x' type='int16'/>", " repeat='2'"),
       "3: block A is repeated: say how its record count is given with count=\"prefix\", count=\"rest\" or "
       "count=\"Block.field\""},
      {blockA("<field name='x' type='int16'/>", " count='rest'"),
       "3: block A holds one record, so 'count' does not apply; add repeat=\"N\" to repeat it"},
      {blockA("<field name='x' type='int16'/>", " repeat='2' count='prefix'"),
       "3: block A has a count prefix, but the transaction's 'occurslen' (its digits) is 0"},
      {outputs("<block name='A' repeat='2' count='rest'>\n<field name='x' type='int16'/>\n</block>\n"
               "<block name='B'><field name='x' type='int16'/></block>\n"),
       "3: block A takes the rest of the data, so it must be the last output block"},
      {fieldA("name='x' type='text' lenght='3'"),
       "4: unknown attribute 'lenght' on <field> (known: name, kor, eng, type, length, decimals, pos, attr, "
       "keyenc, account, itemcode, password, attrref, point)"},
      {fieldA("name='p' type='number' length='8' decimals='2' point='none'"),
       "4: field 'p': 'point' must be implied or explicit, not 'none'"},
      {fieldA("name='p' type='double' decimals='2' point='implied'"),
       "4: field 'p': 'point' applies to number fields (type number, or text with decimals), not to double"},
      {fieldA("name='p' type='text' length='8' point='explicit'"),
       "4: field 'p': 'point' applies to number fields (type number, or text with decimals), not to text "
       "without decimals"},
      {fieldA("name='x' type='int16' attr='maybe'"), "4: 'attr' must be true or false, not 'maybe'"},
      {fieldA("name='x' type='int16' attrref='sign'"),
       "4: field 'x' takes its attribute from 'sign', which is not a field of block A"},
      {blockA("<field name='x' type='int16'/>\n<link name='B'/>"),
       "5: the <link> of block A names another block, 'B'"},
      {blockA(""), "3: block A has no fields"},
      // Link records: index triples of whole numbers naming a field of the block, known attribute functions.
      {linkA("<REALAP name='x' fieldinfo='1,x'/>"),
       "6: 'fieldinfo' '1,x' must be three whole numbers separated by commas (field index, offset, length)"},
      {linkA("<DEFAULT deflink='0,-1,0'/>"),
       "6: 'deflink' '0,-1,0' must be three whole numbers separated by commas (field index, offset, length)"},
      {linkA("<REALAP fieldinfo='99,0,8'/>"),
       "6: 'fieldinfo' '99,0,8' names field 99, but block A has fields 0 to 0"},
      {linkA("<REALAP fieldinfo='0,0,2' attrfunc='bogus'/>"),
       "6: 'attrfunc' 'bogus' must call a known function: attr_NAME(PARAMS) with PARAMS not empty and NAME "
       "one of compare, compareto, fluctbit, timevolume, unitvolume, trdbit, zero, makecolor, usepclose"},
      {linkA("<REALAP fieldinfo='0,0,2' attrfunc='attr_zero()'/>"),
       "6: 'attrfunc' 'attr_zero()' must call a known function: attr_NAME(PARAMS) with PARAMS not empty and "
       "NAME one of compare, compareto, fluctbit, timevolume, unitvolume, trdbit, zero, makecolor, "
       "usepclose"},
      {linkA("<REALAP idx='x'/>"), "6: 'idx' must be a whole number, not 'x'"},
      {blockA("<feild/>"), "4: unknown element <feild> in <block> (expected <field> or <link>)"},
      {outputs(kBlockA, " encoding='klingon'"),
       "1: unknown encoding 'klingon' (try cp949, euc-kr, utf-8, ascii)"},
      {"<?xml version='1.0'?>\n<transactions/>\n",
       "2: the top-level element must be <transaction>, not <transactions>"},
      {"<transaction code='T1'>\n</transaction>\n",
       "1: the transaction has no blocks; add <input> or <output> with a <block>"},
      {fieldA("name='x' kor='\xB0\xA1' type='int16'"), "4: the file is not UTF-8 text; save it as UTF-8"},
      {blockA("<field name='x' type='int16'>"), "5: Start-end tags mismatch", DefinitionStatus::XmlError}};
  for (const auto& c : cases) {
    const DefinitionResult result = load(c.xml);
    EXPECT_EQ(result.status, c.status) << c.description;
    EXPECT_EQ(result.definition, nullptr) << c.description;
    EXPECT_EQ(result.description(), "def.xml:" + c.description);
  }
}

// Names reach terminals and become file names: a name that could move the cursor, clear the screen or lead a
// file out of its folder is refused with its line, and shown escaped in the message.
TEST(DefinitionLoader, RefusesNamesThatCouldEscapeOrReachATerminalRaw) {
  const std::string kControl = "holds a control character (";
  const std::string kNoControl = "); names are shown on terminals, so they hold none";
  const std::string kDirection = "holds a character that reorders or breaks the text shown (";
  const std::string kSeparator =
      "'; a block's name becomes a file name (decode --output-dir), so names hold no / or \\";
  const std::string kAt =
      "' holds '@', which decoded records keep for the members they add beside the fields (<field>@attr, "
      "<field>@hex, @block, @record); rename the field";
  const struct {
    std::string xml;
    std::string description;  // after "def.xml:"
  } cases[] = {
      {outputs("<block name='../../escape'><field name='x' type='int16'/></block>\n"),
       "3: block name '../../escape' holds '/" + kSeparator},
      {outputs("<block name='a\\b'><field name='x' type='int16'/></block>\n"),
       "3: block name 'a\\b' holds '\\" + kSeparator},
      {outputs("<block name='..'><field name='x' type='int16'/></block>\n"),
       "3: block name '..' is .., which stands for a folder; a block's name becomes a file name"},
      {outputs("<block name='.'><field name='x' type='int16'/></block>\n"),
       "3: block name '.' is ., which stands for a folder; a block's name becomes a file name"},
      {outputs("<block name='x&#27;[2J'><field name='x' type='int16'/></block>\n"),
       "3: block name 'x\\x1B[2J' " + kControl + "\\x1B" + kNoControl},
      {outputs("<block name='a&#10;b'><field name='x' type='int16'/></block>\n"),
       "3: block name 'a\\x0Ab' " + kControl + "\\x0A" + kNoControl},
      // The escape byte itself in the file, DEL, and the C1 control U+009B (a terminal's one-byte escape).
      {fieldA("name='x\x1B]0;owned\x07' type='int16'"),
       "4: field name 'x\\x1B]0;owned\\x07' " + kControl + "\\x1B" + kNoControl},
      {fieldA("name='x&#127;' type='int16'"), "4: field name 'x\\x7F' " + kControl + "\\x7F" + kNoControl},
      {fieldA("name='x&#x9B;2J' type='int16'"),
       "4: field name 'x\\xC2\\x9B2J' " + kControl + "\\xC2\\x9B" + kNoControl},
      // Characters that make a name show as another: a right-to-left override, an isolate, a line separator.
      {fieldA("name='x&#x202E;cod.exe' type='int16'"),
       "4: field name 'x\\xE2\\x80\\xAEcod.exe' " + kDirection + "\\xE2\\x80\\xAE" + kNoControl},
      {outputs("<block name='a&#x2066;b'><field name='x' type='int16'/></block>\n"),
       "3: block name 'a\\xE2\\x81\\xA6b' " + kDirection + "\\xE2\\x81\\xA6" + kNoControl},
      {fieldA("name='a&#x2028;b' type='int16'"),
       "4: field name 'a\\xE2\\x80\\xA8b' " + kDirection + "\\xE2\\x80\\xA8" + kNoControl},
      {fieldA("name='a/b' type='int16'"), "4: field name 'a/b' holds '/" + kSeparator},
      {fieldA("name='..' type='int16'"),
       "4: field name '..' is .., which stands for a folder; a block's name becomes a file name"},
      // '@' marks the members decoded records add: no field may take the place of one.
      {fieldA("name='@block' type='int16'"), "4: field name '@block" + kAt},
      {fieldA("name='@record' type='int16'"), "4: field name '@record" + kAt},
      {fieldA("name='a@attr' type='int16'"), "4: field name 'a@attr" + kAt},
      {fieldA("name='a@hex' type='int16'"), "4: field name 'a@hex" + kAt},
      {"<transaction code='T&#27;[2J'>\n<output>\n" + kBlockA + "</output>\n</transaction>\n",
       "1: the transaction code 'T\\x1B[2J' holds a control character (\\x1B); a code is shown on "
       "terminals, so it holds none"},
      {"<transaction code='T&#x200F;'>\n<output>\n" + kBlockA + "</output>\n</transaction>\n",
       "1: the transaction code 'T\\xE2\\x80\\x8F' holds a character that reorders or breaks the text shown "
       "(\\xE2\\x80\\x8F); a code is shown on terminals, so it holds none"}};
  for (const auto& c : cases) {
    const DefinitionResult result = load(c.xml);
    EXPECT_EQ(result.definition, nullptr) << c.description;
    EXPECT_EQ(result.description(), "def.xml:" + c.description) << c.xml;
    EXPECT_EQ(result.description().find('\x1B'), std::string::npos);
  }
  // What stays a name: dots inside, spaces, Hangul, U+00A0 (past the C1 controls), names like the tool's
  // own members without their '@'.
  const DefinitionResult ok =
      load(outputs("<block name='a.b'><field name='block' type='int16'/><field name='record' type='int16'/>"
                   "<field name='...' type='int16'/><field name='&#xA0;x y' type='int16'/>"
                   "<field name='\xED\x98\xB8\xEA\xB0\x80' type='int16'/></block>\n"));
  EXPECT_TRUE(ok) << ok.description();
}

// 1,000,000 records of 100 bytes pass 64 MiB: refused for a block held whole, not for a rest block (read a
// piece at a time).
TEST(DefinitionLoader, LimitsTheSizeOfABlockHeldWholeOnly) {
  const std::string field = "<field name='x' type='text' length='100'/>";
  EXPECT_TRUE(load(blockA(field, " repeat='2147483647' count='rest'")));
  EXPECT_EQ(load(outputs("<block name='A' repeat='1000000' count='prefix'>\n" + field + "\n</block>\n",
                         " occurslen='4'"))
                .description(),
            "def.xml:3: block A lays out 100000000 bytes; at most 67108864 are allowed");
}

TEST(DefinitionLoader, ReportsAFileThatCannotBeRead) {
  const std::pair<std::string, std::string> cases[] = {
      {"/nonexistent/def.xml", "/nonexistent/def.xml: cannot open: No such file or directory"},
      {BLOCKPROC_SOURCE_DIR "/examples", BLOCKPROC_SOURCE_DIR "/examples: is a directory, not a file"}};
  for (const auto& [path, description] : cases) {
    const DefinitionResult result = DefinitionLoader::loadFile(path);
    EXPECT_EQ(result.status, DefinitionStatus::FileError);
    EXPECT_EQ(result.line, 0);
    EXPECT_EQ(result.description(), description);
  }
}

}  // namespace
}  // namespace blockproc
