#pragma once
// The progress line of long work on standard error.

#include <cstdint>
#include <string>

namespace blockproc::cli {

// The progress line: "312.0 MB of 1.02 GB (31%), 2,600,000 records, 210.4 MB/s, 3 s left"; `total` -1 when
// the input's size is not known (no share, no time left). Bytes in decimal megabytes and gigabytes.
std::string progressLine(int64_t bytes, int64_t total, int64_t records, double seconds);

// A progress line on standard error, redrawn in place at most a few times a second once the work has taken
// a second, and erased at the end; silent when `on` is false or standard error is not a terminal.
class Progress {
 public:
  Progress(bool on, int64_t total);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  void update(int64_t bytes, int64_t records);
  // Erases the line, if one was drawn.
  void clear();
  // Erases the line of the progress being shown, if any, so that a message starts on a line of its own.
  static void clearShown();

 private:
  bool m_on;
  bool m_drawn = false;
  int64_t m_total;
  int64_t m_start, m_last = 0;
};

}  // namespace blockproc::cli
