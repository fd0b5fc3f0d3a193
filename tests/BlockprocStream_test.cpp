// The tool reading a reply's count="rest" block and a real-time stream a piece at a time: the output is the
// output of reading them whole, in every format and from a pipe, and what is wrong with the end of the data
// is a data error after the records before it are written.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "../bench/QuoteLayout.h"
#include "ToolRun.h"

namespace {

using tooltest::kSource;
using tooltest::Outcome;
using tooltest::readFile;
using tooltest::tempPath;
using tooltest::writeTemp;

// Runs the tool in the source directory; `pipe`, when given, is a file fed through a pipe.
Outcome run(const std::string& args, const std::string& pipe = "") {
  return tooltest::runTool(args, pipe.empty() ? "" : "cat '" + pipe + "' | ", writeTemp("in", ""));
}

// 300 quote records (36,000 bytes): a piece of one record, or of a few kilobytes, makes many pieces.
struct Capture {
  std::string records, def, reply;
  Capture() {
    blockproc::quote::Dice dice;
    for (int i = 0; i < 300; ++i) records += blockproc::quote::quoteRecord(dice);
    def = writeTemp("quotes.xml", blockproc::quote::definitionXml(1000));
    reply = writeTemp("quotes.bin", records);
  }
};

const Capture& capture() {
  static const Capture c;
  return c;
}

const char* const kFormats[] = {"table", "json", "jsonl", "csv", "long", "table --raw", "json --raw"};
const std::string kWhole = " --chunk-bytes 1073741824";

TEST(BlockprocStream, ReadsInPiecesWhatItReadsWhole) {
  const Capture& c = capture();
  for (const std::string format : kFormats) {
    const std::string decode = "decode '" + c.def + "' '" + c.reply + "' --format " + format;
    const Outcome whole = run(decode + kWhole);
    ASSERT_EQ(whole.code, 0) << format << whole.err;
    for (const char* piece :
         {" --chunk-bytes 1", " --chunk-bytes 1000", " --chunk-bytes 4096", " --chunk-bytes 1000 --jobs 3"}) {
      const Outcome pieces = run(decode + piece);
      EXPECT_EQ(pieces.code, 0) << format << piece << pieces.err;
      EXPECT_EQ(pieces.out, whole.out) << format << piece;
    }
    // From a pipe the size is not known ahead: a table gives the record count after the records instead.
    for (const char* jobs : {"", " --jobs 2"}) {
      const Outcome piped =
          run("decode '" + c.def + "' - --format " + format + " --chunk-bytes 1000" + jobs, c.reply);
      if (!format.starts_with("table")) {
        EXPECT_EQ(piped.out, whole.out) << format << jobs;
      }
    }
    const std::string realtime =
        "realtime '" + c.def + "' '" + c.reply + "' --block OutBlock1 --format " + format;
    const Outcome newest = run(realtime + kWhole);
    ASSERT_EQ(newest.code, 0) << format << newest.err;
    EXPECT_EQ(run(realtime + " --chunk-bytes 1000").out, newest.out) << format;
    EXPECT_EQ(run(realtime + " --chunk-bytes 1000 --jobs 2").out, newest.out) << format;
    EXPECT_EQ(
        run("realtime '" + c.def + "' - --block OutBlock1 --chunk-bytes 500 --format " + format, c.reply).out,
        newest.out)
        << format;
  }
  const Outcome table = run("decode '" + c.def + "' - --chunk-bytes 1000", c.reply);
  EXPECT_NE(table.out.find("OutBlock1:\n"), std::string::npos);
  EXPECT_TRUE(table.out.ends_with("\n300 records\n")) << table.out.substr(table.out.size() - 40);
}

// Threads decoding pieces side by side report bad bytes as one thread does: the same lines, in order.
TEST(BlockprocStream, WarnsInRecordOrderWithJobs) {
  std::string records = capture().records;
  // 250 of the 300 records: a piece of --jobs then holds more than the 100 warnings shown.
  for (size_t record = 0; record < 250; ++record) records[record * 120 + 12] = '\xFF';  // hname
  const std::string reply = writeTemp("bad.bin", records);
  for (const char* format : {"json", "table"}) {
    const std::string decode =
        "decode '" + capture().def + "' '" + reply + "' --format " + std::string(format);
    const Outcome one = run(decode), three = run(decode + " --jobs 3");
    EXPECT_EQ(one.code, 1);
    EXPECT_EQ(three.code, 1);
    EXPECT_EQ(three.out, one.out) << format;
    EXPECT_EQ(three.err, one.err) << format;
    EXPECT_NE(one.err.find("record 99, field hname: byte 0 (0xFF)"), std::string::npos) << one.err;
    // The closing line is a whole line: the shell prompt does not follow on it.
    EXPECT_TRUE(one.err.ends_with("\nblockproc: warning: 150 more not shown\n")) << one.err;
  }
}

TEST(BlockprocStream, WritesTheRecordsBeforeWhatIsWrongWithTheEnd) {
  const Capture& c = capture();
  const std::string hint = "\n  (hexdump shows how the bytes fall into the blocks)\n";
  const std::string csv = run("decode '" + c.def + "' '" + c.reply + "' --format csv").out;
  const auto firstLines = [&](int lines) {
    size_t end = 0;
    for (int i = 0; i < lines; ++i) end = csv.find('\n', end) + 1;
    return csv.substr(0, end);
  };
  // A truncated last record.
  const std::string truncated = writeTemp("truncated.bin", c.records + "xyz");
  for (const std::string& source : {"'" + truncated + "'", std::string("-")}) {
    for (const std::string jobs : {"", " --jobs 2"}) {
      const Outcome r = run("decode '" + c.def + "' " + source + " --format csv --chunk-bytes 1000" + jobs,
                            source == "-" ? truncated : "");
      EXPECT_EQ(r.code, 1) << source << jobs;
      EXPECT_EQ(r.out, csv) << source << jobs;
      // From a file, whose size is known, the cut is said before the records; a pipe's only after them.
      const std::string name = source == "-" ? "standard input" : truncated;
      const std::string notWhole =
          "blockproc: " + name +
          ": block OutBlock1 takes the rest of the reply, 36,003 bytes, which is not a "
          "whole number of 120-byte records";
      const std::string early =
          notWhole +
          "\n  likeliest: the data is cut short 3 bytes into a record (99.9% of sampled "
          "values read cleanly with it)\n  (blockproc check " +
          c.def + " " + truncated + " --block OutBlock1 shows the evidence)\n" +
          "  (its whole records follow)\n";
      EXPECT_EQ(r.err, (source == "-" ? "" : early) + notWhole + hint) << jobs;
    }
  }
  // More records than the block's repeat, from a pipe: the first 100 are written, with --jobs too.
  const std::string capped = writeTemp("capped.xml", blockproc::quote::definitionXml(100));
  for (const std::string jobs : {"", " --jobs 2", " --jobs 3"}) {
    const Outcome r = run("decode '" + capped + "' - --format csv --chunk-bytes 1000" + jobs, c.reply);
    EXPECT_EQ(r.code, 1) << jobs;
    EXPECT_EQ(r.out, firstLines(101)) << jobs;
    EXPECT_EQ(r.err,
              "blockproc: standard input: block OutBlock1 holds at most 100 records (its repeat); the reply "
              "has 300 records" +
                  hint)
        << jobs;
  }
  // A stream that ends inside a record: its whole records, newest first, then the error.
  const Outcome rt =
      run("realtime '" + c.def + "' '" + truncated + "' --block OutBlock1 --format csv --chunk-bytes 1000");
  EXPECT_EQ(rt.code, 1);
  EXPECT_EQ(rt.out, run("realtime '" + c.def + "' '" + c.reply + "' --block OutBlock1 --format csv").out);
  const std::string notWhole =
      "blockproc: " + truncated +
      ": the stream holds 36,003 bytes, not a whole number of 120-byte OutBlock1 records";
  EXPECT_EQ(rt.err, notWhole +
                        "\n  likeliest: the data is cut short 3 bytes into a record (99.9% of sampled values "
                        "read cleanly with it)\n  (blockproc check " +
                        c.def + " " + truncated + " --stream --block OutBlock1 shows the evidence)\n" +
                        "  (its whole records follow)\n" + notWhole + "\n");
}

}  // namespace
