#pragma once
// The layout check: reads data against a transaction definition and says, most likely first, what about
// the definition's layout would make the bytes read as ordinary values: which record size makes the data
// whole records, and which one change to one block's fields (a field longer or shorter, a field added or
// removed, the records longer or shorter, the data cut short) makes the most field values plausible.
//
// A value is plausible when it reads as its type would hold it: a number field holds blanks, a sign, digits
// and at most one point; a text field decodes in the encoding, holds no control bytes and does not start
// with a blank or hold a run of padding in its middle; a binary field holds a value in a sane range (a float
// or a double finite and not tiny). Only a bounded sample of the records is read (the first, middle and last
// ones of each block), so the check of a large capture reads a few megabytes whatever its size.
//
// The check throws nothing but std::bad_alloc and touches no byte outside the data it is given.
//
// Usage:
//
//   auto loaded = DefinitionLoader::loadFile("tick.xml");
//   check::CheckOptions options;
//   options.kind = check::DataKind::Stream;
//   options.block = "Tick";
//   const check::CheckResult result = check::checkLayout(*loaded.definition, bytes, options);
//   for (const check::Finding& f : result.findings) std::cout << check::describe(f) << '\n';

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "blockproc/engine/DefinitionLoader.h"

namespace blockproc::check {

// What the bytes are.
enum class DataKind : uint8_t {
  Reply,    // a reply: the output blocks in order, records as laid out in memory (attribute bytes included)
  Request,  // a request: the input blocks in order, each record's fields back to back
  Stream,   // real-time records of one block back to back, as laid out in memory
};

struct CheckOptions {
  DataKind kind = DataKind::Reply;
  std::string block;                       // the block to look at; "" looks at every block (not a stream)
  uint32_t encoding = kTextEncodingCP949;  // text encoding of the records
  int32_t sampleRecords = 2000;            // records read at each of the start, middle and end of a block
  int32_t maxDelta = 8;                    // largest byte count a field or a record is tried longer/shorter
  int32_t maxFindings = 10;                // findings kept beyond the first
};

// A byte range of the data.
struct ByteRange {
  int64_t offset = 0;
  int64_t length = 0;
};

enum class FindingKind : uint8_t {
  Fits,            // the data is whole records of the definition and reads as it says
  FieldLonger,     // field `field` is `delta` bytes longer than defined
  FieldShorter,    // field `field` is `delta` bytes shorter than defined
  FieldAdded,      // a field of `delta` bytes stands after `field` ("" : at the start of the record)
  FieldRemoved,    // field `field` (`delta` bytes) is not in the data
  RecordsLonger,   // every record is `delta` bytes longer, the extra bytes at the end
  RecordsShorter,  // every record is `delta` bytes shorter (not given by checkLayout, which names the last
                   // field shorter or removed instead)
  CutShort,        // the data ends `delta` bytes into a record (or a count promises more records)
};

// One explanation of the data, with how much of it that explanation makes plausible.
struct Finding {
  FindingKind kind = FindingKind::Fits;
  std::string block;        // the block the change is in
  std::string field;        // the field changed, or the one an added field follows ("" for none)
  int32_t fieldIndex = -1;  // its position in the block, or -1
  int32_t delta = 0;        // bytes (always 0 or more; the kind says the direction)
  int32_t recordSize = 0;   // bytes of one record of the block under this explanation
  int64_t records = 0;      // records of the block the data gives under it
  double score = 0;         // share (0 to 1) of the sampled field values that read plausibly under it
  double fieldScore = 0;    // share of the changed field's own values (or the first field after) read so
  double definedScore = 0;  // the same share as the definition stands
  int64_t sampled = 0;      // field values sampled
  bool alsoCut = false;     // the explanation needs the data cut short as well (no change made it whole)
  std::string evidence;     // one sentence a person can check: "with `price` 12 bytes long, ..."
  // Where the change shows in the data: the changed field's bytes (or the added bytes, or the tail of a
  // cut record) in the first few sampled records, under this explanation.
  std::vector<ByteRange> ranges;
};

// How plausible the values of one field are as the definition stands.
struct FieldScore {
  std::string block;
  std::string field;
  int32_t index = 0;            // position in the block
  int32_t offset = 0;           // first byte within the record
  int32_t length = 0;           // bytes of its value
  int64_t sampled = 0;          // values read
  int64_t plausible = 0;        // of them, the plausible ones
  int64_t firstBad = -1;        // record number of the first implausible value, or -1
  int64_t firstBadOffset = -1;  // data offset of that value, or -1
  bool alwaysBlank = false;     // every value read was blank
  bool oneValue = false;        // every value read was the same, not blank (more than one value read)
  double share() const noexcept { return sampled > 0 ? static_cast<double>(plausible) / sampled : 1.0; }
};

// What the size of the data says by itself.
struct SizeFinding {
  std::string block;       // the block whose records were counted ("" when no block is repeated)
  int64_t dataBytes = 0;   // bytes of the data
  int64_t blockBytes = 0;  // bytes the block's records take (to the end of the data for a rest block)
  int32_t recordSize = 0;  // bytes of one record as defined
  int64_t records = 0;     // whole records as defined
  int64_t leftOver = 0;    // bytes after the whole records (0 when whole)
  int64_t missing = 0;     // bytes more the data needs to hold what it promises, else 0
  bool whole = true;       // the data is exactly what the definition lays out
  // Record sizes near the defined one that make the block's bytes whole records, nearest first.
  struct Fit {
    int32_t recordSize = 0;
    int64_t records = 0;
  };
  std::vector<Fit> fits;
};

struct CheckResult {
  bool ok = false;    // the data fits the definition and reads plausibly (findings[0] is Fits)
  std::string error;  // why the check could not be made (no such block, no fields), else ""
  SizeFinding size;
  std::vector<FieldScore> fields;  // every field of the blocks looked at, as defined, in block order
  std::vector<Finding> findings;   // most likely first
  int64_t sampledRecords = 0;      // records read
};

// Checks `data` against the definition. On a caller's mistake (a block the definition lacks, a stream
// without a block) `error` says so and nothing else is filled.
CheckResult checkLayout(const TransactionDefinition& definition, std::string_view data,
                        const CheckOptions& options);

// A share as a person reads it: "100%" only when it is 1, "99.9%" or "0.3%" near the ends, else whole
// percents ("28%"), never rounded up.
std::string percentText(double share);

// A short name of the kind for formats that tools read ("field-longer", "cut-short", ...).
const char* kindName(FindingKind kind) noexcept;

// One line for a person: "field `price` is 2 bytes longer (12 bytes)", "a field of 2 bytes after `sign`";
// names stand as the definition gives them, so a caller escapes the line before it reaches a terminal.
std::string describe(const Finding& finding);

}  // namespace blockproc::check
