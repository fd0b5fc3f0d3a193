// The tool's layout check and the commands that lead to it: `check` on a capture whose records are longer
// than the definition says, cut short, or as defined; the advice realtime gives before any record; hexdump
// labelling the first records of a capture that is not whole records.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "../bench/QuoteLayout.h"
#include "ToolRun.h"

namespace {

using namespace tooltest;

// 1,000 quote records as generated, the same with two more digits in front of each price, and cut short.
struct Captures {
  std::string def, whole, grown, cut;
  Captures() {
    blockproc::quote::Dice dice;
    std::string records, longer;
    for (int i = 0; i < 1000; ++i) {
      const std::string r = blockproc::quote::quoteRecord(dice);
      records += r;
      longer += r.substr(0, 52) + "00" + r.substr(52);
    }
    def = writeTemp("quotes.xml", blockproc::quote::definitionXml(1000));
    whole = writeTemp("whole.bin", records);
    grown = writeTemp("grown.bin", longer);
    cut = writeTemp("cut.bin", records.substr(0, records.size() - 50));
  }
};

const Captures& captures() {
  static const Captures c;
  return c;
}

TEST(BlockprocCheck, NamesTheFieldThatGrewWithItsEvidence) {
  const Captures& c = captures();
  const Outcome r = run("check '" + c.def + "' '" + c.grown + "' --stream --block OutBlock1");
  EXPECT_EQ(r.code, 1) << r.err;
  EXPECT_NE(r.out.find("122-byte records would make it exactly 1,000 records"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("  1. field `price` is 2 bytes longer"), std::string::npos) << r.out;
  EXPECT_NE(
      r.out.find("with `price` 12 bytes long (records of 122 bytes: 1,000), 100% of 1,000 `price` values"),
      std::string::npos)
      << r.out;
  // The same as JSON for tools, with the bytes of the field in the first records.
  const Outcome j = run("check '" + c.def + "' '" + c.grown + "' --stream --block OutBlock1 --format json");
  EXPECT_EQ(j.code, 1);
  const auto doc = nlohmann::json::parse(j.out);
  EXPECT_FALSE(doc["fits"].get<bool>());
  EXPECT_EQ(doc["findings"][0]["kind"], "field-longer");
  EXPECT_EQ(doc["findings"][0]["field"], "price");
  EXPECT_EQ(doc["findings"][0]["delta"], 2);
  EXPECT_EQ(doc["findings"][0]["ranges"][1], nlohmann::json({{"offset", 122 + 52}, {"length", 12}}));
  EXPECT_EQ(doc["size"]["fits"][0], nlohmann::json({{"record_size", 122}, {"records", 1000}}));
}

TEST(BlockprocCheck, ExitsByWhetherTheDataFits) {
  const Captures& c = captures();
  const struct {
    std::string args;
    int code;
    std::string says;
  } cases[] = {
      {"'" + c.whole + "' --stream --block OutBlock1", 0, "fits: as defined (records of 120 bytes: 1,000)"},
      {"'" + c.whole + "'", 0, "fits: as defined"},  // the reply of the rest block
      {"'" + c.cut + "' --stream --block OutBlock1", 1, "1. the data is cut short 70 bytes into a record"},
      {"'" + c.whole + "' --stream", 2, "name it with --block"},
      {"'" + c.whole + "' --stream --block Nope", 2, "no block named `Nope`"},
      {"'" + c.whole + "' --request --stream --block OutBlock1", 2, "excludes"},
  };
  for (const auto& k : cases) {
    const Outcome r = run("check '" + c.def + "' " + k.args);
    EXPECT_EQ(r.code, k.code) << k.args << "\n" << r.err;
    EXPECT_NE((r.out + r.err).find(k.says), std::string::npos) << k.args << "\n" << r.out << r.err;
  }
}

// A stream read at the wrong record size is refused before any record, naming the likely change.
TEST(BlockprocCheck, RealtimeSaysWhatFitsBeforeAnyRecord) {
  const Captures& c = captures();
  const Outcome r = run("realtime '" + c.def + "' '" + c.grown + "' --block OutBlock1 -q");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err,
            "blockproc: " + c.grown +
                ": the stream holds 122,000 bytes, not a whole number of 120-byte OutBlock1 records; "
                "122-byte records would make it exactly 1,000 records\n  likeliest: field `price` is 2 "
                "bytes longer (99.9% of sampled values read cleanly with it; 28% of `price` values as "
                "defined)\n  (blockproc check " +
                c.def + " " + c.grown + " --stream --block OutBlock1 shows the evidence)\n");
}

TEST(BlockprocCheck, HexdumpLabelsTheFirstRecordsOfDataThatIsNotWholeRecords) {
  const Captures& c = captures();
  for (const std::string& how : {std::string(), std::string(" --stream --block OutBlock1")}) {
    const Outcome r = run("hexdump '" + c.def + "' '" + c.cut + "' --records 2" + how);
    EXPECT_EQ(r.code, 1) << how;
    EXPECT_NE(r.out.find("OutBlock1[1].flag"), std::string::npos) << how;
    EXPECT_EQ(r.out.find("OutBlock1[2]"), std::string::npos) << how;
    EXPECT_NE(
        r.out.find("\n... 997 more OutBlock1 records (119,640 bytes) not shown; --records N shows more\n"
                   "0001d448  "),
        std::string::npos)
        << how << r.out;
    EXPECT_NE(r.out.find("(left over: not a whole OutBlock1 record)"), std::string::npos) << how;
    EXPECT_EQ(r.out.find("(not read)"), std::string::npos) << how;
    EXPECT_NE(r.err.find("likeliest: the data is cut short 70 bytes into a record"), std::string::npos)
        << r.err;
  }
  // The default shows 100 records of a block.
  const Outcome d = run("hexdump '" + c.def + "' '" + c.whole + "'");
  EXPECT_EQ(d.code, 0) << d.err;
  EXPECT_NE(d.out.find("OutBlock1[99].flag"), std::string::npos);
  EXPECT_NE(d.out.find("... 900 more OutBlock1 records (108,000 bytes) not shown"), std::string::npos);
}

}  // namespace
