// The processor and its descriptors, one to one: Python names follow the C++ ones, bytes where C++ has bytes,
// str where it has strings, None where it has no value. Python subclasses of FieldInfo, BlockInfo and
// BaseDataProc may override the virtuals.

#include <pybind11/pybind11.h>

#include "blockproc/data/BlockInfo.h"

PYBIND11_MAKE_OPAQUE(blockproc::KeyEncDict)

#include <pybind11/stl.h>
#include <pybind11/stl_bind.h>

#include <unordered_map>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/detail/Internal.h"
#include "blockproc/parser/TBXML.h"
#include "common.h"

namespace blockproc::python {

namespace {

// Turns the exception being handled into a deferred Python error (see ProcessorCall).
void deferException() noexcept {
  try {
    throw;
  } catch (py::error_already_set& e) {
    e.restore();
  } catch (const py::cast_error& e) {
    PyErr_SetString(PyExc_TypeError,
                    (std::string("a Python override returned the wrong type: ") + e.what()).c_str());
  } catch (const py::builtin_exception& e) {
    e.set_error();
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  } catch (...) {
    PyErr_SetString(PyExc_RuntimeError, "unknown error in a Python override");
  }
  ProcessorCall::deferCurrentError();
}

// The Python override of `name` called with the arguments, cast to R; the default `fallback` when there is
// none or when it raises (the error is deferred).
template <typename R, typename Self, typename Fallback, typename... Args>
R callOverride(const Self* self, const char* name, Fallback fallback, Args&&... args) noexcept {
  {
    py::gil_scoped_acquire gil;
    try {
      if (py::function override = py::get_override(self, name))
        return py::cast<R>(override(std::forward<Args>(args)...));
    } catch (...) {
      deferException();
    }
  }
  return fallback();
}

class PyFieldInfo : public FieldInfo {
 public:
  using FieldInfo::FieldInfo;
#define BLOCKPROC_FIELD_OVERRIDE(R, fn)                                                                   \
  R fn() const override {                                                                                 \
    return callOverride<R>(static_cast<const FieldInfo*>(this), #fn, [this] { return FieldInfo::fn(); }); \
  }
  BLOCKPROC_FIELD_OVERRIDE(bool, getKeyEncState)
  BLOCKPROC_FIELD_OVERRIDE(bool, isUseAttr)
  BLOCKPROC_FIELD_OVERRIDE(std::string, getAttrRefDicKey)
  BLOCKPROC_FIELD_OVERRIDE(bool, isAccNoField)
  BLOCKPROC_FIELD_OVERRIDE(bool, isSTCodeField)
  BLOCKPROC_FIELD_OVERRIDE(bool, isPasswordField)
  BLOCKPROC_FIELD_OVERRIDE(uint64_t, hash)
#undef BLOCKPROC_FIELD_OVERRIDE
};

}  // namespace

// A Python block. A field object one of its overrides returns is kept alive until the end of the processor
// call after the one it was returned in (the pointer the processor got never dangles, and a field returned to
// Python is converted after its call has ended), so what a block keeps is what its last two calls asked for,
// however many calls are made. During one processor call the field count, the record size and the field at
// each position are asked once and remembered: a send buffer sized from them is the size the processor fills,
// and the bounds checked before the call are the ones the processor meets.
class PyBlockInfo : public BlockInfo {
 public:
  using BlockInfo::BlockInfo;
  ~PyBlockInfo() override { ProcessorCall::forgotten(this); }

  int32_t getRecordMemSize() const override {
    return memoised(m_memoRecord, "getRecordMemSize", [this] { return BlockInfo::getRecordMemSize(); });
  }
  int32_t getRecordFieldSize() const override {
    return callOverride<int32_t>(base(), "getRecordFieldSize",
                                 [this] { return BlockInfo::getRecordFieldSize(); });
  }
  int32_t getFieldCount() const override {
    return memoised(m_memoCount, "getFieldCount", [this] { return BlockInfo::getFieldCount(); });
  }
  const FieldInfo* getFieldInfoFromIndex(int32_t position) const override {
    if (const auto it = m_memoFields.find(position); it != m_memoFields.end()) return it->second;
    const FieldInfo* field = fieldOverride(
        "getFieldInfoFromIndex", [&] { return BlockInfo::getFieldInfoFromIndex(position); }, position);
    if (ProcessorCall::active()) {
      m_memoFields.emplace(position, field);
      ProcessorCall::memoised(const_cast<PyBlockInfo*>(this));
    }
    return field;
  }
  const FieldInfo* getFieldInfoFromName(std::string_view name) const override {
    return fieldOverride(
        "getFieldInfoFromName", [&] { return BlockInfo::getFieldInfoFromName(name); }, name);
  }
  const FieldInfo* getAttrRefSourceFieldInfo(std::string_view key) const override {
    return fieldOverride(
        "getAttrRefSourceFieldInfo", [&] { return BlockInfo::getAttrRefSourceFieldInfo(key); }, key);
  }
  KeyEncDict* getKeyEncValue(std::string_view fieldName) override {
    {
      py::gil_scoped_acquire gil;
      try {
        if (py::function override = py::get_override(base(), "getKeyEncValue")) {
          py::object result = override(fieldName);
          if (result.is_none()) return nullptr;
          auto* dict = result.cast<KeyEncDict*>();
          keep(dict, std::move(result));
          return dict;
        }
      } catch (...) {
        deferException();
      }
    }
    return BlockInfo::getKeyEncValue(fieldName);
  }
  bool isOccursBlock() const override {
    return callOverride<bool>(base(), "isOccursBlock", [this] { return BlockInfo::isOccursBlock(); });
  }

