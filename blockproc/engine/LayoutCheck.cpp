// The layout check: one change at a time to one block's layout, each judged by how many sampled field values
// it makes plausible.
//
// The idea: a layout that is wrong by a few bytes reads every field after the change at the wrong place, so
// those values stop looking like their types (digits run into letters, a Hangul character is cut, a double
// reads as a tiny denormal). Every change of the kinds users meet (a field longer or shorter by 1 to N
// bytes, a field of N bytes added after any field, a field removed) is laid out; the data is walked with it
// (count prefixes, rest blocks, counts from earlier fields) and a change that does not make the data whole
// records is dropped. The rest are scored on the same bounded sample of records, and ranked by the share of
// values that read plausibly; ties go to the change whose extra bytes look like the field's own padding,
// then to the simpler kind and the smaller byte count. When no change makes the data whole, the definition
// as it stands is offered as data cut short.

#include "blockproc/engine/LayoutCheck.h"

#include <algorithm>
#include <bit>
#include <bitset>
#include <cmath>
#include <cstring>
#include <limits>

#include "blockproc/detail/FieldTypes.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/engine/FieldValue.h"

namespace blockproc::check {

namespace {

using internal::withThousands;

// ---- one value --------------------------------------------------------------------------------------------

// Integers beyond this magnitude are taken for bytes of something else read as a binary value.
constexpr double kSaneMagnitude = 1e13;
// Non-zero floating values below this magnitude are taken for the same.
constexpr double kSaneTiny = 1e-6;

bool isBlank(std::string_view bytes) {
  return internal::trimTrailing(bytes).empty();
}

// Numeric text that the value renderer reads as a number of the field's places, filled one way: blanks
// followed by a zero-filled number are the padding of two fields run together.
bool plausibleNumber(const FieldInfo& field, std::string_view bytes, uint32_t encoding,
                     std::string& scratch) {
  scratch.clear();
  if (value::appendValue(scratch, field, bytes, encoding, value::BadByteStyle::Escaped).issue !=
      value::ValueIssue::None)
    return false;
  size_t i = 0;
  while (i < bytes.size() && bytes[i] == ' ') ++i;
  if (i > 0 && i < bytes.size() && (bytes[i] == '-' || bytes[i] == '+')) ++i;
  return !(i > 0 && i + 1 < bytes.size() && bytes[i] == '0' && bytes[i + 1] >= '0' && bytes[i + 1] <= '9');
}

// Text that decodes in the encoding, starts with no blank, holds no control byte and no run of three or more
// blanks inside it (padding of one field followed by the next one's bytes).
bool plausibleText(std::string_view bytes, uint32_t encoding, std::string& scratch) {
  const std::string_view text = internal::trimTrailing(bytes);
  if (text.empty()) return true;
  if (text.front() == ' ') return false;
  int blanks = 0;
  for (const char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    if (byte < 0x20 || byte == 0x7F) return false;
    if (c != ' ' && blanks >= 3) return false;
    blanks = c == ' ' ? blanks + 1 : 0;
  }
  scratch.clear();
  return codec::decodeAppend(encoding, text, scratch);
}

// Whether the bytes past a binary value's width are its sign extension.
bool extendsSign(std::string_view extra, bool negative) {
  const char fill = negative ? '\xFF' : '\0';
  return std::all_of(extra.begin(), extra.end(), [fill](char c) { return c == fill; });
}

// The binary value at the start of `bytes` (at least its width of them).
ftype::RawNumber loadRaw(const FieldInfo& field, std::string_view bytes) {
  return ftype::loadRaw(ftype::rulesOf(field.nDataType).binary,
                        reinterpret_cast<const uint8_t*>(bytes.data()));
}

// A binary value of at least its type's width: not numeric text, an integer of sane magnitude, a finite
// float or double that is zero or of sane magnitude; bytes beyond the width extend its sign.
bool plausibleBinary(const FieldInfo& field, std::string_view bytes) {
  const auto width = static_cast<size_t>(ftype::binaryWidth(field.nDataType));
  // Four or more bytes of digits, blanks, signs and points: numeric text read as a binary value (two such
  // bytes are an ordinary int16 now and then).
  if (bytes.substr(0, width).find_first_not_of("0123456789 +-.") == std::string_view::npos) return false;
  const std::string_view extra = bytes.substr(width);
  const ftype::RawNumber v = loadRaw(field, bytes);
  if (v.integer)
    return extendsSign(extra, v.whole < 0) && std::fabs(static_cast<double>(v.whole)) <= kSaneMagnitude;
  const double magnitude = std::fabs(v.real);
  return extendsSign(extra, false) && std::isfinite(v.real) &&
         (v.real == 0 || (magnitude >= kSaneTiny && magnitude <= kSaneMagnitude));
}

// Whether a value of `length` bytes of the field is judged at all: a binary field cut below its width is
// not (its value cannot be told from its bytes).
bool judged(const FieldInfo& field, int32_t length) {
  return length > 0 && length >= ftype::binaryWidth(field.nDataType);
}

bool plausible(const FieldInfo& field, std::string_view bytes, uint32_t encoding, std::string& scratch) {
  if (ftype::binaryWidth(field.nDataType) > 0) return plausibleBinary(field, bytes);
  if (ftype::holdsNumberText(field)) return plausibleNumber(field, bytes, encoding, scratch);
  if (ftype::isText(field.nDataType)) return plausibleText(bytes, encoding, scratch);
  return true;
}

// Whether the `extra` bytes of a field grown by that many are its own padding: leading zeros or blanks of
// numeric text (after a sign), trailing blanks of text, the sign extension of a binary value.
bool paddedBy(const FieldInfo& field, std::string_view bytes, int32_t extra) {
  const auto n = static_cast<size_t>(extra);
  if (ftype::binaryWidth(field.nDataType) > 0) return true;  // judged by plausibleBinary
  if (ftype::holdsNumberText(field)) {
    const size_t from = !bytes.empty() && (bytes[0] == '-' || bytes[0] == '+') ? 1 : 0;
    const std::string_view lead = bytes.substr(from, n);
    return lead.size() == n && lead.find_first_not_of("0 ") == std::string_view::npos;
  }
  return isBlank(bytes.substr(bytes.size() - std::min(bytes.size(), n)));
}

// ---- layouts ----------------------------------------------------------------------------------------------

// One field's value within a record.
struct Slot {
  int32_t field;   // index in the block
  int32_t offset;  // first byte within the record
  int32_t length;
};

// A block's record as one explanation lays it out: the slots in byte order and the record's size.
struct Layout {
  std::vector<Slot> slots;
  int32_t size = 0;
};

// The record as the definition lays it out: in memory (attribute bytes and positions as given) for a reply
// or a stream, the fields back to back for a request.
Layout definedLayout(const BlockInfo& block, bool packed) {
  Layout layout;
  int32_t sent = 0;
  for (int32_t i = 0; i < block.getFieldCount(); ++i) {
    const FieldInfo& f = *block.getFieldInfoFromIndex(i);
    const int32_t length = std::max(f.nLength, 0);
    layout.slots.push_back({i, packed ? sent : f.nDataPos, length});
    sent += length;
  }
  std::stable_sort(layout.slots.begin(), layout.slots.end(),
                   [](const Slot& a, const Slot& b) { return a.offset < b.offset; });
  layout.size = packed ? sent : block.getRecordMemSize();
  return layout;
}

// One change to one block's layout; `slot` indexes the block's defined slots (-1: the start of the record).
struct Change {
  FindingKind kind = FindingKind::Fits;
  int32_t block = 0;  // index among the blocks looked at
  int32_t slot = -1;
  int32_t delta = 0;
};

// Where the slot after `slot` starts (the record's end after the last).
int32_t nextStart(const Layout& layout, int32_t slot) {
  const auto next = static_cast<size_t>(slot + 1);
  return next < layout.slots.size() ? layout.slots[next].offset : layout.size;
}

// Moves every slot after `slot` by `by` bytes and the record's end with them.
void shiftAfter(Layout& layout, int32_t slot, int32_t by) {
  for (size_t j = static_cast<size_t>(slot + 1); j < layout.slots.size(); ++j) layout.slots[j].offset += by;
  layout.size += by;
}

// The layout under the change, and the bytes of the record the change concerns (`where`).
Layout applied(const Layout& base, const Change& change, ByteRange& where) {
  Layout layout = base;
  const int32_t d = change.delta;
  switch (change.kind) {
    case FindingKind::FieldLonger:
    case FindingKind::FieldShorter: {
      const int32_t by = change.kind == FindingKind::FieldLonger ? d : -d;
      shiftAfter(layout, change.slot, by);
      Slot& s = layout.slots[static_cast<size_t>(change.slot)];
      s.length += by;
      where = {s.offset, s.length};
      break;
    }
    case FindingKind::FieldAdded:
    case FindingKind::RecordsLonger: {
      const int32_t at = change.slot < 0 ? 0 : nextStart(base, change.slot);
      shiftAfter(layout, change.slot, d);
      where = {at, d};
      break;
    }
    case FindingKind::FieldRemoved: {
      shiftAfter(layout, change.slot, -d);
      layout.slots.erase(layout.slots.begin() + change.slot);
      const auto next = static_cast<size_t>(change.slot);
      where = next < layout.slots.size() ? ByteRange{layout.slots[next].offset, layout.slots[next].length}
                                         : ByteRange{layout.size, 0};
      break;
    }
    default:
      where = {0, layout.size};
      break;
  }
  return layout;
}

// ---- walking the data -------------------------------------------------------------------------------------

struct Placed {
  int32_t block;
  int64_t offset;   // first record
  int64_t records;  // whole records in the data
};

struct Walk {
  std::vector<Placed> placed;
  bool broken = false;     // a count that is not a number, a layout of no bytes
  int64_t leftOver = 0;    // bytes past what the layout accounts for
  int64_t missing = 0;     // bytes more the layout needs
  int64_t partial = 0;     // bytes of a record the data ends inside
  int64_t restBytes = -1;  // bytes from the first record of a rest block (or the stream) to the end
  int32_t restBlock = -1;
  bool whole() const noexcept { return !broken && leftOver == 0 && missing == 0 && partial == 0; }
};

struct Context {
  const TransactionDefinition& definition;
  std::string_view data;
  const CheckOptions& options;
  std::vector<const BlockInfo*> blocks;  // the blocks of the data, in order
  std::vector<Layout> defined;           // their layouts as defined
  std::vector<bool> looked;              // whether a block is one the caller asked about
  std::string scratch;
};

int64_t parseCountText(std::string_view text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.remove_suffix(1);
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  const num::WholeInt count = num::parseWholeDigits(text, 0, std::numeric_limits<int64_t>::max());
  return count.isNumber ? count.value : -1;
}

// The record count a block takes from a field of an earlier block, or -1.
int64_t countFromField(Context& ctx, const std::vector<const Layout*>& layouts, const Walk& walk,
                       const BlockInfo& block) {
  const std::string& ref = block.m_strRecordLenSubInfo;
  const size_t dot = ref.find('.');
  if (dot == std::string::npos) return -1;
  const std::string_view whole = ref, blockName = whole.substr(0, dot), field = whole.substr(dot + 1);
  for (const Placed& p : walk.placed) {
    const BlockInfo& source = *ctx.blocks[static_cast<size_t>(p.block)];
    if (source.m_szBlockName != blockName || p.records < 1) continue;
    for (const Slot& s : layouts[static_cast<size_t>(p.block)]->slots) {
      const FieldInfo& f = *source.getFieldInfoFromIndex(s.field);
      if (f.szFieldName != field) continue;
      if (p.offset + s.offset + s.length > static_cast<int64_t>(ctx.data.size())) return -1;
      ctx.scratch.clear();
      value::appendValue(ctx.scratch, f, ctx.data.substr(static_cast<size_t>(p.offset + s.offset), s.length),
                         ctx.options.encoding, value::BadByteStyle::Escaped);
      return parseCountText(ctx.scratch);
    }
  }
  return -1;
}

// Places each block's records in the data under the layouts, as a receiver would split it.
Walk walk(Context& ctx, const std::vector<const Layout*>& layouts) {
  Walk w;
  const auto size = static_cast<int64_t>(ctx.data.size());
  int64_t at = 0;
  for (size_t b = 0; b < ctx.blocks.size(); ++b) {
    const BlockInfo& block = *ctx.blocks[b];
    const int64_t stride = layouts[b]->size;
    if (stride <= 0) {
      w.broken = true;
      return w;
    }
    int64_t count = 1;
    const bool rest = ctx.options.kind == DataKind::Stream ||
                      (block.isOccursBlock() && block.m_nRecordLenApplyType == RCL_RESTDATA);
    if (rest) {
      count = (size - at) / stride;
      w.restBytes = size - at;
      w.restBlock = static_cast<int32_t>(b);
      w.partial = (size - at) % stride;
    } else if (block.isOccursBlock() && block.m_nRecordLenApplyType == RCL_OCCURSLEN) {
      const int32_t digits = ctx.definition.tran.m_nOccursLen;
      if (digits <= 0 || size - at < digits) {
        w.broken = digits <= 0;
        w.missing = digits - (size - at);
        return w;
      }
      std::string_view prefix = ctx.data.substr(static_cast<size_t>(at), static_cast<size_t>(digits));
      while (!prefix.empty() && prefix.front() == ' ') prefix.remove_prefix(1);
      const num::WholeInt n = num::parseWholeDigits(prefix, 0, std::numeric_limits<int64_t>::max());
      count = n.isNumber ? n.value : -1;
      at += digits;
    } else if (block.isOccursBlock()) {
      count = countFromField(ctx, layouts, w, block);
    }
    if (count < 0) {
      w.broken = true;
      return w;
    }
    const int64_t room = (size - at) / stride;
    w.placed.push_back({static_cast<int32_t>(b), at, std::min(count, room)});
    if (count > room) {
      w.missing = (count - room) * stride - (size - at) % stride;
      w.partial = (size - at) % stride;
      return w;
    }
    at += count * stride;
    if (rest) at = size;
  }
  w.leftOver = size - at;
  return w;
}

// ---- scoring ----------------------------------------------------------------------------------------------

// The records read of a block of `records`: all of them up to three samples' worth, else the first, the
// middle and the last sample.
template <typename Visit>
void forSample(int64_t records, int64_t sample, Visit visit) {
  if (records <= 3 * sample) {
    for (int64_t r = 0; r < records; ++r) visit(r);
    return;
  }
  const int64_t middle = records / 2 - sample / 2;
  for (int64_t r = 0; r < sample; ++r) visit(r);
  for (int64_t r = middle; r < middle + sample; ++r) visit(r);
  for (int64_t r = records - sample; r < records; ++r) visit(r);
}

struct Tally {
  int64_t sampled = 0, plausible = 0;
  double share() const noexcept { return sampled > 0 ? static_cast<double>(plausible) / sampled : 1.0; }
};

// What one explanation scores.
struct Score {
  Tally all;
  Tally focus;         // the changed field, or the first field after the change
  Tally padding;       // of a longer field: values whose extra bytes are its own padding
  double shape = 0;    // sum of the number fields' shapes (Fills::shape)
  int32_t shaped = 0;  // number fields in the sum
  int64_t bytes = 0;   // bytes of the plausible values: how much of the data reads as its type
  double bits = 0;     // mean significant bits of the plausible binary integers: counts are small
  int32_t codes = 0;   // distinct values of the one-byte text fields, summed: codes are few
  double meanShape() const noexcept { return shaped > 0 ? shape / shaped : 0; }
  int64_t records = 0;
  std::vector<ByteRange> ranges;
};

// The slot an explanation's evidence is about: the changed one, or the first after the change; -1 if none.
int32_t focusSlot(const Change& change, const Layout& layout) {
  switch (change.kind) {
    case FindingKind::FieldLonger:
    case FindingKind::FieldShorter:
      return change.slot;
    case FindingKind::FieldAdded:
      return change.slot + 1 < static_cast<int32_t>(layout.slots.size()) ? change.slot + 1 : -1;
    case FindingKind::FieldRemoved:
      return change.slot < static_cast<int32_t>(layout.slots.size()) ? change.slot : -1;
    default:
      return -1;
  }
}

constexpr size_t kRangesShown = 3;

// The per-field scores of the definition as it stands, gathered while it is scored.
struct FieldTally {
  std::vector<FieldScore> scores;
  std::vector<int32_t> first;      // per block, the index of its first field in scores (-1: not looked at)
  std::vector<std::string> value;  // per field, the first value read

