#pragma once
// Transaction definition files: an XML document that declares one transaction, its input and output blocks
// and their fields, loaded into TranInfo / BlockInfo / FieldInfo. The format is documented in
// docs/definition-format.md.
//
// Loading never throws. A file that is not well-formed XML or that breaks a rule of the format is refused as
// a whole, with the file, the line and what is wrong; nothing half-loaded is handed out.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "blockproc/codec/TextEncoding.h"
#include "blockproc/data/TranInfo.h"

namespace blockproc {

class TBXML;

// A loaded transaction: the transaction definition (which owns its blocks and fields) and what the file says
// beyond the descriptors.
class TransactionDefinition {
 public:
  // What the file says about one block beyond its BlockInfo.
  struct BlockExtra {
    std::string linkXml;                // the block's <link> element as written in the file ("" when none)
    std::shared_ptr<const TBXML> link;  // the same element as a tree, made once by the loader (or nullptr)
    int32_t line = 0;                   // line of the block's element in the file
  };

  TranInfo tran;                           // blocks in file order; m_InBlockList and m_OutBlockList in order
  uint32_t encoding = kTextEncodingCP949;  // text encoding of the records
  std::string title;                       // free description of the transaction ("" when none)
  std::string sourceName;                  // the file name (or the name given for a string)

  TransactionDefinition() = default;
  TransactionDefinition(const TransactionDefinition&) = delete;
  TransactionDefinition& operator=(const TransactionDefinition&) = delete;

  // The extras of a block of this definition (empty extras for a block it does not hold).
  const BlockExtra& extra(const BlockInfo& block) const noexcept;
  // Appends the extras of the block most recently added to tran.
  void addExtra(BlockExtra extra);

 private:
  std::vector<BlockExtra> m_extras;  // parallel to tran.m_BlockInfokList
};

enum class DefinitionStatus {
  Ok,
  FileError,      // the file could not be read
  XmlError,       // the document is not well-formed XML
  BadDefinition,  // well-formed, but not a valid transaction definition
};

// The outcome of a load, in the manner of an XML parser's parse result.
struct DefinitionResult {
  DefinitionStatus status = DefinitionStatus::Ok;
  std::string file;     // the file name given to the loader
  int32_t line = 0;     // 1-based line of the problem; 0 when it concerns the whole file
  std::string message;  // what is wrong ("" when Ok)
  std::unique_ptr<TransactionDefinition> definition;  // the loaded transaction; nullptr unless Ok

  explicit operator bool() const noexcept { return status == DefinitionStatus::Ok; }
  // "file:line: message", "file: message" without a line, or "ok".
  std::string description() const;
};

class DefinitionLoader {
 public:
  // Reads and loads the file.
  static DefinitionResult loadFile(const std::string& path) noexcept;
  // Loads a document held in memory; `name` stands for the file name in messages.
  static DefinitionResult loadString(std::string_view xml, std::string_view name = "<string>") noexcept;
};

// Reads the whole file into `out`; false, with `error` saying why ("is a directory, not a file", "cannot
// open: No such file or directory"), when it cannot.
bool readFileBytes(const std::string& path, std::string& out, std::string& error) noexcept;

// Why the text cannot be the name of a block or a field ("holds '/'"), or "" when it can. Names reach
// terminals and become file names (a block's file under decode --output-dir), so a name holds no control
// character (C0, DEL or C1) and no '/' or '\', and is neither "." nor "..". Throws only std::bad_alloc.
std::string nameProblem(std::string_view name);

// The data type code for a type name of the format ("text", "number", "int16", ...), or -1.
int32_t dataTypeFromName(std::string_view name) noexcept;
// The format's name for a data type code ("text", "number", ...), or "unknown".
const char* dataTypeName(int32_t dataType) noexcept;

}  // namespace blockproc
