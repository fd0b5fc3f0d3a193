// blockproc: looks into transaction data with a transaction definition file.
//
//   blockproc inspect DEF                 the layout of every block
//   blockproc decode DEF REPLY            every field of every record of a reply
//   blockproc encode DEF VALUES           request, reply or stream bytes built from records
//   blockproc hexdump DEF REPLY           the reply's bytes, each range labelled with its field
//   blockproc realtime DEF STREAM --block NAME   real-time records, newest first (or as they arrive)
//   blockproc check DEF DATA              what about the layout would make the data read cleanly
//   blockproc view DEF DATA               an inspector in the browser (or --html FILE)
//
// Exit codes: 0 success, 1 data errors, 2 usage or definition errors.

#include <exception>
#include <iostream>
#include <sstream>

#include <CLI/CLI.hpp>

#include "Cli.h"
#include "View.h"

#ifndef BLOCKPROC_VERSION
#define BLOCKPROC_VERSION "unknown"
#endif

namespace {

using namespace blockproc::cli;

void addDefinition(CLI::App& command, CommonOptions& common) {
  command.add_option("DEF", common.definition, "transaction definition file (XML; - reads standard input)")
      ->required();
}

void addEncoding(CLI::App& command, CommonOptions& common) {
  command.add_option(
      "--encoding", common.encoding,
      "text encoding of the records, instead of the definition's (cp949, euc-kr, utf-8, ascii, "
      "latin1)");
}

void addShowSecrets(CLI::App& command, bool& showSecrets) {
  command.add_flag("--show-secrets", showSecrets,
                   "show fields flagged password as they are, instead of ********");
}

void addFormat(CLI::App& command, std::string& format, bool& raw) {
  command
      .add_option("--format", format,
                  "output format: table, json, jsonl (a JSON object per record), csv (a row per record of "
                  "one block) or long (block,record,field,value)")
      ->check(CLI::IsMember({"table", "json", "jsonl", "csv", "long"}))
      ->capture_default_str();
  command.add_flag("--raw", raw,
                   "show the processor's display strings untouched (zero fill, signs) instead of canonical "
                   "values");
}

void addStreaming(CLI::App& command, bool& quiet, int64_t& chunkBytes, int32_t& jobs) {
  command.add_flag("-q,--quiet", quiet, "no progress line on standard error");
  command
      .add_option(
          "-j,--jobs", jobs,
          "decode a block read to the end of its input (count=\"rest\", a real-time stream) on this many "
          "threads; the output is the same")
      ->check(CLI::Range(1, 64));
  // Tests read a small capture in many pieces with it; hidden from the help.
  command.add_option("--chunk-bytes", chunkBytes)->check(CLI::Range(int64_t{1}, int64_t{1} << 30))->group("");
}

}  // namespace

