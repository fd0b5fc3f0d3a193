// Loading transaction definition files.

#include "blockproc/engine/DefinitionLoader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>
#include <sstream>
#include <utility>

#include <sys/stat.h>

#include <pugixml.hpp>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/FieldTypes.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/detail/Utf8.h"
#include "blockproc/parser/TBXML.h"

namespace blockproc {

namespace {

// Limits that keep a hostile file from asking for huge buffers: a block held whole lays out at most 64 MiB
// and 1,000,000 records. A rest block is read a piece at a time, so its repeat may go to the 32-bit limit.
constexpr int64_t kMaxFieldBytes = 1'000'000;
constexpr int64_t kMaxRepeat = 1'000'000;
constexpr int64_t kMaxBlockBytes = int64_t{64} << 20;
constexpr int32_t kMaxOccursLen = 9;
constexpr int32_t kMaxFloatPlaces = 30;

// The type names a definition may give: "text, number, ... or sint64".
std::string typeNames() {
  std::string names;
  for (size_t i = 0; i < ftype::kRules.size(); ++i) {
    if (i > 0) names += i + 1 < ftype::kRules.size() ? ", " : " or ";
    names += ftype::kRules[i].name;
  }
  return names;
}

// A document that is not XML, or a rule of the format broken at a line; caught by the loader and turned into
// the result.
struct DefinitionError {
  DefinitionStatus status;
  int32_t line;
  std::string message;
};

// An attribute value read as written (the document is parsed once, with references kept, so that a block's
// <link> reaches its processor exactly as written) made into the value XML gives it: the five predefined
// entities and character references replaced; a reference that is none of these stays as written.
std::string unescaped(std::string_view raw) {
  std::string out;
  size_t from = 0;
  for (size_t amp = raw.find('&'); amp != std::string_view::npos; amp = raw.find('&', from)) {
    out.append(raw.substr(from, amp - from));
    from = amp + 1;
    const size_t semi = raw.find(';', amp);
    if (semi == std::string_view::npos) {
      out.push_back('&');
      continue;
    }
    const std::string_view name = raw.substr(amp + 1, semi - amp - 1);
    static constexpr std::pair<std::string_view, char> kEntities[] = {
        {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
    const auto entity = std::find_if(std::begin(kEntities), std::end(kEntities),
                                     [&](const auto& e) { return e.first == name; });
    if (entity != std::end(kEntities)) {
      out.push_back(entity->second);
      from = semi + 1;
      continue;
    }
    if (name.size() > 1 && name[0] == '#') {
      const bool hex = name[1] == 'x';
      const std::string_view digits = name.substr(hex ? 2 : 1);
      const num::WholeInt code = num::parseWholeDigits(digits, 1, 0x10FFFF, hex ? 16 : 10);
      char bytes[4];
      const size_t width =
          code.isNumber && !code.clamped ? utf8::encode(static_cast<char32_t>(code.value), bytes) : 0;
      if (width > 0) {
        out.append(bytes, width);
        from = semi + 1;
        continue;
      }
    }
    out.push_back('&');
  }
  out.append(raw.substr(from));
  return out;
}

std::string valueOf(const pugi::xml_attribute& attribute) {
  return unescaped(attribute.value());
}

// Text from the file quoted for a message, its control characters shown as \xNN.
std::string quoted(std::string_view text) {
  return "'" + internal::printable(text) + "'";
}

// Lines of the document, for messages.
class LineIndex {
 public:
  explicit LineIndex(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i)
      if (text[i] == '\n') m_newlines.push_back(i);
  }
  int32_t lineOf(ptrdiff_t offset) const {
    if (offset < 0) return 0;
    const auto before = std::lower_bound(m_newlines.begin(), m_newlines.end(), static_cast<size_t>(offset)) -
                        m_newlines.begin();
    return static_cast<int32_t>(before + 1);
  }

 private:
  std::vector<size_t> m_newlines;
};

// One field as read from the file, before it is checked against the others.
struct FieldSource {
  const FieldInfo* field;
  int32_t line;
};

// One block as read from the file.
struct BlockSource {
  BlockInfo* block;
  int32_t line;
  bool input;
  std::string count;  // the count attribute as written ("" when absent)
  std::vector<FieldSource> fields;
  pugi::xml_node link;  // the block's <link> element (empty when it has none)
};

class Loader {
 public:
  Loader(std::string_view text, std::string_view name) : m_text(text), m_lines(text) {
    m_def = std::make_unique<TransactionDefinition>();
    m_def->sourceName = std::string(name);
  }

  std::unique_ptr<TransactionDefinition> load() {
    checkUtf8();
    // References are kept in the values (valueOf resolves them), so a <link> can be printed as written.
    parse(m_doc, pugi::parse_default & ~pugi::parse_escapes);
    readTransaction(rootOf(m_doc));
    for (auto& block : m_blocks) checkBlock(block);
    return std::move(m_def);
  }

 private:
  [[noreturn]] void fail(const pugi::xml_node& node, std::string message) const {
    fail(m_lines.lineOf(node.offset_debug()), std::move(message));
  }
  [[noreturn]] static void fail(int32_t line, std::string message) {
    throw DefinitionError{DefinitionStatus::BadDefinition, line, std::move(message)};
  }

  void checkUtf8() const {
    const size_t good = utf8::validPrefix(m_text);
    if (good == m_text.size()) return;
    fail(m_lines.lineOf(static_cast<ptrdiff_t>(good)), "the file is not UTF-8 text; save it as UTF-8");
  }

  void parse(pugi::xml_document& doc, unsigned options) const {
    const pugi::xml_parse_result parsed =
        doc.load_buffer(m_text.data(), m_text.size(), options, pugi::encoding_utf8);
    if (!parsed)
      throw DefinitionError{DefinitionStatus::XmlError, m_lines.lineOf(parsed.offset), parsed.description()};
  }

  pugi::xml_node rootOf(const pugi::xml_document& doc) const {
    pugi::xml_node root;
    for (pugi::xml_node node : doc.children()) {
      if (node.type() != pugi::node_element) continue;
      if (root) fail(node, "a file holds one <transaction> element; found a second top-level element");
      root = node;
    }
    if (!root) fail(1, "the file holds no <transaction> element");
    if (std::string_view(root.name()) != "transaction")
      fail(root, "the top-level element must be <transaction>, not <" + std::string(root.name()) + ">");
    return root;
  }

  // Refuses attributes the element does not know, so that a misspelt name does not pass silently.
  void allowOnly(const pugi::xml_node& node, std::initializer_list<std::string_view> known) const {
    for (pugi::xml_attribute a : node.attributes()) {
      if (std::find(known.begin(), known.end(), a.name()) != known.end()) continue;
      std::string list;
      for (std::string_view k : known) list += (list.empty() ? "" : ", ") + std::string(k);
      fail(node, "unknown attribute " + quoted(a.name()) + " on <" + node.name() + "> (known: " + list + ")");
    }
  }

  std::string required(const pugi::xml_node& node, const char* name) const {
    const pugi::xml_attribute a = node.attribute(name);
    if (!a) fail(node, "<" + std::string(node.name()) + "> needs the attribute " + quoted(name));
    if (*a.value() == '\0') fail(node, "the attribute " + quoted(name) + " must not be empty");
    return valueOf(a);
  }

  // A whole number in [min, max] written as plain decimal digits; `fallback` when the attribute is absent.
  int64_t number(const pugi::xml_node& node, const char* name, int64_t min, int64_t max,
                 int64_t fallback) const {
    const pugi::xml_attribute a = node.attribute(name);
    if (!a) return fallback;
    const std::string text = valueOf(a);
    const num::WholeInt parsed = num::parseWholeDigits(text, min, max);
    if (!parsed.isNumber) fail(node, quoted(name) + " must be a whole number, not " + quoted(text));
    if (parsed.clamped)
      fail(node, quoted(name) + " must lie between " + std::to_string(min) + " and " + std::to_string(max) +
                     ", not " + std::string(text));
    return parsed.value;
  }

  bool flag(const pugi::xml_node& node, const char* name) const {
    const pugi::xml_attribute a = node.attribute(name);
    if (!a) return false;
    const std::string v = valueOf(a);
    if (v == "true" || v == "yes" || v == "1") return true;
    if (v == "false" || v == "no" || v == "0") return false;
    fail(node, quoted(name) + " must be true or false, not " + quoted(v));
  }

  void readTransaction(const pugi::xml_node& root) {
    allowOnly(root, {"code", "title", "datamode", "occurslen", "encoding"});
    TranInfo& tran = m_def->tran;
    const std::string code = required(root, "code");
    if (const size_t at = utf8::findControl(code); at != std::string::npos)
      fail(root, "the transaction code " + quoted(code) + " holds a control character (" +
                     internal::printable(code.substr(at, utf8::controlLength(code, at))) +
                     "); a code is shown on terminals, so it holds none");
    if (const size_t at = utf8::findDirectional(code); at != std::string::npos)
      fail(root, "the transaction code " + quoted(code) +
                     " holds a character that reorders or breaks the "
                     "text shown (" +
                     internal::printable(code.substr(at, utf8::directionalLength(code, at))) +
                     "); a code is shown on terminals, so it holds none");
    tran.setTrCode(code);
    m_def->title = valueOf(root.attribute("title"));
    tran.m_strDataMode = valueOf(root.attribute("datamode"));
    tran.m_nOccursLen = static_cast<int32_t>(number(root, "occurslen", 0, kMaxOccursLen, 0));
    if (const pugi::xml_attribute enc = root.attribute("encoding")) {
      const std::string name = valueOf(enc);
      const auto known = codec::encodingFromName(name);
      if (!known) fail(root, "unknown encoding " + quoted(name) + " (try cp949, euc-kr, utf-8, ascii)");
      m_def->encoding = *known;
    }
    for (pugi::xml_node side : root.children()) {
      if (side.type() != pugi::node_element) continue;
      const std::string_view name = side.name();
      if (name != "input" && name != "output")
        fail(side,
             "unknown element <" + std::string(name) + "> in <transaction> (expected <input> or <output>)");
      allowOnly(side, {});
      for (pugi::xml_node block : side.children()) {
        if (block.type() != pugi::node_element) continue;
        if (std::string_view(block.name()) != "block")
          fail(block, "unknown element <" + std::string(block.name()) + "> in <" + std::string(name) +
                          "> (expected <block>)");
        readBlock(block, name == "input");
      }
    }
    if (m_blocks.empty()) fail(root, "the transaction has no blocks; add <input> or <output> with a <block>");
  }

  // Whether the block's records are counted by the rest of the data.
  static bool restCount(const pugi::xml_node& node) { return valueOf(node.attribute("count")) == "rest"; }

  void readBlock(const pugi::xml_node& node, bool input) {
    allowOnly(node, {"name", "repeat", "count", "attr"});
    std::string name = required(node, "name");
    checkName(node, "block", name);
    if (m_def->tran.findBlock(name) != nullptr) fail(node, "duplicate block name " + quoted(name));
    auto owned = std::make_unique<BlockInfo>(std::move(name));
    BlockInfo& block = *owned;
    block.m_bAttribute = flag(node, "attr");
    if (node.attribute("repeat"))
      block.setRepeat(static_cast<int32_t>(
          number(node, "repeat", 1, restCount(node) ? internal::kInt32Max : kMaxRepeat, 1)));
    BlockSource source{
        &block, m_lines.lineOf(node.offset_debug()), input, valueOf(node.attribute("count")), {}, {}};
    if (node.attribute("count") && source.count.empty())
      fail(node, "the attribute 'count' must not be empty");

    std::string linkXml;
    std::shared_ptr<const TBXML> link;
    for (pugi::xml_node child : node.children()) {
      if (child.type() != pugi::node_element) continue;
      const std::string_view kind = child.name();
      if (kind == "field") {
        source.fields.push_back({&readField(child, block), m_lines.lineOf(child.offset_debug())});
      } else if (kind == "link") {
        if (!linkXml.empty()) fail(child, "block " + block.m_szBlockName + " has a second <link> element");
        linkXml = linkText(child, block);
        link = linkTree(child, linkXml);
        source.link = child;
      } else {
        fail(child, "unknown element <" + std::string(kind) + "> in <block> (expected <field> or <link>)");
      }
    }
    if (source.fields.empty()) fail(node, "block " + block.m_szBlockName + " has no fields");
    m_def->tran.addBlock(std::move(owned), input);
    m_def->addExtra({std::move(linkXml), std::move(link), source.line});
    m_blocks.push_back(std::move(source));
  }

  // The block's <link> element as written (references kept).
  std::string linkText(const pugi::xml_node& link, const BlockInfo& block) const {
    const pugi::xml_attribute name = link.attribute("name");
    if (name && block.m_szBlockName != valueOf(name))
      fail(link,
           "the <link> of block " + block.m_szBlockName + " names another block, " + quoted(valueOf(name)));
    std::ostringstream out;
    link.print(out, "", pugi::format_raw | pugi::format_no_escapes);
    return out.str();
  }

  // The element tree the block's processor loads its links from, made once here.
  std::shared_ptr<const TBXML> linkTree(const pugi::xml_node& link, const std::string& text) const {
    std::shared_ptr<const TBXML> tree = TBXML::newTBXMLWithXMLString(text);
    if (!tree) fail(link, "the <link> element could not be kept");
    return tree;
  }

  FieldInfo& readField(const pugi::xml_node& node, BlockInfo& block) {
    allowOnly(node, {"name", "kor", "eng", "type", "length", "decimals", "pos", "attr", "keyenc", "account",
                     "itemcode", "password", "attrref", "point"});
    std::string name = required(node, "name");
    checkFieldName(node, name);
    if (block.getFieldInfoFromName(name) != nullptr)
      fail(node, "block " + block.m_szBlockName + " already has a field named " + quoted(name));
    const std::string typeName = required(node, "type");
    const int32_t type = ftype::typeOfName(typeName);
    if (type < 0)
      fail(node, "field " + quoted(name) + ": unknown type " + quoted(typeName) + " (expected " +
                     typeNames() + ")");

    int32_t length;
    if (const int32_t width = ftype::binaryWidth(type); width > 0) {
      length = static_cast<int32_t>(number(node, "length", 1, kMaxFieldBytes, width));
      if (length != width)
        fail(node, "field " + quoted(name) + " of type " + typeName + " is " + std::to_string(width) +
                       " bytes long, not " + std::to_string(length) + "; leave 'length' out");
    } else {
      if (!node.attribute("length")) fail(node, "field " + quoted(name) + " needs the attribute 'length'");
      length = static_cast<int32_t>(number(node, "length", 1, kMaxFieldBytes, 0));
    }
    const int32_t decimals = readDecimals(node, name, type, length);
    const int32_t pos = static_cast<int32_t>(number(node, "pos", 0, kMaxFieldBytes, -1));

    FieldInfo& field = block.addField(std::move(name), type, length, decimals, pos);
    field.szKorFieldName = valueOf(node.attribute("kor"));
    field.szEngFieldName = valueOf(node.attribute("eng"));
    field.nAttr = flag(node, "attr") ? 1 : 0;
    field.bKeyEnc = flag(node, "keyenc");
    field.bAccountNo = flag(node, "account");
    field.bItemCode = flag(node, "itemcode");
    field.bPassword = flag(node, "password");
    field.szAttrRefKey = valueOf(node.attribute("attrref"));
    field.bImpliedPoint = impliedPoint(node, field);
    return field;
  }

  // Whether a number field's point is left out when it is written: point="implied" (sign, zero fill and the
  // digits, the last `decimals` of them the fraction) or "explicit" (the point written, the default).
  bool impliedPoint(const pugi::xml_node& node, const FieldInfo& field) const {
    const pugi::xml_attribute a = node.attribute("point");
    if (!a) return false;
    const std::string v = valueOf(a);
    if (v != "implied" && v != "explicit")
      fail(node,
           "field " + quoted(field.szFieldName) + ": 'point' must be implied or explicit, not " + quoted(v));
    if (!ftype::holdsNumberText(field))
      fail(node, "field " + quoted(field.szFieldName) +
                     ": 'point' applies to number fields (type number, or " + "text with decimals), not to " +
                     dataTypeName(field.nDataType) +
                     (ftype::isText(field.nDataType) ? " without decimals" : ""));
    return v == "implied";
  }

  // The rules every name keeps (nameProblem), with the line of the element.
  void checkName(const pugi::xml_node& node, std::string_view kind, std::string_view name) const {
    const std::string problem = nameProblem(name);
    if (!problem.empty()) fail(node, std::string(kind) + " name " + quoted(name) + " " + problem);
  }

  // Decoded records add members of their own beside the fields, each holding '@': a field's attribute byte
  // "<field>@attr", its undecodable bytes "<field>@hex", and a JSON line's "@block" and "@record". A field
  // name holding '@' could take the place of one of them.
  void checkFieldName(const pugi::xml_node& node, std::string_view name) const {
    checkName(node, "field", name);
    if (name.find('@') != std::string_view::npos)
      fail(node, "field name " + quoted(name) +
                     " holds '@', which decoded records keep for the members they add beside the fields "
                     "(<field>@attr, <field>@hex, @block, @record); rename the field");
  }

  // Decimal places: text and number fields up to their length less the point's byte, a float or a double
  // up to kMaxFloatPlaces, none for an integer.
  int32_t readDecimals(const pugi::xml_node& node, const std::string& name, int32_t type,
                       int32_t length) const {
    if (ftype::isText(type)) {
      const auto decimals = static_cast<int32_t>(number(node, "decimals", 0, kMaxFieldBytes, 0));
      if (decimals >= length && decimals > 0)
        fail(node, "field " + quoted(name) + " has " + std::to_string(decimals) + " decimals in " +
                       std::to_string(length) + " bytes; it needs at least one byte more for the point");
      return decimals;
    }
    if (ftype::rulesOf(type).places)
      return static_cast<int32_t>(number(node, "decimals", 0, kMaxFloatPlaces, 0));
    if (number(node, "decimals", 0, kMaxFieldBytes, 0) != 0)
      fail(node, "field " + quoted(name) + " of type " + std::string(ftype::rulesOf(type).name) +
                     " cannot have decimals");
    return 0;
  }

  // The rules that need the whole block, or earlier blocks: overlaps, sizes, attribute sources, counts.
  void checkBlock(BlockSource& source) {
    BlockInfo& block = *source.block;
    checkOverlaps(source);
    checkAttrSources(source);
    if (!(block.isOccursBlock() && source.count == "rest")) checkHeldWholeSize(source);
    block.m_nRecordSendSize = block.getRecordFieldSize();
    readCount(source);
    checkLinks(source);
  }

  // A block held whole lays out its repeat of records at once. A rest block is not held whole (the tool
  // reads it a piece of whole records at a time), so its repeat only caps the records read.
  void checkHeldWholeSize(const BlockSource& source) const {
    const BlockInfo& block = *source.block;
    const int64_t record = block.getRecordMemSize();
    const int64_t records = block.isOccursBlock() ? block.m_nRepeatCount : 1;
    if (record * records > kMaxBlockBytes)
      fail(source.line, "block " + block.m_szBlockName + " lays out " + std::to_string(record * records) +
                            " bytes; at most " + std::to_string(kMaxBlockBytes) + " are allowed");
  }

  // Link records: index triples are three whole numbers, the first a field of the block; an attribute
  // function names one the processor knows.
  void checkLinks(const BlockSource& source) const {
    const BlockInfo& block = *source.block;
    for (pugi::xml_node child : source.link.children()) {
      if (child.type() != pugi::node_element) continue;
      const bool real = std::string_view(child.name()) == "REALAP";
      number(child, "idx", 0, internal::kInt32Max, 0);
      if (const pugi::xml_attribute triple = child.attribute(real ? "fieldinfo" : "deflink"))
        checkTriple(child, triple, block);
      if (const pugi::xml_attribute func = child.attribute("attrfunc"); real && func)
        checkAttrFunc(child, func);
    }
  }

  void checkTriple(const pugi::xml_node& node, const pugi::xml_attribute& triple,
                   const BlockInfo& block) const {
    const std::string value = valueOf(triple);
    const std::string_view text = value;
    std::array<std::string_view, 3> items;
    size_t count = 0, from = 0;
    for (size_t at = 0; at <= text.size(); ++at) {
      if (at < text.size() && text[at] != ',') continue;
      if (count < items.size()) items[count] = text.substr(from, at - from);
      ++count;
      from = at + 1;
    }
    const std::string what = quoted(triple.name()) + " " + quoted(text);
    const auto whole = [](std::string_view item) {
      return num::parseWholeDigits(item, 0, internal::kInt32Max).isNumber;
    };
    if (count != 3 || !std::all_of(items.begin(), items.end(), whole))
      fail(node, what + " must be three whole numbers separated by commas (field index, offset, length)");
    const int64_t field = num::parseWholeDigits(items[0], 0, internal::kInt32Max).value;
    if (field >= block.getFieldCount())
      fail(node, what + " names field " + std::to_string(field) + ", but block " + block.m_szBlockName +
                     " has fields 0 to " + std::to_string(block.getFieldCount() - 1));
  }

  // The processor reads the value as written (the document keeps its references), so it is asked as written.
  void checkAttrFunc(const pugi::xml_node& node, const pugi::xml_attribute& func) const {
    if (KXBlockDataProc::attrFunctionIndex(func.value()) == FUNC_BASE_INDEX)
      fail(node,
           "'attrfunc' " + quoted(valueOf(func)) +
               " must call a known function: attr_NAME(PARAMS) with PARAMS not empty and NAME one of "
               "compare, compareto, fluctbit, timevolume, unitvolume, trdbit, zero, makecolor, usepclose");
  }

  void checkOverlaps(const BlockSource& source) const {
    const BlockInfo& block = *source.block;
    struct Range {
      int64_t from, to;
      const FieldSource* field;
    };
    std::vector<Range> ranges;
    for (const FieldSource& f : source.fields) {
      const int64_t from = f.field->nDataPos;
      ranges.push_back({from, from + f.field->nLength + (block.carriesAttr(*f.field) ? 1 : 0), &f});
    }
    std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.from < b.from; });
    for (size_t i = 1; i < ranges.size(); ++i) {
      const Range& a = ranges[i - 1];
      const Range& b = ranges[i];
      if (b.from >= a.to) continue;
      const Range& later = a.field->line > b.field->line ? a : b;
      const Range& other = &later == &a ? b : a;
      fail(later.field->line, "field " + quoted(later.field->field->szFieldName) + " (bytes " +
                                  std::to_string(later.from) + " to " + std::to_string(later.to - 1) +
                                  ") overlaps field " + quoted(other.field->field->szFieldName) + " (bytes " +
                                  std::to_string(other.from) + " to " + std::to_string(other.to - 1) + ")");
    }
  }