  // The end of an outermost processor call that asked this block: the memo goes, and what the call kept
  // replaces what the call before it kept.
  void forget() noexcept {
    m_memoCount.reset();
    m_memoRecord.reset();
    m_memoFields.clear();
    m_keptBefore.swap(m_kept);
    m_kept.clear();
  }

 private:
  const BlockInfo* base() const noexcept { return this; }
  template <typename Fallback>
  int32_t memoised(std::optional<int32_t>& memo, const char* name, Fallback fallback) const {
    if (memo) return *memo;
    const int32_t value = callOverride<int32_t>(base(), name, fallback);
    if (ProcessorCall::active()) {
      memo = value;
      ProcessorCall::memoised(const_cast<PyBlockInfo*>(this));
    }
    return value;
  }
  void keep(const void* pointer, py::object object) const {
    m_kept.emplace(pointer, std::move(object));
    // Outside a processor call nothing ends the keeping: only the latest object is held.
    if (ProcessorCall::active()) {
      ProcessorCall::memoised(const_cast<PyBlockInfo*>(this));
    } else {
      m_keptBefore.clear();
      m_keptBefore.swap(m_kept);
    }
  }
  template <typename Fallback, typename Arg>
  const FieldInfo* fieldOverride(const char* name, Fallback fallback, Arg arg) const {
    {
      py::gil_scoped_acquire gil;
      try {
        if (py::function override = py::get_override(base(), name)) {
          py::object result = override(arg);
          if (result.is_none()) return nullptr;
          const auto* field = result.cast<const FieldInfo*>();
          keep(field, std::move(result));
          return field;
        }
      } catch (...) {
        deferException();
      }
    }
    return fallback();
  }

  mutable std::unordered_map<const void*, py::object> m_kept, m_keptBefore;
  mutable std::optional<int32_t> m_memoCount, m_memoRecord;
  mutable std::unordered_map<int32_t, const FieldInfo*> m_memoFields;
};

namespace {

class PyBaseDataProc : public BaseDataProc {
 public:
  using BaseDataProc::BaseDataProc;
  TranInfo* getTranInfo() const override {
    {
      py::gil_scoped_acquire gil;
      try {
        if (py::function override = py::get_override(static_cast<const BaseDataProc*>(this), "getTranInfo")) {
          py::object result = override();
          if (result.is_none()) return nullptr;
          auto* tran = result.cast<TranInfo*>();
          m_keep = std::move(result);
          return tran;
        }
      } catch (...) {
        deferException();
      }
    }
    return BaseDataProc::getTranInfo();
  }

