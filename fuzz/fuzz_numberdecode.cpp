// The number readers against the canonical text they stand in for.
//
// The input draws a number field (numeric text or text with decimals, any length and places, the point
// implied or written) or a float/double field (any places), then the field's bytes: pieced together from
// digits, signs, points, spaces, NULs and stray bytes, or taken raw. Whatever readScaled takes (a value or a
// blank), appendValue must render without an issue, and its text read the way a scaled column reads it (point
// removed, at most the field's places) must be the same value; whatever readReal takes must be the double the
// canonical text reads as. scaledToDouble must be the double strtod gives for the same value written out.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "FuzzInput.h"
#include "blockproc/codec/TextEncoding.h"
#include "blockproc/data/FieldInfo.h"
#include "blockproc/detail/NumberFormat.h"
#include "blockproc/detail/NumberParse.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/engine/NumberDecode.h"

namespace blockproc::fuzz {
namespace {

constexpr const char* kPieces[] = {"0",
                                   "1",
                                   "9",
                                   "12",
                                   "00000",
                                   "99999999",
                                   "-",
                                   "+",
                                   ".",
                                   " ",
                                   "  ",
                                   "\0",
                                   "e",
                                   "x",
                                   "\xb0\xa1",
                                   "\xff",
                                   "1234567890123456789",
                                   "0.5",
                                   "-.",
                                   "+-"};

std::string drawBytes(FuzzInput& in, size_t length) {
  std::string bytes;
  if (in.flag()) {
    while (bytes.size() < length && !in.empty()) bytes += static_cast<char>(in.byte());
  } else {
    while (bytes.size() < length && !in.empty()) {
      const char* piece = in.pick(kPieces);
      bytes.append(piece, *piece == '\0' ? 1 : std::strlen(piece));
    }
  }
  bytes.resize(length, in.flag() ? ' ' : '\0');
  return bytes;
}

// The value * 10^places of a scaled column from the canonical text, as the slow path reads it; false where
// that path refuses (more places than the field's, beyond 64 bits).
bool canonicalScaled(std::string text, int32_t places, int64_t& out) {
  const size_t point = text.find('.');
  if (point != std::string::npos) {
    if (static_cast<int32_t>(text.size() - point - 1) > places) return false;
    text.erase(point, 1);
    text.append(static_cast<size_t>(places) - (text.size() - point), '0');
  } else {
    text.append(static_cast<size_t>(places), '0');
  }
  const num::WholeInt whole = num::parseWholeInt(text, INT64_MIN, INT64_MAX);
  if (!whole.isNumber || whole.clamped) return false;
  out = whole.value;
  return true;
}

void checkScaled(FuzzInput& in) {
  const int32_t type = in.flag() ? kFieldNumText : kFieldText;
  const int32_t length = 1 + static_cast<int32_t>(in.below(30));
  const int32_t places = static_cast<int32_t>(in.below(type == kFieldText ? 8 : 12)) + (type == kFieldText);
  FieldInfo field("f", type, length, places);
  field.bImpliedPoint = in.flag();
  const std::string bytes = drawBytes(in, static_cast<size_t>(length));
  int64_t fast = 0;
  const value::ScaledRead read = value::readScaled(bytes, places, fast);
  if (read == value::ScaledRead::Other) return;
  std::string text;
  const value::RenderResult r =
      value::appendValue(text, field, bytes, kTextEncodingCP949, value::BadByteStyle::Replacement);
  require(r.issue == value::ValueIssue::None, "readScaled took bytes the canonical reader has an issue with");
  if (read == value::ScaledRead::Blank) {
    require(text.empty(), "readScaled saw a blank the canonical reader gives a value for");
    return;
  }
  int64_t slow = 0;
  require(canonicalScaled(text, places, slow), "readScaled took a value the scaled column refuses");
  require(slow == fast, "readScaled and the canonical text differ");
}

void checkReal(FuzzInput& in) {
  const bool isFloat = in.flag();
  const int32_t places = static_cast<int32_t>(in.below(30));
  FieldInfo field("f", isFloat ? kFieldFloat : kFieldDouble, isFloat ? 4 : 8, places);
  const std::string bytes = drawBytes(in, isFloat ? 4 : 8);
  double fast = 0;
  if (!value::readReal(bytes, isFloat, places, fast)) return;
  std::string text;
  const value::RenderResult r =
      value::appendValue(text, field, bytes, kTextEncodingCP949, value::BadByteStyle::Replacement);
  require(r.issue == value::ValueIssue::None, "readReal took a value the canonical reader has an issue with");
  require(num::parseLeadingDouble(text) == fast, "readReal and the canonical text differ");
}

void checkScaledToDouble(FuzzInput& in) {
  int64_t scaled = 0;
  for (int i = 0; i < 8; ++i) scaled = static_cast<int64_t>((static_cast<uint64_t>(scaled) << 8) | in.byte());
  const int32_t places = static_cast<int32_t>(in.below(40));
  char text[80];
  char* end = num::writeInt(text, scaled);
  *end++ = 'e';
  end = num::writeInt(end, -places);
  *end = '\0';
  require(value::scaledToDouble(scaled, places) == std::strtod(text, nullptr),
          "scaledToDouble is not nearest");
}

}  // namespace
}  // namespace blockproc::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  blockproc::fuzz::FuzzInput in(data, size);
  switch (in.below(3)) {
    case 0:
      blockproc::fuzz::checkScaled(in);
      break;
    case 1:
      blockproc::fuzz::checkReal(in);
      break;
    default:
      blockproc::fuzz::checkScaledToDouble(in);
      break;
  }
  return 0;
}
