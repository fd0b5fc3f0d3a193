// The view subcommand: serves the inspector, or writes it as one self-contained file.

#include <iostream>

#include "View.h"
#include "ViewAssets.h"

namespace blockproc::cli {

namespace {

void replaceOnce(std::string& text, std::string_view marker, std::string_view with) {
  const size_t at = text.find(marker);
  if (at != std::string::npos) text.replace(at, marker.size(), with);
}

}  // namespace

std::string scriptSafe(const nlohmann::json& value) {
  // Bytes from the data may be anything: text that is not UTF-8 becomes U+FFFD rather than failing.
  const std::string text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  // "<" only ever stands inside a JSON string here; escaped, no "</script>" can end the element early.
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c == '<')
      out += "\\u003c";
    else
      out += c;
  }
  return out;
}

std::string viewPage(std::string_view data) {
  std::string page(viewAsset("index.html"));
  replaceOnce(page, "/*@CSS@*/", viewAsset("view.css"));
  replaceOnce(page, "/*@JS@*/", viewAsset("view.js"));
  replaceOnce(page, "/*@DATA@*/null", data);
  return page;
}

int runView(const ViewOptions& options) {
  if (options.html.empty()) return serveView(options);
  ViewModel model(options);
  const nlohmann::json window = model.page(0, options.htmlRecords);
  nlohmann::json data = {{"meta", model.meta()}, {"window", window}, {"bound", options.htmlRecords}};
  Output out(options.html);
  out.text() = viewPage(scriptSafe(data));
  out.finish();
  std::cerr << "blockproc: wrote " << options.html << " (" << window["records"].size()
            << " records; open it in a browser)\n";
  return kExitOk;
}

}  // namespace blockproc::cli
