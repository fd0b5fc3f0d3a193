// The realtime subcommand: a stream of real-time records fed in front of each other, shown newest first, or
// in the order they were received.
//
// Newest first, the stream is read backwards a piece at a time (standard input is first copied to a temporary
// file): each piece is taken in reverse, so that its newest record comes first, exactly as the records stand
// after feeding them one by one in front of each other. In the order received, the stream is read forwards
// and each record is shown once whole; followed, the output is written out as soon as records arrive, the
// end of a file is waited at (it may still grow) and Ctrl-C ends the output after its last whole record.

#include <algorithm>
#include <csignal>
#include <iostream>
#include <optional>

#include "Cli.h"

namespace blockproc::cli {

namespace {

std::string blockNames(const TransactionProc& proc) {
  std::string list;
  for (const auto& block : proc.definition().tran.m_BlockInfokList)
    list += (list.empty() ? "" : ", ") + block->m_szBlockName;
  return list;
}

volatile std::sig_atomic_t g_interrupted = 0;

extern "C" void onInterrupt(int) {
  g_interrupted = 1;
}

// Ctrl-C (and a polite kill) sets the flag instead of ending the process, and interrupts a waiting read.
class InterruptCatcher {
 public:
  InterruptCatcher() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, &m_int);
    ::sigaction(SIGTERM, &action, &m_term);
  }
  ~InterruptCatcher() {
    ::sigaction(SIGINT, &m_int, nullptr);
    ::sigaction(SIGTERM, &m_term, nullptr);
  }
  InterruptCatcher(const InterruptCatcher&) = delete;
  InterruptCatcher& operator=(const InterruptCatcher&) = delete;

 private:
  struct sigaction m_int {
  }, m_term{};
};

std::string notWhole(const InputStream& in, int64_t size, int64_t recordSize, const std::string& block) {
  return in.name() + ": the stream holds " + withThousands(size) + " bytes, not a whole number of " +
         withThousands(recordSize) + "-byte " + block + " records";
}

// The records in the order received, each shown once whole; followed, written out as they arrive.
int showInArrivalOrder(const RealtimeOptions& options, const RenderOptions& render, const Session& session,
                       KXBlockDataProc& proc) {
  const BlockInfo& block = *proc.getBlockInfo();
  const int64_t recordSize = block.getRecordMemSize();
  const int64_t chunk = options.chunkBytes > 0 ? options.chunkBytes : kDefaultChunkBytes;
  const int64_t pieceRecords = std::max<int64_t>(chunk / recordSize, 1);
  InputStream in(options.stream);
  std::optional<InterruptCatcher> catcher;
  if (options.follow) catcher.emplace();
  Output out("");
  if (render.format == Format::Table)
    out.text() = block.m_szBlockName + " real-time records, in the order received\n\n";
  Warnings warnings;
  RecordWriter writer(out, session.definition->tran.getTrCode(), render, warnings);
  writer.beginBlock(proc, -1, true);  // a stream of records, whatever the block's repeat
  if (options.follow) out.flush();
  Progress progress(!options.quiet && !options.follow, in.size());
  std::string buf;
  int64_t taken = 0, total = 0;
  while (!in.atEnd() && g_interrupted == 0) {
    const size_t want = static_cast<size_t>(pieceRecords * recordSize) - buf.size();
    total += static_cast<int64_t>(options.follow ? in.readArrived(buf, want, 50) : in.read(buf, want));
    const int64_t records = static_cast<int64_t>(buf.size()) / recordSize;
    if (records == 0) continue;
    writer.records(RecordView(block, buf.data(), records * recordSize), taken);
    taken += records;
    buf.erase(0, static_cast<size_t>(records * recordSize));
    if (options.follow) out.flush();
    progress.update(total, taken);
  }
  writer.endBlock();
  writer.finish();
  progress.clear();
  out.finish();
  warnings.close();
  if (!buf.empty() && g_interrupted == 0)
    throw Failure{kExitData, notWhole(in, total, recordSize, block.m_szBlockName)};
  if (!buf.empty())
    std::cerr << "blockproc: stopped; the last " << withThousands(static_cast<int64_t>(buf.size()))
              << " bytes are not yet a whole record\n";
  return warnings.count() > 0 ? kExitData : kExitOk;
}

}  // namespace

