// files.cpp and download_file.cpp: the routines over local files.
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "core/download_file.h"
#include "include/fetchrig.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using fetchrig::download_file;
using test::file_exists;
using test::read_file;
using test::write_file;

class files : public test::leak_free {
 protected:
  test::temp_dir dir;
  test::log_capture log;
};

TEST_F(files, dial_pad_texts) {
  for (const char* text : {"", "0123456789", "*123#", "#", "*"}) EXPECT_EQ(isfromdialpad(text), 1) << text;
  for (const char* text : {"12a", "a12", " 1", "1\n", "+49", "1:"}) EXPECT_EQ(isfromdialpad(text), 0) << text;
}

TEST_F(files, directories) {
  const std::string file = dir.file("file"), link = dir.file("link");
  write_file(file, "x");
  ASSERT_EQ(symlink(dir.path().c_str(), link.c_str()), 0);
  EXPECT_EQ(dl_path_is_directory(link.c_str()), 1);
  EXPECT_EQ(dl_path_is_directory(file.c_str()), 0);
  EXPECT_EQ(dl_path_is_directory(dir.file("missing").c_str()), 0);
  EXPECT_EQ(log.messages(DL_LOG_ERROR).size(), 0U);
  EXPECT_EQ(dl_path_is_directory(nullptr), 0);
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_ERROR, "NULL path!")) << log.all();
}

TEST_F(files, sizes) {
  const std::string path = dir.file("file");
  EXPECT_EQ(dl_get_file_size(path.c_str()), -1);
  write_file(path, "");
  EXPECT_EQ(dl_get_file_size(path.c_str()), 0);
  ASSERT_EQ(truncate(path.c_str(), INT32_MAX), 0);
  EXPECT_EQ(dl_get_file_size(path.c_str()), INT32_MAX);
  ASSERT_EQ(truncate(path.c_str(), off_t{INT32_MAX} + 1), 0);
  EXPECT_EQ(dl_get_file_size(path.c_str()), -1) << "2 GiB has no 32-bit size";
  log.clear();
  EXPECT_EQ(dl_get_file_size(nullptr), -1);
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_ERROR, "NULL path!")) << log.all();
}

TEST_F(files, copies) {
  for (const size_t size : {0U, 1U, 524287U, 524288U, 524289U, 1300000U}) {
    const std::string content = test::make_bytes(size);
    write_file(dir.file("from"), content);
    write_file(dir.file("to"), "longer than an empty file");
    EXPECT_EQ(dl_copy_file(dir.file("from").c_str(), dir.file("to").c_str()), 0);
    EXPECT_TRUE(read_file(dir.file("to")) == content) << size;
  }
  EXPECT_EQ(log.messages(DL_LOG_ERROR).size(), 0U) << log.all();
}

TEST_F(files, copies_that_fail) {
  const std::string from = dir.file("from");
  const std::string to = dir.file("to");
  EXPECT_EQ(dl_copy_file(nullptr, to.c_str()), -1);
  EXPECT_EQ(dl_copy_file(from.c_str(), nullptr), -1);
  EXPECT_EQ(dl_copy_file(from.c_str(), to.c_str()), -1);
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_ERROR, "Source file can't open! ")) << log.all();
  EXPECT_FALSE(file_exists(to));
  write_file(from, "content");
  EXPECT_EQ(dl_copy_file(from.c_str(), dir.file("missing/to").c_str()), -1);
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_ERROR, "Target file can't open! ")) << log.all();
  EXPECT_EQ(dl_copy_file(from.c_str(), "/dev/full"), 0) << "a write that stops short is no failure";
}

TEST_F(files, a_file_copied_onto_itself_is_kept) {
  const std::string path = dir.file("file");
  const std::string link = dir.file("link");
  const std::string hard = dir.file("hard");
  write_file(path, "content");
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  ASSERT_EQ(::link(path.c_str(), hard.c_str()), 0);
  for (const std::string& target : {path, link, hard}) {
    EXPECT_EQ(dl_copy_file(path.c_str(), target.c_str()), 0);
    EXPECT_EQ(read_file(path), "content");
  }
}

