// replay_main.cpp: runs a fuzz target without a fuzzer. Feeds it every file of the corpus folders it is
// given, each file also cut at every length. Inputs are handed over in memory of their exact size, so that a
// sanitizer sees a byte too many being read.
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

// Long files are cut at every length up to this, then at as many lengths spread over the rest.
constexpr size_t every_length_up_to = 2048;

void run(const std::vector<char>& bytes, size_t length) {
  const auto exact = std::make_unique<uint8_t[]>(length);
  if (length > 0) memcpy(exact.get(), bytes.data(), length);
  LLVMFuzzerTestOneInput(exact.get(), length);
}

void replay(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t head = std::min(bytes.size(), every_length_up_to);
  for (size_t length = 0; length < head; ++length) run(bytes, length);
  const size_t step = (bytes.size() - head) / every_length_up_to + 1;
  for (size_t length = head; length < bytes.size(); length += step) run(bytes, length);
  run(bytes, bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  size_t num_files = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) continue;
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      if (!entry.is_regular_file()) continue;
      fprintf(stderr, "%s\n", entry.path().c_str());
      replay(entry.path());
      ++num_files;
    }
  }
  if (num_files == 0) {
    fprintf(stderr, "no corpus files\n");
    return 1;
  }
  printf("%zu files replayed\n", num_files);
  return 0;
}
