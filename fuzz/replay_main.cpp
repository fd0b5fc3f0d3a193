// Runs a fuzz target's entry point on the files named on the command line (a directory stands for the
// files in it), so every harness builds and runs with any compiler, without the fuzzing engine.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool runFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.string().c_str());
    return false;
  }
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // An exact-size heap copy, so a read one byte past the input is caught under AddressSanitizer.
  std::vector<uint8_t> input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.empty() ? nullptr : input.data(), input.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t ran = 0;
  bool ok = true;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path arg(argv[i]);
    std::error_code ec;
    if (std::filesystem::is_directory(arg, ec)) {
      for (const auto& entry : std::filesystem::directory_iterator(arg, ec)) {
        if (!entry.is_regular_file()) continue;
        ok = runFile(entry.path()) && ok;
        ++ran;
      }
    } else {
      ok = runFile(arg) && ok;
      ++ran;
    }
  }
  std::printf("%zu input(s) ran\n", ran);
  return ok ? 0 : 1;
}
