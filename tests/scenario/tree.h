// tree.h: the files that a call finds and what lies there afterwards, below one directory.
#ifndef FETCHRIG_TESTS_SCENARIO_TREE_H
#define FETCHRIG_TESTS_SCENARIO_TREE_H

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace scenario {

enum class entry { file, directory, link, pipe, none, any };

struct node {
  entry kind = entry::none;
  std::string content;  // of a file; of a link its target
  int mode = -1;        // of a file, of a directory in front of the call; -1: not told
  int64_t zeros = 0;    // with which the content becomes so long, in front of the call
  bool operator==(const node&) const = default;
};

using tree = std::map<std::string, node>;

// Empties the directory and puts the entries there, with the directories that they need.
void plant(const std::string& directory, const std::vector<std::pair<std::string, node>>& entries);
tree look(const std::string& directory);

// What differs from `before` with the told changes; directories count only where they are told.
std::vector<std::string> differences(const tree& before,
                                     const std::vector<std::pair<std::string, node>>& changes,
                                     const tree& after);
// Each entry is as before or as after a call without a fault, and no other has come.
std::vector<std::string> damages(const tree& before, const tree& whole, const tree& after);

}  // namespace scenario
#endif
