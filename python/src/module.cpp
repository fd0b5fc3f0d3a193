// The extension module blockproc._blockproc: shared pieces (byte views, deferred override errors) and the
// registration of the processor, the engine and the frame encoder.

#include <atomic>
#include <unordered_set>
#include <vector>

#include "common.h"

namespace blockproc::python {

namespace {

// Errors and memoised blocks of the processor calls of this thread. Nothing here needs destroying when the
// thread ends (the memoised blocks are listed by the outermost call, on its stack): a thread_local destructor
// runs after Python has let go of the thread, where no lock orders it before the thread's memory is reused.
struct CallState {
  int depth = 0;
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* trace = nullptr;
  std::vector<PyBlockInfo*>* memoised = nullptr;
};
thread_local CallState t_call;
// Calls in progress on any thread: descriptors are frozen while one runs (an override may let other threads
// in).
std::atomic<int> g_activeCalls{0};
// Descriptors of loaded definitions (read and changed with the GIL held).
std::unordered_set<const void*> g_frozen;

}  // namespace

ByteView::ByteView(py::handle object, const char* what, bool noneAllowed) {
  if (object.is_none() && noneAllowed) return;
  if (PyUnicode_Check(object.ptr()) || PyObject_GetBuffer(object.ptr(), &m_view, PyBUF_SIMPLE) != 0) {
    PyErr_Clear();
    throw py::type_error(std::string(what) + " must be bytes-like (bytes, bytearray, memoryview), not " +
                         py::type::of(object).attr("__name__").cast<std::string>());
  }
  m_held = true;
}

ByteView::~ByteView() {
  if (m_held) PyBuffer_Release(&m_view);
}

ProcessorCall::ProcessorCall() noexcept {
  if (t_call.depth++ == 0) t_call.memoised = &m_memoised;
  ++g_activeCalls;
}

ProcessorCall::~ProcessorCall() {
  --g_activeCalls;
  if (--t_call.depth > 0) return;
  for (PyBlockInfo* block : m_memoised) forgetMemo(block);
  t_call.memoised = nullptr;
  // An error not raised by finish (the call ended by another exception) is dropped.
  Py_CLEAR(t_call.type);
  Py_CLEAR(t_call.value);
  Py_CLEAR(t_call.trace);
}

void ProcessorCall::finish() {
  if (t_call.depth > 1 || t_call.type == nullptr) return;
  PyErr_Restore(t_call.type, t_call.value, t_call.trace);
  t_call.type = t_call.value = t_call.trace = nullptr;
  throw py::error_already_set();
}

bool ProcessorCall::active() noexcept {
  return t_call.depth > 0;
}

void ProcessorCall::deferCurrentError() noexcept {
  PyObject *type, *value, *trace;
  PyErr_Fetch(&type, &value, &trace);
  if (t_call.depth == 0 || t_call.type != nullptr) {
    // Outside a call there is nobody to raise it from; inside, the first error of the call is the one raised.
    if (t_call.depth == 0) {
      PyErr_Restore(type, value, trace);
      PyErr_WriteUnraisable(nullptr);
      return;
    }
    Py_XDECREF(type);
    Py_XDECREF(value);
    Py_XDECREF(trace);
    return;
  }
  t_call.type = type;
  t_call.value = value;
  t_call.trace = trace;
}

void ProcessorCall::memoised(PyBlockInfo* block) {
  if (t_call.memoised == nullptr) return;
  for (PyBlockInfo* b : *t_call.memoised)
    if (b == block) return;
  t_call.memoised->push_back(block);
}

void ProcessorCall::forgotten(PyBlockInfo* block) noexcept {
  if (t_call.memoised != nullptr) std::erase(*t_call.memoised, block);
}

void checkChangeable(const void* descriptor) {
  if (g_activeCalls.load() > 0)
    throw py::type_error("a descriptor cannot change while a processor call is using it");
  if (g_frozen.contains(descriptor))
    throw py::type_error(
        "a descriptor of a loaded Definition cannot change: a pickled Definition travels as the text it "
        "was loaded from, so the change would be lost on other processes; change the XML and load it again");
}

void freeze(const void* descriptor) {
  g_frozen.insert(descriptor);
}

void thaw(const void* descriptor) noexcept {
  g_frozen.erase(descriptor);
}

void checkName(std::string_view name, const char* what) {
  if (name.find('\0') != std::string_view::npos)
    throw py::value_error(std::string("a ") + what + " name cannot hold a NUL character: " +
                          py::repr(py::str(std::string(name))).cast<std::string>());
}

}  // namespace blockproc::python

PYBIND11_MODULE(_blockproc, m) {
  m.doc() = "The block data processor, its descriptors and the transaction engine.";
  blockproc::python::bindProcessor(m);
  blockproc::python::bindEngine(m);
  blockproc::python::bindFrameEncoder(m);
}
