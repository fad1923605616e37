// Runs a fuzz target over the files of the folders (or the files) named on the command line.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void replay(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path argument = argv[i];
    if (!std::filesystem::is_directory(argument)) {
      replay(argument);
      ++count;
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argument)) {
      replay(entry.path());
      ++count;
    }
  }
  std::cout << "replayed " << count << " inputs\n";
  return count > 0 ? 0 : 1;
}
