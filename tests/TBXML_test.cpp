// The element tree: its links, raw attribute values, refused documents with their positions, deep nesting.

#include "blockproc/parser/TBXML.h"

#include <gtest/gtest.h>

#include <string>

namespace blockproc {
namespace {

std::unique_ptr<TBXML> parseOk(std::string_view xml) {
  std::string error = "stale";
  auto doc = TBXML::newTBXMLWithXMLString(xml, &error);
  EXPECT_NE(doc, nullptr) << error;
  EXPECT_EQ(error, "");
  return doc;
}

TEST(TBXMLTree, ElementsOnlyWithOwnTextAndLinks) {
  const auto doc = parseOk(
      "<?xml version='1.0'?>\n<!-- head -->\n"
      "<blk name='B' name='C'>\n  lead <x/> <!-- c --><?pi y?><y k='1'>t</y>tail<![CDATA[<&>]]>\n  <x/>\n"
      "</blk>\n");
  const TBXMLElement* root = doc->rootXMLElement();
  EXPECT_EQ(TBXML::elementName(root), "blk");
  EXPECT_EQ(root->parentElement, nullptr);
  std::string attributes;
  for (const TBXMLAttribute* a = root->firstAttribute; a != nullptr; a = a->next)
    attributes += TBXML::attributeName(a) + "=" + TBXML::attributeValue(a) + ";";
  EXPECT_EQ(attributes, "name=B;name=C;");  // duplicates kept, in order
  // Own text and CDATA joined; white space between tags dropped.
  EXPECT_STREQ(root->text, "\n  lead tail<&>");

  std::string names;
  const TBXMLElement* previous = nullptr;
  for (const TBXMLElement* c = root->firstChild; c != nullptr; previous = c, c = c->nextSibling) {
    names += c->name;
    EXPECT_EQ(c->parentElement, root);
    EXPECT_EQ(c->previousSibling, previous);
    EXPECT_EQ(c->currentChild, nullptr);
  }
  EXPECT_EQ(names, "xyx");
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
    EXPECT_EQ(TBXML::attributeValue(doc->rootXMLElement()->firstAttribute), c.value) << c.xml;
    EXPECT_EQ(TBXML::textForElement(doc->rootXMLElement()), c.text) << c.xml;
  }
  const auto doc = parseOk("<\xE5\x80\xBC \xFF\x80='1'/>");  // names with any bytes
  EXPECT_EQ(TBXML::elementName(doc->rootXMLElement()), "\xE5\x80\xBC");
  EXPECT_EQ(TBXML::attributeName(doc->rootXMLElement()->firstAttribute), "\xFF\x80");

  // The helpers accept nullptr and nameless hand-made nodes.
  EXPECT_EQ(TBXML::attributeValue(nullptr) + TBXML::attributeName(nullptr) + TBXML::elementName(nullptr) +
                TBXML::textForElement(nullptr),
            "");
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

TEST(TBXMLHostile, DeepNestingIsBuiltWithoutRecursion) {
  constexpr int kDepth = 100'000;
  std::string deep;
  for (int i = 0; i < kDepth; ++i) deep += "<e>";
  deep += "core";
  for (int i = 0; i < kDepth; ++i) deep += "</e>";
  auto doc = parseOk(deep);  // built without recursion
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

}  // namespace
}  // namespace blockproc
