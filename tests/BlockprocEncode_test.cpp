// encode reading every form decode writes: replies, requests and real-time streams come back byte for byte
// once in encode's own form, on generated real-looking quotes read in pieces of any size; refusals name the
// input line with block, record and field; the fields left to their defaults are named, and --strict refuses
// them.

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

using namespace tooltest;

// A request block, a one-record reply block ahead of a count prefix, a block counted by a field, and a
// count="rest" block: every way a block's records are laid out.
const std::string kDefinition = R"(<transaction code='E1' occurslen='3'><input>
<block name='In'><field name='code' type='text' length='4'/><field name='qty' type='number' length='6' decimals='2'/></block>
<block name='InRows' repeat='5' count='prefix'><field name='k' type='text' length='2'/></block>
</input><output>
<block name='Head'><field name='name' type='text' length='8'/><field name='n' type='int16'/>
  <field name='px' type='number' length='9' decimals='2' attr='true'/><field name='d' type='double' decimals='2'/></block>
<block name='Prefixed' repeat='9' count='prefix'><field name='t' type='text' length='3'/><field name='v' type='sint64'/></block>
<block name='Counted' repeat='9' count='Head.n'><field name='c' type='number' length='4'/></block>
<block name='Rest' repeat='100000' count='rest'><field name='w' type='text' length='6'/><field name='f' type='float' decimals='1'/></block>
</output></transaction>)";

const std::string& definitionPath() {
  static const std::string path = writeTemp("def.xml", kDefinition);
  return path;
}

// Values with commas, quotes, line breaks, Hangul, negatives and blanks, for the reply above.
const std::string kReplyValues =
    R"({"Head": {"name": "a,\"b\"\n", "px": -12.5, "px@attr": "0x35", "d": 10300.92},
 "Prefixed": [{"t": "가", "v": -9007199254740993}, {"t": "", "v": 0}],
 "Counted": [{"c": 1}, {"c": null}, {"c": -999}],
 "Rest": [{"w": " lead", "f": -0.5}, {"w": "한글", "f": 3}, {"w": "x", "f": 1e3}]})";

const char* const kFormats[] = {"json", "jsonl", "long", "csv"};

struct Capture {
  std::string def, records;
  Capture() {
    blockproc::quote::Dice dice;
    for (int i = 0; i < 300; ++i) records += blockproc::quote::quoteRecord(dice);
    def = writeTemp("quotes.xml", blockproc::quote::definitionXml(1000));
  }
};

const Capture& capture() {
  static const Capture c;
  return c;
}

// decode (or realtime) in `format`, then encode of its output with `encodeArgs`, read `chunk` bytes at a
// time.
Outcome through(const std::string& decodeArgs, const std::string& format, const std::string& encodeArgs,
                const std::string& bytes, const std::string& chunk) {
  const Outcome shown = run(decodeArgs + " --format " + format, bytes);
  EXPECT_EQ(shown.code, 0) << decodeArgs << " " << format << "\n" << shown.err;
  return run(encodeArgs + " --format " + format + " --chunk-bytes " + chunk, shown.out);
}

TEST(BlockprocEncode, GivesBackTheBytesItWritesInEveryFormat) {
  const std::string def = "'" + definitionPath() + "'", quotes = "'" + capture().def + "'";
  const Outcome reply = run("encode " + def + " - --reply", kReplyValues);
  ASSERT_EQ(reply.code, 0) << reply.err;
  const Outcome request =
      run("encode " + def + " -", R"({"In": {"code": "AB", "qty": 1.5}, "InRows": [{"k": "x"}]})");
  ASSERT_EQ(request.code, 0) << request.err;
  // The generated quotes, as a reply and as a stream, first put into encode's own form.
  const std::string anyForm = capture().records;
  const Outcome quoteReply = run("encode " + quotes + " - --reply --format jsonl --quiet",
                                 run("decode " + quotes + " - --format jsonl", anyForm).out);
  ASSERT_EQ(quoteReply.code, 0) << quoteReply.err;
  const struct {
    std::string name, decode, encode, bytes;
    bool oneBlock;  // CSV holds it
  } cases[] = {
      {"reply", "decode " + def + " -", "encode " + def + " - --reply", reply.out, false},
      {"request", "decode " + def + " - --request", "encode " + def + " -", request.out, false},
      {"quote reply", "decode " + quotes + " -", "encode " + quotes + " - --reply", quoteReply.out, true},
      {"quote stream", "realtime " + quotes + " - --block OutBlock1 --order arrival",
       "encode " + quotes + " - --stream --block OutBlock1", quoteReply.out, true},
      {"stream of a one-record block", "realtime " + def + " - --block Head --order arrival",
       "encode " + def + " - --stream --block Head", reply.out.substr(0, 28) + reply.out.substr(0, 28),
       true}};
  for (const auto& c : cases)
    for (const std::string format : kFormats) {
      if (format == "csv" && !c.oneBlock) continue;
      for (const char* chunk : {"1", "7", "65536"}) {
        const Outcome back = through(c.decode, format, c.encode, c.bytes, chunk);
        EXPECT_EQ(back.code, 0) << c.name << " " << format << "\n" << back.err;
        EXPECT_EQ(back.out, c.bytes) << c.name << " " << format << " in pieces of " << chunk;
      }
    }
}

