// The realtime subcommand: a stream of real-time records fed in front of each other, shown newest first.
//
// The stream is read backwards a piece at a time (standard input is first copied to a temporary file): each
// piece is taken in reverse, so that its newest record comes first, exactly as the records stand after
// feeding them one by one in front of each other.

#include <algorithm>
#include <iostream>

#include "Cli.h"

namespace blockproc::cli {

namespace {

std::string blockNames(const TransactionProc& proc) {
  std::string list;
  for (const auto& block : proc.definition().tran.m_BlockInfokList)
    list += (list.empty() ? "" : ", ") + block->m_szBlockName;
  return list;
}

}  // namespace

int runRealtime(const RealtimeOptions& options) {
  const RenderOptions render{parseFormat(options.format), options.raw};
  const Session session = openSession(options.common, options.stream);
  KXBlockDataProc* proc = session.proc->findBlockProc(options.block);
  if (proc == nullptr)
    throw Failure{kExitUsage,
                  "no block named '" + options.block + "'; the definition has " + blockNames(*session.proc)};
  BlockInfo& block = *proc->getBlockInfo();
  const int64_t recordSize = block.getRecordMemSize();
  if (recordSize <= 0) throw Failure{kExitData, "block " + block.m_szBlockName + " has no bytes to a record"};

  InputStream in(options.stream);
  in.makeSeekable();
  const int64_t size = in.size(), records = size / recordSize;
  const std::string notWhole = in.name() + ": the stream holds " + withThousands(size) +
                               " bytes, not a whole number of " + withThousands(recordSize) + "-byte " +
                               block.m_szBlockName + " records";
  if (size % recordSize != 0) {
    // Said before any record: records read at the wrong size are garbage, a cut capture's are not.
    bool cutShort = false;
    const std::string advice =
        layoutAdvice(session, in.map(), check::DataKind::Stream, options.block, cutShort) + "\n  (" +
        checkCommand(options.common, options.stream, check::DataKind::Stream, options.block) +
        " shows the evidence)";
    if (!cutShort) throw Failure{kExitData, notWhole + advice};
    std::cerr << "blockproc: " << notWhole << advice << "\n  (its whole records follow)\n";
  }
  const int64_t shown = options.keep > 0 ? std::min<int64_t>(options.keep, records) : records;
  const int64_t chunk = options.chunkBytes > 0 ? options.chunkBytes : kDefaultChunkBytes;
  const int64_t pieceRecords = std::max<int64_t>(chunk / options.jobs / recordSize, 1);  // one thread's
  // The block is laid out as repeated, one piece of records at most.
  block.setRepeat(static_cast<int32_t>(std::clamp<int64_t>(std::min(shown, pieceRecords), 1, INT32_MAX)));
  proc->DefaultMemory();

  Output out("");
  if (render.format == Format::Table)
    out.text() = block.m_szBlockName + " real-time records, newest first (" + withThousands(shown) + " of " +
                 withThousands(records) + " in the stream)\n\n";
  Warnings warnings;
  RecordWriter writer(out, session.definition->tran.getTrCode(), render, warnings);
  writer.beginBlock(*proc, shown);
  Progress progress(!options.quiet, shown * recordSize);
  // With --jobs, each round reads one piece per thread, the newest piece first.
  std::string batch;
  const int64_t oldest = records - shown;
  for (int64_t end = records; end > oldest;) {
    const int64_t begin = std::max(oldest, end - pieceRecords * options.jobs);
    batch.resize(static_cast<size_t>((end - begin) * recordSize));
    in.readAt(batch.data(), batch.size(), begin * recordSize);
    if (options.jobs > 1) {
      std::vector<RecordWriter::Piece> pieces;
      for (int64_t top = end; top > begin; top -= pieceRecords) {
        const int64_t bottom = std::max(begin, top - pieceRecords);
        pieces.push_back({batch.data() + (bottom - begin) * recordSize,
                          static_cast<int32_t>((top - bottom) * recordSize), records - top, true});
      }
      writer.recordsInParallel(*proc, pieces);
    } else {
      proc->setDataReverse(batch.data(), 0, static_cast<int32_t>(batch.size()));
      writer.records(*proc, records - end);
    }
    end = begin;
    progress.update((records - end) * recordSize, records - end);
  }
  writer.endBlock();
  writer.finish();
  progress.clear();
  out.finish();
  warnings.close();
  if (size % recordSize != 0) throw Failure{kExitData, notWhole};
  return warnings.count() > 0 ? kExitData : kExitOk;
}

}  // namespace blockproc::cli
