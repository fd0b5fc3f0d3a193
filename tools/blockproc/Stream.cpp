// Input read a piece at a time, and the progress line of long work.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "Cli.h"

namespace blockproc::cli {

namespace {

[[noreturn]] void readFailure(const std::string& name) {
  throw Failure{kExitData, "cannot read " + name + ": " + std::strerror(errno)};
}

int64_t nowMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// "312.0 MB", "1.02 GB": three significant digits or one decimal, in decimal units.
std::string amount(double bytes) {
  char text[32];
  if (bytes >= 1e9)
    std::snprintf(text, sizeof text, "%.2f GB", bytes / 1e9);
  else
    std::snprintf(text, sizeof text, "%.1f MB", bytes / 1e6);
  return text;
}

}  // namespace

// ---- input ------------------------------------------------------------------------------------------------

InputStream::InputStream(const std::string& path) : m_name(sourceName(path)) {
  if (path == "-") {
    m_fd = STDIN_FILENO;
  } else {
    const std::string hint = "\n  (check the path, or give - to read standard input)";
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
      throw Failure{kExitUsage, path + ": is a directory, not a file" + hint};
    m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0) throw Failure{kExitUsage, path + ": cannot open: " + std::strerror(errno) + hint};
    m_own = true;
  }
  struct stat info {};
  if (::fstat(m_fd, &info) == 0 && S_ISREG(info.st_mode)) m_size = info.st_size;
}

InputStream::~InputStream() {
  if (m_own && m_fd >= 0) ::close(m_fd);
}

size_t InputStream::read(std::string& buf, size_t n) {
  const size_t start = buf.size();
  buf.resize(start + n);
  size_t got = 0;
  while (got < n && !m_end) {
    const ssize_t r = ::read(m_fd, buf.data() + start + got, n - got);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) readFailure(m_name);
    if (r == 0) m_end = true;
    got += static_cast<size_t>(r);
  }
  buf.resize(start + got);
  return got;
}

void InputStream::makeSeekable() {
  if (m_size >= 0) return;
  std::FILE* spool = std::tmpfile();
  if (spool == nullptr)
    throw Failure{kExitData, std::string("cannot make a temporary file: ") + std::strerror(errno)};
  const int fd = ::dup(::fileno(spool));
  std::fclose(spool);
  if (fd < 0) readFailure(m_name);
  std::string piece;
  int64_t total = 0;
  while (!m_end) {
    piece.clear();
    read(piece, size_t{1} << 20);
    for (size_t at = 0; at < piece.size();) {
      const ssize_t w = ::write(fd, piece.data() + at, piece.size() - at);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0)
        throw Failure{kExitData, std::string("cannot write a temporary file: ") + std::strerror(errno)};
      at += static_cast<size_t>(w);
    }
    total += static_cast<int64_t>(piece.size());
  }
  if (m_own) ::close(m_fd);
  m_fd = fd;
  m_own = true;
  m_size = total;
}

void InputStream::readAt(char* to, size_t n, int64_t offset) {
  size_t got = 0;
  while (got < n) {
    const ssize_t r = ::pread(m_fd, to + got, n - got, static_cast<off_t>(offset) + static_cast<off_t>(got));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      if (r == 0) errno = EIO;
      readFailure(m_name);
    }
    got += static_cast<size_t>(r);
  }
}

// ---- progress ---------------------------------------------------------------------------------------------

std::string progressLine(int64_t bytes, int64_t total, int64_t records, double seconds) {
  std::string line = amount(static_cast<double>(bytes));
  if (total > 0) {
    line += " of " + amount(static_cast<double>(total));
    line += " (" + std::to_string(std::min<int64_t>(bytes * 100 / total, 100)) + "%)";
  }
  line += ", " + withThousands(records) + (records == 1 ? " record" : " records");
  if (seconds > 0 && bytes > 0) {
    const double rate = static_cast<double>(bytes) / seconds;
    char text[32];
    std::snprintf(text, sizeof text, ", %.1f MB/s", rate / 1e6);
    line += text;
    if (total > 0 && bytes <= total)
      line += ", " + withThousands(std::llround(static_cast<double>(total - bytes) / rate)) + " s left";
  }
  return line;
}

Progress::Progress(bool on, int64_t total) : m_on(on && ::isatty(STDERR_FILENO) == 1), m_total(total) {
  m_start = nowMillis();
}

Progress::~Progress() {
  clear();
}

void Progress::update(int64_t bytes, int64_t records) {
  if (!m_on) return;
  const int64_t now = nowMillis();
  // The first line after a second of work, then at most five a second.
  if (now - m_start < 1000 || now - m_last < 200) return;
  m_last = now;
  const std::string line =
      "\r\033[K" + progressLine(bytes, m_total, records, static_cast<double>(now - m_start) / 1000.0);
  m_drawn = ::write(STDERR_FILENO, line.data(), line.size()) > 0 || m_drawn;
}

void Progress::clear() {
  if (!m_drawn) return;
  m_drawn = false;
  static constexpr char kErase[] = "\r\033[K";
  if (::write(STDERR_FILENO, kErase, sizeof kErase - 1) < 0) return;
}

}  // namespace blockproc::cli