int runRealtime(const RealtimeOptions& options) {
  const RenderOptions render{parseFormat(options.format), options.raw, options.showSecrets};
  const Session session = openSession(options.common, options.stream);
  KXBlockDataProc* proc = session.proc->findBlockProc(options.block);
  if (proc == nullptr)
    throw Failure{kExitUsage,
                  "no block named '" + options.block + "'; the definition has " + blockNames(*session.proc)};
  const BlockInfo& block = *proc->getBlockInfo();
  const int64_t recordSize = block.getRecordMemSize();
  if (recordSize <= 0) throw Failure{kExitData, "block " + block.m_szBlockName + " has no bytes to a record"};
  if (options.follow || options.order == "arrival") {
    if (options.order == "newest" && options.orderGiven)
      throw Failure{kExitUsage, "--follow shows records as they arrive; it goes with --order arrival"};
    if (options.keep > 0)
      throw Failure{kExitUsage, "--keep keeps the newest records; it goes with --order newest"};
    return showInArrivalOrder(options, render, session, *proc);
  }

  InputStream in(options.stream);
  in.makeSeekable();
  const int64_t size = in.size(), records = size / recordSize;
  const std::string uneven = notWhole(in, size, recordSize, block.m_szBlockName);
  if (size % recordSize != 0) {
    // Said before any record: records read at the wrong size are garbage, a cut capture's are not.
    bool cutShort = false;
    const std::string advice =
        layoutAdvice(session, in.map(), check::DataKind::Stream, options.block, cutShort) + "\n  (" +
        checkCommand(options.common, options.stream, check::DataKind::Stream, options.block) +
        " shows the evidence)";
    if (!cutShort) throw Failure{kExitData, uneven + advice};
    std::cerr << "blockproc: " << printable(uneven + advice, true) << "\n  (its whole records follow)\n";
  }
  const int64_t shown = options.keep > 0 ? std::min<int64_t>(options.keep, records) : records;
  const int64_t chunk = options.chunkBytes > 0 ? options.chunkBytes : kDefaultChunkBytes;
  const int64_t pieceRecords = pieceBytes(chunk, options.jobs, recordSize) / recordSize;  // one thread's

  Output out("");
  if (render.format == Format::Table)
    out.text() = printable(block.m_szBlockName) + " real-time records, newest first (" +
                 withThousands(shown) + " of " + withThousands(records) + " in the stream)\n\n";
  Warnings warnings;
  RecordWriter writer(out, session.definition->tran.getTrCode(), render, warnings);
  writer.beginBlock(*proc, shown, true);  // a stream of records, whatever the block's repeat
  Progress progress(!options.quiet, shown * recordSize);
  // With --jobs, the pieces are read newest first while the threads decode the ones read before.
  std::optional<RecordWriter::Pieces> pieces;
  if (options.jobs > 1) pieces.emplace(writer, options.jobs);
  std::string batch;
  const int64_t oldest = records - shown;
  for (int64_t end = records; end > oldest;) {
    const int64_t begin = std::max(oldest, end - pieceRecords);
    const int64_t piece = (end - begin) * recordSize;
    if (pieces) {
      in.readAt(pieces->buffer(static_cast<size_t>(piece)), static_cast<size_t>(piece), begin * recordSize);
      pieces->submit(piece, records - end, true);
    } else {
      batch.resize(static_cast<size_t>(piece));
      in.readAt(batch.data(), batch.size(), begin * recordSize);
      writer.records(RecordView(block, batch.data(), piece, true), records - end);
    }
    end = begin;
    progress.update((records - end) * recordSize, records - end);
  }
  if (pieces) pieces->finish();
  writer.endBlock();
  writer.finish();
  progress.clear();
  out.finish();
  warnings.close();
  if (size % recordSize != 0) throw Failure{kExitData, uneven};
  return warnings.count() > 0 ? kExitData : kExitOk;
}

}  // namespace blockproc::cli