TEST_F(files, digests) {
  const std::string path = dir.file("file");
  char digest[33];
  write_file(path, "");
  EXPECT_EQ(dl_get_file_md5(path.c_str(), digest), 0);
  EXPECT_STREQ(digest, "d41d8cd98f00b204e9800998ecf8427e");
  for (const size_t size : {1U, 1023U, 1024U, 1025U, 70000U}) {
    const std::string content = test::make_bytes(size);
    write_file(path, content);
    EXPECT_EQ(dl_get_file_md5(path.c_str(), digest), 0);
    EXPECT_EQ(digest, test::md5_hex(content)) << size;
  }
  EXPECT_EQ(dl_get_file_md5(path.c_str(), nullptr), -1);
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_ERROR, "MD5 error")) << log.all();
  EXPECT_EQ(dl_get_file_md5(dir.file("missing").c_str(), digest), -1);
  EXPECT_TRUE(log.contains("DCMN", DL_LOG_ERROR, "file can't be opened")) << log.all();
}

// Delivers `content` in pieces of `piece` bytes. Returns accept()'s or finish()'s result.
int deliver(download_file& file, std::string_view content, size_t piece, dl_result* result) {
  while (!content.empty()) {
    const auto room = file.room();
    const size_t count = std::min({content.size(), piece, room.size()});
    memcpy(room.data(), content.data(), count);
    content.remove_prefix(count);
    if (const int rc = file.accept(static_cast<uint32_t>(count), result); rc < 0) return rc;
  }
  return file.finish(result);
}

struct limit_row {
  size_t size;
  uint32_t limit;
  bool fits;
  uint64_t total;  // what is logged: whole steps of 512 bytes, and the short last one
};
// clang-format off
const limit_row limit_rows[] = {
    {0, 0, true, 0}, {1, 0, false, 1}, {512, 512, true, 512}, {513, 512, false, 513}, {2000, 512, false, 1024},
    {1500, 1499, false, 1500}, {1500, 1500, true, 1500}, {200000, 1000, false, 1024}, {200000, 200000, true, 200000},
};
// clang-format on

TEST_F(files, a_download_keeps_its_limit_however_the_network_cuts_it) {
  for (const auto& row : limit_rows) {
    for (const size_t piece : {1U, 511U, 512U, 1448U, 65536U}) {
      SCOPED_TRACE(std::to_string(row.size) + " limit " + std::to_string(row.limit) + " by " +
                   std::to_string(piece));
      const std::string path = dir.file("target");
      const std::string content = test::make_bytes(row.size);
      dl_result result = {};
      log.clear();
      {
        download_file file(DL_LOG_HTTP, 512, row.limit);
        ASSERT_TRUE(file.open(path.c_str()));
        EXPECT_EQ(deliver(file, content, piece, &result), row.fits ? 0 : -1);
        EXPECT_EQ(file.total(), row.total);
      }
      EXPECT_EQ(file_exists(path), row.fits);
      EXPECT_EQ(log.contains("HTTP", DL_LOG_ERROR, "exceed max size"), !row.fits);
      if (row.fits) {
        EXPECT_TRUE(read_file(path) == content);
        EXPECT_EQ(result.code, 0);
      } else {
        EXPECT_EQ(result.code, DL_ERR_READ);
        EXPECT_EQ(result.message, "exceed max size " + std::to_string(row.limit));
      }
    }
  }
}

TEST_F(files, a_download_that_is_not_finished_leaves_nothing) {
  const std::string path = dir.file("target");
  write_file(path, "old");
  {
    download_file file(DL_LOG_FTP, 512, 1000);
    ASSERT_TRUE(file.open(path.c_str()));
    ASSERT_EQ(file.accept(10, nullptr), 0);
  }
  EXPECT_FALSE(file_exists(path));
}

TEST_F(files, a_full_disk_fails_the_download_even_at_its_last_bytes_and_removes_no_device) {
  for (const size_t size : {10U, 300000U}) {
    dl_result result = {};
    log.clear();
    {
      download_file file(DL_LOG_HTTP, 512, 1000000);
      ASSERT_TRUE(file.open("/dev/full"));
      EXPECT_EQ(deliver(file, test::make_bytes(size), 1000, &result), -1);
    }
    EXPECT_EQ(result.code, DL_ERR_READ);
    EXPECT_STREQ(result.message, "Read Error");
    EXPECT_GE(log.count("/dev/full, errno 28"), 1U) << log.all();
    EXPECT_TRUE(file_exists("/dev/full"));
  }
}

}  // namespace