// Bytes in another form (zero-filled implied places, '+' signs) come back as the same values.
TEST(BlockprocEncode, GivesBackTheValuesOfBytesInAnyForm) {
  const std::string quotes = "'" + capture().def + "'";
  for (const std::string format : kFormats) {
    const Outcome shown = run("decode " + quotes + " - --format " + format, capture().records);
    const Outcome built = run("encode " + quotes + " - --reply --format " + format, shown.out);
    ASSERT_EQ(built.code, 0) << format << built.err;
    EXPECT_EQ(built.out.size(), capture().records.size()) << format;
    EXPECT_EQ(run("decode " + quotes + " - --format " + format, built.out).out, shown.out) << format;
  }
}

// Numbers are taken as written, whatever their size; a value the field cannot hold is refused.
TEST(BlockprocEncode, TakesJsonNumbersAsWritten) {
  const std::string def = writeTemp("big.xml", R"(<transaction code='B1'><input/><output>
<block name='Out'><field name='n' type='number' length='320'/><field name='d' type='double' decimals='2'/></block>
</output></transaction>)");
  const std::string nines(309, '9');
  const struct {
    std::string n, d, shown;  // shown: what decode's JSON holds, or the refusal
  } cases[] = {
      {nines, "1e300", "\"n\": " + nines},
      {"-" + nines, "0.5", "\"n\": -" + nines},
      {"12", "0.25", "\"n\": 12"},
      {"1" + nines + "99999999999", "0", "field n: '1" + nines},
      // A double takes any number of places it holds; a number it does not hold is refused.
      {"1", "2.5E-3", "\"n\": 1"},
      {"1", "0.1000000000000000001", "field d: '0.1000000000000000001' is not held exactly by a double"}};
  for (const auto& c : cases) {
    const std::string values = "{\"Out\": {\"n\": " + c.n + ", \"d\": " + c.d + "}}";
    const Outcome built = run("encode '" + def + "' - --reply", values);
    if (c.shown.starts_with("field")) {
      EXPECT_EQ(built.code, 1) << c.n;
      EXPECT_TRUE(built.err.starts_with("blockproc: standard input, line 1: block Out, record 0, " + c.shown))
          << built.err;
      continue;
    }
    ASSERT_EQ(built.code, 0) << c.n << built.err;
    const Outcome json = run("decode '" + def + "' - --format json", built.out);
    EXPECT_NE(json.out.find(c.shown + ","), std::string::npos) << json.out;
    EXPECT_EQ(run("encode '" + def + "' - --reply", json.out).out, built.out) << c.n;
  }
}

