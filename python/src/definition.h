#pragma once
// The loaded definition the Python module hands out as blockproc.Definition, shared by the files that take
// one (engine.cpp, encode_frame.cpp).

#include <algorithm>
#include <memory>
#include <string>

#include "blockproc/engine/DefinitionLoader.h"
#include "common.h"

namespace blockproc::python {

// A loaded definition with the text it was loaded from, so that it can be pickled to Dask workers. Its
// descriptors do not change from Python (setting a member raises TypeError): a pickled definition travels as
// that text, so what is used on a worker is always what is used here.
struct Definition {
  std::string xml;
  std::string name;
  std::unique_ptr<TransactionDefinition> definition;

  Definition() = default;
  Definition(const Definition&) = delete;
  Definition& operator=(const Definition&) = delete;
  ~Definition() {
    if (definition) forEachDescriptor(thaw);
  }
  template <typename F>
  void forEachDescriptor(F f) const {
    f(&definition->tran);
    for (const auto& b : definition->tran.m_BlockInfokList) {
      f(b.get());
      for (const auto& field : b->m_FieldInfoList) f(field.get());
    }
  }

  const BlockInfo& block(const std::string& blockName) const {
    checkName(blockName, "block");
    const BlockInfo* found = definition->tran.findBlock(blockName);
    if (found == nullptr)
      throw py::key_error("no block named '" + blockName + "' in " + name + "; it has " + names());
    return *found;
  }
  std::string names() const {
    std::string list;
    for (const auto& b : definition->tran.m_BlockInfokList)
      list += (list.empty() ? "" : ", ") + b->m_szBlockName;
    return list;
  }
  bool isOutput(const BlockInfo& b) const {
    const auto& out = definition->tran.m_OutBlockList;
    return std::find(out.begin(), out.end(), &b) != out.end();
  }
  uint32_t encoding() const noexcept { return definition->encoding; }
};

}  // namespace blockproc::python
