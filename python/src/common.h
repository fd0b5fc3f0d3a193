#pragma once
// Pieces the binding sources share: byte views of Python buffers, deferred errors of Python overrides, and
// the registration functions of each source.

#include <Python.h>

#include <pybind11/pybind11.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include "blockproc/data/BlockInfo.h"

namespace blockproc::python {

namespace py = pybind11;

// The bytes of a bytes-like object (bytes, bytearray, memoryview, a contiguous numpy array), held for as long
// as the view lives; None gives no bytes where `noneAllowed`. Anything else raises TypeError naming `what`.
class ByteView {
 public:
  ByteView(py::handle object, const char* what, bool noneAllowed = true);
  ~ByteView();
  ByteView(const ByteView&) = delete;
  ByteView& operator=(const ByteView&) = delete;

  const uint8_t* data() const noexcept { return static_cast<const uint8_t*>(m_view.buf); }
  int64_t size() const noexcept { return m_held ? static_cast<int64_t>(m_view.len) : 0; }
  bool isNone() const noexcept { return !m_held; }
  std::string_view text() const noexcept {
    return {static_cast<const char*>(m_view.buf), static_cast<size_t>(size())};
  }

 private:
  Py_buffer m_view{};
  bool m_held = false;
};

// Wraps every processor call made from Python. The library calls the descriptors' virtuals from noexcept
// operations, so an exception raised by a Python override cannot travel through it: the override's caller
// gets the default implementation's answer, the exception is kept, and it is raised from the processor call
// once that call has returned. While a call is in progress the descriptors' data members cannot be changed
// from Python and a Python block answers each question once (see PyBlockInfo), so the processor and the
// binding see one consistent layout.
class PyBlockInfo;

class ProcessorCall {
 public:
  ProcessorCall() noexcept;
  ~ProcessorCall();
  ProcessorCall(const ProcessorCall&) = delete;
  ProcessorCall& operator=(const ProcessorCall&) = delete;

  // Raises the deferred error when this is the outermost call and an override raised.
  void finish();

  // Whether a processor call is in progress (descriptor members are frozen).
  static bool active() noexcept;
  // Keeps the Python error now set (the first one of a call wins) and clears it.
  static void deferCurrentError() noexcept;
  // Remembers a Python block whose answers are memoised until the outermost call ends.
  static void memoised(PyBlockInfo* block);
  // Forgets a block that is going away.
  static void forgotten(PyBlockInfo* block) noexcept;

 private:
  // The blocks memoised during this call when it is the outermost one of its thread.
  std::vector<PyBlockInfo*> m_memoised;
};

// Drops what a Python block remembered during a processor call (processor.cpp).
void forgetMemo(PyBlockInfo* block) noexcept;

// Raises TypeError when a descriptor is changed while a processor call is in progress, or when it belongs to
// a loaded definition (see freeze).
void checkChangeable(const void* descriptor);
// Marks a descriptor of a loaded definition as one that never changes from Python, until thaw.
void freeze(const void* descriptor);
void thaw(const void* descriptor) noexcept;

// Raises ValueError when a name (`what`: "block", "field") holds a NUL character, where the C string it
// stands for would end.
void checkName(std::string_view name, const char* what);

void bindProcessor(py::module_& m);
void bindEngine(py::module_& m);
void bindFrameEncoder(py::module_& m);

}  // namespace blockproc::python
