// The inspect, decode and encode subcommands.

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include <nlohmann/json.hpp>

#include "Cli.h"
#include "blockproc/codec/TextCodec.h"
#include "blockproc/util/NumberParse.h"

namespace blockproc::cli {

namespace {

std::string titleLine(const TransactionDefinition& def) {
  return def.tran.getTrCode() + (def.title.empty() ? "" : " " + printable(def.title)) + "\n";
}

std::string listOf(const std::vector<KXBlockDataProc*>& procs) {
  std::string list;
  for (const KXBlockDataProc* p : procs) list += (list.empty() ? "" : ", ") + p->getBlockName();
  return list.empty() ? "none" : list;
}

// ---- inspect ----------------------------------------------------------------------------------------------

std::string flagsOf(const FieldInfo& f) {
  std::string flags;
  const auto add = [&](bool on, const std::string& name) {
    if (on) flags += (flags.empty() ? "" : ", ") + name;
  };
  add(f.bItemCode, "itemcode");
  add(f.bAccountNo, "account");
  add(f.bPassword, "password");
  add(f.bKeyEnc, "keyenc");
  add(!f.szAttrRefKey.empty(), "attr from " + f.szAttrRefKey);
  return flags;
}

std::string countRule(const BlockInfo& block, int32_t occursLen, bool input) {
  switch (block.m_nRecordLenApplyType) {
    case RCL_OCCURSLEN:
      return "a " + std::to_string(occursLen) + "-digit count ahead of the block";
    case RCL_RESTDATA:
      return std::string("the rest of the ") + (input ? "request" : "reply");
    case RCL_BLOCKFIELD_ID:
    default:
      return "field " + block.m_strRecordLenSubInfo;
  }
}

std::string blockSummary(const KXBlockDataProc& proc, const TransactionDefinition& def, bool input) {
  const BlockInfo& block = *proc.getBlockInfo();
  std::string text = block.m_szBlockName + " (" + (input ? "input" : "output") + "): record " +
                     withThousands(block.getRecordMemSize()) + " bytes";
  if (input) text += ", " + withThousands(block.getRecordFieldSize()) + " sent";
  if (block.isOccursBlock())
    text += ", repeated (" + withThousands(block.m_nRepeatCount) + " laid out), record count from " +
            countRule(block, def.tran.m_nOccursLen, input);
  text += ", packet " + withThousands(proc.calcPacketSize()) + " bytes\n";
  return text;
}

std::string fieldsTable(const BlockInfo& block) {
  std::vector<std::vector<std::string>> rows;
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& f = *block.getFieldInfoFromIndex(j);
    rows.push_back({f.szFieldName, printable(f.szKorFieldName), printable(f.szEngFieldName),
                    std::to_string(f.nDataPos), std::to_string(f.nLength), dataTypeName(f.nDataType),
                    std::to_string(f.nDecimalLen),
                    block.carriesAttr(f) ? std::to_string(f.nDataPos + f.nLength) : "", flagsOf(f)});
  }
  return renderTable({"field", "name", "english", "pos", "len", "type", "dec", "attr", "flags"},
                     {false, false, false, true, true, false, true, true, false}, rows);
}

std::string linksLine(const KXBlockDataProc& proc) {
  const int32_t real = proc.getRealAPLinkCount(), field = proc.getLinkCount();
  if (real == 0 && field == 0) return {};
  return "links: " + std::to_string(real) + " real-time, " + std::to_string(field) + " field\n";
}

// ---- encode -----------------------------------------------------------------------------------------------

constexpr std::string_view kAttrSuffix = "@attr";

// Decimal digits, or one or two hexadecimal ones behind "0x": the value when it is a byte (0 to 255), else
// -1.
int byteFromText(std::string_view text) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  if (hex) text.remove_prefix(2);
  if (text.empty() || (hex && text.size() > 2) || text.front() == '+' || text.front() == '-') return -1;
  const num::WholeInt byte = num::parseWholeInt(text, 0, 255, hex ? 16 : 10);
  return byte.isNumber && !byte.clamped ? static_cast<int>(byte.value) : -1;
}

uint8_t attrByte(const nlohmann::ordered_json& value, const std::string& where) {
  if (value.is_number_unsigned() && value.get<uint64_t>() <= 255)
    return static_cast<uint8_t>(value.get<uint64_t>());
  if (value.is_string()) {
    const int byte = byteFromText(value.get<std::string>());
    if (byte >= 0) return static_cast<uint8_t>(byte);
  }
  throw Failure{kExitData,
                where + " must be an attribute byte: 0 to 255, or hexadecimal text such as \"0x35\""};
}

