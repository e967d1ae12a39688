// SPDX-License-Identifier: MIT
// partial_file.h: a download that a later call goes on with. The bytes so far wait in FILE.part, of which source they
// are in FILE.part.info; a whole file is moved to FILE. Two processes never write to one: the part is locked (flock)
// while it is open. Neither name is followed where it is a link, and nobody else may read the part. Use:
//
//   partial_file part(DL_LOG_FTP);
//   if (!partial_file::fits(path)) ...               // a device, a pipe, a link: without a part
//   if (!part.open(path)) return -1;                 // logged, the cause noted
//   ... ask for the rest: part.held(), part.source().validator, part.source().url
//   if (!part.goes_on(now)) ...                      // another file, another version: what is held must go
//   if (part.start(now) != 0) return fail(...);      // empties it unless it goes on
//   download_file file(DL_LOG_FTP, step, limit);     // core/download_file.h: judges, counts, writes
//   file.open(part);
//   ... file.accept(...), file.finish(...)
//   part.drop();                                     // what was received turned out to be a mixture
//
// Destroying the part keeps what it holds, or removes both files when that is nothing or nobody could tell later what
// it is. One thread at a time per object.
#ifndef FETCHRIG_CORE_EXTRA_PARTIAL_FILE_H
#define FETCHRIG_CORE_EXTRA_PARTIAL_FILE_H

#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>

#include "core/download_file.h"
#include "core/owners.h"

namespace fetchrig {

// Whose bytes these are. What says the same of all three is the same file.
struct part_source {
  static constexpr uint64_t unknown_size = UINT64_MAX;

  std::string url;        // with the user, without password and fragment
  std::string validator;  // strong ETag, date, answer to MDTM; empty: nothing tells one version from the next
  uint64_t size = unknown_size;

  bool operator==(const part_source&) const = default;
};

// The record in FILE.part.info: three lines behind a title. Nothing when a text holds a line break.
[[nodiscard]] std::string format_part_source(const part_source& source);
[[nodiscard]] std::optional<part_source> parse_part_source(std::string_view text);

class partial_file final : public download_place {
 public:
  explicit partial_file(int module) : module_(module) {}
  ~partial_file() override;
  partial_file(const partial_file&) = delete;
  partial_file& operator=(const partial_file&) = delete;

  // Whether a part can become this file in the end: nothing is there yet, or a regular file with this one name.
  [[nodiscard]] static bool fits(const char* path);

  // Opens or creates the part of this file, locked. False, logged with the cause noted: another process has it
  // (EAGAIN), or it cannot be opened.
  [[nodiscard]] bool open(const char* path);

  // What an earlier call left: bytes, and whose they are (an empty URL: nobody's, and no bytes).
  [[nodiscard]] uint64_t held() const override { return held_; }
  [[nodiscard]] const part_source& source() const { return source_; }

  // Whether the bytes held are the beginning of `now`, which can tell its versions apart.
  [[nodiscard]] bool goes_on(const part_source& now) const;
  // What comes is of `now`: empties the part unless it goes on, and records the source. 0, or errno, logged.
  [[nodiscard]] int start(const part_source& now) { return goes_on(now) ? 0 : start_anew(now); }
  // The same for a server that sends the whole file in any case.
  [[nodiscard]] int start_anew(const part_source& now);
  // Removes both files.
  void drop() override;

  [[nodiscard]] const char* path() const override { return path_.c_str(); }
  [[nodiscard]] int descriptor() const override { return fd_.get(); }
  // All bytes are written: gives them the file's name, and the mode of the file that was there or of a new one.
  [[nodiscard]] int complete() override;

 private:
  int open_locked();
  int record(const part_source& now);
  int failed(const char* operation, int error) const;

  int module_;
  std::string path_, part_, info_;
  unique_fd fd_;
  part_source source_;
  uint64_t held_ = 0;
};

}  // namespace fetchrig
#endif
