// main.cpp: fuzz NAME ... runs one target: under libFuzzer with its arguments, in which paths are whole, else over
// every file of the given folder, each also cut at every length. Without a name it lists the targets.
#include <openssl/err.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <vector>

#include "fuzz/fuzz.h"
#include "include/fetchrig.h"
#include "tests/support/temp_dir.h"

namespace fetchrig::fuzz {
namespace {

std::map<std::string, target>& targets() {
  static std::map<std::string, target> all;
  return all;
}

bool is_control(char c) {
  return static_cast<unsigned char>(c) < ' ';
}

// A line of the log is one line, and tells no secret.
int check_line(const char* line, int32_t length) {
  std::string_view text(line, static_cast<std::size_t>(length));
  FUZZ_CHECK(text.size() <= 382 && text.find(secret) == text.npos);
  while (text.ends_with('\n') || text.ends_with('\r')) text.remove_suffix(1);
  FUZZ_CHECK(std::none_of(text.begin(), text.end(), is_control));
  return 0;
}

// The target of that name, in a fresh directory and with options for all.
target choose(const char* name) {
  const auto found = targets().find(name ? name : "");
  if (found == targets().end()) {
    for (const auto& [each, run] : targets()) puts(each.c_str());
    exit(name ? 1 : 0);
  }
  static const test::temp_dir place;
  FUZZ_CHECK(chdir(place.path().c_str()) == 0);
  dl_config_init();
  dl_log_init(0, check_line);
  dl_set_log_module_level(DL_LOG_ANY, DL_LOG_DEBUG);
  const uint32_t on = 1, max_bytes = 4096;
  dl_set_option(DL_OPT_IPV6, &on);
  dl_set_option(DL_OPT_MAX_FILE_SIZE, &max_bytes);
  dl_set_option(DL_OPT_KEY_PASSPHRASE, secret);
  return found->second;
}

// A secret that the input tells is none.
void run(target chosen, std::string_view input) {
  std::string bytes(input);
  std::erase_if(bytes, is_control);
  if (bytes.find(secret) == bytes.npos) chosen(input);
  ERR_clear_error();
}

}  // namespace

registration::registration(const char* name, target run) {
  targets()[name] = run;
}

void check_at(bool holds, const char* what, const char* file, int line) {
  if (holds) return;
  fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
  abort();
}

std::string_view next_part(std::string_view& input, char separator) {
  const std::string_view part = input.substr(0, input.find(separator));
  input.remove_prefix(std::min(part.size() + 1, input.size()));
  return part;
}

}  // namespace fetchrig::fuzz

using namespace fetchrig::fuzz;

#ifdef FETCHRIG_FUZZ
static target chosen;

extern "C" int LLVMFuzzerInitialize(int* count, char*** words) {
  chosen = choose((*words)[1]);
  (*words)[1] = (*words)[0];
  ++*words;
  --*count;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  run(chosen, {reinterpret_cast<const char*>(data), size});
  return 0;
}
#else
int main(int count, char** words) {
  const auto folder = std::filesystem::absolute(count > 2 ? words[2] : ".");
  const target chosen = choose(words[1]);
  std::size_t num_files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    fprintf(stderr, "%s\n", entry.path().c_str());
    // Each cut lies in memory of its exact size, so that a sanitizer sees a byte too many being read. Of a long file
    // some are left out.
    const std::string bytes = test::read_file(entry.path());
    const std::size_t step = bytes.size() / 256 + 1;
    for (std::size_t length = bytes.size() % step; length <= bytes.size(); length += step) {
      const std::vector<char> exact(bytes.data(), bytes.data() + length);
      run(chosen, {exact.data(), exact.size()});
    }
    ++num_files;
  }
  printf("%zu files replayed\n", num_files);
  return num_files == 0;
}
#endif
