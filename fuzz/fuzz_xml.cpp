// The element tree's parser on arbitrary documents, then the block's XML definition loaded from the result.
//
// The whole tree is walked without recursion, checking that its links agree (parents, siblings, the named
// lookups); every attribute value goes through Entity2Ref and is compared with a plain re-implementation;
// setXmlInfo on the root must add one record per child and take the last "name" attribute.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzCheck.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/parser/TBXML.h"

namespace blockproc::fuzz {
namespace {

// Five replace-all passes, each over the result of the one before.
std::string decodeEntities(std::string text) {
  static constexpr std::string_view kPairs[][2] = {
      {"&lt;", "<"}, {"&gt;", ">"}, {"&amp;", "&"}, {"&quot;", "\""}, {"&apos;", "'"}};
  for (const auto& pair : kPairs) {
    std::string out;
    size_t from = 0;
    for (size_t at; (at = text.find(pair[0], from)) != std::string::npos; from = at + pair[0].size()) {
      out.append(text, from, at - from);
      out.append(pair[1]);
    }
    out.append(text, from, std::string::npos);
    text = std::move(out);
  }
  return text;
}

// Visits every element once; checks the links around each and every attribute value.
size_t walk(const TBXMLElement* root) {
  constexpr size_t kLimit = 1u << 22;  // far more elements than any input can hold: a cycle otherwise
  std::vector<const TBXMLElement*> pending{root};
  size_t visited = 0;
  while (!pending.empty()) {
    const TBXMLElement* e = pending.back();
    pending.pop_back();
    require(++visited < kLimit, "the element tree has a cycle");
    require(e->name != nullptr && e->text != nullptr, "element without name or text");
    require(TBXML::elementName(e) == e->name, "elementName");
    require(TBXML::textForElement(e) == e->text, "textForElement");
    for (const TBXMLAttribute* a = e->firstAttribute; a != nullptr; a = a->next) {
      require(a->name != nullptr && a->value != nullptr, "attribute without name or value");
      const std::string value = TBXML::attributeValue(a);
      require(value == a->value, "attributeValue");
      require(TBXML::attributeName(a) == a->name, "attributeName");
      require(KXBlockDataProc::Entity2Ref(value) == decodeEntities(value), "Entity2Ref");
    }
    const TBXMLElement* previous = nullptr;
    for (const TBXMLElement* c = e->firstChild; c != nullptr; c = c->nextSibling) {
      require(c->parentElement == e, "child with another parent");
      require(c->previousSibling == previous, "sibling links disagree");
      require(++visited < kLimit, "the sibling list has a cycle");
      previous = c;
      pending.push_back(c);
    }
    if (e->firstChild != nullptr) {
      const std::string firstName = e->firstChild->name;
      require(TBXML::childElementNamed(firstName, e) == e->firstChild, "childElementNamed");
      const TBXMLElement* next = TBXML::nextSiblingNamed(firstName, e->firstChild);
      require(next == nullptr || (next->parentElement == e && firstName == next->name), "nextSiblingNamed");
    }
  }
  return visited;
}

}  // namespace
}  // namespace blockproc::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace blockproc;
  using blockproc::fuzz::require;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  const auto doc = TBXML::newTBXMLWithXMLString(text, &error);
  require(TBXML::childElementNamed("x", nullptr) == nullptr, "childElementNamed of no parent");
  require(TBXML::nextSiblingNamed("x", nullptr) == nullptr, "nextSiblingNamed of no element");
  if (!doc) {
    require(!error.empty(), "a rejected document without a reason");
    return 0;
  }
  const TBXMLElement* root = doc->rootXMLElement();
  if (root == nullptr) return 0;
  require(root->parentElement == nullptr, "the root has a parent");
  fuzz::walk(root);

  BlockInfo block("Block");
  KXBlockDataProc proc(&block);
  proc.setXmlInfo(nullptr);
  require(proc.getBlockName() == "Block" && proc.getLinkCount() == 0 && proc.getRealAPLinkCount() == 0,
          "setXmlInfo(nullptr) changed the processor");

  std::string name = "Block";
  for (const TBXMLAttribute* a = root->firstAttribute; a != nullptr; a = a->next)
    if (std::string_view(a->name) == "name") name = a->value;
  int32_t realTime = 0, links = 0;
  for (const TBXMLElement* c = root->firstChild; c != nullptr; c = c->nextSibling)
    ++(std::string_view(c->name) == "REALAP" ? realTime : links);

  for (int pass = 1; pass <= 2; ++pass) {
    proc.setXmlInfo(root);
    require(proc.getBlockName() == name, "block name is not the last name attribute");
    require(proc.getRealAPLinkCount() == pass * realTime, "one real-time record per REALAP child");
    require(proc.getLinkCount() == pass * links, "one field link record per other child");
  }
  for (int32_t i = 0; i < proc.getRealAPLinkCount(); ++i) {
    const RealAPLinkInfo* r = proc.getRealAPLinkInfo(i);
    require(r != nullptr, "real-time record missing");
    if (r->bRealAttr()) require(r->sFuncParam().has_value(), "attribute function without parameters");
    require(r->nFuncIndex() >= FUNC_BASE_INDEX && r->nFuncIndex() <= FUNC_USEPCLOSE_INDEX, "function index");
  }
  for (int32_t i = 0; i < proc.getLinkCount(); ++i) require(proc.getLinkInfo(i) != nullptr, "link missing");
  return 0;
}
