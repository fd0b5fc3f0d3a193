#pragma once
// The inspector's page files (tools/blockproc/view), built into the program.

#include <string_view>

namespace blockproc::cli {

// The contents of the named file of tools/blockproc/view, or "" for a name that is not one of them.
std::string_view viewAsset(std::string_view name) noexcept;

}  // namespace blockproc::cli
