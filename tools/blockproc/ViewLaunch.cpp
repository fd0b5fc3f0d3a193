// `blockproc view` without --html: blockproc-view, the same tool with the HTTP server, is started in this
// program's place with the same arguments, so that the server's libraries load only for it.

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <vector>

#include "View.h"

namespace blockproc::cli {

int serveView(const ViewOptions&) {
#ifdef BLOCKPROC_VIEW_PROGRAM
  // blockproc-view lies beside this program, in the build tree as where both are installed.
  std::string self(PATH_MAX, '\0');
  const ssize_t length = ::readlink("/proc/self/exe", self.data(), self.size());
  if (length <= 0 || static_cast<size_t>(length) >= self.size())
    throw Failure{kExitUsage, std::string("cannot find this program's folder to start ") +
                                  BLOCKPROC_VIEW_PROGRAM + ": " + std::strerror(errno) +
                                  "; write the page as a file with --html FILE"};
  self.resize(static_cast<size_t>(length));
  std::string program = self.substr(0, self.rfind('/') + 1) + BLOCKPROC_VIEW_PROGRAM;
  std::vector<char*> args{program.data()};
  for (char** arg = keptCommandLine() + 1; *arg != nullptr; ++arg) args.push_back(*arg);
  args.push_back(nullptr);
  std::cout.flush();
  ::execv(program.c_str(), args.data());
  throw Failure{kExitUsage,
                "cannot start " + printable(program) + " to serve the page: " + std::strerror(errno) +
                    "; install it beside blockproc, or write the page as a file with --html FILE"};
#else
  throw Failure{kExitUsage,
                "this blockproc was built without the HTTP server (libcpp-httplib-dev); "
                "use --html FILE to write the page as a file"};
#endif
}

}  // namespace blockproc::cli
