// The main program of a fuzzer without libFuzzer: gives it every file of the directories named as arguments, once.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/fuzz.h"

int main(int argc, char **argv) {
  size_t files = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream in(entry.path(), std::ios::binary);
      const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
      // Named before, for the case that it is the last one.
      (void)std::fprintf(stderr, "%s, %zu bytes\n", entry.path().filename().c_str(), bytes.size());
      (void)LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
      ++files;
    }
  }
  (void)std::fprintf(stderr, "%zu files\n", files);
  return files != 0 ? 0 : 1;
}
