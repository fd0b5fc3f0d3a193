#pragma once
// The view subcommand: an inspector in the browser. ViewModel sees a data file through a definition as byte
// ranges (the blocks' records, count prefixes, bytes no block reads) and decodes any window of records on
// demand; the page asks it for JSON. A large capture is never read whole: a window reads only its records.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Cli.h"

namespace blockproc::cli {

struct ViewOptions {
  CommonOptions common;
  std::string data;
  std::string block;  // --stream: the block whose records the stream holds ("" picks one)
  std::string html;   // write one self-contained page to this file instead of serving
  bool request = false;
  bool stream = false;
  int32_t port = 0;  // 0: a free port
  int32_t htmlRecords = 500;
};

// Most records one window decodes, and most bytes it shows.
constexpr int32_t kViewMaxRecords = 500;
constexpr int64_t kViewMaxBytes = int64_t{1} << 20;

class ViewModel {
 public:
  // Opens the definition and the data; a reply or request larger than a few MiB is read whole only when it
  // ends in a count="rest" block, which is then paged. Fails as the other subcommands do.
  explicit ViewModel(const ViewOptions& options);
  ~ViewModel();
  ViewModel(const ViewModel&) = delete;
  ViewModel& operator=(const ViewModel&) = delete;

  // The transaction, its blocks and fields, where each block's records lie, warnings about the whole data
  // and the layout check's findings.
  nlohmann::json meta() const;
  // The window starting at the record that holds `offset` (or at `offset` outside any record): up to
  // `records` records with their canonical values, display strings, attribute bytes and issues, the
  // window's bytes in hexadecimal and the ranges no field covers.
  nlohmann::json page(int64_t offset, int32_t records);
  // Up to kViewMaxBytes bytes from `offset` in hexadecimal, fewer at the end of the data:
  // {"offset": ..., "hex": ...}.
  nlohmann::json bytes(int64_t offset, int64_t length);
  // The first record at or after `from` with a canonical value that contains `text`, reading a bounded
  // stretch per call: {"found": {...}} or {"next": offset to go on from} or {"done": true}.
  nlohmann::json find(std::string_view text, int64_t from);
  // Decodes text in the named encoding from now on; false with `why` for an unknown name.
  bool setEncoding(std::string_view name, std::string& why);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

// The page, with `data` (JSON: the meta and a window) embedded for a file that opens without a server, or
// "null" for the page the server gives.
std::string viewPage(std::string_view data);
// The JSON text safe to place inside a <script> element.
std::string scriptSafe(const nlohmann::json& value);

int runView(const ViewOptions& options);
// Serves the page and its data on 127.0.0.1 until the process is stopped: blockproc-view serves it
// (ViewServer.cpp), blockproc starts blockproc-view in its place with the same arguments (ViewLaunch.cpp)
// and fails with kExitUsage when it cannot.
int serveView(const ViewOptions& options);

}  // namespace blockproc::cli
