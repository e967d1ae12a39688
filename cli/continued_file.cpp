// SPDX-License-Identifier: MIT
// continued_file.cpp: the directory of a part, and the library's call that goes on with it.
#include "continued_file.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "cause.h"
#include "fetchrig.h"
#include "report.h"

namespace fetchrig::cli {
namespace {

std::uint64_t size_of(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

// Nobody else may put there what the library would write through, or take for the beginning of the file.
temporary_path own_directory(const std::string& path) {
  struct stat status;
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
    throw failed_file(printable(path) + ": " + strerror(errno));
  const bool own = lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
                   status.st_uid == geteuid() && (status.st_mode & 022) == 0;
  if (!own) throw failed_file(printable(path) + " is in the way: it is no directory for this user alone");
  return temporary_path(path);
}

bool is_locked_elsewhere() {
  dl_cause_info cause = {};
  return dl_last_cause(&cause) == DL_CAUSE_LOCAL_FILE && cause.number == EWOULDBLOCK;
}

}  // namespace

continued_file::continued_file(const std::string& directory)
    : directory_(own_directory(directory)),
      whole_(directory + "/whole"),
      part_(directory + "/whole.part"),
      held_bytes_(size_of(part_)) {
  unlink(whole_.get().c_str());  // of a command that was killed before it could check it
}

void continued_file::download(const source_request& request, server_facts& told) {
  const auto outcome = download_to_file(request, whole_.get(), told);
  if (outcome.code == 0 && access(whole_.get().c_str(), F_OK) == 0) return;
  if (is_locked_elsewhere()) throw failed_file(printable(directory_.get()) + " is in use by another command");
  throw failed_transfer(request.where, request.login, outcome);
}

std::uint64_t continued_file::size_bytes() const {
  return size_of(whole_.get());
}

// What is begun anew is shorter for a while.
std::uint64_t continued_file::received() const {
  const std::uint64_t total = std::max(size_of(part_), size_of(whole_.get()));
  return total >= held_bytes_ ? total - held_bytes_ : total;
}

}  // namespace fetchrig::cli
