// realtime following a live feed: a writer process feeds a pipe or appends to a file a piece of a record at
// a time, and each record is printed as soon as its last byte is written; Ctrl-C ends the output after its
// last whole line; records in the order received are the newest-first records turned around.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::string kSource = BLOCKPROC_SOURCE_DIR;
const std::string kDef = kSource + "/examples/current_price.xml";
constexpr size_t kRecord = 31;  // bytes of an OutBlock1 record

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::string tempPath(const std::string& name) {
  return ::testing::TempDir() + "blockproc_follow_" + std::to_string(getpid()) + "_" + name;
}

// The tool started with `args`, standard input from a pipe the test writes, standard output into one it
// reads.
class Tool {
 public:
  explicit Tool(const std::vector<std::string>& args) {
    int in[2], out[2];
    if (::pipe(in) != 0 || ::pipe(out) != 0) std::abort();
    const std::string errPath = tempPath("err");  // named by this process, not the child
    m_pid = ::fork();
    if (m_pid == 0) {
      ::dup2(in[0], 0);
      ::dup2(out[1], 1);
      const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      ::dup2(err, 2);
      for (int fd : {in[0], in[1], out[0], out[1], err}) ::close(fd);
      std::vector<char*> argv{const_cast<char*>(BLOCKPROC_CLI_PATH)};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      ::execv(BLOCKPROC_CLI_PATH, argv.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    m_in = in[1];
    m_out = out[0];
  }
  ~Tool() {
    closeInput();
    if (m_pid > 0) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
    }
    ::close(m_out);
  }
  Tool(const Tool&) = delete;
  Tool& operator=(const Tool&) = delete;

  void write(const std::string& bytes) {
    ASSERT_EQ(::write(m_in, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void closeInput() {
    if (m_in >= 0) ::close(m_in);
    m_in = -1;
  }

  // The next line of output, or "" when none comes whole within `waitMs`.
  std::string line(int waitMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
    for (;;) {
      if (const size_t end = m_pending.find('\n'); end != std::string::npos) {
        std::string text = m_pending.substr(0, end + 1);
        m_pending.erase(0, end + 1);
        return text;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd ready{m_out, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) return "";
      char buf[4096];
      const ssize_t n = ::read(m_out, buf, sizeof buf);
      if (n <= 0) return "";
      m_pending.append(buf, static_cast<size_t>(n));
    }
  }

  // Everything left on standard output and the exit code, after `signal` (0: none).
  std::pair<std::string, int> end(int signal) {
    if (signal != 0) ::kill(m_pid, signal);
    std::string rest = m_pending;
    char buf[4096];
    for (ssize_t n; (n = ::read(m_out, buf, sizeof buf)) > 0;) rest.append(buf, static_cast<size_t>(n));
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = -1;
    return {rest, WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)};
  }

 private:
  pid_t m_pid = -1;
  int m_in = -1, m_out = -1;
  std::string m_pending;
};

const std::string kStream = readFile(kSource + "/examples/current_price.stream");

// Writes each record in two pieces, a pause between them, and returns how long each record's line took to
// come after its last byte (-1 when it did not come within a second).
std::vector<int64_t> feed(Tool& tool, const std::function<void(const std::string&)>& write) {
  std::vector<int64_t> delays;
  for (size_t at = 0; at + kRecord <= kStream.size(); at += kRecord) {
    write(kStream.substr(at, 10));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(tool.line(30), "") << "a line before its record was whole";
    write(kStream.substr(at + 10, kRecord - 10));
    const auto start = std::chrono::steady_clock::now();
    const std::string line = tool.line(1000);
    delays.push_back(line.empty() ? -1
                                  : std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now() - start)
                                        .count());
    EXPECT_TRUE(
        line.starts_with("{\"@block\":\"OutBlock1\",\"@record\":" + std::to_string(at / kRecord) + ","))
        << line;
  }
  return delays;
}

void expectPrompt(std::vector<int64_t> delays) {
  ASSERT_FALSE(delays.empty());
  EXPECT_EQ(std::count(delays.begin(), delays.end(), -1), 0);
  std::sort(delays.begin(), delays.end());
  EXPECT_LE(delays[delays.size() / 2], 100) << "median milliseconds from a record's last byte to its line";
}

TEST(BlockprocFollow, PrintsEachRecordOfAPipeAsItArrives) {
  Tool tool({"realtime", kDef, "-", "--block", "OutBlock1", "--follow", "--format", "jsonl"});
  expectPrompt(feed(tool, [&](const std::string& bytes) { tool.write(bytes); }));
  tool.closeInput();  // the feed closes: the output ends
  const auto [rest, code] = tool.end(0);
  EXPECT_EQ(code, 0) << readFile(tempPath("err"));
  EXPECT_EQ(rest, "");
}

TEST(BlockprocFollow, FollowsAGrowingFileUntilCtrlC) {
  const std::string path = tempPath("growing.stream");
  std::ofstream(path, std::ios::binary | std::ios::trunc).flush();
  Tool tool({"realtime", kDef, path, "--block", "OutBlock1", "--follow", "--format", "jsonl"});
  expectPrompt(feed(tool, [&](const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::app) << bytes;
  }));
  // Half a record, then Ctrl-C: the output stops after the last whole line.
  std::ofstream(path, std::ios::binary | std::ios::app) << kStream.substr(0, 5);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const auto [rest, code] = tool.end(SIGINT);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(rest, "");
  EXPECT_EQ(readFile(tempPath("err")), "blockproc: stopped; the last 5 bytes are not yet a whole record\n");
}

TEST(BlockprocFollow, GivesTheRecordsInTheOrderReceived) {
  // The rows of the CSV output, the stream read from its file or (`piped`) fed through a pipe.
  const auto lines = [](const std::string& args, bool piped = false) {
    const std::string out = tempPath("out");
    const std::string command =
        "cd '" + kSource + "' && " + (piped ? "cat examples/current_price.stream | " : "") +
        "'" BLOCKPROC_CLI_PATH "' realtime " + kDef + (piped ? " -" : " examples/current_price.stream") +
        " --block OutBlock1 --format csv " + args + " >'" + out + "' 2>&1";
    EXPECT_EQ(std::system(command.c_str()), 0) << args;
    std::vector<std::string> rows;
    std::string text = readFile(out);
    for (size_t at = text.find('\n') + 1, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
      rows.push_back(text.substr(at, end - at));
    return rows;
  };
  std::vector<std::string> newest = lines(""), arrival = lines("--order arrival");
  std::reverse(newest.begin(), newest.end());
  EXPECT_EQ(arrival, newest);
  EXPECT_EQ(arrival.size(), kStream.size() / kRecord);
  EXPECT_EQ(lines("--follow --chunk-bytes 40", true), arrival);
}

TEST(BlockprocFollow, RefusesWhatAFollowedFeedCannotDo) {
  const struct {
    std::string args, err;
  } cases[] = {
      {"--follow --order newest", "--follow shows records as they arrive; it goes with --order arrival"},
      {"--order arrival --keep 3", "--keep keeps the newest records; it goes with --order newest"}};
  for (const auto& c : cases) {
    const std::string err = tempPath("err2");
    const std::string command = "cd '" + kSource + "' && '" BLOCKPROC_CLI_PATH "' realtime " + kDef +
                                " examples/current_price.stream --block OutBlock1 " + c.args +
                                " >/dev/null 2>'" + err + "'";
    const int status = std::system(command.c_str());
    EXPECT_EQ(WEXITSTATUS(status), 2) << c.args;
    EXPECT_EQ(readFile(err), "blockproc: " + c.err + "\n");
  }
}

}  // namespace
