// SPDX-License-Identifier: MIT
// file_replacement.h: writing a file as a whole or not at all: the bytes go to a new file beside it, which
// takes the name when they are on the disk. A full disk keeps the old file, and nobody can have planted or
// opened the new one. No state; any thread.
#ifndef FETCHRIG_CERT_FILE_REPLACEMENT_H
#define FETCHRIG_CERT_FILE_REPLACEMENT_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "core/owners.h"

namespace fetchrig {

inline constexpr int max_links = 40;  // that are followed, as the kernel has it

// Who may use a new file: its owner is this process. Without permission for the group only the owner may.
struct file_access {
  mode_t mode = 0600;
  std::optional<gid_t> group = std::nullopt;
};

// The path up to its last "/", that included; empty without one.
[[nodiscard]] std::string_view folder_of(std::string_view path);

// Puts what the link at `path` leads to in its place. 0, or errno.
[[nodiscard]] int read_link(std::string& path);

// The descriptor of this process that the path stands for, as /dev/stdout and /dev/fd/3 do, directly or through links;
// it need not be open. Such links belong to the whole machine and are never replaced.
[[nodiscard]] std::optional<int> own_descriptor(std::string path);

// Fills a new file, brings it to the disk and closes it. 0, or errno.
[[nodiscard]] int fill_new_file(unique_fd file, std::string_view bytes, file_access access);

// Replaces the file at `path`, a link there and not its target. 0, or errno with the old file untouched.
[[nodiscard]] int replace_file(const std::string& path, std::string_view bytes, const file_access& access);

}  // namespace fetchrig
#endif
