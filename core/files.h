// SPDX-License-Identifier: MIT
// files.h: small routines over local files, for transfers and for certificates. Any thread.
#ifndef FETCHRIG_CORE_FILES_H
#define FETCHRIG_CORE_FILES_H

#include <stdint.h>
#include <sys/stat.h>

#include <string_view>

#include "core/md5.h"

namespace fetchrig {

// Follows links; false also for a path that leads nowhere, or, logged, for none.
[[nodiscard]] bool is_directory(const char* path);

// 0 for a regular file, else the errno that says why there is nothing to read: EISDIR, or EINVAL for a device, a pipe
// or a socket, which has no end to rely on.
[[nodiscard]] int why_not_regular(const struct stat& status);

// Writes all bytes. 0, or errno.
[[nodiscard]] int write_all(int fd, std::string_view bytes);

// The file's size in bytes, or -1: no such file, 2 GiB and more, or, logged, no path.
[[nodiscard]] int32_t file_size(const char* path);

// Creates or truncates the target. Returns 0, or -1 when one of the two cannot be opened; a read or a write that
// stops short is logged alone. A file is not copied onto itself.
int copy_file(const char* source, const char* target);

// The digest of the file's content, as far as it can be read. Returns 0, or -1 when it cannot be opened, with
// `digits` left as it was. A null path counts as such a file.
[[nodiscard]] int file_md5(md5_text& digits, const char* path);

}  // namespace fetchrig
#endif
