// Records read where they lie.

#include "blockproc/engine/RecordView.h"

#include <algorithm>

#include "blockproc/data/KXBlockDataProc.h"

namespace blockproc {

RecordView::RecordView(const BlockInfo& block, const void* bytes, int64_t size, int64_t stride,
                       bool newestFirst) noexcept
    : m_block(&block),
      m_bytes(static_cast<const uint8_t*>(bytes)),
      m_size(bytes != nullptr && size > 0 ? size : 0),
      m_stride(stride),
      m_count(stride > 0 ? m_size / stride : 0),
      m_newestFirst(newestFirst) {}

RecordView RecordView::of(const KXBlockDataProc& proc) noexcept {
  const BlockInfo* block = proc.getBlockInfo();
  if (block == nullptr || proc.getData() == nullptr) return {};
  const int64_t stride = block->getRecordMemSize();
  const int64_t start = int64_t{proc.getStartIndex()} * stride;
  if (stride <= 0 || start < 0 || start > proc.getBlockBuffSize()) return {};
  RecordView view(*block, proc.getData() + start, proc.getBlockBuffSize() - start, stride);
  // Every valid record, a last one cut short by the buffer's end among them: its fields that lie inside the
  // buffer are read, the others are empty.
  view.m_count = std::max(proc.getValidCount(), 0);
  return view;
}

uint8_t RecordView::attr(int64_t i, const FieldInfo& field) const noexcept {
  if (m_block == nullptr || !m_block->carriesAttr(field) || i < 0 || i >= m_count || field.nDataPos < 0 ||
      field.nLength < 0)
    return 0;
  const int64_t at = recordOffset(i) + field.nDataPos + field.nLength;
  return at < m_size ? m_bytes[at] : 0;
}

}  // namespace blockproc
