// The tool's progress line, as text.

#include <gtest/gtest.h>

#include "Progress.h"

namespace {

TEST(BlockprocProgress, SaysBytesRecordsRateAndTimeLeft) {
  const struct {
    int64_t bytes, total, records;
    double seconds;
    const char* line;
  } cases[] = {
      {312'000'000, 1'020'000'000, 2'600'000, 1.5,
       "312.0 MB of 1.02 GB (30%), 2,600,000 records, 208.0 MB/s, 3 s left"},
      // A pipe: no size, so no share and no time left.
      {24'000'000, -1, 200'000, 2.0, "24.0 MB, 200,000 records, 12.0 MB/s"},
      {120, 1'000'000'000, 1, 0.5, "0.0 MB of 1.00 GB (0%), 1 record, 0.0 MB/s, 4,166,666 s left"},
      // Nothing done yet: no rate to give.
      {0, 2'000'000'000, 0, 1.2, "0.0 MB of 2.00 GB (0%), 0 records"},
      {2'000'000'000, 2'000'000'000, 16'666'666, 8.0,
       "2.00 GB of 2.00 GB (100%), 16,666,666 records, 250.0 MB/s, 0 s left"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(blockproc::cli::progressLine(c.bytes, c.total, c.records, c.seconds), c.line) << c.line;
}

}  // namespace
