// The shared library exports exactly the symbols that cmake/fetchrig.map lists.
#include <gtest/gtest.h>
#include <stdio.h>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace {

struct pipe_closer {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

std::set<std::string> listed_symbols() {
  std::ifstream in(FETCHRIG_SOURCE_DIR "/cmake/fetchrig.map");
  std::set<std::string> symbols;
  std::string word;
  bool global = false;
  while (in >> word) {
    if (word == "global:") {
      global = true;
    } else if (word == "local:") {
      global = false;
    } else if (global && word.ends_with(';')) {
      symbols.insert(word.substr(0, word.size() - 1));
    }
  }
  return symbols;
}

// Lines of nm read "name kind value size"; the version's own entry is absolute.
std::set<std::string> exported_symbols() {
  const std::unique_ptr<FILE, pipe_closer> nm(popen(
      "nm -D --defined-only --without-symbol-versions -P '" FETCHRIG_BINARY_DIR "/libfetchrig.so'", "r"));
  std::set<std::string> symbols;
  char line[512];
  while (nm && fgets(line, sizeof line, nm.get())) {
    std::istringstream words(line);
    std::string name;
    std::string kind;
    words >> name >> kind;
    if (kind != "A") symbols.insert(name);
  }
  return symbols;
}

std::string missing_from(const std::set<std::string>& wanted, const std::set<std::string>& there) {
  std::string names;
  for (const auto& name : wanted) {
    if (!there.contains(name)) names += name + " ";
  }
  return names;
}

TEST(exports, are_the_listed_symbols) {
  const auto listed = listed_symbols();
  const auto exported = exported_symbols();
  ASSERT_GT(listed.size(), 100U);
  EXPECT_EQ(missing_from(listed, exported), "") << "listed but not exported";
  EXPECT_EQ(missing_from(exported, listed), "") << "exported but not listed";
}

}  // namespace
