// Lays out one record of a small block with its default contents and prints it between bars.

#include <iostream>
#include <string>

#include "blockproc/data/KXBlockDataProc.h"

int main() {
  blockproc::BlockInfo block("OutBlock");
  block.addField("name", blockproc::kFieldText, 8);
  block.addField("price", blockproc::kFieldNumText, 9, 2);
  block.addField("volume", blockproc::kFieldInt64, 8);

  blockproc::KXBlockDataProc proc(&block);
  proc.DefaultMemory();

  const auto* bytes = reinterpret_cast<const char*>(proc.getData());
  const std::string record(bytes, static_cast<size_t>(block.getRecordMemSize()));
  std::cout << "default record of " << proc.getBlockName() << ": |" << record << "| (" << record.size()
            << " bytes; price reads " << proc.getFieldDataFromName("price", 0) << ")\n";
  return 0;
}
