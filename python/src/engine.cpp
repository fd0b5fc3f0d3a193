// Everything of the Python module that talks to the engine (definition files and the transaction-level
// parent) lives in this file: loading, splitting a reply, building requests and replies from values.

#include <pybind11/stl.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "blockproc/detail/Internal.h"
#include "blockproc/detail/TextCodec.h"
#include "blockproc/engine/DefinitionLoader.h"
#include "blockproc/engine/FieldValue.h"
#include "blockproc/engine/TransactionProc.h"
#include "columns.h"
#include "common.h"
#include "definition.h"

namespace blockproc::python {

namespace {

std::unique_ptr<Definition> load(const py::bytes& xml, const std::string& name) {
  auto loaded = std::make_unique<Definition>();
  loaded->xml = xml;
  loaded->name = name;
  DefinitionResult result = DefinitionLoader::loadString(loaded->xml, name);
  if (!result) throw py::value_error(result.description());
  loaded->definition = std::move(result.definition);
  loaded->forEachDescriptor(freeze);
  return loaded;
}

// Where one output block's records lie in a reply.
struct Slice {
  const BlockInfo* block;
  int64_t offset;
  int64_t records;
};

// Splits the reply among the output blocks as the tool does; a reply that does not fit raises ValueError.
// The columns read the caller's bytes, so no block needs its records copied: the rest block (always the last)
// is only measured, and the splitting parent goes with the copies the other blocks took once the slices are
// known: kept with the definition, it would hold a copy of every reply (docs/benchmarks.md). Making the
// parent leaves the definition untouched, so threads may share it.
// The splitter takes at most 2 GiB; a longer reply hands it the first 2 GiB, which hold every block before a
// count="rest" block (a rest block is measured here, whatever its size). A longer reply without one is
// refused.
std::vector<Slice> split(const Definition& def, const ByteView& reply, const std::string& source) {
  TransactionProc splitter(*def.definition);
  const int64_t head = std::min<int64_t>(reply.size(), internal::kInt32Max);
  const auto received = splitter.receiveReplyHead(reply.data(), head);
  const bool restOpen = received.ok && !received.slices.empty() && received.slices.back().open;
  if (head < reply.size() && !restOpen)
    throw py::value_error(source + ": a reply of " + internal::withThousands(reply.size()) +
                          " bytes is more than the " + internal::withThousands(head) +
                          " a reply takes unless a count=\"rest\" block takes what follows" +
                          (received.ok ? "" : " (" + received.message + ")"));
  if (!received.ok) throw py::value_error(source + ": " + received.message);
  std::vector<Slice> slices;
  for (const auto& slice : received.slices) {
    const BlockInfo& block = *slice.proc->getBlockInfo();
    int64_t records = slice.records;
    if (slice.open) {
      const int64_t restBytes = reply.size() - slice.offset;
      const std::string refusal = TransactionProc::checkRest(block, restBytes, false);
      if (!refusal.empty()) throw py::value_error(source + ": " + refusal);
      records = restBytes / block.getRecordMemSize();
    }
    slices.push_back({&block, slice.offset, records});
  }
  return slices;
}

py::list sliceColumns(const Definition& def, const Slice& slice, const ByteView& reply,
                      const std::string& source, Numbers numbers) {
  return decodeColumns(*slice.block, def.encoding(), reply.data() + slice.offset, slice.records,
                       slice.block->getRecordMemSize(), RecordSource{source, slice.offset}, numbers);
}

Numbers numbersArgument(const std::string& numbers) {
  if (numbers == "scaled") return Numbers::Scaled;
  if (numbers == "float") return Numbers::Float;
  if (numbers == "decimal") return Numbers::Decimal;
  throw py::value_error("numbers must be \"scaled\", \"float\" or \"decimal\", not " +
                        py::repr(py::str(numbers)).cast<std::string>());
}

// The columns of one output block of a reply.
py::list replyColumns(const Definition& def, py::handle replyObject, const std::string& blockName,
                      const std::string& source, const std::string& numbers) {
  const Numbers form = numbersArgument(numbers);
  const BlockInfo& block = def.block(blockName);
  if (!def.isOutput(block))
    throw py::key_error("block " + blockName + " is not an output block of " + def.name);
  ByteView reply(replyObject, "reply", false);
  for (const Slice& slice : split(def, reply, source))
    if (slice.block == &block) return sliceColumns(def, slice, reply, source, form);
  throw py::value_error("block " + blockName + " was not found in the reply");
}

// The columns of every output block of a reply, in order.
py::list replyBlocks(const Definition& def, py::handle replyObject, const std::string& source) {
  ByteView reply(replyObject, "reply", false);
  py::list blocks;
  for (const Slice& slice : split(def, reply, source))
    blocks.append(
        py::make_tuple(slice.block->m_szBlockName, sliceColumns(def, slice, reply, source, Numbers::Scaled)));
  return blocks;
}

// The records of every output block of a reply as dicts of values: {block name: [record, ...]}.
py::dict decode(const Definition& def, py::handle replyObject, const std::string& source, bool showSecrets) {
  ByteView reply(replyObject, "reply", false);
  py::dict blocks;
  for (const Slice& slice : split(def, reply, source))
    blocks[py::str(slice.block->m_szBlockName)] =
        decodeRecords(*slice.block, def.encoding(), reply.data() + slice.offset, slice.records,
                      slice.block->getRecordMemSize(), RecordSource{source, slice.offset}, showSecrets);
  return blocks;
}

// The columns of a stream of whole records of one block; `offset` is the stream's first byte in its source,
// where a record starts (a piece of a longer stream), so that messages number records from the source's
// start.
py::list streamColumns(const Definition& def, py::handle streamObject, const std::string& blockName,
                       const std::string& source, int64_t offset, const std::string& numbers) {
  const Numbers form = numbersArgument(numbers);
  const BlockInfo& block = def.block(blockName);
  ByteView stream(streamObject, "stream", false);
  const int64_t recordSize = block.getRecordMemSize();
  if (offset < 0) throw py::value_error("offset must be 0 or more, not " + std::to_string(offset));
  if (recordSize <= 0 || stream.size() % recordSize != 0)
    throw py::value_error(source + ": the stream holds " + internal::withThousands(stream.size()) +
                          " bytes, not a whole number of " + internal::withThousands(recordSize) + "-byte " +
                          blockName + " records");
  return decodeColumns(block, def.encoding(), stream.data(), stream.size() / recordSize, recordSize,
                       RecordSource{source, offset, offset / recordSize}, form);
}

// ---- values to bytes --------------------------------------------------------------------------------------

// "block B, record R, field F", as the engine names a value.
std::string where(const std::string& block, size_t record, const std::string& field) {
  std::string text;
  value::appendWhere(text, block, static_cast<int64_t>(record), field);
  return text;
}

std::string valueText(py::handle value, const std::string& at) {
  if (py::isinstance<py::str>(value)) return value.cast<std::string>();
  if (PyBool_Check(value.ptr())) throw py::type_error(at + ": a bool is not a field value; give '1' or '0'");
  if (PyLong_Check(value.ptr())) return py::str(value).cast<std::string>();
  static py::object decimal = py::module_::import("decimal").attr("Decimal");
  if (py::isinstance(value, decimal)) {
    if (!value.attr("is_finite")().cast<bool>())
      throw py::value_error(at + ": " + py::repr(value).cast<std::string>() + " is not a number");
    return py::str(py::str("{:f}").attr("format")(value)).cast<std::string>();
  }
  if (PyFloat_Check(value.ptr()))
    throw py::type_error(at + ": a float is not exact; give the value as str or decimal.Decimal");
  throw py::type_error(at + ": a field value must be str, int, decimal.Decimal or None, not " +
                       py::type::of(value).attr("__name__").cast<std::string>());
}

RecordValues recordFrom(py::handle record, const std::string& block, size_t index) {
  if (!py::isinstance<py::dict>(record))
    throw py::type_error("block " + block + ", record " + std::to_string(index) +
                         " must be a dict of field values, not " +
                         py::type::of(record).attr("__name__").cast<std::string>());
  RecordValues values;
  constexpr std::string_view kAttr = "@attr";
  for (auto [key, value] : py::reinterpret_borrow<py::dict>(record)) {
    if (!py::isinstance<py::str>(key))
      throw py::type_error("block " + block + ", record " + std::to_string(index) +
                           ": field names must be str");
    const std::string name = key.cast<std::string>();
    checkName(name, "field");
    if (name.size() > kAttr.size() && name.ends_with(kAttr)) {
      const std::string at = where(block, index, name);
      if (!PyLong_Check(value.ptr()) || PyBool_Check(value.ptr()))
        throw py::type_error(at + " must be an int");
      int overflow = 0;
      const long long byte = PyLong_AsLongLongAndOverflow(value.ptr(), &overflow);
      if (overflow != 0 || byte < 0 || byte > 255)
        throw py::value_error(at + " must be an attribute byte, 0 to 255, not " +
                              py::str(value).cast<std::string>());
      values.attrs.emplace_back(name.substr(0, name.size() - kAttr.size()), static_cast<uint8_t>(byte));
    } else if (value.is_none()) {
      values.nulls.push_back(name);  // a number or text field blank, as decode gives a blank one
    } else {
      values.fields.emplace_back(name, valueText(value, where(block, index, name)));
    }
  }
  return values;
}

std::vector<BlockValues> valuesFrom(py::handle values) {
  if (!py::isinstance<py::dict>(values))
    throw py::type_error("values must be a dict of block name to records");
  std::vector<BlockValues> blocks;
  for (auto [key, block] : py::reinterpret_borrow<py::dict>(values)) {
    if (!py::isinstance<py::str>(key)) throw py::type_error("block names must be str");
    BlockValues entry{key.cast<std::string>(), {}};
    checkName(entry.block, "block");
    if (py::isinstance<py::list>(block) || py::isinstance<py::tuple>(block)) {
      for (py::handle record : block)
        entry.records.push_back(recordFrom(record, entry.block, entry.records.size()));
    } else {
      entry.records.push_back(recordFrom(block, entry.block, 0));
    }
    blocks.push_back(std::move(entry));
  }
  return blocks;
}

// The request (or reply) bytes of the values; the engine's refusal names block, record and field.
py::bytes encode(const Definition& def, py::handle valuesObject, bool reply) {
  const std::vector<BlockValues> values = valuesFrom(valuesObject);
  TransactionProc proc(*def.definition);
  const auto built = reply ? proc.buildReply(values) : proc.buildRequest(values);
  if (!built.ok) throw py::value_error(built.message);
  return py::bytes(built.bytes);
}

// The names of the blocks, in order.
std::vector<std::string> blockNames(const std::vector<BlockInfo*>& blocks) {
  std::vector<std::string> names;
  for (const BlockInfo* b : blocks) names.push_back(b->m_szBlockName);
  return names;
}

}  // namespace

void bindEngine(py::module_& m) {
  py::class_<Definition>(m, "Definition", "A loaded transaction definition (see load_definition).")
      .def_property_readonly("code", [](const Definition& d) { return d.definition->tran.getTrCode(); })
      .def_property_readonly("title", [](const Definition& d) { return d.definition->title; })
      .def_property_readonly("name", [](const Definition& d) { return d.name; })
      .def_property_readonly(
          "encoding",
          [](const Definition& d) { return std::string(codec::encodingName(d.definition->encoding)); })
      .def_property_readonly("input_blocks",
                             [](const Definition& d) { return blockNames(d.definition->tran.m_InBlockList); })
      .def_property_readonly(
          "output_blocks", [](const Definition& d) { return blockNames(d.definition->tran.m_OutBlockList); })
      .def(
          "block",
          [](const Definition& d, const std::string& name) -> const BlockInfo& { return d.block(name); },
          py::return_value_policy::reference_internal,
          "The block definition of that name (KeyError if none).")
      .def_property_readonly(
          "tran", [](const Definition& d) -> TranInfo& { return d.definition->tran; },
          py::return_value_policy::reference_internal)
      .def("__repr__",
           [](const Definition& d) {
             return "<blockproc.Definition " + d.definition->tran.getTrCode() + " from " + d.name + ">";
           })
      .def("__reduce__", [](const Definition& d) {
        return py::make_tuple(py::module_::import("blockproc").attr("_load_text"),
                              py::make_tuple(py::bytes(d.xml), d.name));
      });
  m.def("_load", &load, py::arg("xml"), py::arg("name"));
  m.def("_reply_columns", &replyColumns, py::arg("definition"), py::arg("reply"), py::arg("block"),
        py::arg("source"), py::arg("numbers") = "scaled");
  m.def("_reply_blocks", &replyBlocks, py::arg("definition"), py::arg("reply"), py::arg("source"));
  m.def("_decode", &decode, py::arg("definition"), py::arg("reply"), py::arg("source"),
        py::arg("show_secrets") = false);
  m.def("_stream_columns", &streamColumns, py::arg("definition"), py::arg("stream"), py::arg("block"),
        py::arg("source"), py::arg("offset") = 0, py::arg("numbers") = "scaled");
  m.def(
      "_scales", [](const Definition& d, const std::string& block) { return scaledFields(d.block(block)); },
      py::arg("definition"), py::arg("block"));
  m.def("_decimals", &decimalsOfScaled, py::arg("values"), py::arg("blank"), py::arg("scale"));
  m.def("encode", &encode, py::arg("definition"), py::arg("values"), py::arg("reply") = false,
        "The request bytes of the values (the reply bytes with reply=True); ValueError when a value does not "
        "fit.");
}

}  // namespace blockproc::python
