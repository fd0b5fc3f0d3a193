// Writes a capture of the quote layout for measuring the tool: DIR/quotes.xml, a definition whose reply is
// one count="rest" block OutBlock1 (repeat: the record count, at most the 1,000,000 a definition allows),
// and DIR/quotes.bin, that many records back to back from a fixed seed: a reply of that transaction when it
// fits the repeat, and a real-time stream of OutBlock1 whatever its size. With --computed the records hold
// what a gateway sends (computed averages and ratios with all their places, blank numbers, points left out
// and declared so), in forms that encoding the decoded values writes back byte for byte.
//
//   make_quote_capture DIR RECORDS [--computed]

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "QuoteLayout.h"

namespace {

// A rest block's repeat may go to the 32-bit limit: such a block is read a piece at a time.
constexpr long long kMaxRepeat = 2'147'483'647;

bool writeFile(const std::string& path, const std::string& text) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) return false;
  const bool ok = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  return std::fclose(file) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
  const bool computed = argc == 4 && std::string(argv[3]) == "--computed";
  if (argc != 3 && !computed) {
    std::fprintf(stderr, "usage: make_quote_capture DIR RECORDS [--computed]\n");
    return 2;
  }
  const auto values = computed ? blockproc::quote::Values::Computed : blockproc::quote::Values::Bench;
  const std::string dir = argv[1];
  const long long records = std::atoll(argv[2]);
  if (records <= 0) {
    std::fprintf(stderr, "make_quote_capture: RECORDS must be a positive number\n");
    return 2;
  }
  if (!writeFile(dir + "/quotes.xml",
                 blockproc::quote::definitionXml(std::min(records, kMaxRepeat), values))) {
    std::perror("make_quote_capture: quotes.xml");
    return 1;
  }
  std::FILE* file = std::fopen((dir + "/quotes.bin").c_str(), "wb");
  if (file == nullptr) {
    std::perror("make_quote_capture: quotes.bin");
    return 1;
  }
  blockproc::quote::Dice dice;
  std::string chunk;
  bool ok = true;
  for (long long i = 0; i < records && ok; ++i) {
    chunk += blockproc::quote::quoteRecord(dice, values);
    if (chunk.size() >= (1u << 20) || i + 1 == records) {
      ok = std::fwrite(chunk.data(), 1, chunk.size(), file) == chunk.size();
      chunk.clear();
    }
  }
  if (std::fclose(file) != 0 || !ok) {
    std::perror("make_quote_capture: quotes.bin");
    return 1;
  }
  return 0;
}
