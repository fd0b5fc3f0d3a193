// The element tree over pugixml: the parser keeps the document's texts in place (no escape processing, no
// line-end or white-space normalisation), and the tree's nodes point straight into them. The nodes
// themselves and the few joined texts live in an arena that goes with the TBXML object.

#include "blockproc/parser/TBXML.h"

#include <pugixml.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory_resource>
#include <new>

#include "blockproc/detail/Utf8.h"

namespace blockproc {

struct TBXML::Impl {
  pugi::xml_document document;
  std::pmr::monotonic_buffer_resource arena;
  TBXMLElement* root = nullptr;
};

namespace {

// CDATA sections become text nodes; top-level text and a second root are kept so that they can be refused.
constexpr unsigned kParseOptions = pugi::parse_cdata | pugi::parse_fragment;
constexpr size_t kExcerptBytes = 24;

// ---- where an error is ----

bool startsWithUtf8Bom(std::string_view text) {
  return text.size() >= 3 && text.substr(0, 3) == "\xEF\xBB\xBF";
}

// "line L, column C" of a byte offset; lines end at '\n', columns count UTF-8 characters from 1.
std::string lineAndColumn(std::string_view text, size_t offset) {
  offset = std::min(offset, text.size());
  const std::string_view before = text.substr(0, offset);
  const size_t line = 1 + static_cast<size_t>(std::count(before.begin(), before.end(), '\n'));
  const size_t newline = before.rfind('\n');
  size_t lineStart = newline == std::string_view::npos ? 0 : newline + 1;
  if (lineStart == 0 && startsWithUtf8Bom(before)) lineStart = 3;
  size_t column = 1;
  for (size_t i = lineStart; i < offset; ++i)
    if (!utf8::isContinuation(static_cast<uint8_t>(text[i]))) ++column;
  return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

// A short, printable piece of the document from the offset to the end of its line.
std::string excerptAt(std::string_view text, size_t offset) {
  if (offset >= text.size()) return "(at the end of the document)";
  std::string_view piece = text.substr(offset, kExcerptBytes);
  piece = piece.substr(0, std::min(piece.find('\n'), piece.find('\r')));
  if (piece.empty()) return "(at the end of the line)";
  for (int cut = 0; cut < 3 && !piece.empty() && !utf8::isValid(piece); ++cut) piece.remove_suffix(1);
  const bool keepHighBytes = utf8::isValid(piece);
  std::string shown;
  for (const char c : piece) {
    const auto byte = static_cast<unsigned char>(c);
    const bool printable = byte >= 0x20 && byte != 0x7F && (byte < 0x80 || keepHighBytes);
    shown += printable ? c : '?';
  }
  return "(near \"" + shown + "\")";
}

std::string reasonAt(std::string_view what, std::string_view text, size_t offset) {
  return std::string(what) + " at " + lineAndColumn(text, offset) + " " + excerptAt(text, offset);
}

// What the parser's status means, said so that the writer of the document can fix it.
const char* describe(pugi::xml_parse_status status) {
  switch (status) {
    case pugi::status_out_of_memory:
      return "out of memory while reading the document";
    case pugi::status_unrecognized_tag:
      return "markup after '<' that is neither a tag, a comment, CDATA nor a declaration";
    case pugi::status_bad_pi:
      return "malformed XML declaration or processing instruction";
    case pugi::status_bad_comment:
      return "malformed comment";
    case pugi::status_bad_cdata:
      return "malformed CDATA section";
    case pugi::status_bad_doctype:
      return "malformed document type declaration";
    case pugi::status_bad_pcdata:
      return "malformed text";
    case pugi::status_bad_start_element:
      return "malformed start tag";
    case pugi::status_bad_attribute:
      return "malformed attribute (name=\"value\" or name='value' expected)";
    case pugi::status_bad_end_element:
      return "malformed end tag";
    case pugi::status_no_document_element:
      return "the document has no root element";
    default:
      return "the document cannot be read";
  }
}

// ---- checks before and after parsing ----

// The reason the bytes cannot be a document this reader takes, or "".
std::string refuseBytes(std::string_view xml) {
  const std::string_view start = xml.substr(0, 2);
  if (start == "\xFF\xFE" || start == "\xFE\xFF")
    return "the document starts with a UTF-16 or UTF-32 byte order mark (only UTF-8 and other "
           "ASCII-compatible encodings are read) at line 1, column 1";
  const size_t zero = xml.find('\0');
  if (zero != std::string_view::npos)
    return "the document holds a zero byte (is it UTF-16 or UTF-32? convert it to UTF-8) at " +
           lineAndColumn(xml, zero);
  return {};
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Offset of a node's first character: the '<' before an element's name, a text's first visible byte.
size_t nodeOffset(const pugi::xml_node& node, std::string_view xml) {
  const ptrdiff_t found = node.offset_debug();
  if (found <= 0) return 0;
  auto offset = static_cast<size_t>(found);
  if (node.type() == pugi::node_element) return offset - 1;
  while (offset < xml.size() && isSpace(xml[offset])) ++offset;
  return offset;
}

// The reason for a parser error, pointing at the start of a mismatched end tag, and telling an element
// left open at the end of the document from a mismatched one.
std::string parseFailure(const pugi::xml_parse_result& parsed, std::string_view xml) {
  auto offset = std::min(static_cast<size_t>(std::max<ptrdiff_t>(0, parsed.offset)), xml.size());
  if (parsed.status != pugi::status_end_element_mismatch)
    return reasonAt(describe(parsed.status), xml, offset);
  const std::string_view rest = xml.substr(offset);
  if (std::all_of(rest.begin(), rest.end(), isSpace))
    return reasonAt("an element is not closed before the end of the document", xml, xml.size());
  if (offset >= 2 && xml.substr(offset - 2, 2) == "</") offset -= 2;
  return reasonAt("an end tag does not match the open element", xml, offset);
}

// The single root element, or an empty node with the reason: none, two, or text beside it.
pugi::xml_node findRoot(const pugi::xml_document& document, std::string_view xml, std::string& reason) {
  pugi::xml_node root;
  for (pugi::xml_node node = document.first_child(); node; node = node.next_sibling()) {
    const pugi::xml_node_type type = node.type();
    if (type == pugi::node_pcdata || type == pugi::node_cdata) {
      reason = reasonAt("text outside the root element", xml, nodeOffset(node, xml));
      return {};
    }
    if (type != pugi::node_element) continue;
    if (root) {
      reason = reasonAt("a second root element <" + std::string(node.name()) + "> (only one is allowed)", xml,
                        nodeOffset(node, xml));
      return {};
    }
    root = node;
  }
  if (!root) reason = reasonAt(describe(pugi::status_no_document_element), xml, xml.size());
  return root;
}

// ---- building the tree ----

bool isText(const pugi::xml_node& node) {
  return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

pugi::xml_node firstElementChild(const pugi::xml_node& node) {
  pugi::xml_node child = node.first_child();
  while (child && child.type() != pugi::node_element) child = child.next_sibling();
  return child;
}

pugi::xml_node nextElementSibling(const pugi::xml_node& node) {
  pugi::xml_node sibling = node.next_sibling();
  while (sibling && sibling.type() != pugi::node_element) sibling = sibling.next_sibling();
  return sibling;
}

// Makes TBXML nodes for pugixml nodes, walking the document without recursion.
class TreeBuilder {
 public:
  explicit TreeBuilder(std::pmr::memory_resource& arena) : m_arena(arena) {}

  // The tree of the root and everything under it, in document order (pre-order, parent before children).
  TBXMLElement* build(const pugi::xml_node& rootNode) {
    TBXMLElement* root = makeElement(rootNode, nullptr);
    pugi::xml_node node = rootNode;
    TBXMLElement* current = root;
    for (;;) {
      if (const pugi::xml_node child = firstElementChild(node)) {
        current->firstChild = makeElement(child, current);
        node = child;
        current = current->firstChild;
        continue;
      }
      pugi::xml_node sibling;
      while (node != rootNode && !(sibling = nextElementSibling(node))) {
        node = node.parent();
        current = current->parentElement;
      }
      if (node == rootNode) return root;
      TBXMLElement* next = makeElement(sibling, current->parentElement);
      next->previousSibling = current;
      current->nextSibling = next;
      node = sibling;
      current = next;
    }
  }

 private:
  template <typename T>
  T* allocate() {
    return new (m_arena.allocate(sizeof(T), alignof(T))) T{};
  }

  TBXMLElement* makeElement(const pugi::xml_node& node, TBXMLElement* parent) {
    TBXMLElement* element = allocate<TBXMLElement>();
    element->name = node.name();
    element->text = ownText(node);
    element->firstAttribute = makeAttributes(node);
    element->parentElement = parent;
    return element;
  }

  TBXMLAttribute* makeAttributes(const pugi::xml_node& node) {
    TBXMLAttribute* first = nullptr;
    TBXMLAttribute** link = &first;
    for (pugi::xml_attribute attribute = node.first_attribute(); attribute;
         attribute = attribute.next_attribute()) {
      TBXMLAttribute* made = allocate<TBXMLAttribute>();
      made->name = attribute.name();
      made->value = attribute.value();
      *link = made;
      link = &made->next;
    }
    return first;
  }

  // The node's direct text and CDATA children joined: the parser's own text when there is one, else a copy.
  const char* ownText(const pugi::xml_node& node) {
    const char* single = "";
    size_t pieces = 0, length = 0;
    for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling()) {
      if (!isText(child)) continue;
      single = child.value();
      ++pieces;
      length += std::strlen(single);
    }
    if (pieces <= 1) return single;
    char* joined = static_cast<char*>(m_arena.allocate(length + 1, 1));
    char* end = joined;
    for (pugi::xml_node child = node.first_child(); child; child = child.next_sibling()) {
      if (!isText(child)) continue;
      const size_t size = std::strlen(child.value());
      std::memcpy(end, child.value(), size);
      end += size;
    }
    *end = '\0';
    return joined;
  }

  std::pmr::memory_resource& m_arena;
};

void report(std::string* error, std::string reason) noexcept {
  if (error == nullptr) return;
  try {
    *error = std::move(reason);
  } catch (...) {
  }
}

}  // namespace

TBXML::TBXML() : m_impl(std::make_unique<Impl>()) {}
TBXML::~TBXML() = default;

std::unique_ptr<TBXML> TBXML::newTBXMLWithXMLString(std::string_view xml, std::string* error) {
  try {
    std::string reason = refuseBytes(xml);
    if (!reason.empty()) {
      report(error, std::move(reason));
      return nullptr;
    }
    std::unique_ptr<TBXML> tree(new TBXML());
    Impl& impl = *tree->m_impl;
    const pugi::xml_parse_result parsed =
        impl.document.load_buffer(xml.data(), xml.size(), kParseOptions, pugi::encoding_utf8);
    if (!parsed) {
      report(error, parseFailure(parsed, xml));
      return nullptr;
    }
    const pugi::xml_node root = findRoot(impl.document, xml, reason);
    if (!root) {
      report(error, std::move(reason));
      return nullptr;
    }
    impl.root = TreeBuilder(impl.arena).build(root);
    report(error, {});
    return tree;
  } catch (...) {
    report(error, describe(pugi::status_out_of_memory));
    return nullptr;
  }
}

const TBXMLElement* TBXML::rootXMLElement() const {
  return m_impl->root;
}

std::string TBXML::attributeValue(const TBXMLAttribute* attribute) {
  return attribute != nullptr && attribute->value != nullptr ? attribute->value : "";
}

std::string TBXML::attributeName(const TBXMLAttribute* attribute) {
  return attribute != nullptr && attribute->name != nullptr ? attribute->name : "";
}

std::string TBXML::elementName(const TBXMLElement* element) {
  return element != nullptr && element->name != nullptr ? element->name : "";
}

std::string TBXML::textForElement(const TBXMLElement* element) {
  return element != nullptr && element->text != nullptr ? element->text : "";
}

namespace {

bool hasName(const TBXMLElement* element, std::string_view name) {
  return element->name != nullptr && name == element->name;
}

const TBXMLElement* firstNamed(std::string_view name, const TBXMLElement* element) {
  while (element != nullptr && !hasName(element, name)) element = element->nextSibling;
  return element;
}

}  // namespace

const TBXMLElement* TBXML::childElementNamed(std::string_view name, const TBXMLElement* parent) {
  return parent == nullptr ? nullptr : firstNamed(name, parent->firstChild);
}

const TBXMLElement* TBXML::nextSiblingNamed(std::string_view name, const TBXMLElement* from) {
  return from == nullptr ? nullptr : firstNamed(name, from->nextSibling);
}

}  // namespace blockproc
