// Real-time and field link records loaded from the block's XML element, and entity decoding.

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/parser/TBXML.h"

namespace blockproc {
namespace {

constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
constexpr int32_t kMin = std::numeric_limits<int32_t>::min();

// A processor for block "Orig" loaded from the document's root element.
struct Loaded {
  BlockInfo block{"Orig"};
  KXBlockDataProc proc{&block};
  explicit Loaded(std::string_view xml) {
    std::string error;
    const auto doc = TBXML::newTBXMLWithXMLString(xml, &error);
    EXPECT_NE(doc, nullptr) << error;
    if (doc) proc.setXmlInfo(doc->rootXMLElement());
  }
};

std::array<int32_t, 3> fieldInfo(const RealAPLinkInfo* link) {
  return {link->pFieldInfo()[0], link->pFieldInfo()[1], link->pFieldInfo()[2]};
}

TEST(KXBlockDataProcXml, BlockNameAndOneRecordPerChild) {
  Loaded l("<b name='A' x='1' name='B'><REALAP/><F/><realap/><REALAP><REALAP/></REALAP><!-- c --></b>");
  EXPECT_EQ(l.proc.getBlockName(), "B");      // the last "name" wins
  EXPECT_EQ(l.proc.getRealAPLinkCount(), 2);  // grandchildren are not visited
  EXPECT_EQ(l.proc.getLinkCount(), 2);        // lower-case realap is a field link

  Loaded bare("<b/>");
  EXPECT_EQ(bare.proc.getBlockName(), "Orig");
  EXPECT_EQ(bare.proc.getLinkCount() + bare.proc.getRealAPLinkCount(), 0);
  bare.proc.setXmlInfo(nullptr);
  EXPECT_EQ(bare.proc.getBlockName(), "Orig");

  // Hand-made elements may lack names: a nameless child is a field link, a nameless attribute is skipped.
  TBXMLAttribute nameless{nullptr, "v", nullptr};
  TBXMLElement child{nullptr, "", &nameless, nullptr, nullptr, nullptr, nullptr, nullptr};
  TBXMLElement root{"b", "", &nameless, nullptr, &child, nullptr, nullptr, nullptr};
  bare.proc.setXmlInfo(&root);
  EXPECT_EQ(bare.proc.getLinkCount(), 1);
  EXPECT_EQ(bare.proc.getBlockName(), "Orig");
}

TEST(KXBlockDataProcXml, RunningIndexes) {
  const std::string xml =
      "<b><REALAP idx='7'/><F idx='7'/><REALAP/><F/><REALAP idx=' -5z'/><REALAP/><F idx='x'/>"
      "<REALAP idx='2147483647'/><REALAP/><F idx='18446744073709551616'/></b>";
  Loaded l(xml);
  // REALAP: an idx moves the running index; the next record is made with it plus 1 (held at the limit).
  const std::vector<int32_t> realTime{7, 8, -5, -4, kMax, kMax};
  // Other children: an idx sets only that record; the running index goes on counting children.
  const std::vector<int32_t> links{7, 1, 0, kMax};
  for (int pass = 1; pass <= 2; ++pass) {  // a second load appends a second set, indexes from 0 again
    ASSERT_EQ(l.proc.getRealAPLinkCount(), pass * 6);
    ASSERT_EQ(l.proc.getLinkCount(), pass * 4);
    for (int32_t i = 0; i < 6; ++i)
      EXPECT_EQ(l.proc.getRealAPLinkInfo((pass - 1) * 6 + i)->nFieldIndex(), realTime[i]) << "REALAP " << i;
    for (int32_t i = 0; i < 4; ++i)
      EXPECT_EQ(l.proc.getLinkInfo((pass - 1) * 4 + i)->nFieldIndex, links[i]) << "link " << i;
    const auto doc = TBXML::newTBXMLWithXMLString(xml);
    l.proc.setXmlInfo(doc->rootXMLElement());
  }
}

TEST(KXBlockDataProcXml, IndexTriples) {
  const std::array<int32_t, 3> untouched{9, 9, 9};
  const struct {
    std::string list;
    std::optional<std::array<int32_t, 3>> triple;  // nullopt: fewer than three items, left as it was
  } cases[] = {
      {"1,2,3", std::array{1, 2, 3}},
      {"1,2", std::nullopt},
      {"1,2,3,4", std::array{1, 2, 3}},
      {"1,,3", std::array{1, 0, 3}},
      {" 4, +5,-6x,", std::array{4, 5, -6}},
      {"99999999999,-99999999999,2147483648", std::array{kMax, kMin, kMax}},
      {"18446744073709551616,18446744073709551620,-18446744073709551617", std::array{kMax, kMax, kMin}},
      {"a,b,c", std::array{0, 0, 0}},
  };
  for (const auto& c : cases) {
    Loaded l("<b><REALAP fieldinfo='9,9,9' fieldinfo='" + c.list + "'/><F deflink='" + c.list +
             "'/><F deflink='9,9,9' deflink='" + c.list + "'/></b>");
    EXPECT_EQ(fieldInfo(l.proc.getRealAPLinkInfo(0)), c.triple.value_or(untouched)) << c.list;
    EXPECT_EQ(l.proc.getLinkInfo(0)->pLinkIndex, c.triple) << c.list;  // made only by a full list
    EXPECT_EQ(l.proc.getLinkInfo(1)->pLinkIndex, c.triple.value_or(untouched)) << c.list;
  }
}

TEST(KXBlockDataProcXml, AttributeFunction) {
  const struct {
    std::string value, path;  // path "": not applied, the earlier value stays whole
    bool realAttr;
    int32_t function;
    std::optional<std::string> params;
  } cases[] = {
      {"attr_compare(price,base)", "attr_compare(price,base)", true, FUNC_COMPARE_INDEX, "price,base"},
      {"attr_zero()", "attr_zero()", false, FUNC_BASE_INDEX, std::nullopt},
      {"x.attr_fluctbit(c)", "x.attr_fluctbit(c)", true, FUNC_FLUCTBIT_INDEX, "c"},
      {"attr_unknown(p)", "attr_unknown(p)", true, FUNC_BASE_INDEX, "p"},
      {"attr_Compare(p)", "attr_Compare(p)", true, FUNC_BASE_INDEX, "p"},  // function names are exact
      {"attr_compareto(a)", "attr_compareto(a)", true, FUNC_COMPARETO_INDEX, "a"},
      {"attr_timevolume(v)", "attr_timevolume(v)", true, FUNC_TIMEVOLUME_INDEX, "v"},
      {"attr_(p)", "attr_(p)", false, FUNC_BASE_INDEX, "p"},  // parameters without a name
      {"attr_compare)x(", "attr_compare)x(", false, FUNC_BASE_INDEX, std::nullopt},
      {"attr_makecolor(a)(b)", "attr_makecolor(a)(b)", true, FUNC_MAKECOLOR_INDEX, "a"},
      {"attr_zero(&lt;1&gt;)", "attr_zero(<1>)", true, FUNC_ZERO_INDEX, "<1>"},
      {"ATTR_compare(a)", "", true, FUNC_USEPCLOSE_INDEX, "q"},
  };
  for (const auto& c : cases) {
    Loaded l("<b><REALAP attrfunc='attr_usepclose(q)' attrfunc='" + c.value + "'/></b>");
    const RealAPLinkInfo* link = l.proc.getRealAPLinkInfo(0);
    ASSERT_NE(link, nullptr);
    EXPECT_EQ(std::tuple(link->sJsonPath(), link->bRealAttr(), link->nFuncIndex(), link->sFuncParam()),
              std::tuple(c.path.empty() ? "attr_usepclose(q)" : c.path, c.realAttr, c.function, c.params))
        << c.value;
  }
}

TEST(KXBlockDataProcXml, EntitiesDecodedInOrderOnlyWhereDue) {
  const struct {
    std::string_view text, decoded;
  } cases[] = {
      {"&amp;quot;", "\""},
      {"&&lt;;", "&<;"},
      {"&lt;&gt;&amp;&quot;&apos;", "<>&\"'"},
      {"&lt", "&lt"},
      {"&#65;&nbsp;", "&#65;&nbsp;"},
  };
  for (const auto& c : cases) EXPECT_EQ(KXBlockDataProc::Entity2Ref(c.text), c.decoded) << c.text;

  // Values arrive from the parser as written: "exp" is decoded, "name" and "defconst" are not.
  Loaded l("<b><REALAP name='p &amp; q' exp='a &lt; b &amp;amp; c'/><F defconst='a &lt; b'/></b>");
  EXPECT_EQ(l.proc.getRealAPLinkInfo(0)->sFieldName(), "p &amp; q");
  EXPECT_EQ(l.proc.getRealAPLinkInfo(0)->sExpression(), "a < b &amp; c");
  EXPECT_EQ(l.proc.getLinkInfo(0)->szDefaultValue, "a &lt; b");
}

}  // namespace
}  // namespace blockproc