TEST(BlockprocEncode, NamesTheLineOfWhatItRefuses) {
  const std::string def = "'" + definitionPath() + "'";
  const std::string reply = "encode " + def + " - --reply --format ";
  const std::string rest = reply + "csv --block Rest";
  const struct {
    std::string args, input, err;
  } cases[] = {
      {rest, "w,f\nab,1\nabcdefgh,2\n",
       "standard input, line 3: block Rest, record 1, field w: 'abcdefgh' takes 8 bytes; the field holds 6 "
       "bytes"},
      {rest, "w,f\nab,1\n\"a\nb\",2\nc,x\n", "standard input, line 5: block Rest, record 2, field f: "},
      {rest, "w,f\nab\n", "standard input, line 2: the row has 1 cells; the header has 2"},
      {rest, "w,g\nab,1\n", "standard input, line 2: block Rest has no field 'g'"},
      {rest, "w,f\na\"b,1\n", "standard input, line 2: a quote stands inside a cell not quoted"},
      {rest, "w,f\n\"ab,1\n", "standard input, line 2: the input ends inside a quoted cell"},
      {rest, "", "standard input, line 1: the input is empty; a header row of field names must come first"},
      {reply + "csv", "w\n", "CSV holds the records of one block, and the reply has 4; name it with --block"},
      {reply + "jsonl",
       "{\"@block\":\"Rest\",\"w\":\"a\"}\n{\"@block\":\"Rest\",\"@record\":5,\"w\":\"b\"}\n",
       "standard input, line 2: block Rest: record 5 stands where record 1 belongs; give a block's records "
       "in "
       "order"},
      {reply + "jsonl", "{\"@block\":\"Rest\"}\n{\"@block\":\"Head\"}\n",
       "standard input, line 2: block Head follows the records of block Rest, which take the rest of the "
       "data; "
       "give it first"},
      {reply + "jsonl", "{\"@block\":\"Head\"}\n{\"@block\":\"Head\"}\n",
       "standard input, line 2: block Head holds one record; give --stream --block Head to build a real-time "
       "stream of its records"},
      {reply + "jsonl", "{\"@block\":\"Prefixed\"}\n{\"@block\":\"Counted\"}\n{\"@block\":\"Prefixed\"}\n",
       "standard input, line 3: block Prefixed is given again; a block's records must stand together"},
      {reply + "jsonl", "{\"w\":\"a\"}\n",
       "standard input, line 1: the record has no \"@block\" key; give it, or --block"},
      {reply + "jsonl", "{\"@block\":\"Rest\",\"w\":\"a\",\"w\":\"b\"}",
       "standard input, line 1: 'w' is given twice in one record"},
      {reply + "jsonl", "{\"@block\":\"Rest\",\"w\":[1]}",
       "standard input, line 1: block Rest, field w: must be a string, a number or null"},
      {reply + "jsonl", "{\"@block\":\"Rest\",\"w\":\"\\q\"}",
       "standard input, line 1: not valid JSON: unknown escape \\q"},
      {reply + "jsonl", "\n\n{\"@block\":\"Rest\",\"f\":01}",
       "standard input, line 3: not valid JSON: '01' is not a JSON number"},
      {reply + "jsonl", "{\"@block\":\"Rest\",\"w@hex\":\"41\"}",
       "standard input, line 1: block Rest, field w@hex: decode shows bytes that are not text this way; "
       "they cannot be encoded back"},
      {reply + "jsonl", "{\"@block\":\"In\"}",
       "standard input, line 1: In is an input block; leave out --reply to build a request"},
      {reply + "long", "block,record,field\n",
       "standard input, line 1: the long form starts with the header row block,record,field,value"},
      {reply + "long", "block,record,field,value\nRest,x,w,a\n",
       "standard input, line 2: 'x' is not a record number"},
      {reply + "json", "{\"blocks\": {\"Rest\": [{\"w\": \"a\"},\n 7]}}",
       "standard input, line 2: block Rest, record 1 must be an object of field values"},
      {reply + "json", "{\"Prefixed\": [" + std::string(9 * 3, ' ') + "{},{},{},{},{},{},{},{},{},{}]}",
       "standard input, line 1: block Prefixed holds at most 9 records (its repeat)"},
      {"encode " + def + " - --stream --block Nope", "",
       "no block named 'Nope'; the definition has In, InRows, Head, Prefixed, Counted, Rest"},
      {"encode " + def + " - --stream", "",
       "--stream builds the records of one block; name it with --block"}};
  // A refused input leaves no half-built file behind.
  const std::string built = tempPath("half.bin");
  EXPECT_EQ(run(rest + " -o '" + built + "'", "w,f\nab,1\nabcdefgh,2\n").code, 1);
  EXPECT_NE(::access(built.c_str(), F_OK), 0);
  // Read in pieces of any size (a record that straddles two is read again whole), the same line is named.
  for (const char* pieces : {"", " --chunk-bytes 1", " --chunk-bytes 3"})
    for (const auto& c : cases) {
      const Outcome r = run(c.args + pieces, c.input);
      EXPECT_NE(r.code, 0) << c.args << pieces << "\n" << c.input;
      EXPECT_TRUE(r.err.starts_with("blockproc: " + c.err)) << c.args << pieces << "\n"
                                                            << c.input << "\n"
                                                            << r.err;
    }
}

