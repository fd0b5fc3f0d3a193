// The encode subcommand: request, reply or real-time stream bytes built from records in any of the forms
// decode writes.
//
// Records are taken one at a time and each is checked as it is read, so that a refusal names the input line.
// The blocks ahead of a block that takes the rest of the data are held until it starts (their counts and
// count prefixes need all of their records), then written; the rest block's records, and every record of a
// stream, are written as they come, so that a capture of any size is built in constant memory.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "Cli.h"
#include "EncodeInput.h"

namespace blockproc::cli {

namespace {

std::string listOf(const std::vector<KXBlockDataProc*>& procs) {
  std::string list;
  for (const KXBlockDataProc* p : procs) list += (list.empty() ? "" : ", ") + p->getBlockName();
  return list.empty() ? "none" : list;
}

// Fields of the definition that hold another block's record count: filled in with it when left out.
std::vector<const FieldInfo*> countFields(const TransactionProc& proc) {
  std::vector<const FieldInfo*> fields;
  for (const auto& block : proc.definition().tran.m_BlockInfokList)
    if (block->isOccursBlock() && block->m_nRecordLenApplyType == RCL_BLOCKFIELD_ID) {
      const std::string& ref = block->m_strRecordLenSubInfo;
      const size_t dot = ref.find('.');
      if (dot == std::string::npos) continue;
      if (const KXBlockDataProc* holder = proc.findBlockProc(std::string_view(ref).substr(0, dot)))
        if (const FieldInfo* f = holder->findFieldInfo(ref.substr(dot + 1))) fields.push_back(f);
    }
  return fields;
}

class Encoder {
 public:
  Encoder(const Session& session, const EncodeOptions& options, Output& out, std::string source)
      : m_tran(*session.proc),
        m_options(options),
        m_out(out),
        m_source(std::move(source)),
        m_input(!options.reply && !options.stream),
        m_counts(countFields(m_tran)) {
    if (options.stream) {
      KXBlockDataProc* proc = m_tran.findBlockProc(options.block);
      if (proc == nullptr)
        throw Failure{kExitUsage, "no block named '" + options.block + "'; the definition has " +
                                      listOf(m_tran.inputProcs()) + ", " + listOf(m_tran.outputProcs())};
      m_blocks.push_back(blockState(proc));
      m_blocks.back().streams = true;
      m_headWritten = true;  // a stream is its records alone
      return;
    }
    const auto& side = m_input ? m_tran.inputProcs() : m_tran.outputProcs();
    for (KXBlockDataProc* proc : side) m_blocks.push_back(blockState(proc));
    if (!side.empty()) {
      const BlockInfo& last = *side.back()->getBlockInfo();
      m_blocks.back().streams = last.isOccursBlock() && last.m_nRecordLenApplyType == RCL_RESTDATA;
    }
  }

  // Checks the record and writes it, or holds it until the blocks ahead of the rest block are written.
  void add(InputRecord& r) {
    if (m_current == nullptr || r.block != m_current->proc->getBlockName()) switchTo(r);
    Block& b = *m_current;
    const int64_t number = b.records;
    if (r.record >= 0 && r.record != number)
      refuse(r, "block " + b.proc->getBlockName() + ": record " + std::to_string(r.record) +
                    " stands where record " + std::to_string(number) +
                    " belongs; give a block's records in order");
    checkCount(r, b, number);
    markGiven(r, b, number);
    RecordValueViews values = r.values();
    values.found = m_found;  // the fields markGiven found, not looked up again
    if (b.streams) {
      if (!m_headWritten) writeHead();
      check(r, m_tran.appendRecord(m_out.text(), *b.proc, values, number, m_input));
      m_out.spill();
    } else {
      check(r, m_tran.appendRecord(m_scratch, *b.proc, values, number, m_input));
      m_scratch.clear();
      b.held.records.push_back(owned(r));
    }
    ++b.records;
  }

  // Writes what is held, then says which fields took their defaults (none of it with --strict: a field left
  // out was refused).
  void finish() {
    if (!m_options.stream && !m_headWritten) {
      for (Block& b : m_blocks)
        if (!b.given && !b.proc->isOccursBlock()) {
          if (m_options.strict)
            throw Failure{kExitData, m_source + ": block " + b.proc->getBlockName() +
                                         " is not given, and --strict takes no defaults"};
          b.leftOut.assign(b.leftOut.size(), true);
          for (const FieldInfo* f : m_counts)
            if (b.proc->findFieldInfo(f->szFieldName) == f) b.leftOut[static_cast<size_t>(f->nIndex)] = false;
          b.defaulted = 1;
          b.records = 1;
        }
      writeHead();
    }
  }

