// The progress line of long work.

#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberFormat.h"

namespace blockproc::cli {

namespace {

using internal::withThousands;

int64_t nowMillis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::string fixed(double value, int places) {
  std::string text;
  num::appendFixed(text, value, places);
  return text;
}

// "312.0 MB", "1.02 GB": decimal units.
std::string amount(double bytes) {
  return bytes >= 1e9 ? fixed(bytes / 1e9, 2) + " GB" : fixed(bytes / 1e6, 1) + " MB";
}

// The progress whose line may be on the terminal (one at a time).
Progress* g_shown = nullptr;

}  // namespace

std::string progressLine(int64_t bytes, int64_t total, int64_t records, double seconds) {
  std::string line = amount(static_cast<double>(bytes));
  if (total > 0) {
    line += " of " + amount(static_cast<double>(total));
    line += " (" + std::to_string(std::min<int64_t>(bytes * 100 / total, 100)) + "%)";
  }
  line += ", " + internal::counted(records, "record");
  if (seconds > 0 && bytes > 0) {
    const double rate = static_cast<double>(bytes) / seconds;
    line += ", " + fixed(rate / 1e6, 1) + " MB/s";
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
  if (m_drawn) g_shown = this;
}

void Progress::clearShown() {
  if (g_shown != nullptr) g_shown->clear();
}

void Progress::clear() {
  if (g_shown == this) g_shown = nullptr;
  if (!m_drawn) return;
  m_drawn = false;
  static constexpr char kErase[] = "\r\033[K";
  if (::write(STDERR_FILENO, kErase, sizeof kErase - 1) < 0) return;
}

}  // namespace blockproc::cli