RecordValues recordFrom(const nlohmann::ordered_json& record, const std::string& where) {
  if (!record.is_object()) throw Failure{kExitData, where + " must be an object of field values"};
  RecordValues values;
  for (const auto& [key, value] : record.items()) {
    const std::string at = where + "." + key;
    if (key.ends_with("@hex"))
      throw Failure{kExitData,
                    at + ": decode shows bytes that are not text this way; they cannot be encoded back"};
    if (key.size() > kAttrSuffix.size() && key.ends_with(kAttrSuffix)) {
      values.attrs.emplace_back(key.substr(0, key.size() - kAttrSuffix.size()), attrByte(value, at));
    } else if (value.is_string()) {
      values.fields.emplace_back(key, value.get<std::string>());
    } else if (value.is_number()) {
      values.fields.emplace_back(key, value.dump());
    } else if (!value.is_null()) {
      throw Failure{kExitData, at + " must be a string, a number or null"};
    }
  }
  return values;
}

std::vector<BlockValues> valuesFrom(const nlohmann::ordered_json& root, const std::string& file) {
  if (!root.is_object())
    throw Failure{kExitData, sourceName(file) + ": the values must be a JSON object of blocks"};
  if (root.contains("blocks") && !root["blocks"].is_object())
    throw Failure{kExitData, sourceName(file) + ": \"blocks\" must be an object of blocks"};
  const nlohmann::ordered_json& blocks = root.contains("blocks") ? root["blocks"] : root;
  std::vector<BlockValues> values;
  for (const auto& [name, block] : blocks.items()) {
    if (&blocks == &root && name == "code") continue;  // what decode writes beside the blocks
    BlockValues entry{name, {}};
    if (block.is_array()) {
      for (size_t i = 0; i < block.size(); ++i)
        entry.records.push_back(
            recordFrom(block[i], sourceName(file) + ": " + name + "[" + std::to_string(i) + "]"));
    } else if (block.is_object()) {
      entry.records.push_back(recordFrom(block, sourceName(file) + ": " + name));
    } else {
      throw Failure{kExitData, sourceName(file) + ": block " + name +
                                   " must be an object (one record) or a list of objects (records)"};
    }
    values.push_back(std::move(entry));
  }
  return values;
}

// Builds the document of a values file with every number that is not a plain integer kept as its text
// (a string), so that 0.1, 1e5 and 12345678901234567890123 reach the engine exactly as written.
class ExactNumbers : public nlohmann::json_sax<nlohmann::ordered_json> {
 public:
  using Json = nlohmann::ordered_json;
  Json root;
  std::string error;

  bool null() override { return add(nullptr) != nullptr; }
  bool boolean(bool value) override { return add(value) != nullptr; }
  bool number_integer(number_integer_t value) override { return add(value) != nullptr; }
  bool number_unsigned(number_unsigned_t value) override { return add(value) != nullptr; }
  bool number_float(number_float_t, const string_t& text) override { return add(text) != nullptr; }
  bool string(string_t& value) override { return add(value) != nullptr; }
  bool binary(binary_t&) override { return add(nullptr) != nullptr; }
  bool start_object(std::size_t) override { return open(Json::object()); }
  bool key(string_t& name) override {
    m_key = name;
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(Json::array()); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception& e) override {
    error = e.what();
    return false;
  }

 private:
  Json* add(Json value) {
    if (m_stack.empty()) {
      root = std::move(value);
      return &root;
    }
    Json& top = *m_stack.back();
    if (top.is_array()) {
      top.push_back(std::move(value));
      return &top.back();
    }
    top[m_key] = std::move(value);
    return &top[m_key];
  }
  bool open(Json value) {
    m_stack.push_back(add(std::move(value)));
    return true;
  }
  bool close() {
    m_stack.pop_back();
    return true;
  }
  std::vector<Json*> m_stack;
  std::string m_key;
};

}  // namespace

int runInspect(const CommonOptions& options) {
  const Session session = openSession(options);
  const TransactionDefinition& def = *session.definition;
  Output out("");
  std::string& text = out.text();
  text += titleLine(def);
  text += "encoding " + std::string(codec::encodingName(def.encoding)) + ", occurs length " +
          std::to_string(def.tran.m_nOccursLen) + ", data mode " +
          (def.tran.m_strDataMode.empty() ? "none" : def.tran.m_strDataMode) + "\n";
  for (const bool input : {true, false}) {
    for (const KXBlockDataProc* proc : input ? session.proc->inputProcs() : session.proc->outputProcs()) {
      text += "\n" + blockSummary(*proc, def, input) + fieldsTable(*proc->getBlockInfo()) + linksLine(*proc);
    }
  }
  out.finish();
  return kExitOk;
}