  // One line per block on standard error naming the fields that took their defaults.
  std::string defaultsReport() const {
    std::string text;
    for (const Block& b : m_blocks) {
      std::string names;
      for (size_t j = 0; j < b.leftOut.size(); ++j)
        if (b.leftOut[j])
          names +=
              (names.empty() ? "" : ", ") +
              printable(b.proc->getBlockInfo()->getFieldInfoFromIndex(static_cast<int32_t>(j))->szFieldName);
      if (names.empty()) continue;
      text += "blockproc: block " + printable(b.proc->getBlockName()) + ": defaults for " + names;
      if (b.records > 1)
        text += " (in " + withThousands(b.defaulted) + " of " + withThousands(b.records) + " records)";
      text += "\n";
    }
    return text;
  }

 private:
  struct Block {
    KXBlockDataProc* proc;
    BlockValues held;            // records held until the head is written
    std::vector<bool> leftOut;   // per field: left out of some record
    std::vector<int64_t> stamp;  // per field: the last record (counted over the input) that gave it
    int64_t records = 0, defaulted = 0;
    bool given = false, streams = false;
    // The field of the k-th value of the last record: rows of the same columns find theirs at once.
    std::vector<std::pair<std::string, const FieldInfo*>> byPosition = {};
  };

  static const FieldInfo* fieldAt(Block& b, size_t k, std::string_view name) {
    if (k < b.byPosition.size() && internal::sameName(b.byPosition[k].first, name))
      return b.byPosition[k].second;
    const FieldInfo* f = b.proc->findFieldInfo(name);
    if (f == nullptr) return nullptr;
    if (k >= b.byPosition.size()) b.byPosition.resize(k + 1);
    b.byPosition[k] = {std::string(name), f};
    return f;
  }

  Block blockState(KXBlockDataProc* proc) {
    const auto fields = static_cast<size_t>(proc->getBlockInfo()->getFieldCount());
    return Block{proc, BlockValues{proc->getBlockName(), {}}, std::vector<bool>(fields),
                 std::vector<int64_t>(fields, -1)};
  }

  [[noreturn]] void refuse(const InputRecord& r, const std::string& why) const {
    throw Failure{kExitData, m_source + ", line " + std::to_string(r.line) + ": " + why};
  }

  void check(const InputRecord& r, const std::string& refusal) const {
    if (!refusal.empty()) refuse(r, refusal);
  }

  void switchTo(const InputRecord& r) {
    Block* found = nullptr;
    for (Block& b : m_blocks)
      if (b.proc->getBlockName() == r.block) found = &b;
    if (found == nullptr) refuse(r, notHere(r.block));
    if (found->given)
      refuse(r, "block " + r.block + " is given again; a block's records must stand together");
    if (m_headWritten && !m_options.stream)
      refuse(r, "block " + r.block + " follows the records of block " + m_current->proc->getBlockName() +
                    ", which take the rest of the data; give it first");
    found->given = true;
    m_current = found;
  }

  std::string notHere(const std::string& name) const {
    const KXBlockDataProc* proc = m_tran.findBlockProc(name);
    const std::string& code = m_tran.definition().tran.getTrCode();
    if (proc == nullptr) {
      const auto& side = m_input ? m_tran.inputProcs() : m_tran.outputProcs();
      return "'" + name + "' is not an " + (m_input ? "input" : "output") + " block of " + code + " (its " +
             (m_input ? "input" : "output") + " blocks: " + listOf(side) + ")";
    }
    if (m_options.stream) return "the stream holds records of block " + m_options.block + ", not " + name;
    return m_input ? name + " is an output block; give --reply to build a reply, or name input blocks"
                   : name + " is an input block; leave out --reply to build a request";
  }

  void checkCount(const InputRecord& r, const Block& b, int64_t number) const {
    if (b.streams && m_options.stream) return;
    const BlockInfo& block = *b.proc->getBlockInfo();
    if (!block.isOccursBlock() && number >= 1)
      refuse(r, "block " + block.m_szBlockName + " holds one record; give --stream --block " +
                    block.m_szBlockName + " to build a real-time stream of its records");
    if (block.isOccursBlock() && number >= block.m_nRepeatCount)
      refuse(r, "block " + block.m_szBlockName + " holds at most " +
                    internal::counted(block.m_nRepeatCount, "record") + " (its repeat)");
  }

  // The record's values held as a copy, for a block written once its records are all in.
  static RecordValues owned(const InputRecord& r) {
    RecordValues values;
    for (const auto& [name, text] : r.fields) values.fields.emplace_back(name, text);
    for (const auto& [name, attr] : r.attrs) values.attrs.emplace_back(name, attr);
    for (const std::string_view name : r.nulls) values.nulls.emplace_back(name);
    return values;
  }

  void refuseUnknown(const InputRecord& r, const Block& b, std::string_view name) const {
    refuse(r, "block " + b.proc->getBlockName() + " has no field '" + printable(std::string(name)) + "'");
  }

