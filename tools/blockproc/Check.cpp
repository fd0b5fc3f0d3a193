// The check subcommand: reads data against the definition and says, most likely first, what about the
// layout would make the bytes read as ordinary values; and the same advice for the commands that meet data
// that is not whole records.

#include <nlohmann/json.hpp>

#include <algorithm>

#include "Cli.h"
#include "blockproc/engine/LayoutCheck.h"

namespace blockproc::cli {

namespace {

using check::CheckResult;
using check::DataKind;
using check::Finding;
using check::FindingKind;

std::string percentOf(double share) {
  return check::percentText(share);
}

std::string kindWord(DataKind kind) {
  return kind == DataKind::Stream ? "stream" : kind == DataKind::Request ? "request" : "reply";
}

// What the size says: whole records or not, and the record sizes that would make them whole.
std::string sizeText(const check::SizeFinding& size) {
  std::string text;
  if (size.whole) return "the data is whole records as defined";
  if (!size.block.empty() && size.recordSize > 0 && (size.leftOver > 0 || size.missing == 0)) {
    text = "not a whole number of " + withThousands(size.recordSize) + "-byte " + printable(size.block) +
           " records: " + internal::counted(size.records, "record") + " and " +
           internal::counted(size.leftOver, "byte") + " over";
    for (size_t i = 0; i < size.fits.size(); ++i)
      text += (i == 0 ? "; " + withThousands(size.fits[i].recordSize) + "-byte records would make it exactly "
                      : ", " + withThousands(size.fits[i].recordSize) + " bytes: ") +
              internal::counted(size.fits[i].records, "record");
    return text;
  }
  if (size.missing > 0)
    return "the data ends " + internal::counted(size.missing, "byte") + " short of what its blocks need";
  return internal::counted(size.leftOver, "byte") + " past the blocks the definition lays out";
}

std::string rangesText(const Finding& f) {
  std::string text;
  for (const check::ByteRange& r : f.ranges) {
    text += text.empty() ? "" : ", ";
    text += r.length > 0 ? withThousands(r.offset) + "-" + withThousands(r.offset + r.length - 1)
                         : "at " + withThousands(r.offset);
  }
  return text;
}

void appendFieldTable(std::string& out, const CheckResult& result) {
  std::vector<std::vector<std::string>> rows;
  for (const check::FieldScore& fs : result.fields) {
    std::string note;
    if (fs.firstBad >= 0)
      note = "first misread in record " + withThousands(fs.firstBad) + " (byte " +
             withThousands(fs.firstBadOffset) + ")";
    if (fs.alwaysBlank)
      note = "always blank";
    else if (fs.oneValue && fs.sampled > 1)
      note = "always one value";
    rows.push_back({printable(fs.block) + "." + printable(fs.field),
                    withThousands(fs.offset) + "+" + withThousands(fs.length),
                    fs.sampled > 0 ? percentOf(fs.share()) : "-", note});
  }
  out += renderTable({"field", "bytes", "plausible", "note"}, {false, true, true, false}, rows);
}

std::string textReport(const CheckResult& result, const std::string& code, const CheckOptionsCli& options,
                       DataKind kind, int64_t size) {
  std::string out = code + " " + kindWord(kind) +
                    (options.block.empty() ? "" : " of " + printable(options.block)) + ": " +
                    internal::counted(size, "byte") + ", " +
                    internal::counted(result.sampledRecords, "record") + " sampled\n";
  out += "size: " + sizeText(result.size) + "\n";
  if (result.ok) {
    out += "fits: " + printable(result.findings.front().evidence) + "\n";
  } else {
    out += "\nmost likely first:\n";
    // A person reads the first few; JSON carries them all.
    constexpr size_t kShown = 5;
    for (size_t i = 0; i < result.findings.size() && i < kShown; ++i) {
      const Finding& f = result.findings[i];
      out += "  " + std::to_string(i + 1) + ". " + printable(check::describe(f)) + "  [" +
             percentOf(f.score) + " read cleanly]\n";
      out += "     " + printable(f.evidence) + "\n";
      if (!f.ranges.empty()) out += "     bytes " + rangesText(f) + "\n";
    }
  }
  out += "\nfields as defined:\n";
  appendFieldTable(out, result);
  return out;
}

nlohmann::ordered_json jsonReport(const CheckResult& result, DataKind kind, int64_t size) {
  using nlohmann::ordered_json;
  ordered_json size_ = {{"whole", result.size.whole},
                        {"block", result.size.block},
                        {"data_bytes", size},
                        {"record_size", result.size.recordSize},
                        {"records", result.size.records},
                        {"left_over", result.size.leftOver},
                        {"missing", result.size.missing},
                        {"fits", ordered_json::array()}};
  for (const auto& fit : result.size.fits)
    size_["fits"].push_back({{"record_size", fit.recordSize}, {"records", fit.records}});
  ordered_json findings = ordered_json::array();
  for (const Finding& f : result.findings) {
    ordered_json ranges = ordered_json::array();
    for (const auto& r : f.ranges) ranges.push_back({{"offset", r.offset}, {"length", r.length}});
    findings.push_back({{"kind", check::kindName(f.kind)},
                        {"block", f.block},
                        {"field", f.field},
                        {"delta", f.delta},
                        {"record_size", f.recordSize},
                        {"records", f.records},
                        {"score", f.score},
                        {"field_score", f.fieldScore},
                        {"defined_score", f.definedScore},
                        {"sampled", f.sampled},
                        {"summary", check::describe(f)},
                        {"evidence", f.evidence},
                        {"ranges", ranges}});
  }
  ordered_json fields = ordered_json::array();
  for (const check::FieldScore& fs : result.fields)
    fields.push_back({{"block", fs.block},
                      {"field", fs.field},
                      {"offset", fs.offset},
                      {"length", fs.length},
                      {"sampled", fs.sampled},
                      {"plausible", fs.plausible},
                      {"first_bad_record", fs.firstBad},
                      {"first_bad_offset", fs.firstBadOffset},
                      {"always_blank", fs.alwaysBlank},
                      {"one_value", fs.oneValue}});
  return {{"kind", kindWord(kind)}, {"fits", result.ok},    {"sampled_records", result.sampledRecords},
          {"size", size_},          {"findings", findings}, {"fields", fields}};
}

}  // namespace

// ---- shared with decode, realtime and hexdump
// ---------------------------------------------------------------

std::string checkCommand(const CommonOptions& common, const std::string& data, DataKind kind,
                         const std::string& block) {
  std::string command = "blockproc check " + common.definition + " " + data;
  if (kind == DataKind::Request) command += " --request";
  if (kind == DataKind::Stream) command += " --stream";
  if (!block.empty()) command += " --block " + block;
  return printable(command);
}

std::string layoutAdvice(const Session& session, std::string_view data, DataKind kind,
                         const std::string& block, bool& cutShort) {
  check::CheckOptions options;
  options.kind = kind;
  options.block = block;
  options.encoding = session.definition->encoding;
  options.maxFindings = 0;
  const CheckResult result = check::checkLayout(*session.definition, data, options);
  cutShort = false;
  // Advice the sample does not bear out is left unsaid.
  constexpr double kConvincing = 0.9;
  if (!result.error.empty() || result.findings.empty() || result.findings.front().kind == FindingKind::Fits ||
      result.findings.front().score < kConvincing)
    return {};
  const Finding& f = result.findings.front();
  cutShort = f.kind == FindingKind::CutShort;
  std::string text;
  const check::SizeFinding& size = result.size;
  if (!size.fits.empty())
    text += "; " + withThousands(size.fits.front().recordSize) + "-byte records would make it exactly " +
            internal::counted(size.fits.front().records, "record");
  text += "\n  likeliest: " + printable(check::describe(f)) + " (" + percentOf(f.score) +
          " of sampled values read cleanly with it";
  if (f.kind == FindingKind::FieldLonger || f.kind == FindingKind::FieldShorter)
    text += "; " + percentOf(f.definedScore) + " of `" + printable(f.field) + "` values as defined";
  if (f.alsoCut) text += "; the data would also be cut short";
  return text + ")";
}

int runCheck(const CheckOptionsCli& options) {
  const Session session = openSession(options.common, options.data);
  const DataKind kind = options.stream    ? DataKind::Stream
                        : options.request ? DataKind::Request
                                          : DataKind::Reply;
  if (kind == DataKind::Stream && options.block.empty())
    throw Failure{kExitUsage, "a stream holds the records of one block; name it with --block"};
  InputStream in(options.data);
  in.makeSeekable();
  const std::string_view data = in.map();
  check::CheckOptions checkOptions;
  checkOptions.kind = kind;
  checkOptions.block = options.block;
  checkOptions.encoding = session.definition->encoding;
  const CheckResult result = check::checkLayout(*session.definition, data, checkOptions);
  if (!result.error.empty()) throw Failure{kExitUsage, printable(result.error)};
  Output out("");
  const auto size = static_cast<int64_t>(data.size());
  if (options.format == "json")
    out.text() =
        jsonReport(result, kind, size).dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  else
    out.text() = textReport(result, session.definition->tran.getTrCode(), options, kind, size);
  out.finish();
  return result.ok ? kExitOk : kExitData;
}

}  // namespace blockproc::cli
