// The element tree: its links, raw attribute values, refused documents with their positions, hostile sizes.

#include "blockproc/parser/TBXML.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace blockproc {
namespace {

std::unique_ptr<TBXML> parseOk(std::string_view xml) {
  std::string error = "stale";
  auto doc = TBXML::newTBXMLWithXMLString(xml, &error);
  EXPECT_NE(doc, nullptr) << error;
  EXPECT_EQ(error, "");
  return doc;
}

std::vector<std::string> attributes(const TBXMLElement* e) {
  std::vector<std::string> out;
  for (const TBXMLAttribute* a = e->firstAttribute; a != nullptr; a = a->next)
    out.push_back(TBXML::attributeName(a) + "=" + TBXML::attributeValue(a));
  return out;
}

TEST(TBXMLTree, ElementsOnlyWithOwnTextAndLinks) {
  const auto doc = parseOk(
      "<?xml version='1.0'?>\n<!-- head -->\n"
      "<blk name='B' name='C'>\n  lead <x/> <!-- c --><?pi y?><y k='1'>t</y>tail<![CDATA[<&>]]>\n  <x/>\n"
      "</blk>\n");
  const TBXMLElement* root = doc->rootXMLElement();
  EXPECT_EQ(TBXML::elementName(root), "blk");
  EXPECT_EQ(root->parentElement, nullptr);
  EXPECT_EQ(attributes(root), (std::vector<std::string>{"name=B", "name=C"}));  // duplicates kept, in order
  EXPECT_STREQ(root->text,
               "\n  lead tail<&>");  // own text and CDATA joined; white space between tags dropped

  std::vector<std::string> names;
  const TBXMLElement* previous = nullptr;
  for (const TBXMLElement* c = root->firstChild; c != nullptr; c = c->nextSibling) {
    names.push_back(c->name);
    EXPECT_EQ(c->parentElement, root);
    EXPECT_EQ(c->previousSibling, previous);
    EXPECT_EQ(c->currentChild, nullptr);
    previous = c;
  }
  EXPECT_EQ(names, (std::vector<std::string>{"x", "y", "x"}));
  EXPECT_EQ(root->firstChild->firstAttribute, nullptr);
  EXPECT_STREQ(root->firstChild->text, "");

  const TBXMLElement* y = TBXML::childElementNamed("y", root);
  ASSERT_NE(y, nullptr);
  EXPECT_EQ(TBXML::textForElement(y), "t");
  EXPECT_EQ(TBXML::childElementNamed("Y", root), nullptr);  // exact case
  const TBXMLElement* secondX = TBXML::nextSiblingNamed("x", root->firstChild);
  EXPECT_EQ(secondX, y->nextSibling);
  EXPECT_EQ(TBXML::nextSiblingNamed("x", secondX), nullptr);
}

TEST(TBXMLTree, ValuesAndTextReachTheCallerAsWritten) {
  const struct {
    std::string xml, value, text;
  } cases[] = {
      {"<a v=\"x &lt; y\"/>", "x &lt; y", ""},
      {"<a v='&amp;quot;&#65;&unknown;'>&lt;&#x42;</a>", "&amp;quot;&#65;&unknown;", "&lt;&#x42;"},
      {"<a v='say \"hi\" > there'/>", "say \"hi\" > there", ""},
      {"<a v=\"\r\n\t\">\r\n x\r\n</a>", "\r\n\t", "\r\n x\r\n"},
      {"<a v=''/>", "", ""},
      {"<a v='\xB0\xA1\xB3\xAA'>\xC3\x28\xFF</a>", "\xB0\xA1\xB3\xAA", "\xC3\x28\xFF"},  // not UTF-8
      {"\xEF\xBB\xBF<a v='bom'/>", "bom", ""},
  };
  for (const auto& c : cases) {
    const auto doc = parseOk(c.xml);
    if (doc == nullptr) continue;
    const TBXMLElement* root = doc->rootXMLElement();
    EXPECT_EQ(TBXML::attributeValue(root->firstAttribute), c.value) << c.xml;
    EXPECT_EQ(TBXML::textForElement(root), c.text) << c.xml;
  }
  const auto doc = parseOk("<\xE5\x80\xBC \xFF\x80='1'/>");  // names with any bytes
  EXPECT_EQ(TBXML::elementName(doc->rootXMLElement()), "\xE5\x80\xBC");
  EXPECT_EQ(TBXML::attributeName(doc->rootXMLElement()->firstAttribute), "\xFF\x80");
}

TEST(TBXMLTree, HelpersAcceptNullptr) {
  EXPECT_EQ(TBXML::attributeValue(nullptr), "");
  EXPECT_EQ(TBXML::attributeName(nullptr), "");
  EXPECT_EQ(TBXML::elementName(nullptr), "");
  EXPECT_EQ(TBXML::textForElement(nullptr), "");
  EXPECT_EQ(TBXML::childElementNamed("a", nullptr), nullptr);
  EXPECT_EQ(TBXML::nextSiblingNamed("a", nullptr), nullptr);
  const TBXMLAttribute bare{nullptr, nullptr, nullptr};
  EXPECT_EQ(TBXML::attributeValue(&bare), "");
  TBXMLElement child{nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
  TBXMLElement parent{"p", "", nullptr, nullptr, &child, nullptr, nullptr, nullptr};
  EXPECT_EQ(TBXML::childElementNamed("", &parent), nullptr);  // a nameless element matches no name
}

TEST(TBXMLErrors, MalformedDocumentsNameTheProblemAndWhere) {
  const struct {
    std::string xml, reason;
  } cases[] = {
      {"<a><b></a>", "end tag does not match the open element at line 1, column 7 (near \"</a>\")"},
      {"<a>\n  <b x=1/>\n</a>",
       "malformed attribute (name=\"value\" or name='value' expected) at line 2, column 8"},
      {"<a>\n\xED\x95\x9C\xEA\xB8\x80<b></a>", "at line 2, column 6"},  // columns count characters
      {"\xEF\xBB\xBF<a></b>", "at line 1, column 4"},
      {"<a>\n<b></b>\n", "an element is not closed before the end of the document at line 3, column 1"},
      {"<a><!-- x -></a>", "malformed comment"},
      {"<a><![CDATA[x</a>", "malformed CDATA section"},
      {"", "no root element at line 1, column 1"},
      {"<!-- only -->\n", "no root element"},
      {"<a/>\n<b/>", "a second root element <b> (only one is allowed) at line 2, column 1 (near \"<b/>\")"},
      {"<a/>\n  tail", "text outside the root element at line 2, column 3 (near \"tail\")"},
      {std::string("<a>\0</a>", 8),
       "zero byte (is it UTF-16 or UTF-32? convert it to UTF-8) at line 1, column 4"},
      {"\xFF\xFE<\0a\0/\0>\0", "UTF-16 or UTF-32 byte order mark"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_EQ(TBXML::newTBXMLWithXMLString(c.xml, &error), nullptr) << c.xml;
    EXPECT_NE(error.find(c.reason), std::string::npos) << c.xml << "\n  got: " << error;
  }
  EXPECT_EQ(TBXML::newTBXMLWithXMLString("<a>"), nullptr);  // no place for the reason: still refused
}

TEST(TBXMLHostile, DeepNestingBuildsWithoutRecursion) {
  constexpr int kDepth = 100'000;
  std::string xml;
  for (int i = 0; i < kDepth; ++i) xml += "<e>";
  xml += "core";
  for (int i = 0; i < kDepth; ++i) xml += "</e>";
  const auto doc = parseOk(xml);
  ASSERT_NE(doc, nullptr);
  const TBXMLElement* e = doc->rootXMLElement();
  int depth = 1;
  for (; e->firstChild != nullptr; e = e->firstChild) ++depth;
  EXPECT_EQ(depth, kDepth);
  EXPECT_STREQ(e->text, "core");
  for (; e->parentElement != nullptr; e = e->parentElement) --depth;
  EXPECT_EQ(depth, 1);
  EXPECT_EQ(e, doc->rootXMLElement());
}

TEST(TBXMLHostile, ManyChildrenAndMegabyteValues) {
  constexpr int kChildren = 10'000;
  const std::string big(1 << 20, 'v');
  std::string xml = "<a v='" + big + "'>";
  for (int i = 0; i < kChildren; ++i)
    xml += "<c i='" + std::to_string(i) + "'>" + (i == 7 ? big : "") + "</c>";
  xml += "<last/></a>";
  const auto doc = parseOk(xml);
  ASSERT_NE(doc, nullptr);
  const TBXMLElement* root = doc->rootXMLElement();
  EXPECT_EQ(TBXML::attributeValue(root->firstAttribute), big);
  int count = 0;
  const TBXMLElement* c = root->firstChild;
  for (; c->nextSibling != nullptr; c = c->nextSibling) ++count;
  EXPECT_EQ(count, kChildren);
  EXPECT_EQ(c, TBXML::childElementNamed("last", root));
  EXPECT_EQ(TBXML::attributeValue(c->previousSibling->firstAttribute), std::to_string(kChildren - 1));
  EXPECT_EQ(TBXML::nextSiblingNamed("c", root->firstChild)->firstAttribute->value, std::string("1"));
  const TBXMLElement* seventh = root->firstChild;
  for (int i = 0; i < 7; ++i) seventh = seventh->nextSibling;
  EXPECT_EQ(TBXML::textForElement(seventh), big);
}

}  // namespace
}  // namespace blockproc