namespace {

const char* extensionOf(Format format) {
  switch (format) {
    case Format::Json:
      return ".json";
    case Format::Jsonl:
      return ".jsonl";
    case Format::Csv:
    case Format::Long:
      return ".csv";
    case Format::Table:
    default:
      return ".txt";
  }
}

// The blocks to show: the one --block names, or every block of the side.
std::vector<const KXBlockDataProc*> chosenBlocks(const Session& session, const std::string& name,
                                                 bool input) {
  const auto& side = input ? session.proc->inputProcs() : session.proc->outputProcs();
  if (name.empty()) return {side.begin(), side.end()};
  const KXBlockDataProc* proc = session.proc->findBlockProc(name);
  if (proc == nullptr || std::find(side.begin(), side.end(), proc) == side.end())
    throw Failure{kExitUsage, std::string("no ") + (input ? "input" : "output") + " block named '" + name +
                                  "'; the " + (input ? "request" : "reply") + " has " + listOf(side)};
  return {proc};
}

}  // namespace

int runDecode(const DecodeOptions& options) {
  const RenderOptions render{parseFormat(options.format), options.raw};
  const Session session = openSession(options.common, options.reply);
  const std::vector<const KXBlockDataProc*> blocks = chosenBlocks(session, options.block, options.request);
  if (render.format == Format::Csv && blocks.size() > 1 && options.outputDir.empty())
    throw Failure{kExitUsage, "CSV holds one block, and the " +
                                  std::string(options.request ? "request" : "reply") + " has " +
                                  std::to_string(blocks.size()) +
                                  "; pick one with --block, or give --output-dir DIR for one file per block"};
  const std::string data = readInput(options.reply);
  const auto size = static_cast<int64_t>(data.size());
  const auto received = options.request ? session.proc->receiveRequest(data.data(), size)
                                        : session.proc->receiveReply(data.data(), size);
  if (!received.ok)
    throw Failure{kExitData, sourceName(options.reply) + ": " + received.message +
                                 "\n  (hexdump shows how the bytes fall into the blocks)"};
  const std::string& code = session.definition->tran.getTrCode();
  Warnings warnings;
  if (!options.outputDir.empty()) {
    if (::mkdir(options.outputDir.c_str(), 0777) != 0 && errno != EEXIST)
      throw Failure{kExitData,
                    "cannot make the directory '" + options.outputDir + "': " + std::strerror(errno)};
    for (const KXBlockDataProc* proc : blocks) {
      Output out(options.outputDir + "/" + proc->getBlockName() + extensionOf(render.format));
      renderBlocks(out, code, {proc}, render, warnings);
      out.finish();
    }
  } else {
    Output out("");
    if (render.format == Format::Table) out.text() += titleLine(*session.definition) + "\n";
    renderBlocks(out, code, blocks, render, warnings);
    out.finish();
  }
  warnings.close();
  return warnings.count() > 0 ? kExitData : kExitOk;
}

int runEncode(const EncodeOptions& options) {
  const Session session = openSession(options.common, options.values);
  const std::string text = readInput(options.values);
  ExactNumbers document;
  if (!nlohmann::ordered_json::sax_parse(text, &document)) {
    std::string what = document.error;
    if (const size_t end = what.find("] "); end != std::string::npos) what = what.substr(end + 2);
    throw Failure{kExitData, sourceName(options.values) + ": not valid JSON: " + what};
  }
  const std::vector<BlockValues> values = valuesFrom(document.root, options.values);
  if (!options.reply) {
    for (const BlockValues& v : values) {
      const auto& outputs = session.proc->outputProcs();
      const KXBlockDataProc* proc = session.proc->findBlockProc(v.block);
      if (proc != nullptr && std::find(outputs.begin(), outputs.end(), proc) != outputs.end())
        throw Failure{kExitData,
                      sourceName(options.values) + ": " + v.block +
                          " is an output block; give --reply to build a reply, or name input blocks"};
    }
  }
  const auto built = options.reply ? session.proc->buildReply(values) : session.proc->buildRequest(values);
  if (!built.ok) throw Failure{kExitData, sourceName(options.values) + ": " + built.message};
  Output out(options.output);
  out.text() = built.bytes;
  out.finish();
  return kExitOk;
}

}  // namespace blockproc::cli
