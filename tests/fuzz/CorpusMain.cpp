// Runs a fuzz target over every file of a folder, in the place of libFuzzer's main().

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int count, char** arguments) {
  int inputs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(count == 2 ? arguments[1] : "")) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> input{std::istreambuf_iterator<char>(file), {}};
    std::printf("%s\n", entry.path().filename().c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    ++inputs;
  }
  return inputs > 0 ? 0 : 1;
}
