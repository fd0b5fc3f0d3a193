// Loading real-time and field links from the block's XML element.

#include <array>
#include <limits>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/parser/TBXML.h"

namespace blockproc {

namespace {

constexpr std::string_view kRealApName = "REALAP";

std::string_view nameOf(const TBXMLAttribute* attribute) noexcept {
  return attribute->name != nullptr ? std::string_view(attribute->name) : std::string_view();
}

std::string_view nameOf(const TBXMLElement* element) noexcept {
  return element->name != nullptr ? std::string_view(element->name) : std::string_view();
}

// The index after `index`, held at the 32-bit limit.
int32_t following(int32_t index) noexcept {
  return index < std::numeric_limits<int32_t>::max() ? index + 1 : index;
}

// Items 0, 1 and 2 of a comma-separated list read as integers; false when the list has fewer than three
// items. Empty items read as 0, items after the third are ignored.
bool parseTriple(std::string_view list, std::array<int32_t, 3>& triple) noexcept {
  std::array<std::string_view, 3> items;
  for (size_t i = 0; i < items.size(); ++i) {
    const size_t comma = list.find(',');
    if (comma == std::string_view::npos && i < 2) return false;
    items[i] = list.substr(0, comma);
    if (comma != std::string_view::npos) list.remove_prefix(comma + 1);
  }
  for (size_t i = 0; i < items.size(); ++i) triple[i] = num::parseInt32(items[i]);
  return true;
}

// Replaces every `from` by `to` in one left-to-right pass.
std::string replaceAll(std::string_view text, std::string_view from, std::string_view to) {
  std::string out;
  out.reserve(text.size());
  size_t start = 0;
  for (size_t at; (at = text.find(from, start)) != std::string_view::npos; start = at + from.size()) {
    out.append(text.substr(start, at - start));
    out.append(to);
  }
  out.append(text.substr(start));
  return out;
}

// An "attrfunc" value read: the decoded value, and when "attr_NAME(PARAMS)" in it has both parts, the
// function and its parameters.
struct AttrCall {
  std::string decoded;
  bool found = false;  // the value holds "attr_"
  bool realAttr = false;
  int32_t function = FUNC_BASE_INDEX;
  std::optional<std::string> params;
};

AttrCall parseAttrFunc(std::string_view value) {
  AttrCall c;
  c.decoded = KXBlockDataProc::Entity2Ref(value);
  const size_t attr = c.decoded.find("attr_");
  if (attr == std::string::npos) return c;
  c.found = true;
  const std::string_view call = std::string_view(c.decoded).substr(attr);
  const size_t underscore = call.find('_');
  const size_t open = call.find('(');
  const size_t close = call.find(')');
  const bool hasName = open != std::string_view::npos && open > underscore + 1;
  const bool hasParams =
      open != std::string_view::npos && close != std::string_view::npos && close > open + 1;
  if (hasParams) c.params.emplace(call.substr(open + 1, close - open - 1));
  c.realAttr = hasName && hasParams;
  if (c.realAttr)
    c.function = BlockInfo::getAttrFunctionIndex(call.substr(underscore + 1, open - underscore - 1));
  return c;
}

// Fills the attribute function members from an "attrfunc" value: nothing without "attr_"; otherwise the
// decoded value as the JSON path and, when "attr_NAME(PARAMS)" has both parts, the function and parameters.
void applyAttrFunc(RealAPLinkInfo& link, std::string_view value) {
  AttrCall c = parseAttrFunc(value);
  if (!c.found) return;
  link.setSJsonPath(std::move(c.decoded));
  link.setBRealAttr(c.realAttr);
  link.setNFuncIndex(c.function);
  link.setSFuncParam(std::move(c.params));
}

// A real-time link record from a "REALAP" child; an "idx" also becomes the running real-time index.
std::unique_ptr<RealAPLinkInfo> makeRealApLink(const TBXMLElement* child, int32_t& runningIndex) {
  auto link = std::make_unique<RealAPLinkInfo>(runningIndex);
  for (const TBXMLAttribute* a = child->firstAttribute; a != nullptr; a = a->next) {
    const std::string_view name = nameOf(a);
    if (name == "idx") {
      runningIndex = num::parseInt32(TBXML::attributeValue(a));
      link->setNFieldIndex(runningIndex);
    } else if (name == "name") {
      link->setSFieldName(TBXML::attributeValue(a));
    } else if (name == "fieldinfo") {
      std::array<int32_t, 3> triple;
      if (parseTriple(TBXML::attributeValue(a), triple))
        std::copy(triple.begin(), triple.end(), link->pFieldInfo());
    } else if (name == "exp") {
      link->setSExpression(KXBlockDataProc::Entity2Ref(TBXML::attributeValue(a)));
    } else if (name == "attrfunc") {
      applyAttrFunc(*link, TBXML::attributeValue(a));
    }
  }
  return link;
}

// A field link record from any other child.
std::unique_ptr<FieldLinkInfo> makeFieldLink(const TBXMLElement* child, int32_t runningIndex) {
  auto link = std::make_unique<FieldLinkInfo>(runningIndex);
  for (const TBXMLAttribute* a = child->firstAttribute; a != nullptr; a = a->next) {
    const std::string_view name = nameOf(a);
    if (name == "idx") {
      link->nFieldIndex = num::parseInt32(TBXML::attributeValue(a));
    } else if (name == "deflink") {
      std::array<int32_t, 3> triple;
      if (parseTriple(TBXML::attributeValue(a), triple)) link->pLinkIndex = triple;
    } else if (name == "defconst") {
      link->setSzDefaultValue(TBXML::attributeValue(a));
    }
  }
  return link;
}

}  // namespace

int32_t KXBlockDataProc::attrFunctionIndex(std::string_view attrfunc) noexcept {
  try {
    return parseAttrFunc(attrfunc).function;
  } catch (...) {
    return FUNC_BASE_INDEX;
  }
}

void KXBlockDataProc::setXmlInfo(const TBXMLElement* element) noexcept {
  if (element == nullptr) return;
  try {
    for (const TBXMLAttribute* a = element->firstAttribute; a != nullptr; a = a->next)
      if (nameOf(a) == "name") setM_szBlockName(TBXML::attributeValue(a));
    int32_t linkIndex = 0, realTimeIndex = 0;
    for (const TBXMLElement* child = element->firstChild; child != nullptr; child = child->nextSibling) {
      if (nameOf(child) == kRealApName) {
        addRealAPLinkInfo(makeRealApLink(child, realTimeIndex));
        realTimeIndex = following(realTimeIndex);
      } else {
        addFieldLinkInfo(makeFieldLink(child, linkIndex));
        linkIndex = following(linkIndex);
      }
    }
  } catch (...) {
  }
}

std::string KXBlockDataProc::Entity2Ref(std::string_view text) noexcept {
  static constexpr std::string_view kReplacements[][2] = {
      {"&lt;", "<"}, {"&gt;", ">"}, {"&amp;", "&"}, {"&quot;", "\""}, {"&apos;", "'"}};
  try {
    std::string result(text);
    if (result.find('&') == std::string::npos) return result;
    for (const auto& [from, to] : kReplacements) result = replaceAll(result, from, to);
    return result;
  } catch (...) {
    return {};
  }
}

}  // namespace blockproc
