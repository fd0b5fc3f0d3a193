#pragma once
// The numbers of a field's bytes as values rather than text, for callers that keep numbers (columns of
// scaled integers or doubles). Each reader takes the forms replies usually carry and gives exactly the value
// of the canonical text value::appendValue renders for the same bytes; anything else it leaves to the caller
// ("Other", or false), who reads it through appendValue, the reference fuzz/fuzz_numberdecode holds these
// readers to.
//
// Usage:
//   int64_t scaled = 0;  // the value * 10^places
//   switch (value::readScaled(bytes, field.nDecimalLen, scaled)) {
//     case value::ScaledRead::Value: use(scaled); break;
//     case value::ScaledRead::Blank: useBlank(); break;
//     case value::ScaledRead::Other: readCanonicalText(); break;  // value::appendValue
//   }

#include <cstdint>
#include <string_view>

namespace blockproc::value {

enum class ScaledRead : uint8_t { Value, Blank, Other };

// The value of a number field's bytes (numeric text) as value * 10^places in `out`, for the plain forms:
// spaces, an optional sign, at most 18 digits with no point (the last `places` digits are the decimals) or a
// point and at most `places` digits after it, then spaces or NULs. Blank for spaces and NULs alone; Other for
// anything else, `out` then untouched.
ScaledRead readScaled(std::string_view bytes, int32_t places, int64_t& out) noexcept;

// The double a float or double field's bytes (4 or 8 little-endian bytes, as `isFloat` says) show with
// `places` decimals: a double is its own value; a float is the shortest text of its float with the point
// moved `places` left, read back as the nearest double. False for a non-finite value or a count of places
// outside 0 to 1100.
bool readReal(std::string_view bytes, bool isFloat, int32_t places, double& out) noexcept;

// The double nearest to scaled * 10^-places (places from 0 to 1100; 0.0 beyond).
double scaledToDouble(int64_t scaled, int32_t places) noexcept;

}  // namespace blockproc::value