  void checkAttrSources(const BlockSource& source) const {
    BlockInfo& block = *source.block;
    for (const FieldSource& f : source.fields) {
      const std::string& key = f.field->szAttrRefKey;
      if (key.empty()) continue;
      const FieldInfo* from = block.getFieldInfoFromName(key);
      if (from == nullptr)
        fail(f.line, "field " + quoted(f.field->szFieldName) + " takes its attribute from " + quoted(key) +
                         ", which is not a field of block " + block.m_szBlockName);
      block.setAttrSource(key, from);
    }
  }

  void readCount(const BlockSource& source) const {
    BlockInfo& block = *source.block;
    const std::string& count = source.count;
    if (!block.isOccursBlock()) {
      if (!count.empty())
        fail(source.line, "block " + block.m_szBlockName +
                              " holds one record, so 'count' does not apply; add repeat=\"N\" to repeat it");
      return;
    }
    if (count.empty())
      fail(source.line, "block " + block.m_szBlockName +
                            " is repeated: say how its record count is given with count=\"prefix\", "
                            "count=\"rest\" or count=\"Block.field\"");
    if (count == "prefix") {
      if (m_def->tran.m_nOccursLen <= 0)
        fail(source.line, "block " + block.m_szBlockName +
                              " has a count prefix, but the transaction's 'occurslen' (its digits) is 0");
      block.m_nRecordLenApplyType = RCL_OCCURSLEN;
    } else if (count == "rest") {
      const auto& side = source.input ? m_def->tran.m_InBlockList : m_def->tran.m_OutBlockList;
      if (side.back() != &block)
        fail(source.line, "block " + block.m_szBlockName +
                              " takes the rest of the data, so it must be the last " +
                              (source.input ? "input" : "output") + " block");
      block.m_nRecordLenApplyType = RCL_RESTDATA;
    } else {
      checkCountField(source);
      block.m_nRecordLenApplyType = RCL_BLOCKFIELD_ID;
      block.m_strRecordLenSubInfo = count;
    }
  }

