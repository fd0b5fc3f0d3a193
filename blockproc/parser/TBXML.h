#pragma once
// The element tree of an XML document held in memory: elements with their names, own text and attributes,
// linked to their parent, first child and siblings.
//
// The document is read as bytes: UTF-8, or any ASCII-compatible encoding such as code page 949, passes
// through unchanged (no validation, no transcoding; a leading UTF-8 byte order mark is skipped). Names, text
// and attribute values reach the caller exactly as written: entity and character references stay in them,
// line ends and tabs are kept. Building the tree never recurses, so any nesting depth is accepted.
// Nothing is thrown except std::bad_alloc when a returned string cannot be allocated.
//
// Usage:
//
//   std::string error;
//   std::unique_ptr<TBXML> doc = TBXML::newTBXMLWithXMLString(xml, &error);  // nullptr, and why, if broken
//   if (doc) proc.setXmlInfo(doc->rootXMLElement());

#include <memory>
#include <string>
#include <string_view>

namespace blockproc {

// One attribute; the texts belong to the TBXML object and live as long as it does.
struct TBXMLAttribute {
  const char* name;      // the name as written, zero-terminated
  const char* value;     // the value as written between the quotes, entity references kept, zero-terminated
  TBXMLAttribute* next;  // the element's next attribute in document order, or nullptr after the last
};

// One element; every pointer points into the TBXML object that made it and lives as long as it does.
struct TBXMLElement {
  const char* name;                // the tag name as written, zero-terminated
  const char* text;                // the element's own text and CDATA, joined in order; "" when it has none
  TBXMLAttribute* firstAttribute;  // the first attribute in document order, or nullptr without attributes
  TBXMLElement* parentElement;     // the enclosing element, or nullptr for the root
  TBXMLElement* firstChild;        // the first child element, or nullptr (text, comments never appear)
  TBXMLElement* currentChild;      // always nullptr (kept for layout; the tree itself never uses it)
  TBXMLElement* nextSibling;       // the next element under the same parent, or nullptr after the last
  TBXMLElement* previousSibling;   // the previous element under the same parent, or nullptr for the first
};

// A parsed document that owns its element tree; the tree is freed with the object.
class TBXML {
 public:
  // Parses a whole document held in memory. A malformed document gives nullptr, with the reason in *error.
  // The reason names what is wrong and where ("end tag does not match ... at line 3, column 7 (near
  // "</b>")"); columns count UTF-8 characters from 1. Refused as well: no root element, a second root
  // element, text outside the root element, a zero byte, a UTF-16 or UTF-32 byte order mark. Text pieces of
  // white space only are dropped (so <a> </a> has the text ""); comments, processing instructions and the
  // document type declaration are skipped; attributes of the same name are all kept, in document order.
  // On success *error is cleared; error may be nullptr.
  static std::unique_ptr<TBXML> newTBXMLWithXMLString(std::string_view xml, std::string* error = nullptr);

  // Frees the document and its whole tree: no element or text pointer handed out outlives the object.
  ~TBXML();
  // Not copyable: the tree's pointers belong to this one object.
  TBXML(const TBXML&) = delete;
  TBXML& operator=(const TBXML&) = delete;

  // The document's root element; never nullptr for an object made by newTBXMLWithXMLString.
  const TBXMLElement* rootXMLElement() const;

  // The attribute's value as written (entity references kept); "" for nullptr.
  static std::string attributeValue(const TBXMLAttribute* attribute);
  // The attribute's name; "" for nullptr.
  static std::string attributeName(const TBXMLAttribute* attribute);
  // The element's tag name; "" for nullptr.
  static std::string elementName(const TBXMLElement* element);
  // The element's own text (see TBXMLElement::text); "" for nullptr.
  static std::string textForElement(const TBXMLElement* element);
  // The parent's first child element with exactly that name (case included), or nullptr (also for a
  // nullptr parent).
  static const TBXMLElement* childElementNamed(std::string_view name, const TBXMLElement* parent);
  // The first element after `from` among its following siblings with exactly that name, or nullptr (also
  // for a nullptr `from`); `from` itself is never returned.
  static const TBXMLElement* nextSiblingNamed(std::string_view name, const TBXMLElement* from);

 private:
  struct Impl;
  TBXML();
  std::unique_ptr<Impl> m_impl;
};

}  // namespace blockproc
