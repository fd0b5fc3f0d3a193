// Input read a piece at a time.

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Cli.h"

namespace blockproc::cli {

namespace {

[[noreturn]] void readFailure(const std::string& name) {
  throw Failure{kExitData, "cannot read " + name + ": " + std::strerror(errno)};
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
  if (m_map != nullptr) ::munmap(m_map, static_cast<size_t>(m_size));
  if (m_own && m_fd >= 0) ::close(m_fd);
}

std::string_view InputStream::map() {
  makeSeekable();
  if (m_size <= 0) return {};
  if (m_map == nullptr) {
    void* at = ::mmap(nullptr, static_cast<size_t>(m_size), PROT_READ, MAP_PRIVATE, m_fd, 0);
    if (at == MAP_FAILED) readFailure(m_name);
    m_map = at;
  }
  return {static_cast<const char*>(m_map), static_cast<size_t>(m_size)};
}

size_t InputStream::read(std::string& buf, size_t n) {
  const size_t start = buf.size();
  // A regular file's bytes left, and one more to see its end, are all the room a read needs at first: the
  // zeros of a whole chunk written ahead of a small file's few bytes cost more than decoding them.
  size_t room = n;
  if (m_size >= 0) {
    const off_t at = ::lseek(m_fd, 0, SEEK_CUR);
    if (at >= 0 && at <= m_size) room = std::min(n, static_cast<size_t>(m_size - at) + 1);
  }
  buf.resize(start + room);
  size_t got = read(buf.data() + start, room);
  if (got == room && room < n) {  // the file has grown since it was opened
    buf.resize(start + n);
    got += read(buf.data() + start + got, n - got);
  }
  buf.resize(start + got);
  return got;
}

size_t InputStream::read(char* to, size_t n) {
  size_t got = 0;
  while (got < n && !m_end) {
    const ssize_t r = ::read(m_fd, to + got, n - got);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) readFailure(m_name);
    if (r == 0) m_end = true;
    got += static_cast<size_t>(r);
  }
  return got;
}

size_t InputStream::readArrived(std::string& buf, size_t n, int waitMs) {
  if (m_end) return 0;
  if (m_size < 0) {  // a pipe or a terminal: wait for bytes
    pollfd ready{m_fd, POLLIN, 0};
    const int r = ::poll(&ready, 1, waitMs);
    if (r < 0 && errno != EINTR) readFailure(m_name);
    if (r <= 0) return 0;
  }
  const size_t start = buf.size();
  buf.resize(start + n);
  const ssize_t r = ::read(m_fd, buf.data() + start, n);
  buf.resize(start + (r > 0 ? static_cast<size_t>(r) : 0));
  if (r < 0 && errno != EINTR && errno != EAGAIN) readFailure(m_name);
  if (r == 0 && m_size < 0) m_end = true;
  if (r == 0 && m_size >= 0) ::poll(nullptr, 0, waitMs);  // the end of a file that may grow: look again soon
  return r > 0 ? static_cast<size_t>(r) : 0;
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
    writeAll(fd, piece, "a temporary file");
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

}  // namespace blockproc::cli
