// The inspect and decode subcommands.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "Cli.h"
#include "blockproc/detail/TextCodec.h"

namespace blockproc::cli {

namespace {

std::string titleLine(const TransactionDefinition& def) {
  return printable(def.tran.getTrCode()) + (def.title.empty() ? "" : " " + printable(def.title)) + "\n";
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
  add(!f.szAttrRefKey.empty(), "attr from " + printable(f.szAttrRefKey));
  add(f.bImpliedPoint, "point implied");
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
      return "field " + printable(block.m_strRecordLenSubInfo);
  }
}

std::string blockSummary(const KXBlockDataProc& proc, const TransactionDefinition& def, bool input) {
  const BlockInfo& block = *proc.getBlockInfo();
  std::string text = printable(block.m_szBlockName) + " (" + (input ? "input" : "output") + "): record " +
                     withThousands(block.getRecordMemSize()) + " bytes";
  if (input) text += ", " + withThousands(block.getRecordFieldSize()) + " sent";
  if (block.isOccursBlock())
    text += ", repeated (at most " + withThousands(block.m_nRepeatCount) + "), record count from " +
            countRule(block, def.tran.m_nOccursLen, input);
  text += ", packet " + withThousands(proc.calcPacketSize()) + " bytes\n";
  return text;
}

std::string fieldsTable(const BlockInfo& block) {
  std::vector<std::vector<std::string>> rows;
  for (int32_t j = 0; j < block.getFieldCount(); ++j) {
    const FieldInfo& f = *block.getFieldInfoFromIndex(j);
    rows.push_back({printable(f.szFieldName), printable(f.szKorFieldName), printable(f.szEngFieldName),
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

namespace {

constexpr std::string_view kSplitHint = "\n  (hexdump shows how the bytes fall into the blocks)";

// Whether the reply ends in a count="rest" block, which is read a piece at a time.
bool endsInRest(const TransactionDefinition& def) {
  for (const BlockInfo* block : def.tran.m_OutBlockList)
    if (block->isOccursBlock() && block->m_nRecordLenApplyType == RCL_RESTDATA) return true;
  return false;
}

// Where decoded blocks go: one writer on standard output, or with --output-dir one file and writer per block.
class Sinks {
 public:
  Sinks(const DecodeOptions& options, const RenderOptions& render, const Session& session,
        const std::vector<const KXBlockDataProc*>& blocks, Warnings& warnings)
      : m_blocks(blocks) {
    const std::string& code = session.definition->tran.getTrCode();
    if (options.outputDir.empty()) {
      auto& sink = m_sinks.emplace_back(Sink{std::make_unique<Output>(""), nullptr});
      if (render.format == Format::Table) sink.out->text() += titleLine(*session.definition) + "\n";
      sink.writer = std::make_unique<RecordWriter>(*sink.out, code, render, warnings);
      return;
    }
    openDirectory(options.outputDir, blocks);
    for (const KXBlockDataProc* proc : blocks) {
      const std::string file = proc->getBlockName() + extensionOf(render.format);
      auto& sink = m_sinks.emplace_back(
          Sink{std::make_unique<Output>(m_dir.fd, file, options.outputDir + "/" + file), nullptr});
      sink.writer = std::make_unique<RecordWriter>(*sink.out, code, render, warnings);
    }
  }

  // The writer of the block, or nullptr when the block is not shown.
  RecordWriter* writerOf(const KXBlockDataProc* proc) {
    const auto it = std::find(m_blocks.begin(), m_blocks.end(), proc);
    if (it == m_blocks.end()) return nullptr;
    return m_sinks.size() == 1 ? m_sinks[0].writer.get()
                               : m_sinks[static_cast<size_t>(it - m_blocks.begin())].writer.get();
  }

  // Writes a block whose records the processor holds.
  void writeWhole(const KXBlockDataProc* proc) {
    if (RecordWriter* writer = writerOf(proc)) {
      writer->beginBlock(*proc, proc->getValidCount());
      writer->records(*proc, 0);
      writer->endBlock();
    }
  }

  void finish() {
    for (Sink& sink : m_sinks) {
      sink.writer->finish();
      sink.out->finish();
    }
  }

 private:
  struct Sink {
    std::unique_ptr<Output> out;
    std::unique_ptr<RecordWriter> writer;
  };
  // Makes the directory if need be and opens it, after checking that every block's name can be a file name
  // in it, so that no file is written when one cannot be.
  void openDirectory(const std::string& dir, const std::vector<const KXBlockDataProc*>& blocks) {
    for (const KXBlockDataProc* proc : blocks)
      if (const std::string problem = nameProblem(proc->getBlockName()); !problem.empty())
        throw Failure{kExitUsage, "block name '" + proc->getBlockName() + "' cannot name a file in '" + dir +
                                      "': it " + problem};
    if (::mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST)
      throw Failure{kExitData, "cannot make the directory '" + dir + "': " + std::strerror(errno)};
    m_dir.fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_dir.fd < 0)
      throw Failure{kExitData, "cannot open the directory '" + dir + "': " + std::strerror(errno)};
  }

  // The directory of --output-dir, open while its files are written (closed after them, or when a file
  // cannot be opened).
  struct Directory {
    int fd = -1;
    Directory() = default;
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    ~Directory() {
      if (fd >= 0) ::close(fd);
    }
  };

  Directory m_dir;
  std::vector<const KXBlockDataProc*> m_blocks;
  std::vector<Sink> m_sinks;
};

// The blocks ahead of the rest block, from as many bytes of the input as they need.
TransactionProc::ReplyResult receiveHead(TransactionProc& proc, InputStream& in, std::string& buf,
                                         size_t chunk) {
  in.read(buf, chunk);
  for (;;) {
    TransactionProc::ReplyResult head = proc.receiveReplyHead(buf.data(), static_cast<int64_t>(buf.size()));
    if (head.ok || head.more <= 0 || in.atEnd()) return head;
    in.read(buf, std::max(static_cast<size_t>(head.more), chunk));
  }
}

// streamRest's records on `jobs` threads: the bytes already read in `buf[at...]` go as they lie, the rest
// is read a piece at a time into the pieces' own buffers while the threads decode. Gives the records
// taken; `buf[at...]` is left holding the bytes after them.
int64_t restInPieces(size_t recordSize, int64_t cap, InputStream& in, std::string& buf, size_t& at,
                     size_t piece, int32_t jobs, RecordWriter& writer, Progress& progress) {
  const int64_t start = static_cast<int64_t>(at), record = static_cast<int64_t>(recordSize);
  int64_t taken = 0;
  RecordWriter::Pieces pieces(writer, jobs);
  // Bytes of the whole records in `size` bytes that the block still takes (0 at its repeat).
  const auto whole = [&](size_t size) {
    return std::max<int64_t>(std::min(static_cast<int64_t>(size) / record, cap - taken), 0) * record;
  };
  const auto advance = [&](int64_t bytes) {
    taken += bytes / record;
    progress.update(start + taken * record, taken);
  };
  // The whole pieces already read go as they lie.
  while (buf.size() - at >= piece) {
    const int64_t bytes = whole(piece);
    if (bytes == 0) break;
    pieces.submit(buf.data() + at, bytes, taken, false);
    advance(bytes);
    at += static_cast<size_t>(bytes);
  }
  // Then each piece is read into a buffer of its own, after the bytes left of the one before.
  std::string left = buf.substr(at);
  while (taken < cap) {
    char* bytes = pieces.buffer(piece);
    std::memcpy(bytes, left.data(), left.size());
    size_t have = left.size();
    if (have < piece && !in.atEnd()) have += in.read(bytes + have, piece - have);
    const int64_t used = whole(have);
    if (used > 0) {
      pieces.submit(used, taken, false);
      advance(used);
    }
    left.assign(bytes + used, have - static_cast<size_t>(used));
    if (used == 0) break;
  }
  pieces.finish();
  buf = std::move(left);
  at = 0;
  return taken;
}

// Hands the rest block its records a piece at a time from `buf[at...]` and the input, each piece written
// as it is taken (`jobs` pieces side by side). Returns why the block's bytes were refused (not whole records,
// more than its repeat), or
// "" when they were not; the records before the problem are written.
std::string streamRest(const KXBlockDataProc& proc, InputStream& in, std::string& buf, size_t at,
                       size_t chunk, int32_t jobs, RecordWriter* writer, Progress& progress) {
  const BlockInfo& block = *proc.getBlockInfo();
  if (block.getRecordMemSize() <= 0) return TransactionProc::checkRest(block, 1, false);
  const auto recordSize = static_cast<size_t>(block.getRecordMemSize());
  // A read takes at most `chunk` bytes (a piece of them with --jobs), so that memory does not grow with the
  // input or the jobs.
  const auto piece =
      static_cast<size_t>(pieceBytes(static_cast<int64_t>(chunk), jobs, static_cast<int64_t>(recordSize)));
  const int64_t cap = block.m_nRepeatCount, start = static_cast<int64_t>(at);
  if (writer != nullptr) {
    const int64_t rest = in.size() >= 0 ? in.size() - start : -1;
    writer->beginBlock(proc,
                       rest >= 0 ? std::min<int64_t>(rest / static_cast<int64_t>(recordSize), cap) : -1);
  }
  int64_t taken = 0;
  if (writer != nullptr && jobs > 1) {
    taken = restInPieces(recordSize, cap, in, buf, at, piece, jobs, *writer, progress);
  } else {
    for (;;) {
      if (buf.size() - at < piece && !in.atEnd()) {
        buf.erase(0, at);
        at = 0;
        in.read(buf, piece - buf.size());
      }
      const int64_t records = std::min(static_cast<int64_t>((buf.size() - at) / recordSize), cap - taken);
      if (records <= 0) break;
      if (writer != nullptr)
        writer->records(RecordView(block, buf.data() + at, records * static_cast<int64_t>(recordSize)),
                        taken);
      taken += records;
      at += static_cast<size_t>(records) * recordSize;
      progress.update(start + taken * static_cast<int64_t>(recordSize), taken);
    }
  }
  if (writer != nullptr) writer->endBlock();
  // The bytes past the records taken, counted to the end of the input for the message.
  int64_t left = static_cast<int64_t>(buf.size() - at);
  for (std::string drain; !in.atEnd(); drain.clear()) left += static_cast<int64_t>(in.read(drain, chunk));
  return left == 0
             ? ""
             : TransactionProc::checkRest(block, taken * static_cast<int64_t>(recordSize) + left, false);
}

// Decodes a reply that ends in a count="rest" block: the blocks ahead of it, then its records a piece at
// a time, never the whole reply or the whole output at once.
// A rest block of a file that is not whole records is reported before any record is written: refused when
// the layout check finds a likelier layout, and said ahead of the records when the data is only cut short.
void adviseOnRest(const DecodeOptions& options, const Session& session, InputStream& in,
                  const TransactionProc::BlockSlice& slice) {
  const BlockInfo& block = *slice.proc->getBlockInfo();
  const int64_t recordSize = block.getRecordMemSize();
  if (in.size() < 0 || recordSize <= 0 || (in.size() - slice.offset) % recordSize == 0) return;
  bool cutShort = false;
  const std::string advice =
      layoutAdvice(session, in.map(), check::DataKind::Reply, block.m_szBlockName, cutShort) + "\n  (" +
      checkCommand(options.common, options.reply, check::DataKind::Reply, block.m_szBlockName) +
      " shows the evidence)";
  const std::string notWhole =
      in.name() + ": " + TransactionProc::checkRest(block, in.size() - slice.offset, false);
  if (!cutShort) throw Failure{kExitData, notWhole + advice};
  std::cerr << "blockproc: " << printable(notWhole + advice, true) << "\n  (its whole records follow)\n";
}

int decodeStreamed(const DecodeOptions& options, const RenderOptions& render, const Session& session,
                   const std::vector<const KXBlockDataProc*>& blocks) {
  InputStream in(options.reply);
  const auto chunk = static_cast<size_t>(options.chunkBytes > 0 ? options.chunkBytes : kDefaultChunkBytes);
  std::string buf;
  // With --jobs, the first read is a piece's worth, so that the threads start on it sooner.
  const auto head =
      receiveHead(*session.proc, in, buf, options.jobs > 1 ? std::min<size_t>(chunk, kMaxPieceBytes) : chunk);
  if (!head.ok) throw Failure{kExitData, in.name() + ": " + head.message + std::string(kSplitHint)};
  Warnings warnings;
  Sinks sinks(options, render, session, blocks, warnings);
  std::string refusal;
  for (const TransactionProc::BlockSlice& slice : head.slices)
    if (slice.open) adviseOnRest(options, session, in, slice);
  for (const TransactionProc::BlockSlice& slice : head.slices) {
    if (!slice.open) {
      sinks.writeWhole(slice.proc);
      continue;
    }
    Progress progress(!options.quiet, in.size());
    refusal = streamRest(*slice.proc, in, buf, static_cast<size_t>(slice.offset), chunk, options.jobs,
                         sinks.writerOf(slice.proc), progress);
  }
  sinks.finish();
  warnings.close();
  if (!refusal.empty()) throw Failure{kExitData, in.name() + ": " + refusal + std::string(kSplitHint)};
  return warnings.count() > 0 ? kExitData : kExitOk;
}

}  // namespace

int runDecode(const DecodeOptions& options) {
  const RenderOptions render{parseFormat(options.format), options.raw, options.showSecrets};
  const Session session = openSession(options.common, options.reply);
  const std::vector<const KXBlockDataProc*> blocks = chosenBlocks(session, options.block, options.request);
  if (render.format == Format::Csv && blocks.size() > 1 && options.outputDir.empty())
    throw Failure{kExitUsage, "CSV holds one block, and the " +
                                  std::string(options.request ? "request" : "reply") + " has " +
                                  std::to_string(blocks.size()) +
                                  "; pick one with --block, or give --output-dir DIR for one file per block"};
  if (!options.request && endsInRest(*session.definition))
    return decodeStreamed(options, render, session, blocks);
  const std::string data = readInput(options.reply);
  const auto size = static_cast<int64_t>(data.size());
  const auto received = options.request ? session.proc->receiveRequest(data.data(), size)
                                        : session.proc->receiveReply(data.data(), size);
  if (!received.ok) {
    const check::DataKind kind = options.request ? check::DataKind::Request : check::DataKind::Reply;
    bool cutShort = false;
    const std::string advice = layoutAdvice(session, data, kind, "", cutShort);
    throw Failure{kExitData, sourceName(options.reply) + ": " + received.message + advice +
                                 std::string(kSplitHint) + "\n  (" +
                                 checkCommand(options.common, options.reply, kind, "") +
                                 " names the likeliest layout change)"};
  }
  Warnings warnings;
  Sinks sinks(options, render, session, blocks, warnings);
  for (const KXBlockDataProc* proc : blocks) sinks.writeWhole(proc);
  sinks.finish();
  warnings.close();
  return warnings.count() > 0 ? kExitData : kExitOk;
}

}  // namespace blockproc::cli