  void checkCountField(const BlockSource& source) const {
    const std::string& count = source.count;
    const std::string& name = source.block->m_szBlockName;
    const size_t dot = count.find('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == count.size())
      fail(source.line, "block " + name + ": count " + quoted(count) + " is not prefix, rest or Block.field");
    const std::string blockName = count.substr(0, dot);
    const std::string fieldName = count.substr(dot + 1);
    const BlockSource* earlier = nullptr;
    for (const BlockSource& b : m_blocks) {
      if (b.block == source.block) break;
      if (b.input == source.input && b.block->m_szBlockName == blockName) earlier = &b;
    }
    const FieldInfo* field = earlier != nullptr ? earlier->block->getFieldInfoFromName(fieldName) : nullptr;
    if (field == nullptr)
      fail(source.line, "block " + name + " takes its record count from " + quoted(count) +
                            ", which does not exist: name a field of an earlier " +
                            (source.input ? "input" : "output") + " block");
    if (earlier->block->isOccursBlock())
      fail(source.line, "block " + name + " takes its record count from " + quoted(count) + ", but " +
                            blockName + " is repeated; the count must come from a one-record block");
    if (!ftype::holdsWholeNumber(*field))
      fail(source.line, "block " + name + " takes its record count from " + quoted(count) +
                            ", which is not a whole-number field");
  }

  std::string_view m_text;
  LineIndex m_lines;
  std::unique_ptr<TransactionDefinition> m_def;
  std::vector<BlockSource> m_blocks;
  pugi::xml_document m_doc;
};

DefinitionResult failure(DefinitionStatus status, std::string_view file, int32_t line, std::string message) {
  DefinitionResult result;
  result.status = status;
  result.file = std::string(file);
  result.line = line;
  result.message = std::move(message);
  return result;
}

}  // namespace

// ---- TransactionDefinition --------------------------------------------------------------------------------

const TransactionDefinition::BlockExtra& TransactionDefinition::extra(const BlockInfo& block) const noexcept {
  static const BlockExtra kNone;
  const auto& blocks = tran.m_BlockInfokList;
  for (size_t i = 0; i < blocks.size() && i < m_extras.size(); ++i)
    if (blocks[i].get() == &block) return m_extras[i];
  return kNone;
}

void TransactionDefinition::addExtra(BlockExtra extra) {
  m_extras.resize(tran.m_BlockInfokList.size());
  if (!m_extras.empty()) m_extras.back() = std::move(extra);
}

// ---- DefinitionResult -------------------------------------------------------------------------------------

std::string DefinitionResult::description() const {
  if (status == DefinitionStatus::Ok) return "ok";
  std::string text = file;
  if (line > 0) text += ":" + std::to_string(line);
  return text + ": " + message;
}

// ---- DefinitionLoader -------------------------------------------------------------------------------------

bool readFileBytes(const std::string& path, std::string& out, std::string& error) noexcept {
  try {
    std::ifstream in(path, std::ios::binary);
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
      error = "is a directory, not a file";
      return false;
    }
    if (!in) {
      error = std::string("cannot open: ") + std::strerror(errno);
      return false;
    }
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) {
      error = "cannot read the file";
      return false;
    }
    return true;
  } catch (...) {
    error = "cannot read the file (out of memory)";
    return false;
  }
}