  void add(int32_t block, int32_t field, int64_t record, int64_t offset, std::string_view bytes, bool ok) {
    const int32_t from = first[static_cast<size_t>(block)];
    if (from < 0) return;
    const auto i = static_cast<size_t>(from + field);
    FieldScore& fs = scores[i];
    if (fs.sampled == 0) {
      value[i].assign(bytes);
      fs.alwaysBlank = true;
      fs.oneValue = true;
    }
    ++fs.sampled;
    fs.plausible += ok ? 1 : 0;
    if (!ok && fs.firstBad < 0) {
      fs.firstBad = record;
      fs.firstBadOffset = offset;
    }
    fs.alwaysBlank = fs.alwaysBlank && isBlank(bytes);
    fs.oneValue = fs.oneValue && bytes == value[i];
  }
};

// How the plausible values of a number field are padded (with leading zeros or with leading blanks), and
// the shape of their digits: a number rarely fills its field, and its last digit varies.
struct Fills {
  int64_t zeros = 0, blanks = 0, values = 0, roomy = 0;
  uint32_t lastDigits = 0;  // bit d: some value ends in digit d
  void add(std::string_view bytes) {
    size_t i = 0;
    while (i < bytes.size() && bytes[i] == ' ') ++i;
    const size_t lead = i;
    if (i < bytes.size() && (bytes[i] == '-' || bytes[i] == '+')) ++i;
    const std::string_view text = internal::trimTrailing(bytes);
    if (text.size() <= i) return;  // blank
    ++values;
    if (bytes[i] == '0' || lead > 0) ++roomy;
    if (text.back() >= '0' && text.back() <= '9') lastDigits |= 1u << (text.back() - '0');
    if (bytes[i] == '0' && i + 1 < bytes.size() && bytes[i + 1] >= '0' && bytes[i + 1] <= '9')
      ++zeros;
    else if (lead > 0)
      ++blanks;
  }
  // 0 to 2: the share of values that leave room in the field, and the variety of last digits.
  double shape() const {
    if (values == 0) return 0;
    return static_cast<double>(roomy) / static_cast<double>(values) + std::popcount(lastDigits) / 10.0;
  }
};

Score score(Context& ctx, const Walk& w, const std::vector<const Layout*>& layouts, const Change& change,
            const ByteRange& where, int64_t sample, FieldTally* fields) {
  Score s;
  std::vector<Fills> fills;
  std::vector<std::bitset<256>> seen;
  int64_t bitSum = 0, bitCount = 0;
  for (const Placed& p : w.placed) {
    const BlockInfo& block = *ctx.blocks[static_cast<size_t>(p.block)];
    const Layout& layout = *layouts[static_cast<size_t>(p.block)];
    const bool changed = p.block == change.block;
    const int32_t focus = changed ? focusSlot(change, layout) : -1;
    if (changed) s.records = p.records;
    fills.assign(layout.slots.size(), Fills{});
    seen.assign(layout.slots.size(), std::bitset<256>{});
    forSample(p.records, sample, [&](int64_t r) {
      const int64_t base = p.offset + r * layout.size;
      if (changed && s.ranges.size() < kRangesShown && where.length > 0)
        s.ranges.push_back({base + where.offset, where.length});
      for (size_t k = 0; k < layout.slots.size(); ++k) {
        const Slot& slot = layout.slots[k];
        const FieldInfo& f = *block.getFieldInfoFromIndex(slot.field);
        if (!judged(f, slot.length) || slot.offset + slot.length > layout.size) continue;
        const std::string_view bytes =
            ctx.data.substr(static_cast<size_t>(base + slot.offset), static_cast<size_t>(slot.length));
        const bool ok = plausible(f, bytes, ctx.options.encoding, ctx.scratch);
        if (ok && ftype::holdsNumberText(f)) fills[k].add(bytes);
        const ftype::Rules& rules = ftype::rulesOf(f.nDataType);
        if (bytes.size() == 1 && rules.layout == ftype::Layout::Text)
          seen[k].set(static_cast<uint8_t>(bytes[0]));
        if (ok && rules.binary == ftype::Binary::Int64) {
          const int64_t v = loadRaw(f, bytes).whole;
          bitSum += std::bit_width(static_cast<uint64_t>(v < 0 ? -(v + 1) : v));
          ++bitCount;
        }
        ++s.all.sampled;
        s.all.plausible += ok ? 1 : 0;
        s.bytes += ok ? slot.length : 0;
        if (static_cast<int32_t>(k) == focus) {
          ++s.focus.sampled;
          s.focus.plausible += ok ? 1 : 0;
          if (change.kind == FindingKind::FieldLonger) {
            ++s.padding.sampled;
            s.padding.plausible += paddedBy(f, bytes, change.delta) ? 1 : 0;
          }
        }
        if (fields != nullptr) fields->add(p.block, slot.field, r, base + slot.offset, bytes, ok);
      }
    });
    // A gateway pads a number field one way: the values padded the other way are misread.
    for (size_t k = 0; k < fills.size(); ++k) {
      const int64_t odd = std::min(fills[k].zeros, fills[k].blanks);
      s.codes += static_cast<int32_t>(seen[k].count());
      if (fills[k].values > 0) {
        s.shape += fills[k].shape();
        ++s.shaped;
      }
      s.all.plausible -= odd;
      if (static_cast<int32_t>(k) == focus) s.focus.plausible -= odd;
    }
  }
  s.bits = bitCount > 0 ? static_cast<double>(bitSum) / static_cast<double>(bitCount) : 0;
  return s;
}

// ---- explanations -----------------------------------------------------------------------------------------

// Every change the check tries on the blocks looked at.
std::vector<Change> changes(const Context& ctx) {
  std::vector<Change> out;
  const int32_t n = ctx.options.maxDelta;
  for (size_t b = 0; b < ctx.blocks.size(); ++b) {
    if (!ctx.looked[b]) continue;
    const Layout& layout = ctx.defined[b];
    const auto block = static_cast<int32_t>(b);
    const auto slots = static_cast<int32_t>(layout.slots.size());
    for (int32_t i = 0; i < slots; ++i) {
      const int32_t length = layout.slots[static_cast<size_t>(i)].length;
      for (int32_t d = 1; d <= n; ++d) {
        out.push_back({FindingKind::FieldLonger, block, i, d});
        if (d < length) out.push_back({FindingKind::FieldShorter, block, i, d});
      }
      const int32_t width = nextStart(layout, i) - layout.slots[static_cast<size_t>(i)].offset;
      if (width > 0 && width < layout.size) out.push_back({FindingKind::FieldRemoved, block, i, width});
    }
    for (int32_t i = -1; i < slots; ++i)
      for (int32_t d = 1; d <= n; ++d)
        out.push_back({i == slots - 1 ? FindingKind::RecordsLonger : FindingKind::FieldAdded, block, i, d});
  }
  return out;
}

// Ties in score go to the simpler kind.
int kindOrder(FindingKind kind) {
  switch (kind) {
    case FindingKind::Fits:
      return 0;
    case FindingKind::FieldLonger:
    case FindingKind::FieldShorter:
      return 1;
    case FindingKind::FieldRemoved:
      return 2;
    case FindingKind::FieldAdded:
      return 3;
    case FindingKind::RecordsLonger:
    case FindingKind::RecordsShorter:
      return 4;
    case FindingKind::CutShort:
      return 5;
  }
  return 6;
}

struct Candidate {
  Change change;
  Score score;
  int32_t recordSize = 0;
  double fit = 0.5;    // how well the extra bytes look like padding (longer fields), else a half
  int32_t agreed = 0;  // leading fields of the block's first record read as the definition reads them
  // Bytes of a last record the change leaves cut short, or -1 when it makes the data whole.
  int64_t cutAt = -1;
};

bool ranksBefore(const Candidate& a, const Candidate& b) {
  constexpr double kTie = 0.001;
  const double sa = a.score.all.share(), sb = b.score.all.share();
  if (std::fabs(sa - sb) > kTie) return sa > sb;
  if (std::fabs(a.fit - b.fit) > 0.05) return a.fit > b.fit;
  if (std::fabs(a.score.meanShape() - b.score.meanShape()) > 0.01)
    return a.score.meanShape() > b.score.meanShape();
  if (a.score.codes != b.score.codes) return a.score.codes < b.score.codes;
  if (a.score.bytes != b.score.bytes) return a.score.bytes > b.score.bytes;
  if (std::fabs(a.score.bits - b.score.bits) > 1) return a.score.bits < b.score.bits;
  if (a.agreed != b.agreed) return a.agreed > b.agreed;
  if (kindOrder(a.change.kind) != kindOrder(b.change.kind))
    return kindOrder(a.change.kind) < kindOrder(b.change.kind);
  if (a.change.delta != b.change.delta) return a.change.delta < b.change.delta;
  return a.change.slot < b.change.slot;
}

std::string percent(const Tally& t) {
  return t.sampled == 0 ? "no" : percentText(t.share());
}

std::string quoted(std::string_view name) {
  return "`" + std::string(name) + "`";
}

// The field name of a slot of the defined layout of block b.
const std::string& slotName(const Context& ctx, int32_t b, int32_t slot) {
  const Layout& layout = ctx.defined[static_cast<size_t>(b)];
  return ctx.blocks[static_cast<size_t>(b)]
      ->getFieldInfoFromIndex(layout.slots[static_cast<size_t>(slot)].field)
      ->szFieldName;
}

// "with `price` 12 bytes long", "with a field of 2 bytes after `sign`", ...
std::string premise(const Context& ctx, const Change& c) {
  const auto slotLength = [&](int32_t slot) {
    return ctx.defined[static_cast<size_t>(c.block)].slots[static_cast<size_t>(slot)].length;
  };
  switch (c.kind) {
    case FindingKind::FieldLonger:
      return "with " + quoted(slotName(ctx, c.block, c.slot)) + " " +
             internal::counted(slotLength(c.slot) + c.delta, "byte") + " long";
    case FindingKind::FieldShorter:
      return "with " + quoted(slotName(ctx, c.block, c.slot)) + " " +
             internal::counted(slotLength(c.slot) - c.delta, "byte") + " long";
    case FindingKind::FieldAdded:
      return "with a field of " + internal::counted(c.delta, "byte") +
             (c.slot < 0 ? " at the start of each record"
                         : " after " + quoted(slotName(ctx, c.block, c.slot)));
    case FindingKind::RecordsLonger:
      return "with " + internal::counted(c.delta, "byte") + " more at the end of each record";
    case FindingKind::FieldRemoved:
      return "without " + quoted(slotName(ctx, c.block, c.slot));
    default:
      return "as defined";
  }
}

}  // namespace

std::string percentText(double share) {
  if (share >= 1.0) return "100%";
  const double p = std::max(share, 0.0) * 100.0;
  const double scale = p >= 99 || (p > 0 && p < 1) ? 10.0 : 1.0;  // 99.9%, 0.3%: never 100% or 0% by rounding
  std::string text = std::to_string(std::floor(p * scale) / scale);
  text.erase(text.find('.') + (scale > 1 ? 2 : 0));
  return text + "%";
}

const char* kindName(FindingKind kind) noexcept {
  switch (kind) {
    case FindingKind::Fits:
      return "fits";
    case FindingKind::FieldLonger:
      return "field-longer";
    case FindingKind::FieldShorter:
      return "field-shorter";
    case FindingKind::FieldAdded:
      return "field-added";
    case FindingKind::FieldRemoved:
      return "field-removed";
    case FindingKind::RecordsLonger:
      return "records-longer";
    case FindingKind::RecordsShorter:
      return "records-shorter";
    case FindingKind::CutShort:
      return "cut-short";
  }
  return "unknown";
}

std::string describe(const Finding& f) {
  const std::string field = quoted(f.field);
  switch (f.kind) {
    case FindingKind::Fits:
      return "the data is whole records of the definition";
    case FindingKind::FieldLonger:
      return "field " + field + " is " + internal::counted(f.delta, "byte") + " longer";
    case FindingKind::FieldShorter:
      return "field " + field + " is " + internal::counted(f.delta, "byte") + " shorter";
    case FindingKind::FieldAdded:
      return "a field of " + internal::counted(f.delta, "byte") +
             (f.field.empty() ? " stands at the start of each record" : " stands after " + field);
    case FindingKind::FieldRemoved:
      return "field " + field + " (" + internal::counted(f.delta, "byte") + ") is not in the data";
    case FindingKind::RecordsLonger:
      return "the records are " + internal::counted(f.delta, "byte") + " longer";
    case FindingKind::RecordsShorter:
      return "the records are " + internal::counted(f.delta, "byte") + " shorter";
    case FindingKind::CutShort:
      return f.delta > 0 ? "the data is cut short " + internal::counted(f.delta, "byte") + " into a record"
                         : "the data ends before the records its counts promise";
  }
  return {};
}

namespace {

// The blocks the data holds, in order, and which of them the caller asked about; "" when they are found,
// else why not.
std::string chooseBlocks(Context& ctx) {
  const TranInfo& tran = ctx.definition.tran;
  const std::string& wanted = ctx.options.block;
  if (ctx.options.kind == DataKind::Stream) {
    if (wanted.empty()) return "a stream holds the records of one block: name it";
    const auto found = tran.m_blockInfoMap.find(wanted);
    if (found == tran.m_blockInfoMap.end()) return "the definition has no block named " + quoted(wanted);
    ctx.blocks.push_back(found->second);
  } else {
    const auto& list = ctx.options.kind == DataKind::Request ? tran.m_InBlockList : tran.m_OutBlockList;
    ctx.blocks.assign(list.begin(), list.end());
    if (ctx.blocks.empty())
      return std::string("the definition has no ") +
             (ctx.options.kind == DataKind::Request ? "input" : "output") + " block";
  }
  bool any = false;
  for (const BlockInfo* block : ctx.blocks) {
    ctx.defined.push_back(definedLayout(*block, ctx.options.kind == DataKind::Request));
    ctx.looked.push_back(wanted.empty() || block->m_szBlockName == wanted);
    any = any || ctx.looked.back();
  }
  if (!any)
    return "the definition's " + std::string(ctx.options.kind == DataKind::Request ? "input" : "output") +
           " blocks hold none named " + quoted(wanted);
  return {};
}

// Record sizes near the defined one that make `bytes` whole records, nearest first.
std::vector<SizeFinding::Fit> fitsOf(int64_t bytes, int32_t recordSize, int32_t reach) {
  std::vector<SizeFinding::Fit> fits;
  if (bytes <= 0) return fits;
  for (int32_t d = 1; d <= reach && fits.size() < 3; ++d)
    for (const int32_t size : {recordSize - d, recordSize + d})
      if (size > 0 && bytes % size == 0) fits.push_back({size, bytes / size});
  return fits;
}

SizeFinding sizeFinding(const Context& ctx, const Walk& w) {
  SizeFinding size;
  size.dataBytes = static_cast<int64_t>(ctx.data.size());
  size.whole = w.whole();
  size.leftOver = w.leftOver + w.partial;
  size.missing = w.missing;
  if (w.restBlock < 0) return size;
  const auto b = static_cast<size_t>(w.restBlock);
  size.block = ctx.blocks[b]->m_szBlockName;
  size.recordSize = ctx.defined[b].size;
  size.blockBytes = w.restBytes;
  size.records = size.recordSize > 0 ? w.restBytes / size.recordSize : 0;
  if (w.partial != 0)
    size.fits = fitsOf(w.restBytes, size.recordSize, std::max(ctx.options.maxDelta, size.recordSize / 8));
  return size;
}

std::vector<const Layout*> definedLayouts(const Context& ctx) {
  std::vector<const Layout*> layouts;
  for (const Layout& l : ctx.defined) layouts.push_back(&l);
  return layouts;
}

// The block whose records the size findings count: the rest block (or the stream's), else the last placed.
int32_t mainBlock(const Walk& w) {
  return w.restBlock >= 0 ? w.restBlock : (w.placed.empty() ? 0 : w.placed.back().block);
}

// The definition as it stands, scored: whole records (Fits) or data that ends inside a record (CutShort).
Candidate definedCandidate(const Context& ctx, const Walk& w, Score scored) {
  Candidate c;
  c.change.kind = w.whole() ? FindingKind::Fits : FindingKind::CutShort;
  c.change.block = mainBlock(w);
  c.change.delta = static_cast<int32_t>(w.partial);
  c.recordSize = ctx.defined[static_cast<size_t>(c.change.block)].size;
  c.score = std::move(scored);
  if (!w.whole()) {
    const int64_t cut = static_cast<int64_t>(ctx.data.size()) - w.partial;
    c.score.ranges = {{cut, w.partial}};
  }
  return c;
}

// The canonical value of a slot of the record at `base`, or "" past the data's end.
const std::string& canonical(Context& ctx, const BlockInfo& block, const Slot& slot, int64_t base) {
  ctx.scratch.clear();
  const int64_t at = base + slot.offset;
  if (at + slot.length > static_cast<int64_t>(ctx.data.size())) return ctx.scratch;
  value::appendValue(ctx.scratch, *block.getFieldInfoFromIndex(slot.field),
                     ctx.data.substr(static_cast<size_t>(at), static_cast<size_t>(slot.length)),
                     ctx.options.encoding, value::BadByteStyle::Escaped);
  return ctx.scratch;
}

// How many leading fields of the changed block's first record read the same under the change as under the
// definition. The first record starts where the definition puts it, so its fields are right up to the real
// change: of two changes that explain the data equally, the one that leaves more of them alone is likelier.
int32_t agreement(Context& ctx, const Walk& w, const Layout& layout, const Change& change) {
  const auto b = static_cast<size_t>(change.block);
  const auto placed = std::find_if(w.placed.begin(), w.placed.end(),
                                   [&](const Placed& p) { return p.block == change.block; });
  if (placed == w.placed.end() || placed->records < 1) return 0;
  const BlockInfo& block = *ctx.blocks[b];
  int32_t agreed = 0;
  std::string before;
  for (const Slot& defined : ctx.defined[b].slots) {
    const auto now = std::find_if(layout.slots.begin(), layout.slots.end(),
                                  [&](const Slot& s) { return s.field == defined.field; });
    if (now == layout.slots.end()) break;
    before = canonical(ctx, block, defined, placed->offset);
    if (canonical(ctx, block, *now, placed->offset) != before) break;
    ++agreed;
  }
  return agreed;
}

// Scores every change that makes the data whole records (or, with `cutToo`, any change the data can be
// walked with) on a sample of `sample` records per place.
void tryChanges(Context& ctx, std::vector<Candidate>& out, int64_t sample, bool cutToo) {
  std::vector<const Layout*> layouts = definedLayouts(ctx);
  for (const Change& change : changes(ctx)) {
    const auto b = static_cast<size_t>(change.block);
    ByteRange where;
    const Layout layout = applied(ctx.defined[b], change, where);
    layouts[b] = &layout;
    const Walk w = walk(ctx, layouts);
    const bool cut = !w.whole() && !w.broken && w.leftOver == 0;
    if (w.whole() || (cutToo && cut)) {
      Candidate c{change, score(ctx, w, layouts, change, where, sample, nullptr), layout.size};
      if (change.kind == FindingKind::FieldLonger) c.fit = c.score.padding.share();
      if (!w.whole()) {
        c.fit = 0;  // a change that also needs the data cut short ranks behind a whole one
        c.cutAt = w.partial;
      }
      c.agreed = agreement(ctx, w, layout, change);
      out.push_back(std::move(c));
    }
    layouts[b] = &ctx.defined[b];
  }
}

// The slot of the defined layout an explanation's evidence is about (see focusSlot), or -1.
int32_t definedFocusSlot(const Change& change, const Layout& defined) {
  int32_t slot = -1;
  if (change.kind == FindingKind::FieldLonger || change.kind == FindingKind::FieldShorter) slot = change.slot;
  if (change.kind == FindingKind::FieldAdded || change.kind == FindingKind::FieldRemoved)
    slot = change.slot + 1;
  return slot >= 0 && slot < static_cast<int32_t>(defined.slots.size()) ? slot : -1;
}

// The share of the evidence's field as the definition stands.
Tally definedFocus(const Context& ctx, const Change& change, const FieldTally& fields) {
  const Layout& layout = ctx.defined[static_cast<size_t>(change.block)];
  const int32_t slot = definedFocusSlot(change, layout);
  const int32_t from = fields.first[static_cast<size_t>(change.block)];
  if (slot < 0 || from < 0) return {};
  const FieldScore& fs =
      fields.scores[static_cast<size_t>(from + layout.slots[static_cast<size_t>(slot)].field)];
  return {fs.sampled, fs.plausible};
}

Finding findingOf(const Context& ctx, const Candidate& c, const FieldTally& fields, const Tally& definedAll) {
  Finding f;
  const Change& ch = c.change;
  const BlockInfo& block = *ctx.blocks[static_cast<size_t>(ch.block)];
  f.kind = ch.kind;
  f.block = block.m_szBlockName;
  if (ch.slot >= 0 && ch.kind != FindingKind::Fits && ch.kind != FindingKind::CutShort) {
    const Slot& slot = ctx.defined[static_cast<size_t>(ch.block)].slots[static_cast<size_t>(ch.slot)];
    f.fieldIndex = slot.field;
    f.field = block.getFieldInfoFromIndex(slot.field)->szFieldName;
  }
  f.delta = ch.delta;
  f.recordSize = c.recordSize;
  f.records = c.score.records;
  f.score = c.score.all.share();
  f.fieldScore = c.score.focus.share();
  const Tally before = definedFocus(ctx, ch, fields);
  f.definedScore = before.share();
  f.sampled = c.score.all.sampled;
  f.ranges = c.score.ranges;
  f.alsoCut = c.cutAt >= 0 && ch.kind != FindingKind::CutShort;
  const std::string shape =
      " (records of " + internal::counted(c.recordSize, "byte") + ": " + withThousands(c.score.records) + ")";
  const std::string all =
      percent(c.score.all) + " of " + withThousands(c.score.all.sampled) + " sampled values";
  if (ch.kind == FindingKind::Fits) {
    f.evidence = "as defined" + shape + ", " + all + " read cleanly";
  } else if (ch.kind == FindingKind::CutShort) {
    f.evidence = "the data ends " + internal::counted(ch.delta, "byte") + " into a record of " +
                 withThousands(c.recordSize) + "; the " + withThousands(c.score.records) +
                 " whole records read " + "as defined: " + all + " read cleanly";
  } else {
    const int32_t focus = definedFocusSlot(ch, ctx.defined[static_cast<size_t>(ch.block)]);
    f.evidence = premise(ctx, ch) + shape + ", ";
    if (c.score.focus.sampled > 0 && focus >= 0) {
      const std::string name = quoted(slotName(ctx, ch.block, focus));
      f.evidence += percent(c.score.focus) + " of " + withThousands(c.score.focus.sampled) + " " + name +
                    " values and " + all + " read cleanly; as defined, " + percent(before) + " of " + name +
                    " values and " + percent(definedAll) + " of all";
    } else {
      f.evidence += all + " read cleanly; as defined, " + percent(definedAll);
    }
  }
  if (f.alsoCut)
    f.evidence += ", if the data is also cut short " + internal::counted(c.cutAt, "byte") + " into a record";
  return f;
}

}  // namespace

CheckResult checkLayout(const TransactionDefinition& definition, std::string_view data,
                        const CheckOptions& options) {
  CheckResult result;
  Context ctx{definition, data, options, {}, {}, {}, {}};
  result.error = chooseBlocks(ctx);
  if (!result.error.empty()) return result;
  const int64_t sample = std::max(options.sampleRecords, 1);

  FieldTally fields;
  for (size_t b = 0; b < ctx.blocks.size(); ++b) {
    fields.first.push_back(ctx.looked[b] ? static_cast<int32_t>(fields.scores.size()) : -1);
    if (!ctx.looked[b]) continue;
    const BlockInfo& block = *ctx.blocks[b];
    for (int32_t i = 0; i < block.getFieldCount(); ++i) {
      const FieldInfo& f = *block.getFieldInfoFromIndex(i);
      FieldScore fs;
      fs.block = block.m_szBlockName;
      fs.field = f.szFieldName;
      fs.index = i;
      fs.offset = f.nDataPos;
      fs.length = f.nLength;
      fields.scores.push_back(fs);
    }
  }
  fields.value.resize(fields.scores.size());
  // Offsets of a packed record differ from the positions the definition gives.
  for (size_t b = 0; b < ctx.blocks.size(); ++b)
    if (fields.first[b] >= 0)
      for (const Slot& s : ctx.defined[b].slots)
        fields.scores[static_cast<size_t>(fields.first[b] + s.field)].offset = s.offset;

  const Walk asDefined = walk(ctx, definedLayouts(ctx));
  result.size = sizeFinding(ctx, asDefined);
  Change none;
  none.block = mainBlock(asDefined);
  Score scored = score(ctx, asDefined, definedLayouts(ctx), none, ByteRange{}, sample, &fields);
  const Tally definedAll = scored.all;
  std::vector<Candidate> candidates;
  if (!asDefined.broken && asDefined.leftOver == 0)
    candidates.push_back(definedCandidate(ctx, asDefined, std::move(scored)));
  for (const Placed& p : asDefined.placed) result.sampledRecords += std::min(p.records, 3 * sample);

  tryChanges(ctx, candidates, sample, false);
  const bool convincing = std::any_of(candidates.begin(), candidates.end(), [](const Candidate& c) {
    return c.change.kind != FindingKind::CutShort && c.score.all.share() >= 0.9;
  });
  if (!convincing) tryChanges(ctx, candidates, std::max<int64_t>(sample / 10, 50), true);
  std::stable_sort(candidates.begin(), candidates.end(), ranksBefore);
  const size_t kept = std::min(candidates.size(), static_cast<size_t>(std::max(options.maxFindings, 0)) + 1);
  for (size_t i = 0; i < kept; ++i)
    result.findings.push_back(findingOf(ctx, candidates[i], fields, definedAll));
  result.fields = std::move(fields.scores);
  result.ok = !result.findings.empty() && result.findings.front().kind == FindingKind::Fits &&
              result.findings.front().score >= 0.9;
  return result;
}

}  // namespace blockproc::check
