// The definition-file loader and the transaction parent's reply split on arbitrary files and replies.
//
// The input is a definition file, optionally followed by "\n--reply--\n" and the bytes of a reply. A refused
// file must come with a message and nothing loaded. A loaded one must keep the format's layout rules (names
// unique in their block, fields of positive length inside the record and not overlapping, at most 64 MiB per
// block); it is then handed to the transaction parent, which splits the reply among its output blocks: the
// slices must lie inside the reply and follow each other, and every field of every received record must read
// as valid UTF-8. The reply the parent builds from its defaults must split back without a remainder. The
// layout check reads the same bytes as a reply, a request and a stream of each block: every finding's
// shares lie between 0 and 1 and its byte ranges inside the bytes.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/engine/DefinitionLoader.h"
#include "blockproc/engine/LayoutCheck.h"
#include "blockproc/engine/TransactionProc.h"

namespace blockproc::fuzz {
namespace {

constexpr std::string_view kReplyMark = "\n--reply--\n";
constexpr int64_t kLayoutLimit = int64_t{64} << 20;  // the format's bound per block held whole
constexpr int64_t kLayoutBudget = int64_t{8} << 20;  // what this harness lays out per input, for speed

void checkBlock(const BlockInfo& block) {
  const int64_t r = block.getRecordMemSize();
  require(r > 0, "a loaded block without record bytes");
  require(block.getFieldCount() > 0, "a loaded block without fields");
  std::set<std::string> names;
  std::vector<std::pair<int64_t, int64_t>> extents;
  for (int32_t i = 0; i < block.getFieldCount(); ++i) {
    const FieldInfo* f = block.getFieldInfoFromIndex(i);
    require(f != nullptr, "field position without field");
    require(names.insert(f->szFieldName).second, "two fields of one name in a block");
    require(f->nDataType >= kFieldText && f->nDataType <= kFieldSInt64, "a loaded field of unknown type");
    require(f->nLength > 0 && f->nDataPos >= 0, "a loaded field without bytes");
    const int64_t end = int64_t{f->nDataPos} + f->nLength + (block.carriesAttr(*f) ? 1 : 0);
    require(end <= r, "a loaded field past its record");
    extents.emplace_back(f->nDataPos, end);
  }
  std::sort(extents.begin(), extents.end());
  for (size_t i = 1; i < extents.size(); ++i)
    require(extents[i - 1].second <= extents[i].first, "fields overlap");
  const int64_t records = block.isOccursBlock() ? block.m_nRepeatCount : 1;
  // A rest block is read a piece at a time: its repeat caps the records, it lays nothing out at once.
  const bool rest = block.isOccursBlock() && block.m_nRecordLenApplyType == RCL_RESTDATA;
  require(records >= 1 && (rest || records * r <= kLayoutLimit), "a loaded block beyond the layout bound");
}

void readAll(const KXBlockDataProc& proc) {
  const BlockInfo* block = proc.getBlockInfo();
  const int32_t records = std::min(proc.getValidCount(), 64);
  for (int32_t i = 0; i < records; ++i) {
    for (int32_t j = 0; j < block->getFieldCount(); ++j) {
      const FieldInfo* f = block->getFieldInfoFromIndex(j);
      requireUtf8(proc.getFieldDataFromInfo(f, i), "a received field read as text that is not UTF-8");
      FieldData data;
      proc.getFieldDataFromInfo(f, i, data);
      requireUtf8(data.strData, "a received field filled text that is not UTF-8");
    }
  }
  const auto all = proc.getBlockData();
  if (all) requireUtf8(*all, "block data is not UTF-8");
}

void checkReply(TransactionProc& parent, std::string_view reply) {
  // An exact-size copy: a read one byte past the reply is caught.
  std::unique_ptr<uint8_t[]> bytes(new uint8_t[reply.size() + (reply.empty() ? 1 : 0)]);
  if (!reply.empty()) std::memcpy(bytes.get(), reply.data(), reply.size());
  const int64_t size = static_cast<int64_t>(reply.size());
  const auto result = parent.receiveReply(bytes.get(), size);
  if (std::getenv("BLOCKPROC_FUZZ_TRACE") != nullptr)
    std::fprintf(stderr, "reply: %s (%zu blocks)\n", result.ok ? "ok" : result.message.c_str(),
                 result.slices.size());
  require(result.ok == result.message.empty(), "a reply result's message disagrees with its status");
  require(result.used >= 0 && result.used <= size, "reply bytes used outside the reply");
  if (result.ok) require(result.used == size, "an accepted reply with bytes left over");
  int64_t at = 0;
  for (const auto& slice : result.slices) {
    const auto& outputs = parent.outputProcs();
    require(std::find(outputs.begin(), outputs.end(), slice.proc) != outputs.end(),
            "slice of no output block");
    if (slice.countOffset >= 0) {
      require(slice.countOffset >= at && slice.countLength > 0, "count prefix out of order");
      require(slice.countOffset + slice.countLength <= slice.offset, "count prefix overlaps its records");
    }
    require(slice.offset >= at && slice.length >= 0 && slice.offset + slice.length <= size, "slice outside");
    require(slice.records >= 0, "slice with a negative record count");
    at = slice.offset + slice.length;
  }
  for (KXBlockDataProc* proc : parent.outputProcs()) readAll(*proc);
}

void checkLayoutOf(const TransactionDefinition& definition, std::string_view data) {
  std::vector<check::CheckOptions> runs(2);
  runs[1].kind = check::DataKind::Request;
  for (const auto& block : definition.tran.m_BlockInfokList) {
    runs.emplace_back();
    runs.back().kind = check::DataKind::Stream;
    runs.back().block = block->m_szBlockName;
  }
  for (check::CheckOptions& options : runs) {
    options.sampleRecords = 20;
    options.maxDelta = 3;
    options.encoding = definition.encoding;
    const check::CheckResult result = check::checkLayout(definition, data, options);
    require(result.error.empty() || result.findings.empty(), "a refused check with findings");
    for (const check::Finding& f : result.findings) {
      require(f.score >= 0 && f.score <= 1 && f.fieldScore >= 0 && f.fieldScore <= 1, "a share outside 0..1");
      for (const check::ByteRange& r : f.ranges)
        require(r.offset >= 0 && r.length >= 0 && r.offset + r.length <= static_cast<int64_t>(data.size()),
                "a finding's bytes outside the data");
    }
  }
}

void run(std::string_view definitionText, std::string_view reply, bool hasReply) {
  // BLOCKPROC_FUZZ_TRACE=1 in the environment prints what the load and the reply split said.
  static const bool trace = std::getenv("BLOCKPROC_FUZZ_TRACE") != nullptr;
  DefinitionResult loaded = DefinitionLoader::loadString(definitionText, "fuzz.xml");
  require(!loaded.description().empty(), "a load result without a description");
  if (trace) std::fprintf(stderr, "load: %s\n", loaded.description().c_str());
  if (!loaded) {
    require(loaded.definition == nullptr, "a refused file handed out a definition");
    require(!loaded.message.empty() && loaded.line >= 0, "a refused file without a reason");
    return;
  }
  require(loaded.definition != nullptr && loaded.message.empty(), "an accepted file without a definition");
  TransactionDefinition& definition = *loaded.definition;
  int64_t layout = 0;
  for (const auto& block : definition.tran.m_BlockInfokList) {
    checkBlock(*block);
    layout += int64_t{block->getRecordMemSize()} * (block->isOccursBlock() ? block->m_nRepeatCount : 1);
  }
  if (layout > kLayoutBudget) return;

  TransactionProc parent(definition);
  if (hasReply) checkReply(parent, reply);
  if (hasReply) checkLayoutOf(definition, reply);

  const auto defaults = parent.buildReply({});
  require(defaults.ok == defaults.message.empty(), "a build result's message disagrees with its status");
  if (defaults.ok) {
    const auto back = parent.receiveReply(defaults.bytes.data(), static_cast<int64_t>(defaults.bytes.size()));
    require(back.ok, "the reply built from defaults does not split back");
  }
  const auto request = parent.buildRequest({});
  require(request.ok == request.message.empty(), "a request result's message disagrees with its status");
}

}  // namespace
}  // namespace blockproc::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t mark = input.find(blockproc::fuzz::kReplyMark);
  if (mark == std::string_view::npos) {
    blockproc::fuzz::run(input, {}, false);
  } else {
    blockproc::fuzz::run(input.substr(0, mark), input.substr(mark + blockproc::fuzz::kReplyMark.size()),
                         true);
  }
  return 0;
}
