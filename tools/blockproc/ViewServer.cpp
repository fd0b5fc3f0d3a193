// The inspector's server: one page and its JSON on 127.0.0.1, behind a random token in the URL.
//
//   GET /?t=TOKEN                          the page
//   GET /api/meta?t=TOKEN                  blocks, fields, where the records lie, warnings, findings
//   GET /api/page?t=TOKEN&offset=N&records=K   a window of records with values and bytes
//   GET /api/bytes?t=TOKEN&offset=N&length=K   bytes in hexadecimal (a MiB at most)
//   GET /api/find?t=TOKEN&q=TEXT&from=N    the next record holding a value with that text
//   GET /api/encoding?t=TOKEN&name=E       decode text in that encoding from now on
// Every request without the token gets 403. The model is not shared between threads: one lock serves the
// requests one at a time.

#include <iostream>
#include <mutex>
#include <random>

#include "View.h"
#include "blockproc/detail/NumberParse.h"

#include <httplib.h>

namespace blockproc::cli {

namespace {

// 128 random bits in hexadecimal.
std::string newToken() {
  std::random_device device;
  std::string token;
  for (int i = 0; i < 8; ++i) {
    const auto word = static_cast<uint16_t>(device());
    internal::appendHexByte(token, static_cast<uint8_t>(word >> 8), internal::kHexLower);
    internal::appendHexByte(token, static_cast<uint8_t>(word), internal::kHexLower);
  }
  return token;
}

// The page runs only its own inline script and style and talks only to this server.
constexpr const char* kPolicy =
    "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; connect-src 'self'; "
    "img-src data:";

int64_t numberParam(const httplib::Request& req, const char* key, int64_t fallback) {
  if (!req.has_param(key)) return fallback;
  const num::WholeInt value = num::parseWholeInt(req.get_param_value(key), INT64_MIN, INT64_MAX);
  return value.isNumber && !value.clamped ? value.value : fallback;
}

void sendJson(httplib::Response& res, const nlohmann::json& value) {
  res.set_header("Cache-Control", "no-store");
  res.set_content(value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace), "application/json");
}

}  // namespace

int serveView(const ViewOptions& options) {
  ViewModel model(options);
  const std::string token = newToken();
  const std::string page = viewPage("null");
  std::mutex lock;
  httplib::Server server;
  server.new_task_queue = [] { return new httplib::ThreadPool(2); };
  // SO_REUSEADDR only: the library's default also sets SO_REUSEPORT, which would let a second server (or
  // another program of the same user) share the port and answer some of the page's requests.
  server.set_socket_options([](socket_t sock) {
    const int yes = 1;
    ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
  });
  server.set_pre_routing_handler([&](const httplib::Request& req, httplib::Response& res) {
    if (req.get_param_value("t") == token) return httplib::Server::HandlerResponse::Unhandled;
    res.status = 403;
    res.set_content("the address needs the token blockproc view printed\n", "text/plain");
    return httplib::Server::HandlerResponse::Handled;
  });
  server.set_post_routing_handler([](const httplib::Request&, httplib::Response& res) {
    res.set_header("Content-Security-Policy", kPolicy);
    res.set_header("X-Content-Type-Options", "nosniff");
    res.set_header("Referrer-Policy", "no-referrer");
  });
  server.Get("/", [&](const httplib::Request&, httplib::Response& res) {
    res.set_content(page, "text/html; charset=utf-8");
  });
  server.Get("/api/meta", [&](const httplib::Request&, httplib::Response& res) {
    const std::lock_guard<std::mutex> held(lock);
    sendJson(res, model.meta());
  });
  server.Get("/api/page", [&](const httplib::Request& req, httplib::Response& res) {
    const std::lock_guard<std::mutex> held(lock);
    const int64_t records = std::clamp<int64_t>(numberParam(req, "records", 64), 1, kViewMaxRecords);
    sendJson(res, model.page(numberParam(req, "offset", 0), static_cast<int32_t>(records)));
  });
  server.Get("/api/bytes", [&](const httplib::Request& req, httplib::Response& res) {
    const std::lock_guard<std::mutex> held(lock);
    sendJson(res, model.bytes(numberParam(req, "offset", 0), numberParam(req, "length", 256)));
  });
  server.Get("/api/find", [&](const httplib::Request& req, httplib::Response& res) {
    const std::lock_guard<std::mutex> held(lock);
    sendJson(res, model.find(req.get_param_value("q"), numberParam(req, "from", 0)));
  });
  server.Get("/api/encoding", [&](const httplib::Request& req, httplib::Response& res) {
    const std::lock_guard<std::mutex> held(lock);
    std::string why;
    if (!model.setEncoding(req.get_param_value("name"), why)) {
      res.status = 400;
      sendJson(res, {{"error", why}});
      return;
    }
    sendJson(res, {{"ok", true}});
  });

  int port = options.port;
  if (port == 0) {
    port = server.bind_to_any_port("127.0.0.1");
  } else if (!server.bind_to_port("127.0.0.1", port)) {
    port = -1;
  }
  if (port <= 0)
    throw Failure{kExitUsage, "cannot listen on 127.0.0.1" +
                                  (options.port > 0 ? ":" + std::to_string(options.port) : std::string()) +
                                  " (is the port taken?)"};
  std::cout << "http://127.0.0.1:" << port << "/?t=" << token << std::endl;
  std::cerr << "blockproc: serving " << sourceName(options.data)
            << " on 127.0.0.1 only; open the address above, stop with Ctrl-C\n";
  if (!server.listen_after_bind()) throw Failure{kExitData, "the server stopped unexpectedly"};
  return kExitOk;
}

}  // namespace blockproc::cli