// Text the input does not hold as it stands (JSON escapes, CSV doubled quotes and line breaks in a quoted
// cell) comes through whole however the input is cut, and so does the line a later refusal names.
TEST(BlockprocEncode, TakesEscapedTextCutAnywhere) {
  const std::string def = "'" + definitionPath() + "'";
  const std::string reply = "encode " + def + " - --reply --block Rest --format ";
  const struct {
    std::string format, input;
  } cases[] = {
      {"jsonl", "{\"w\":\"a\\\"b\\u3131\",\"f\":1}\n{\"w\":\"\\ud55c\\uae00\",\"f\":-2.5}\n"},
      {"csv", "w,f\n\"a\"\"b\u3131\",1\n\"\ud55c\uae00\",-2.5\n"},
      {"long",
       "block,record,field,value\nRest,0,w,\"a\"\"b\u3131\"\nRest,0,f,1\nRest,1,w,\ud55c\uae00\nRest,1,f,-2."
       "5\n"},
  };
  for (const auto& c : cases) {
    const Outcome whole = run(reply + c.format, c.input);
    ASSERT_EQ(whole.code, 0) << c.format << whole.err;
    EXPECT_NE(whole.out.find("a\"b\xA4\xA1 "), std::string::npos) << c.format;  // \u3131 in code page 949
    for (const char* pieces : {"1", "2", "5"})
      EXPECT_EQ(run(reply + c.format + " --chunk-bytes " + pieces, c.input).out, whole.out)
          << c.format << pieces;
  }
  const std::string cut = "w,f\n\"a\nb\",1\n\"a\"\"\",x\n";
  for (const char* pieces : {"1", "4", "65536"})
    EXPECT_TRUE(run(reply + "csv --chunk-bytes " + pieces, cut)
                    .err.starts_with("blockproc: standard input, line 4: block Rest, record 1, field f: "))
        << pieces;
}

// One line per block names the fields that took their defaults; --quiet drops it; --strict refuses them.
TEST(BlockprocEncode, SaysWhichFieldsTookTheirDefaults) {
  const std::string def = "'" + definitionPath() + "'";
  const struct {
    std::string args, input;
    int code;
    std::string err;
  } cases[] = {
      {"", "{}", 0, "blockproc: block In: defaults for code, qty\n"},
      {"", R"({"In": {"code": "A"}, "InRows": [{"k": "1"}, {}, {}]})", 0,
       "blockproc: block In: defaults for qty\nblockproc: block InRows: defaults for k (in 2 of 3 "
       "records)\n"},
      {" --quiet", "{}", 0, ""},
      // null leaves a number or text field blank; a binary field, which has no blank, takes its default (n
      // counts block Counted: it is filled with the count).
      {" --reply", R"({"Head": {"name": null, "px": null, "n": null, "d": null}})", 0,
       "blockproc: block Head: defaults for d\n"},
      // so --strict takes a text or number field given null, and refuses a binary one.
      {" --reply --strict", R"({"Head": {"name": null, "px": null, "n": null, "d": 1}})", 0, ""},
      {" --reply --strict", R"({"Head": {"name": null, "px": null, "n": null, "d": null}})", 1,
       "blockproc: standard input, line 1: block Head, record 0 leaves out d, and --strict takes no "
       "defaults\n"},
      {" --strict", R"({"In": {"code": "A", "qty": 1}, "InRows": [{"k": "1"}]})", 0, ""},
      {" --strict", R"({"In": {"code": "A"}})", 1,
       "blockproc: standard input, line 1: block In, record 0 leaves out qty, and --strict takes no "
       "defaults\n"},
      {" --strict", R"({"InRows": []})", 1,
       "blockproc: standard input: block In is not given, and --strict takes no defaults\n"},
  };
  for (const auto& c : cases) {
    const Outcome r = run("encode " + def + " -" + c.args, c.input);
    EXPECT_EQ(r.code, c.code) << c.args << c.input << r.err;
    EXPECT_EQ(r.err, c.err) << c.args << c.input;
  }
  // A count field filled with its block's record count is not a default.
  const Outcome counted = run("encode " + def + " - --reply --quiet", R"({"Counted": [{"c": 1}, {"c": 2}]})");
  EXPECT_EQ(counted.code, 0) << counted.err;
  EXPECT_EQ(run("encode " + def + " - --reply",
                R"({"Head": {"name": "a", "px": 1, "d": 1}, "Counted": [{"c": 1}]})")
                .err,
            "");
}

}  // namespace
