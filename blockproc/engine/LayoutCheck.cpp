#include "blockproc/engine/LayoutCheck.h"

namespace blockproc::check {

CheckResult checkLayout(const TransactionDefinition&, std::string_view, const CheckOptions&) {
  CheckResult result;
  result.error = "the layout check is not built yet";
  return result;
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

std::string describe(const Finding&) {
  return {};
}

}  // namespace blockproc::check
