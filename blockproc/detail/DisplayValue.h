#pragma once
// The processor's display string of a field's bytes (getFieldDataFromInfo's text), for a reader of records
// that lie outside a processor.

#include <cstdint>
#include <string>
#include <string_view>

#include "blockproc/data/FieldInfo.h"

namespace blockproc::detail {

// Appends what getFieldDataFromInfo gives for the field whose bytes are `bytes` (at least its length), with
// `readable` bytes from their start to the end of the data (a double takes 8 whatever its length), text in
// `textEncoding` and the processor's own encoding `ownEncoding`; false, `out` unchanged, when the read
// gives nothing.
bool appendDisplayValue(std::string& out, const FieldInfo& info, std::string_view bytes, int64_t readable,
                        uint32_t textEncoding, uint32_t ownEncoding) noexcept;

}  // namespace blockproc::detail
