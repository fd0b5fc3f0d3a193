#pragma once
// Running the blockproc tool from a test program: files in the test's temporary directory, named by the
// program and its process so that tests running side by side never share one, and the tool's exit code,
// standard output and standard error.

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace tooltest {

inline const std::string kSource = BLOCKPROC_SOURCE_DIR;

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// A path in the temporary directory that only this program and process use.
inline std::string tempPath(const std::string& name) {
  return ::testing::TempDir() + program_invocation_short_name + "_" + std::to_string(getpid()) + "_" + name;
}

inline std::string writeTemp(const std::string& name, const std::string& bytes) {
  const std::string path = tempPath(name);
  writeFile(path, bytes);
  return path;
}

struct Outcome {
  int code;  // the exit code, or 128 + the signal that ended the tool
  std::string out, err;
};

// Runs `feed` (a shell command whose output goes to the tool, or "") then the tool with `args` (shell words)
// in the source directory, with standard input from `in` when no feed is given.
inline Outcome runTool(const std::string& args, const std::string& feed, const std::string& in) {
  const std::string out = tempPath("out"), err = tempPath("err");
  const std::string command = "cd '" + kSource + "' && " + feed + "'" BLOCKPROC_CLI_PATH "' " + args +
                              (feed.empty() ? " <'" + in + "'" : "") + " >'" + out + "' 2>'" + err + "'";
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), readFile(out), readFile(err)};
}

// Runs the tool with `args` and `input` on standard input.
inline Outcome run(const std::string& args, const std::string& input = "") {
  return runTool(args, "", writeTemp("in", input));
}

}  // namespace tooltest
