// tree.cpp: plants, looks at and compares directories.
#include "tests/scenario/tree.h"

#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "tests/support/temp_dir.h"

namespace scenario {
namespace {

namespace fs = std::filesystem;
using std::string;

const node& at(const tree& in, const string& path) {
  static const node nothing;
  const auto found = in.find(path);
  return found == in.end() ? nothing : found->second;
}

string shown(const node& one) {
  const char* kinds[] = {"file", "directory", "link", "pipe", "none", "any"};
  string text = kinds[static_cast<int>(one.kind)];
  if (one.mode >= 0)
    text += " mode " + std::to_string(one.mode >> 6) + "*64+" + std::to_string(one.mode & 63);
  return text + " \"" + (one.content.size() < 100 ? one.content : test::summary(one.content)) + "\"";
}

// What was told of an entry holds; a mode that was not told is that of before.
bool matches(const node& wanted, const node& actual, const node& old) {
  if (wanted.kind == entry::any) return actual.kind == entry::file;
  const int mode = wanted.mode >= 0 ? wanted.mode : old.kind == entry::file ? old.mode : actual.mode;
  return wanted.kind == actual.kind && wanted.content == actual.content &&
         (wanted.kind != entry::file || actual.mode == mode);
}

bool opens_key(const node& one, const node& old) {
  const int known = old.kind == entry::file ? old.mode : 0;
  return one.kind == entry::file && (one.mode & ~known & 0077) != 0 &&
         one.content.find("PRIVATE KEY") != string::npos;
}

}  // namespace

void plant(const string& directory, const std::vector<std::pair<string, node>>& entries) {
  fs::remove_all(directory);
  fs::create_directory(directory);
  for (const auto& [name, one] : entries) {
    const fs::path path = fs::path(directory) / name;
    fs::create_directories(path.parent_path());
    fs::remove(path);
    if (one.kind == entry::file) test::write_file(path, one.content);
    if (one.zeros > 0) fs::resize_file(path, static_cast<std::uintmax_t>(one.zeros));
    if (one.kind == entry::directory) fs::create_directory(path);
    if (one.kind == entry::link) fs::create_symlink(one.content, path);
    if (one.kind == entry::pipe) mkfifo(path.c_str(), 0600);
    if (one.mode >= 0 && (one.kind == entry::file || one.kind == entry::directory))
      fs::permissions(path, fs::perms(one.mode));
  }
}

tree look(const string& directory) {
  tree found;
  for (const auto& at : fs::recursive_directory_iterator(directory)) {
    node& one = found[at.path().lexically_relative(directory)];
    const fs::file_status status = at.symlink_status();
    one.kind = fs::is_directory(status) ? entry::directory
               : fs::is_symlink(status) ? entry::link
               : fs::is_fifo(status)    ? entry::pipe
                                        : entry::file;
    if (one.kind == entry::link) one.content = fs::read_symlink(at.path());
    if (one.kind == entry::file && at.file_size() < (32u << 20)) one.content = test::read_file(at.path());
    if (one.kind == entry::file) one.mode = static_cast<int>(status.permissions());
  }
  return found;
}

std::vector<string> differences(const tree& before, const std::vector<std::pair<string, node>>& changes,
                                const tree& after) {
  tree wanted = before;
  for (const auto& [path, one] : changes) wanted[path] = one;
  for (const auto& [path, one] : after) {
    if (one.kind != entry::directory) wanted.try_emplace(path);
  }
  std::vector<string> found;
  for (const auto& [path, one] : wanted) {
    const node& actual = at(after, path);
    if (!matches(one, actual, at(before, path)))
      found.push_back(path + ": expected " + shown(one) + ", got " + shown(actual));
  }
  return found;
}

std::vector<string> damages(const tree& before, const tree& whole, const tree& after) {
  std::set<string> paths;
  for (const tree* each : {&before, &whole, &after})
    for (const auto& [path, one] : *each) paths.insert(path);
  std::vector<string> found;
  for (const string& path : paths) {
    const node &old = at(before, path), &complete = at(whole, path), &actual = at(after, path);
    if (actual.kind == entry::directory) continue;
    if (old.kind != entry::directory && complete.kind != entry::directory && actual != old &&
        actual != complete)
      found.push_back(path + " is neither as before nor as it should be: " + shown(actual));
    if (actual != old && opens_key(actual, old)) found.push_back(path + ": others can read the key");
  }
  return found;
}

}  // namespace scenario
