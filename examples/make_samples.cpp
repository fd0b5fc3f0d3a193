// Writes the bundled sample data of the current-price transaction with the library's own writers:
//   current_price.reply   a reply: the item's figures and its five most recent ticks
//   current_price.stream  real-time ticks of block OutBlock1, oldest first, one record after another
//
// Usage: make_samples examples/current_price.xml examples

#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "blockproc/data/KXBlockDataProc.h"
#include "blockproc/engine/DefinitionLoader.h"
#include "blockproc/engine/TransactionProc.h"

namespace {

using blockproc::BlockValues;
using blockproc::RecordValues;

struct Tick {
  const char* time;
  const char* price;
  const char* sign;
  const char* change;
  const char* volume;
};

RecordValues tickRecord(const Tick& t) {
  return {{{"chetime", t.time},
           {"price", t.price},
           {"sign", t.sign},
           {"change", t.change},
           {"cvolume", t.volume}},
          {}};
}

std::vector<BlockValues> replyValues() {
  RecordValues item{{{"hname", "한빛전자"},
                     {"price", "71000"},
                     {"sign", "5"},
                     {"change", "-500"},
                     {"rate", "-0.70"},
                     {"high", "71800"},
                     {"low", "70600"},
                     {"volume", "15234567"},
                     {"per", "12.35"},
                     {"time", "153000"}},
                    {{"price", '5'}}};
  const Tick ticks[] = {{"153000", "71000", "5", "-500", "1204"},
                        {"152958", "71100", "5", "-400", "35"},
                        {"152955", "71000", "5", "-500", "980"},
                        {"152951", "70900", "5", "-600", "12"},
                        {"152947", "71000", "5", "-500", "250"}};
  BlockValues ticksBlock{"OutBlock1", {}};
  for (const Tick& t : ticks) ticksBlock.records.push_back(tickRecord(t));
  // The tick count (OutBlock.cnt) is left out: the parent fills it from the records given.
  return {{"OutBlock", {item}}, std::move(ticksBlock)};
}

// Real-time ticks, oldest first, each laid out by a block processor and taken from its buffer.
std::string streamBytes(blockproc::BlockInfo& block) {
  const Tick ticks[] = {{"090000", "71500", "2", "+0", "3021"},   {"090001", "71600", "2", "+100", "150"},
                        {"090003", "71600", "2", "+100", "42"},   {"090004", "71400", "5", "-100", "600"},
                        {"090007", "71300", "5", "-200", "88"},   {"090008", "71300", "5", "-200", "1"},
                        {"090012", "71200", "5", "-300", "2500"}, {"090015", "71400", "5", "-100", "75"}};
  blockproc::KXBlockDataProc proc(&block);
  std::string out;
  for (const Tick& t : ticks) {
    proc.DefaultMemory();
    for (const auto& [field, value] : tickRecord(t).fields) proc.setFieldDataFromName(field, 0, value);
    out.append(reinterpret_cast<const char*>(proc.getData()), static_cast<size_t>(block.getRecordMemSize()));
  }
  return out;
}

bool writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) std::cerr << "make_samples: cannot write " << path << "\n";
  return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: make_samples DEFINITION OUTPUT_DIR\n";
    return 2;
  }
  blockproc::DefinitionResult loaded = blockproc::DefinitionLoader::loadFile(argv[1]);
  if (!loaded) {
    std::cerr << "make_samples: " << loaded.description() << "\n";
    return 2;
  }
  blockproc::TransactionProc transaction(*loaded.definition);
  const auto reply = transaction.buildReply(replyValues());
  if (!reply.ok) {
    std::cerr << "make_samples: " << reply.message << "\n";
    return 1;
  }
  blockproc::BlockInfo* ticks = loaded.definition->tran.findBlock("OutBlock1");
  if (ticks == nullptr) {
    std::cerr << "make_samples: the definition has no block OutBlock1\n";
    return 2;
  }
  const std::string dir = argv[2];
  const bool written = writeFile(dir + "/current_price.reply", reply.bytes) &&
                       writeFile(dir + "/current_price.stream", streamBytes(*ticks));
  return written ? 0 : 1;
}