DefinitionResult DefinitionLoader::loadFile(const std::string& path) noexcept {
  std::string text, error;
  if (!readFileBytes(path, text, error)) return failure(DefinitionStatus::FileError, path, 0, error);
  return loadString(text, path);
}

DefinitionResult DefinitionLoader::loadString(std::string_view xml, std::string_view name) noexcept {
  try {
    DefinitionResult result;
    result.file = std::string(name);
    result.definition = Loader(xml, name).load();
    return result;
  } catch (const DefinitionError& e) {
    return failure(e.status, name, e.line, e.message);
  } catch (...) {
    return failure(DefinitionStatus::BadDefinition, name, 0, "out of memory while loading");
  }
}

std::string nameProblem(std::string_view name) {
  if (const size_t at = utf8::findControl(name); at != std::string_view::npos)
    return "holds a control character (" +
           internal::printable(name.substr(at, utf8::controlLength(name, at))) +
           "); names are shown on terminals, so they hold none";
  if (const size_t at = utf8::findDirectional(name); at != std::string_view::npos)
    return "holds a character that reorders or breaks the text shown (" +
           internal::printable(name.substr(at, utf8::directionalLength(name, at))) +
           "); names are shown on terminals, so they hold none";
  if (const size_t at = name.find_first_of("/\\"); at != std::string_view::npos)
    return "holds '" + std::string(1, name[at]) +
           "'; a block's name becomes a file name (decode --output-dir), so names hold no / or \\";
  if (name == "." || name == "..")
    return "is " + std::string(name) + ", which stands for a folder; a block's name becomes a file name";
  if (name.empty()) return "is empty";
  return {};
}

int32_t dataTypeFromName(std::string_view name) noexcept {
  return ftype::typeOfName(name);
}

const char* dataTypeName(int32_t dataType) noexcept {
  return ftype::rulesOf(dataType).name.data();
}

}  // namespace blockproc
