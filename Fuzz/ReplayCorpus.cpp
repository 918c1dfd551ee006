// Runs a fuzz target over every file of the folders named on the command line, without libFuzzer, so that a corpus
// is an ordinary test in every build. Fails when there is nothing to replay.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

int main(int argc, char** argv) {
  std::size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++replayed;
    }
  }
  std::printf("replayed %zu inputs\n", replayed);
  return replayed == 0 ? 1 : 0;
}