  // Notes the fields the record gives, refusing a field given twice or, with --strict, one left out. A field
  // given null counts as given when the engine writes it blank; one that keeps its default counts as left
  // out. Keeps the field of each value in m_found.
  void markGiven(const InputRecord& r, Block& b, int64_t number) {
    ++m_seen;
    m_found.resize(r.fields.size());
    for (const std::string_view name : r.nulls) {
      const FieldInfo* f = b.proc->findFieldInfo(name);
      if (f == nullptr) refuseUnknown(r, b, name);
      if (blankWhenNull(*f)) stampGiven(r, b, *f);
    }
    for (size_t k = 0; k < r.fields.size(); ++k) {
      const auto& [name, value] = r.fields[k];
      const FieldInfo* f = fieldAt(b, k, name);
      if (f == nullptr) refuseUnknown(r, b, name);
      m_found[k] = f;
      // decode shows a password as the mask unless --show-secrets; the mask written back would become the
      // password.
      if (f->bPassword && value == kSecretMask) {
        std::string at;
        value::appendWhere(at, b.proc->getBlockName(), number, printable(std::string(name)));
        refuse(r, at + ": is the mask decode shows for a password, not the password; decode with "
                       "--show-secrets to keep it");
      }
      stampGiven(r, b, *f);
    }
    std::string missing;
    bool any = false;
    for (size_t j = 0; j < b.stamp.size(); ++j) {
      if (b.stamp[j] == m_seen) continue;
      const FieldInfo* f = b.proc->getBlockInfo()->getFieldInfoFromIndex(static_cast<int32_t>(j));
      if (std::find(m_counts.begin(), m_counts.end(), f) != m_counts.end() || f->getKeyEncState()) continue;
      if (m_options.strict) missing += (missing.empty() ? "" : ", ") + printable(f->szFieldName);
      b.leftOut[j] = any = true;
    }
    if (!any) return;
    ++b.defaulted;
    if (m_options.strict)
      refuse(r, "block " + b.proc->getBlockName() + ", record " + std::to_string(number) + " leaves out " +
                    missing + ", and --strict takes no defaults");
  }

  void stampGiven(const InputRecord& r, Block& b, const FieldInfo& f) const {
    auto& stamp = b.stamp[static_cast<size_t>(f.nIndex)];
    if (stamp == m_seen) refuse(r, "'" + printable(f.szFieldName) + "' is given twice in one record");
    stamp = m_seen;
  }

  // The held blocks, built as a whole (a rest block that has not started takes no record).
  void writeHead() {
    std::vector<BlockValues> values;
    for (Block& b : m_blocks)
      if (b.given && !b.streams) values.push_back(std::move(b.held));
    const auto built = m_input ? m_tran.buildRequest(values) : m_tran.buildReply(values);
    if (!built.ok) throw Failure{kExitData, m_source + ": " + built.message};
    m_out.text() += built.bytes;
    m_out.spill();
    m_headWritten = true;
  }

  TransactionProc& m_tran;
  const EncodeOptions& m_options;
  Output& m_out;
  std::string m_source;
  bool m_input;
  std::vector<const FieldInfo*> m_counts;
  std::vector<Block> m_blocks;
  Block* m_current = nullptr;
  bool m_headWritten = false;
  int64_t m_seen = 0;
  std::string m_scratch;
  std::vector<const FieldInfo*> m_found;  // the field of each value of the record being added
};

// The block a CSV input's rows belong to: the one --block names, else the side's only block.
std::string csvBlock(const Session& session, const EncodeOptions& options) {
  if (!options.block.empty()) return options.block;
  const auto& side = options.reply ? session.proc->outputProcs() : session.proc->inputProcs();
  if (side.size() == 1) return side.front()->getBlockName();
  throw Failure{kExitUsage, "CSV holds the records of one block, and the " +
                                std::string(options.reply ? "reply" : "request") + " has " +
                                std::to_string(side.size()) + "; name it with --block"};
}

}  // namespace

int runEncode(const EncodeOptions& options) {
  const Format format = parseFormat(options.format);
  if (format == Format::Table) throw Failure{kExitUsage, "encode reads csv, jsonl, json or long, not table"};
  if (options.stream && options.block.empty())
    throw Failure{kExitUsage, "--stream builds the records of one block; name it with --block"};
  const Session session = openSession(options.common, options.values);
  const std::string block = format == Format::Csv ? csvBlock(session, options) : options.block;
  InputStream in(options.values);
  // A refused input leaves no half-built file behind (a device, such as /dev/null, is left alone).
  struct RemoveUnlessDone {
    const std::string& path;
    bool done = false;
    ~RemoveUnlessDone() {
      struct stat info {};
      if (!done && !path.empty() && path != "-" && ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode))
        ::unlink(path.c_str());
    }
  } cleanup{options.output};
  ReaderOptions read{block, session.definition->tran.getTrCode(), options.block};
  if (options.chunkBytes > 0) read.chunk = static_cast<size_t>(options.chunkBytes);
  const auto reader = makeRecordReader(format, in, read);
  Output out(options.output);
  Encoder encoder(session, options, out, in.name());
  InputRecord record;
  while (reader->next(record)) encoder.add(record);
  encoder.finish();
  out.finish();
  cleanup.done = true;
  if (!options.quiet) {
    const std::string report = encoder.defaultsReport();
    if (!report.empty()) writeAll(2, report, "standard error");
  }
  return kExitOk;
}

}  // namespace blockproc::cli
