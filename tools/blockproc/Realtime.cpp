// The realtime subcommand: a stream of real-time records fed in front of each other, shown newest first.

#include <limits>

#include "Cli.h"

namespace blockproc::cli {

namespace {

constexpr int64_t kMaxKeepBytes = int64_t{64} << 20;

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

  const std::string stream = readInput(options.stream);
  const auto size = static_cast<int64_t>(stream.size());
  if (recordSize <= 0 || size % recordSize != 0)
    throw Failure{kExitData, sourceName(options.stream) + ": the stream holds " + withThousands(size) +
                                 " bytes, not a whole number of " + withThousands(recordSize) + "-byte " +
                                 block.m_szBlockName + " records"};
  if (size > std::numeric_limits<int32_t>::max())
    throw Failure{kExitData,
                  sourceName(options.stream) + ": a stream of more than 2 GiB is more than this tool takes"};
  const int64_t records = size / recordSize;
  const int64_t keep = options.keep > 0 ? options.keep : std::max<int64_t>(records, 1);
  if (keep * recordSize > kMaxKeepBytes)
    throw Failure{kExitUsage, "keeping " + withThousands(keep) + " records of " + withThousands(recordSize) +
                                  " bytes needs more than 64 MiB; give a smaller --keep"};

  // A buffer of `keep` laid-out records that fills from its end: record 0 is always the newest.
  block.setRepeat(static_cast<int32_t>(keep));
  proc->DefaultMemory();
  proc->initRealBufferIndex();
  for (int64_t i = std::max<int64_t>(records - keep, 0); i < records; ++i) {
    if (!proc->insertRealData(stream.data(), static_cast<int32_t>(i * recordSize),
                              static_cast<int32_t>(recordSize)))
      throw Failure{kExitData,
                    sourceName(options.stream) + ": record " + withThousands(i) + " could not be taken"};
  }

  Output out("");
  if (render.format == Format::Table)
    out.text() = block.m_szBlockName + " real-time records, newest first (" +
                 withThousands(proc->getValidCount()) + " of " + withThousands(records) +
                 " in the stream)\n\n";
  Warnings warnings;
  renderBlocks(out, session.definition->tran.getTrCode(), {proc}, render, warnings);
  out.finish();
  warnings.close();
  return warnings.count() > 0 ? kExitData : kExitOk;
}

}  // namespace blockproc::cli
