// SPDX-License-Identifier: MIT
// download_file.h: the local file of a download. Protocol clients deliver bytes in arbitrary pieces; limits and
// totals are judged in steps of a fixed size (the block in which the protocol's read call would have handed them
// out), so that what is logged and where a download fails does not depend on how the network cut the bytes. Unless
// finish() succeeded, what was written is removed: the file behind the descriptor, where a link led to or wherever it
// was moved, never another one that took its place, a device or a pipe. One thread at a time.
#ifndef FETCHRIG_CORE_DOWNLOAD_FILE_H
#define FETCHRIG_CORE_DOWNLOAD_FILE_H

#include <stdint.h>

#include <memory>
#include <span>
#include <string>

#include "core/owners.h"
#include "include/fetchrig_types.h"

namespace fetchrig {

// Where bytes wait until they are the whole file, other than under its own name (core/extra/partial_file.h).
class download_place {
 public:
  virtual ~download_place() = default;
  virtual const char* path() const = 0;      // of the whole file
  virtual int descriptor() const = 0;        // borrowed; writes go to the end
  virtual uint64_t held() const = 0;         // bytes there already
  [[nodiscard]] virtual int complete() = 0;  // gives all of them the file's name: 0 or errno
  virtual void drop() = 0;                   // they must not be used again; nothing more is written
};

class download_file {
 public:
  // `module` logs; `step` is the block size in bytes; `limit` is the largest file, in bytes.
  download_file(int module, uint32_t step, uint64_t limit) : module_(module), step_(step), limit_(limit) {}
  ~download_file();
  download_file(const download_file&) = delete;
  download_file& operator=(const download_file&) = delete;

  // Creates or truncates the file; logs "Can't open %s\n" and returns false when that fails. Without memory
  // it throws, and has opened nothing.
  [[nodiscard]] bool open(const char* path);
  // Goes on behind what the place holds, which counts as delivered. It keeps all that comes, unless the limit is
  // passed, and finish() completes it. It outlives the object.
  void open(download_place& place);

  // Room for the next bytes: the caller receives straight into it and then calls accept(). At least 4096 bytes.
  std::span<char> room();
  // Takes the first `count` bytes of room(). Returns 0, or -1 with `result` filled: the limit was passed
  // ("exceed max size\n" is logged), or the local write failed (-8, logged with errno).
  [[nodiscard]] int accept(uint32_t count, dl_result* result);
  // The body has ended: judges the last, short step, writes what is buffered, closes and keeps the file.
  // Returns 0 or -1 as accept().
  [[nodiscard]] int finish(dl_result* result);

  // Bytes delivered in whole steps, the short last one included after finish(): the total that is logged.
  uint64_t total() const { return total_; }

 private:
  int judge(uint64_t total, dl_result* result);
  int target() const { return place_ ? place_->descriptor() : fd_.get(); }
  int flush(dl_result* result);
  int complete(dl_result* result);
  int write_failed(dl_result* result, const char* operation, int error);

  int module_;
  uint32_t step_;
  uint64_t limit_;
  unique_fd fd_;
  download_place* place_ = nullptr;  // in place of the descriptor
  std::string path_;
  std::unique_ptr<char[]> buffer_;
  std::size_t held_ = 0;
  uint64_t received_ = 0;
  uint64_t total_ = 0;
};

}  // namespace fetchrig
#endif