int main(int argc, char** argv) {
  keepCommandLine(argv);
  CLI::App app{"blockproc: inspect, decode and build the data blocks of transactions"};
  app.set_version_flag("--version", std::string("blockproc ") + BLOCKPROC_VERSION);
  app.require_subcommand(1);
  app.footer("Exit codes: 0 success, 1 data errors, 2 usage or definition errors.");

  CommonOptions inspect;
  CLI::App* inspectCmd = app.add_subcommand("inspect", "show every block's layout: fields, positions, sizes");
  addDefinition(*inspectCmd, inspect);

  DecodeOptions decode;
  CLI::App* decodeCmd = app.add_subcommand("decode", "show every field of every record of a reply");
  addDefinition(*decodeCmd, decode.common);
  decodeCmd->add_option("REPLY", decode.reply, "reply bytes (- reads standard input)")->required();
  addFormat(*decodeCmd, decode.format, decode.raw);
  addShowSecrets(*decodeCmd, decode.showSecrets);
  addEncoding(*decodeCmd, decode.common);
  decodeCmd->add_option("--block", decode.block, "show only this block");
  decodeCmd->add_option("--output-dir", decode.outputDir, "write one file per block into this directory");
  decodeCmd->add_flag("--request", decode.request, "the data is a request: show its input blocks");
  addStreaming(*decodeCmd, decode.quiet, decode.chunkBytes, decode.jobs);

  EncodeOptions encode;
  CLI::App* encodeCmd = app.add_subcommand(
      "encode", "build request, reply or real-time stream bytes from records in any form decode writes");
  addDefinition(*encodeCmd, encode.common);
  encodeCmd
      ->add_option("VALUES", encode.values,
                   "the records (- reads standard input); JSON: per block an object of field values, or a "
                   "list of them for a repeated block")
      ->required();
  encodeCmd
      ->add_option("--format", encode.format,
                   "input format: json (decode's document, or a values file), jsonl (a JSON object per "
                   "record), csv (a header of field names, a row per record of one block) or long "
                   "(block,record,field,value)")
      ->check(CLI::IsMember({"json", "jsonl", "csv", "long"}))
      ->capture_default_str();
  encodeCmd->add_option("--block", encode.block,
                        "the block of CSV rows, of JSON lines without a block key, or of --stream");
  encodeCmd->add_option("-o,--output", encode.output,
                        "write the bytes to this file instead of standard output");
  encodeCmd->add_flag("--reply", encode.reply,
                      "build reply bytes from the output blocks instead of a request");
  encodeCmd->add_flag("--stream", encode.stream,
                      "build a real-time stream: the records of --block back to back, in the order given");
  encodeCmd->add_flag("-q,--quiet", encode.quiet, "no line naming the fields that took their defaults");
  encodeCmd->add_flag("--strict", encode.strict, "refuse records and blocks that leave a field out");
  // Tests read a small input in many pieces with it; hidden from the help.
  encodeCmd->add_option("--chunk-bytes", encode.chunkBytes)
      ->check(CLI::Range(int64_t{1}, int64_t{1} << 30))
      ->group("");
  addEncoding(*encodeCmd, encode.common);

  HexdumpOptions hexdump;
  CLI::App* hexdumpCmd =
      app.add_subcommand("hexdump", "show a reply's bytes labelled with block, record and field");
  addDefinition(*hexdumpCmd, hexdump.common);
  hexdumpCmd->add_option("REPLY", hexdump.reply, "reply bytes (- reads standard input)")->required();
  hexdumpCmd->add_flag("--request", hexdump.request, "the data is a request: label its input blocks");
  hexdumpCmd->add_flag("--stream", hexdump.stream, "the data is real-time records of --block back to back")
      ->excludes(hexdumpCmd->get_option("--request"));
  hexdumpCmd->add_option("--block", hexdump.block, "the block whose records a --stream holds");
  hexdumpCmd
      ->add_option("--records", hexdump.records,
                   "show at most N records of each block (a rest block or a stream too, whole records or "
                   "not); a line says how many more there are")
      ->check(CLI::Range(int64_t{0}, int64_t{1} << 40))
      ->capture_default_str();
  addEncoding(*hexdumpCmd, hexdump.common);
  addShowSecrets(*hexdumpCmd, hexdump.showSecrets);

  RealtimeOptions realtime;
  CLI::App* realtimeCmd = app.add_subcommand(
      "realtime", "feed a stream of real-time records, show newest first or as they arrive");
  addDefinition(*realtimeCmd, realtime.common);
  realtimeCmd
      ->add_option("STREAM", realtime.stream, "real-time records back to back (- reads standard input)")
      ->required();
  realtimeCmd->add_option("--block", realtime.block, "the block whose records the stream holds")->required();
  realtimeCmd->add_option("--keep", realtime.keep, "keep only the newest N records (default: all)")
      ->check(CLI::Range(1, 1000000));
  CLI::Option* order =
      realtimeCmd
          ->add_option(
              "--order", realtime.order,
              "newest (newest first, as the processor keeps them) or arrival (in the order received)")
          ->check(CLI::IsMember({"newest", "arrival"}))
          ->capture_default_str();
  realtimeCmd->add_flag("-f,--follow", realtime.follow,
                        "show each record as soon as it is whole, from a pipe or a file still being written, "
                        "until the feed closes or Ctrl-C (records in the order received)");
  addFormat(*realtimeCmd, realtime.format, realtime.raw);
  addShowSecrets(*realtimeCmd, realtime.showSecrets);
  addStreaming(*realtimeCmd, realtime.quiet, realtime.chunkBytes, realtime.jobs);
  addEncoding(*realtimeCmd, realtime.common);

  CheckOptionsCli checkOpts;
  CLI::App* checkCmd = app.add_subcommand(
      "check", "read data against the definition and name the likeliest layout change when they disagree");
  addDefinition(*checkCmd, checkOpts.common);
  checkCmd->add_option("DATA", checkOpts.data, "reply, request or stream bytes (- reads standard input)")
      ->required();
  checkCmd->add_option("--block", checkOpts.block, "look at this block only (a stream's block: required)");
  checkCmd->add_flag("--request", checkOpts.request, "the data is a request: its input blocks");
  checkCmd->add_flag("--stream", checkOpts.stream, "the data is real-time records of --block back to back")
      ->excludes(checkCmd->get_option("--request"));
  checkCmd->add_option("--format", checkOpts.format, "output format: text or json")
      ->check(CLI::IsMember({"text", "json"}))
      ->capture_default_str();
  addEncoding(*checkCmd, checkOpts.common);

  ViewOptions view;
  CLI::App* viewCmd = app.add_subcommand(
      "view", "inspect data in the browser: bytes, fields, values, warnings (served on 127.0.0.1)");
  addDefinition(*viewCmd, view.common);
  viewCmd->add_option("DATA", view.data, "reply, request or stream bytes (- reads standard input)")
      ->required();
  viewCmd->add_flag("--request", view.request, "the data is a request: show its input blocks");
  viewCmd->add_flag("--stream", view.stream,
                    "the data is real-time records back to back, shown in file order a page at a time");
  viewCmd->add_option("--block", view.block,
                      "with --stream, the block whose records the stream holds (default: the first output "
                      "block whose records make the stream whole)");
  viewCmd->add_option("--port", view.port, "listen on this port of 127.0.0.1 (default: a free one)")
      ->check(CLI::Range(1, 65535));
  viewCmd->add_option("--html", view.html,
                      "write the page with the data embedded to this file (opens without a server) instead");
  viewCmd
      ->add_option("--html-records", view.htmlRecords,
                   "records embedded in the --html file, from the first (the page says so)")
      ->check(CLI::Range(1, 500))
      ->capture_default_str();
  viewCmd->get_option("--request")->excludes(viewCmd->get_option("--stream"));
  addEncoding(*viewCmd, view.common);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // A usage message repeats the words it could not take: shown printable, as every other message.
    std::ostringstream out, err;
    const int code = app.exit(e, out, err);
    std::cout << out.str();
    std::cerr << printable(err.str(), true);
    return code == 0 ? kExitOk : kExitUsage;
  }

  if (*hexdumpCmd && hexdump.stream && hexdump.block.empty()) {
    std::cerr << "blockproc: hexdump --stream needs --block: the block whose records the stream holds\n";
    return kExitUsage;
  }
  try {
    if (*inspectCmd) return runInspect(inspect);
    if (*decodeCmd) return runDecode(decode);
    if (*encodeCmd) return runEncode(encode);
    if (*hexdumpCmd) return runHexdump(hexdump);
    if (*realtimeCmd) {
      realtime.orderGiven = order->count() > 0;
      return runRealtime(realtime);
    }
    if (*checkCmd) return runCheck(checkOpts);
    if (*viewCmd) return runView(view);
  } catch (const Failure& failure) {
    std::cout.flush();
    // Messages name blocks, fields and paths from the definition and the command line: shown printable.
    std::cerr << "blockproc: " << printable(failure.message, true) << "\n";
    return failure.code;
  } catch (const std::exception& e) {
    std::cerr << "blockproc: " << printable(e.what(), true) << "\n";
    return kExitData;
  } catch (...) {
    std::cerr << "blockproc: unexpected failure\n";
    return kExitData;
  }
  return kExitUsage;
}
