// The inspect, decode and encode subcommands.

#include <iostream>

#include <nlohmann/json.hpp>

#include "Cli.h"
#include "blockproc/codec/TextCodec.h"

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

// ---- inspect
// ------------------------------------------------------------------------------------------------

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

// ---- encode
// -------------------------------------------------------------------------------------------------

constexpr std::string_view kAttrSuffix = "@attr";

// Decimal digits, or hexadecimal ones behind "0x": the value when it is a byte (0 to 255), else -1.
int byteFromText(std::string_view text) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty() || text.size() > 3) return -1;
  int value = 0;
  for (char c : text) {
    const int digit = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : 99;
    if (digit >= base) return -1;
    value = value * base + digit;
  }
  return value <= 255 ? value : -1;
}

uint8_t attrByte(const nlohmann::json& value, const std::string& where) {
  if (value.is_number_unsigned() && value.get<uint64_t>() <= 255)
    return static_cast<uint8_t>(value.get<uint64_t>());
  if (value.is_string()) {
    const int byte = byteFromText(value.get<std::string>());
    if (byte >= 0) return static_cast<uint8_t>(byte);
  }
  throw Failure{kExitData,
                where + " must be an attribute byte: 0 to 255, or hexadecimal text such as \"0x35\""};
}

RecordValues recordFrom(const nlohmann::json& record, const std::string& where) {
  if (!record.is_object()) throw Failure{kExitData, where + " must be an object of field values"};
  RecordValues values;
  for (const auto& [key, value] : record.items()) {
    const std::string at = where + "." + key;
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

std::vector<BlockValues> valuesFrom(const nlohmann::json& root, const std::string& file) {
  if (!root.is_object())
    throw Failure{kExitData, sourceName(file) + ": the values must be a JSON object of blocks"};
  if (root.contains("blocks") && !root["blocks"].is_object())
    throw Failure{kExitData, sourceName(file) + ": \"blocks\" must be an object of blocks"};
  const nlohmann::json& blocks = root.contains("blocks") ? root["blocks"] : root;
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

}  // namespace

int runInspect(const CommonOptions& options) {
  const Session session = openSession(options);
  const TransactionDefinition& def = *session.definition;
  std::string out = titleLine(def);
  out += "encoding " + std::string(codec::encodingName(def.encoding)) + ", occurs length " +
         std::to_string(def.tran.m_nOccursLen) + ", data mode " +
         (def.tran.m_strDataMode.empty() ? "none" : def.tran.m_strDataMode) + "\n";
  for (const bool input : {true, false}) {
    for (const KXBlockDataProc* proc : input ? session.proc->inputProcs() : session.proc->outputProcs()) {
      out += "\n" + blockSummary(*proc, def, input) + fieldsTable(*proc->getBlockInfo()) + linksLine(*proc);
    }
  }
  std::cout << out;
  return kExitOk;
}

int runDecode(const DecodeOptions& options) {
  const Format format = parseFormat(options.format);
  const Session session = openSession(options.common);
  std::vector<const KXBlockDataProc*> blocks;
  if (!options.block.empty()) {
    const KXBlockDataProc* proc = session.proc->findBlockProc(options.block);
    const auto& outputs = session.proc->outputProcs();
    if (proc == nullptr || std::find(outputs.begin(), outputs.end(), proc) == outputs.end())
      throw Failure{kExitUsage,
                    "no output block named '" + options.block + "'; the reply has " + listOf(outputs)};
    blocks.push_back(proc);
  } else {
    blocks.assign(session.proc->outputProcs().begin(), session.proc->outputProcs().end());
  }
  const std::string reply = readInput(options.reply, "reply");
  const auto received = session.proc->receiveReply(reply.data(), static_cast<int64_t>(reply.size()));
  if (!received.ok)
    throw Failure{kExitData, sourceName(options.reply) + ": " + received.message +
                                 "\n  (hexdump shows how the reply's bytes fall into the blocks)"};
  std::string out;
  if (format == Format::Table) out = titleLine(*session.definition) + "\n";
  std::cout << out << renderBlocks(session.definition->tran.getTrCode(), blocks, format);
  return kExitOk;
}

int runEncode(const EncodeOptions& options) {
  const Session session = openSession(options.common);
  const std::string text = readInput(options.values, "values file");
  nlohmann::json root;
  try {
    root = nlohmann::json::parse(text);
  } catch (const nlohmann::json::exception& e) {
    std::string what = e.what();
    if (const size_t end = what.find("] "); end != std::string::npos) what = what.substr(end + 2);
    throw Failure{kExitData, sourceName(options.values) + ": not valid JSON: " + what};
  }
  const std::vector<BlockValues> values = valuesFrom(root, options.values);
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
  writeOutput(options.output, built.bytes);
  return kExitOk;
}

}  // namespace blockproc::cli