 private:
  mutable py::object m_keep;  // the last transaction an override returned
};

// The most a block may lay out, whatever its overrides answer: checked before the processor lays out or
// allocates anything, so that no answer makes a call take more memory than this.
constexpr int64_t kMaxFields = 65'536;
constexpr int64_t kMaxRecordBytes = int64_t{64} << 20;

// Raises ValueError naming the block when its field count, record size or packed record size (the sum of its
// field lengths) lies beyond the bounds. Asked inside the call, so the processor meets the same answers.
void checkLayout(const KXBlockDataProc& self) {
  const BlockInfo* block = self.getBlockInfo();
  if (block == nullptr) return;
  const auto refuse = [block](const std::string& what) {
    throw py::value_error("block '" + block->m_szBlockName + "': " + what);
  };
  const int64_t count = block->getFieldCount();
  if (count < 0 || count > kMaxFields)
    refuse("getFieldCount gives " + std::to_string(count) + "; a block has 0 to " +
           internal::withThousands(kMaxFields) + " fields");
  const int64_t record = block->getRecordMemSize();
  if (record < 0 || record > kMaxRecordBytes)
    refuse("getRecordMemSize gives " + std::to_string(record) + "; a record takes 0 to " +
           internal::withThousands(kMaxRecordBytes) + " bytes");
  int64_t packed = 0;
  for (int32_t j = 0; j < count; ++j)
    if (const FieldInfo* f = block->getFieldInfoFromIndex(j)) packed += std::max(f->nLength, 0);
  if (packed > kMaxRecordBytes)
    refuse("its fields take " + internal::withThousands(packed) + " bytes packed; a record takes at most " +
           internal::withThousands(kMaxRecordBytes));
}

// Raises ValueError for the first string argument of a processor call (always a name) when it holds a NUL.
template <typename T>
void checkNameArgument(const T& arg, bool& checked) {
  if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    if (!checked) checkName(std::string_view(arg), "field or block");
    checked = true;
  }
}

// A member function of the processor called inside a ProcessorCall, after its names and its block's layout
// are checked; the deferred error, if any, is raised.
template <typename R, typename... A, typename M>
auto guardedCall(M method) {
  return [method](KXBlockDataProc& self, A... args) -> R {
    [[maybe_unused]] bool named = false;
    (checkNameArgument(args, named), ...);
    ProcessorCall call;
    checkLayout(self);
    if constexpr (std::is_void_v<R>) {
      (self.*method)(args...);
      call.finish();
    } else {
      R result = (self.*method)(args...);
      call.finish();
      return result;
    }
  };
}
template <typename R, typename... A>
auto guarded(R (KXBlockDataProc::*method)(A...) noexcept) {
  return guardedCall<R, A...>(method);
}
template <typename R, typename... A>
auto guarded(R (KXBlockDataProc::*method)(A...) const noexcept) {
  return guardedCall<R, A...>(method);
}

// A descriptor's member function called from Python inside a ProcessorCall, so that the objects its
// overrides return are kept as a processor call's are, and an override's error is raised.
template <typename R, typename C, typename... A>
auto inCall(R (C::*method)(A...) const) {
  return [method](const C& self, A... args) -> R {
    ProcessorCall call;
    R result = (self.*method)(args...);
    call.finish();
    return result;
  };
}
template <typename R, typename C, typename... A>
auto inCall(R (C::*method)(A...)) {
  return [method](C& self, A... args) -> R {
    ProcessorCall call;
    R result = (self.*method)(args...);
    call.finish();
    return result;
  };
}

// A data member of a descriptor, which cannot change while the processor is using the descriptor nor on a
// descriptor of a loaded definition. A name member refuses a NUL.
template <typename Class, typename C, typename T>
void member(Class& cls, const char* name, T C::*field) {
  const bool isName = std::string_view(name).ends_with("Name");
  cls.def_property(
      name, [field](const C& self) { return self.*field; },
      [field, isName](C& self, T value) {
        checkChangeable(&self);
        if constexpr (std::is_same_v<T, std::string>)
          if (isName) checkName(value, "field or block");
        self.*field = std::move(value);
      });
}

std::optional<std::string> zeroTerminated(std::optional<std::string> value) {
  if (value && value->find('\0') != std::string::npos)
    throw py::value_error("the value holds a zero character, where the C string it stands for would end");
  return value;
}

char byteArgument(py::handle byte) {
  if (PyLong_Check(byte.ptr())) {
    const long value = byte.cast<long>();
    if (value < 0 || value > 255) throw py::value_error("a byte is 0 to 255");
    return static_cast<char>(static_cast<uint8_t>(value));
  }
  if (py::isinstance<py::str>(byte)) {
    const std::string text = byte.cast<std::string>();
    if (text.size() == 1) return text[0];
  }
  throw py::type_error("a byte is an int 0 to 255 or a one-character ASCII str");
}

// The size handed to the processor with Python bytes: `asked` bytes from `start`, or all from `start` on when
// None. Raises ValueError when the start or the bytes lie outside the given bytes, or when the size is beyond
// the processor's 32-bit sizes (a buffer over 2 GiB is refused, not cut). A size of 0 or below passes: the
// processor then takes nothing.
int32_t handedSize(const ByteView& bytes, int64_t start, std::optional<int32_t> asked) {
  if (bytes.isNone() || (asked && *asked <= 0)) return asked.value_or(0);
  const int64_t size = asked ? *asked : bytes.size() - start;
  if (start < 0 || start > bytes.size())
    throw py::value_error("byte " + std::to_string(start) + " lies outside the " +
                          std::to_string(bytes.size()) + " bytes given");
  if (size > bytes.size() - start)
    throw py::value_error("bytes " + std::to_string(start) + " to " + std::to_string(start + size) +
                          " lie outside the " + std::to_string(bytes.size()) + " bytes given");
  if (size > INT32_MAX)
    throw py::value_error(std::to_string(size) + " bytes from byte " + std::to_string(start) +
                          ": the processor takes at most " + std::to_string(INT32_MAX) +
                          " bytes in one call");
  return static_cast<int32_t>(size);
}

// A received buffer for setData and its kin (the processor copies the bytes before the call returns);
// recvSize None takes the rest.
template <bool (KXBlockDataProc::*Receive)(const void*, int32_t, int32_t) noexcept>
bool receive(KXBlockDataProc& self, py::handle data, int32_t startPos, std::optional<int32_t> recvSize) {
  ByteView bytes(data, "recvData");
  const int32_t size = handedSize(bytes, startPos, recvSize);
  ProcessorCall call;
  checkLayout(self);
  const bool result = (self.*Receive)(bytes.isNone() ? nullptr : bytes.data(), startPos, size);
  call.finish();
  return result;
}

// The send buffer's size: the sum of the field lengths, asked inside the same call as the packing.
py::bytes structInputData(const KXBlockDataProc& self) {
  ProcessorCall call;
  checkLayout(self);
  std::string out;
  if (const BlockInfo* block = self.getBlockInfo()) {
    int64_t size = 0;
    const int32_t count = block->getFieldCount();
    for (int32_t j = 0; j < count; ++j)
      if (const FieldInfo* f = block->getFieldInfoFromIndex(j)) size += std::max(f->nLength, 0);
    out.assign(static_cast<size_t>(size), ' ');
    self.getStructInputData(out.data());
  }
  call.finish();
  return py::bytes(out);
}

}  // namespace

void bindProcessor(py::module_& m) {
  m.attr("kTextEncodingCP949") = kTextEncodingCP949;
  m.attr("kTextEncodingUTF8") = kTextEncodingUTF8;
  m.attr("kTextEncodingASCII") = kTextEncodingASCII;
  m.attr("kTextEncodingISOLatin1") = kTextEncodingISOLatin1;
  m.attr("kTextEncodingEUCKR") = kTextEncodingEUCKR;
  for (auto [name, value] : {std::pair{"kFieldText", kFieldText},
                             {"kFieldNumText", kFieldNumText},
                             {"kFieldInt16", kFieldInt16},
                             {"kFieldInt64", kFieldInt64},
                             {"kFieldFloat", kFieldFloat},
                             {"kFieldDouble", kFieldDouble},
                             {"kFieldSInt64", kFieldSInt64}})
    m.attr(name) = static_cast<int32_t>(value);
  m.attr("RCL_OCCURSLEN") = static_cast<int32_t>(RCL_OCCURSLEN);
  m.attr("RCL_RESTDATA") = static_cast<int32_t>(RCL_RESTDATA);
  m.attr("RCL_BLOCKFIELD_ID") = static_cast<int32_t>(RCL_BLOCKFIELD_ID);

  py::bind_map<KeyEncDict>(m, "KeyEncDict");

  py::class_<FieldInfo, std::unique_ptr<FieldInfo>, PyFieldInfo> field(m, "FieldInfo");
  field.def(py::init<>())
      .def(py::init<std::string, int32_t, int32_t, int32_t>(), py::arg("name"), py::arg("dataType"),
           py::arg("length"), py::arg("decimals") = 0);
  member(field, "szKorFieldName", &FieldInfo::szKorFieldName);
  member(field, "szEngFieldName", &FieldInfo::szEngFieldName);
  member(field, "szFieldName", &FieldInfo::szFieldName);
  member(field, "nLength", &FieldInfo::nLength);
  member(field, "nDecimalLen", &FieldInfo::nDecimalLen);
  member(field, "nDataType", &FieldInfo::nDataType);
  member(field, "nDataPos", &FieldInfo::nDataPos);
  member(field, "nIndex", &FieldInfo::nIndex);
  member(field, "nAttr", &FieldInfo::nAttr);
  member(field, "nEnc", &FieldInfo::nEnc);
  member(field, "nExtraType", &FieldInfo::nExtraType);
  member(field, "sHiddenValue", &FieldInfo::sHiddenValue);
  member(field, "bKeyEnc", &FieldInfo::bKeyEnc);
  member(field, "bAccountNo", &FieldInfo::bAccountNo);
  member(field, "bItemCode", &FieldInfo::bItemCode);
  member(field, "bPassword", &FieldInfo::bPassword);
  member(field, "szAttrRefKey", &FieldInfo::szAttrRefKey);
  field.def("getKeyEncState", &FieldInfo::getKeyEncState)
      .def("isUseAttr", &FieldInfo::isUseAttr)
      .def("getAttrRefDicKey", &FieldInfo::getAttrRefDicKey)
      .def("isAccNoField", &FieldInfo::isAccNoField)
      .def("isSTCodeField", &FieldInfo::isSTCodeField)
      .def("isPasswordField", &FieldInfo::isPasswordField)
      .def("hash", &FieldInfo::hash)
      .def("__repr__", [](const FieldInfo& f) {
        return "<blockproc.FieldInfo '" + f.szFieldName + "' type " + std::to_string(f.nDataType) + " at " +
               std::to_string(f.nDataPos) + ", " + std::to_string(f.nLength) + " bytes>";
      });

  py::class_<BlockInfo, std::unique_ptr<BlockInfo>, PyBlockInfo> block(m, "BlockInfo");
  block.def(py::init<>()).def(py::init<std::string>(), py::arg("name"));
  member(block, "m_szBlockName", &BlockInfo::m_szBlockName);
  member(block, "m_nBlockType", &BlockInfo::m_nBlockType);
  member(block, "m_nRepeatCount", &BlockInfo::m_nRepeatCount);
  member(block, "m_bAttribute", &BlockInfo::m_bAttribute);
  member(block, "m_nRecordIOSize", &BlockInfo::m_nRecordIOSize);
  member(block, "m_nRecordIOMemSize", &BlockInfo::m_nRecordIOMemSize);
  member(block, "m_nBlockIndex", &BlockInfo::m_nBlockIndex);
  member(block, "m_strRecordLenSubInfo", &BlockInfo::m_strRecordLenSubInfo);
  block
      .def_property_readonly("m_nRecordLenApplyType",
                             [](const BlockInfo& b) { return static_cast<int32_t>(b.m_nRecordLenApplyType); })
      .def(
          "addField",
          [](BlockInfo& b, std::string name, int32_t dataType, int32_t length, int32_t decimals,
             int32_t position) -> FieldInfo& {
            checkChangeable(&b);
            checkName(name, "field");
            return b.addField(std::move(name), dataType, length, decimals, position);
          },
          py::arg("name"), py::arg("dataType"), py::arg("length"), py::arg("decimals") = 0,
          py::arg("position") = -1, py::return_value_policy::reference_internal)
      .def("setRepeat",
           [](BlockInfo& b, int32_t count) {
             checkChangeable(&b);
             b.setRepeat(count);
           })
      .def(
          "setAttrSource",
          [](BlockInfo& b, std::string key, const FieldInfo* source) {
            checkChangeable(&b);
            b.setAttrSource(std::move(key), source);
          },
          py::keep_alive<1, 3>())
      .def("carriesAttr", inCall(&BlockInfo::carriesAttr))
      .def("getRecordMemSize", inCall(&BlockInfo::getRecordMemSize))
      .def("getRecordFieldSize", inCall(&BlockInfo::getRecordFieldSize))
      .def("getFieldCount", inCall(&BlockInfo::getFieldCount))
      .def("getFieldInfoFromIndex", inCall(&BlockInfo::getFieldInfoFromIndex),
           py::return_value_policy::reference_internal)
      .def("getFieldInfoFromName", inCall(&BlockInfo::getFieldInfoFromName),
           py::return_value_policy::reference_internal)
      .def("getKeyEncValue", inCall(&BlockInfo::getKeyEncValue), py::return_value_policy::reference_internal)
      .def("findKeyEncValue", inCall(&BlockInfo::findKeyEncValue),
           py::return_value_policy::reference_internal)
      .def("getAttrRefSourceFieldInfo", inCall(&BlockInfo::getAttrRefSourceFieldInfo),
           py::return_value_policy::reference_internal)
      .def("isOccursBlock", inCall(&BlockInfo::isOccursBlock))
      .def_static("getAttrFunctionIndex", &BlockInfo::getAttrFunctionIndex)
      .def("__repr__", [](const BlockInfo& b) {
        return "<blockproc.BlockInfo '" + b.m_szBlockName + "', " + std::to_string(b.m_FieldInfoList.size()) +
               " fields>";
      });

  py::class_<TranInfo> tran(m, "TranInfo");
  tran.def(py::init<>());
  member(tran, "m_strDataMode", &TranInfo::m_strDataMode);
  member(tran, "sTrCode", &TranInfo::sTrCode);
  member(tran, "m_nOccursLen", &TranInfo::m_nOccursLen);
  tran.def("getTrCode", &TranInfo::getTrCode)
      .def("setTrCode",
           [](TranInfo& t, std::string code) {
             checkChangeable(&t);
             t.setTrCode(std::move(code));
           })
      .def("findBlock", &TranInfo::findBlock, py::return_value_policy::reference_internal);

  py::class_<BaseDataProc, PyBaseDataProc>(m, "BaseDataProc")
      .def(py::init<>())
      .def(py::init<TranInfo*>(), py::keep_alive<1, 2>())
      .def("getTranInfo", &BaseDataProc::getTranInfo, py::return_value_policy::reference_internal);

  py::class_<FieldData>(m, "FieldData")
      .def(py::init<>())
      .def_readwrite("strData", &FieldData::strData)
      .def_readwrite("bAttrValue", &FieldData::bAttrValue)
      .def_readwrite("bAttrBgValue", &FieldData::bAttrBgValue)
      .def_readwrite("bAttrErrValue", &FieldData::bAttrErrValue)
      .def_readwrite("bAttrAbleValue", &FieldData::bAttrAbleValue)
      .def("getData", &FieldData::getData)
      .def("setData", &FieldData::setData)
      .def("getAttr", &FieldData::getAttr)
      .def("setAttr", &FieldData::setAttr)
      .def("getAttrBg", &FieldData::getAttrBg)
      .def("setAttrBg", &FieldData::setAttrBg)
      .def("getAttrErr", &FieldData::getAttrErr)
      .def("setAttrErr", &FieldData::setAttrErr)
      .def("getAttrAble", &FieldData::getAttrAble)
      .def("setAttrAble", &FieldData::setAttrAble);

  py::class_<FieldLinkInfo>(m, "FieldLinkInfo")
      .def(py::init<int32_t>(), py::arg("index"))
      .def_readwrite("nFieldIndex", &FieldLinkInfo::nFieldIndex)
      .def_readwrite("pLinkIndex", &FieldLinkInfo::pLinkIndex)
      .def_readwrite("szDefaultValue", &FieldLinkInfo::szDefaultValue)
      .def("setSzDefaultValue", &FieldLinkInfo::setSzDefaultValue);

  py::class_<RealAPLinkInfo>(m, "RealAPLinkInfo")
      .def(py::init<int32_t>(), py::arg("index"))
      .def("pFieldInfo",
           [](const RealAPLinkInfo& r) { return std::vector<int32_t>(r.pFieldInfo(), r.pFieldInfo() + 3); })
      .def("setPFieldInfo",
           [](RealAPLinkInfo& r, std::array<int32_t, 3> triple) {
             std::copy(triple.begin(), triple.end(), r.pFieldInfo());
           })
      .def("nFieldIndex", &RealAPLinkInfo::nFieldIndex)
      .def("setNFieldIndex", &RealAPLinkInfo::setNFieldIndex)
      .def("sFieldName", &RealAPLinkInfo::sFieldName)
      .def("setSFieldName", &RealAPLinkInfo::setSFieldName)
      .def("sExpression", &RealAPLinkInfo::sExpression)
      .def("setSExpression", &RealAPLinkInfo::setSExpression)
      .def("sJsonPath", &RealAPLinkInfo::sJsonPath)
      .def("setSJsonPath", &RealAPLinkInfo::setSJsonPath)
      .def("bRealAttr", &RealAPLinkInfo::bRealAttr)
      .def("setBRealAttr", &RealAPLinkInfo::setBRealAttr)
      .def("nFuncIndex", &RealAPLinkInfo::nFuncIndex)
      .def("setNFuncIndex", &RealAPLinkInfo::setNFuncIndex)
      .def("sFuncParam", &RealAPLinkInfo::sFuncParam)
      .def("setSFuncParam", &RealAPLinkInfo::setSFuncParam);

  using P = KXBlockDataProc;
  py::class_<P> proc(m, "KXBlockDataProc");
  proc.def(py::init<BlockInfo*>(), py::arg("blockInfo"), py::keep_alive<1, 2>())
      // object, accessors, lists
      .def("setEncodingType", guarded(&P::setEncodingType))
      .def("setBlockInfo", guarded(&P::setBlockInfo), py::keep_alive<1, 2>())
      .def("getBlockInfo", guarded(&P::getBlockInfo), py::return_value_policy::reference_internal)
      .def("setDataProc", guarded(&P::setDataProc), py::keep_alive<1, 2>())
      .def("getDataProc", guarded(&P::getDataProc), py::return_value_policy::reference_internal)
      .def("setBlockName", guarded(&P::setBlockName))
      .def("setM_szBlockName", guarded(&P::setM_szBlockName))
      .def("getBlockName", guarded(&P::getBlockName))
      .def("getValidCount", guarded(&P::getValidCount))
      .def("setValidCount", guarded(&P::setValidCount))
      .def(
          "getData",
          [](const P& self) -> std::optional<py::bytes> {
            if (self.getData() == nullptr) return std::nullopt;
            return py::bytes(reinterpret_cast<const char*>(self.getData()),
                             static_cast<size_t>(self.getBlockBuffSize()));
          },
          "A copy of the record buffer, or None when there is none.")
      .def("getBlockRepCount", guarded(&P::getBlockRepCount))
      .def("setReceived", guarded(&P::setReceived))
      .def("getReceived", guarded(&P::getReceived))
      .def("isOccursBlock", guarded(&P::isOccursBlock))
      .def("getConnCtlList",
           [](P& self) {
             py::list controls;
             for (const auto& held : self.getConnCtlList())
               controls.append(py::reinterpret_borrow<py::object>(static_cast<PyObject*>(held.get())));
             return controls;
           })
      .def("addConnCtl",
           [](P& self, py::object control) {
             if (control.is_none()) return;
             PyObject* object = control.release().ptr();
             self.addConnCtl(std::shared_ptr<void>(object, [](void* held) {
               py::gil_scoped_acquire gil;
               Py_DECREF(static_cast<PyObject*>(held));
             }));
           })
      .def("removeConnCtl", [](P& self, py::handle control) { self.removeConnCtl(control.ptr()); })
      .def(
          "addFieldLinkInfo",
          [](P& self, const FieldLinkInfo& link) {
            self.addFieldLinkInfo(std::make_unique<FieldLinkInfo>(link));
          },
          "Appends a copy of the record.")
      .def("getLinkInfo", guarded(&P::getLinkInfo), py::return_value_policy::reference_internal)
      .def("getLinkCount", guarded(&P::getLinkCount))
      .def(
          "addRealAPLinkInfo",
          [](P& self, const RealAPLinkInfo& link) {
            self.addRealAPLinkInfo(std::make_unique<RealAPLinkInfo>(link));
          },
          "Appends a copy of the record.")
      .def("getRealAPLinkInfo", guarded(&P::getRealAPLinkInfo), py::return_value_policy::reference_internal)
      .def("getRealAPLinkCount", guarded(&P::getRealAPLinkCount))
      .def("initRealBufferIndex", guarded(&P::initRealBufferIndex))
      // read-only views of the buffer state
      .def("getEncodingType", guarded(&P::getEncodingType))
      .def("getBufCount", guarded(&P::getBufCount))
      .def("getStartIndex", guarded(&P::getStartIndex))
      .def("getBlockBuffSize", guarded(&P::getBlockBuffSize))
      .def("getBlockDataLen", guarded(&P::getBlockDataLen))
      // record buffer
      .def("calcPacketSize", guarded(&P::calcPacketSize))
      .def("DefaultMemory", guarded(&P::DefaultMemory))
      .def("clearData", guarded(&P::clearData))
      .def("wipeBuffer", guarded<void>(static_cast<void (P::*)() noexcept>(&P::wipeBuffer)))
      .def("wipeBuffer", guarded<void, int32_t>(static_cast<void (P::*)(int32_t) noexcept>(&P::wipeBuffer)))
      .def(
          "reSizeBytes",
          [](const P& self, py::handle oldBytes, int32_t newLength) -> std::optional<py::bytes> {
            // Bytes other than the record buffer itself are never copied (their size is unknown to the
            // processor), so only whether bytes were given reaches it.
            ByteView old(oldBytes, "oldBytes");
            if (newLength < 0 || newLength > kMaxRecordBytes)
              throw py::value_error("newLength must be 0 to " + internal::withThousands(kMaxRecordBytes) +
                                    ", not " + std::to_string(newLength));
            ProcessorCall call;
            auto area = self.reSizeBytes(old.isNone() ? nullptr : old.data(), newLength);
            call.finish();
            if (!area) return std::nullopt;
            return py::bytes(reinterpret_cast<const char*>(area.get()),
                             static_cast<size_t>(std::max(newLength, 0)) + 1);
          },
          py::arg("oldBytes"), py::arg("newLength"))
      // field lookup and classification
      .def("getFieldIndexFromName", guarded(&P::getFieldIndexFromName))
      .def("findFieldInfo", guarded(&P::findFieldInfo), py::return_value_policy::reference_internal)
      .def("isAccountNoField", guarded(&P::isAccountNoField))
      .def("isItemCodeField", guarded(&P::isItemCodeField))
      .def("isPasswordField", guarded(&P::isPasswordField))
      // XML block definition: the element is given as its XML text
      .def(
          "setXmlInfo",
          [](P& self, std::optional<std::string> xml) {
            ProcessorCall call;
            checkLayout(self);
            if (!xml) {
              self.setXmlInfo(nullptr);
            } else {
              std::string error;
              const auto document = TBXML::newTBXMLWithXMLString(*xml, &error);
              if (!document) throw py::value_error("the element is not well-formed XML: " + error);
              self.setXmlInfo(document->rootXMLElement());
            }
            call.finish();
          },
          py::arg("element"))
      .def_static("Entity2Ref", &P::Entity2Ref)
      // receiving
      .def("setData", &receive<&P::setData>, py::arg("recvData"), py::arg("startPos") = 0,
           py::arg("recvSize") = py::none())
      .def("setDataReverse", &receive<&P::setDataReverse>, py::arg("recvData"), py::arg("startPos") = 0,
           py::arg("recvSize") = py::none())
      .def("insertRealData", &receive<&P::insertRealData>, py::arg("recvData"), py::arg("starPos") = 0,
           py::arg("recvSize") = py::none())
      // outgoing
      .def("getStructInputData", &structInputData, "The first record's fields packed back to back, as bytes.")
      .def("getBlockData", guarded(&P::getBlockData))
      // dynamic-length input
      .def("setFieldDataDynamicLen", guarded(&P::setFieldDataDynamicLen))
      .def("getFieldDataDynamicLen",
           guarded<std::string, const FieldInfo*, int32_t>(
               static_cast<std::string (P::*)(const FieldInfo*, int32_t) const noexcept>(
                   &P::getFieldDataDynamicLen)))
      .def("getFieldDataDynamicLen",
           guarded<bool, const FieldInfo*, int32_t, FieldData&>(
               static_cast<bool (P::*)(const FieldInfo*, int32_t, FieldData&) const noexcept>(
                   &P::getFieldDataDynamicLen)))
      .def("getDynamicInputCnt", guarded(&P::getDynamicInputCnt))
      .def("setDataDynamic", &receive<&P::setDataDynamic>, py::arg("recvData"), py::arg("startPos") = 0,
           py::arg("recvSize") = py::none())
      .def(
          "resetDataDynamic",
          [](P& self, py::handle data, std::optional<int32_t> size) {
            ByteView bytes(data, "data");
            const int32_t n = handedSize(bytes, 0, size);
            ProcessorCall call;
            checkLayout(self);
            const bool result = self.resetDataDynamic(bytes.isNone() ? nullptr : bytes.data(), n);
            call.finish();
            return result;
          },
          py::arg("data"), py::arg("nRecvSize") = py::none())
      .def("initDynamicRealBufferIndex", guarded(&P::initDynamicRealBufferIndex))
      // reading
      .def("getFieldDataFromInfo",
           guarded<std::string, const FieldInfo*, int32_t>(
               static_cast<std::string (P::*)(const FieldInfo*, int32_t) const noexcept>(
                   &P::getFieldDataFromInfo)))
      .def("getFieldDataFromInfo",
           guarded<bool, const FieldInfo*, int32_t, FieldData&>(
               static_cast<bool (P::*)(const FieldInfo*, int32_t, FieldData&) const noexcept>(
                   &P::getFieldDataFromInfo)))
      .def("getFieldDataFromIndex", guarded(&P::getFieldDataFromIndex))
      .def("getFieldDataFromName", guarded(&P::getFieldDataFromName))
      .def("getFieldDataFromInfoEX", guarded(&P::getFieldDataFromInfoEX))
      .def("getFieldDataFromNameEX", guarded(&P::getFieldDataFromNameEX))
      .def("getFieldDataAllIdxFromInfo", guarded(&P::getFieldDataAllIdxFromInfo))
      .def("getDataValueAllIdxFromName", guarded(&P::getDataValueAllIdxFromName))
      // writing
      .def("setFieldDataFromName", guarded(&P::setFieldDataFromName))
      .def("setFieldDataFromInfo", guarded(&P::setFieldDataFromInfo))
      .def_static("findIndex", &P::findIndex)
      .def("setFieldDataExFromInfo", guarded(&P::setFieldDataExFromInfo))
      .def("setFieldDataFromNameEX",
           [](P& self, std::string_view name, int32_t index, std::optional<std::string> value) {
             checkName(name, "field");
             value = zeroTerminated(std::move(value));
             ProcessorCall call;
             checkLayout(self);
             const bool result = self.setFieldDataFromNameEX(name, index, value ? value->c_str() : nullptr);
             call.finish();
             return result;
           })
      .def("setFieldDataFromInfoEX",
           [](P& self, const FieldInfo* info, int32_t index, std::optional<std::string> value) {
             value = zeroTerminated(std::move(value));
             ProcessorCall call;
             checkLayout(self);
             const bool result = self.setFieldDataFromInfoEX(info, index, value ? value->c_str() : nullptr);
             call.finish();
             return result;
           })
      // attributes
      .def("getFieldAttrFromInfo", guarded<uint8_t, const FieldInfo*, int32_t>(
                                       static_cast<uint8_t (P::*)(const FieldInfo*, int32_t) const noexcept>(
                                           &P::getFieldAttrFromInfo)))
      .def("getFieldAttrFromInfo",
           guarded<bool, const FieldInfo*, int32_t, FieldData&>(
               static_cast<bool (P::*)(const FieldInfo*, int32_t, FieldData&) const noexcept>(
                   &P::getFieldAttrFromInfo)))
      .def("setFieldAttrFromInfo", guarded(&P::setFieldAttrFromInfo))
      .def("setFieldAttrFromName", guarded(&P::setFieldAttrFromName))
      .def("setFieldAttrHexa", guarded(&P::setFieldAttrHexa))
      .def_static("getAttrValueFromData",
                  [](py::handle byte) { return P::getAttrValueFromData(byteArgument(byte)); })
      .def("getFieldAttrFromName", guarded(&P::getFieldAttrFromName))
      .def("getFieldEnableFromName", guarded(&P::getFieldEnableFromName));
}

}  // namespace blockproc::python

namespace blockproc::python {

void forgetMemo(PyBlockInfo* block) noexcept {
  block->forget();
}

}  // namespace blockproc::python
