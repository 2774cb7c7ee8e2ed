// Feeds every file of the folders given as arguments, and a few thousand seeded mutations of each, to the
// fuzz target that this is linked with: the regression half of fuzzing, in builds without a fuzzing engine.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

constexpr int kMutationsPerSeed = 200;

void run_once(const std::vector<uint8_t> &bytes) {
  // An exact heap copy, so that a read past the end is seen by the address sanitizer.
  std::vector<uint8_t> exact(bytes);
  exact.shrink_to_fit();
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

std::vector<uint8_t> mutate(std::vector<uint8_t> bytes, std::mt19937 &random) {
  const int edits = 1 + static_cast<int>(random() % 4);
  for (int i = 0; i < edits && !bytes.empty(); ++i) {
    const size_t at = random() % bytes.size();
    switch (random() % 4) {
      case 0:
        bytes[at] = static_cast<uint8_t>(random());
        break;
      case 1:
        bytes[at] ^= static_cast<uint8_t>(1u << (random() % 8));
        break;
      case 2:
        bytes.resize(at);
        break;
      default:
        bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes[random() % bytes.size()]);
    }
  }
  return bytes;
}

}  // namespace

int main(int argc, char **argv) {
  std::mt19937 random(20260101);
  size_t inputs = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      std::fprintf(stderr, "%s: not a folder of seeds\n", argv[i]);
      return 1;
    }
    for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<uint8_t> seed{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
      run_once(seed);
      const int mutations = seed.size() > 100000 ? 2 : kMutationsPerSeed;
      for (int m = 0; m < mutations; ++m) run_once(mutate(seed, random));
      ++inputs;
    }
  }
  run_once({});
  std::printf("%zu seeds\n", inputs);
  return inputs == 0;
}
