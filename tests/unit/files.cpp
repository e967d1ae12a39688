// files.cpp and download_file.cpp: the routines over local files.
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/download_file.h"
#include "core/extra/partial_file.h"
#include "include/fetchrig.h"
#include "tests/support/descriptors.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace test;
using fetchrig::download_file;
using lines = std::vector<std::string>;

class files : public leak_free {
 protected:
  temp_dir dir;
  log_capture log;
  const std::string path = dir.file("file"), link = dir.file("link");
  const std::string missing = dir.file("missing/file");
};

TEST_F(files, dial_pad_texts) {
  for (const char* text : {"", "0123456789", "*123#"}) EXPECT_EQ(isfromdialpad(text), 1) << text;
  for (const char* text : {"12a", "a12", " 1", "1\n", "+49", "1:", "/1"}) EXPECT_EQ(isfromdialpad(text), 0);
}

TEST_F(files, kinds_and_sizes) {
  EXPECT_EQ(dl_get_file_size(path.c_str()), -1);
  EXPECT_EQ(dl_path_is_directory(path.c_str()), 0);
  for (const off_t size : {off_t{0}, off_t{INT32_MAX}, off_t{INT32_MAX} + 1}) {
    write_file(path, "x");
    ASSERT_EQ(truncate(path.c_str(), size), 0);
    EXPECT_EQ(dl_get_file_size(path.c_str()), size > INT32_MAX ? -1 : size) << "2 GiB has no 32-bit size";
  }
  ASSERT_EQ(symlink(dir.path().c_str(), link.c_str()), 0);
  EXPECT_EQ(dl_path_is_directory(link.c_str()), 1);
  EXPECT_EQ(dl_path_is_directory(path.c_str()), 0);
  EXPECT_EQ(log.messages(), lines{});
  EXPECT_EQ(dl_path_is_directory(nullptr), 0);
  EXPECT_EQ(dl_get_file_size(nullptr), -1);
  EXPECT_EQ(log.messages(DL_LOG_ERROR), (lines{"NULL path!", "NULL path!"}));
}

TEST_F(files, copies_and_digests) {
  char digest[33];
  for (const size_t size : {0U, 1023U, 1024U, 524287U, 524288U, 524289U, 1300000U}) {
    const std::string content = make_bytes(size), to = dir.file("to");
    write_file(path, content);
    write_file(to, "longer than an empty file");
    EXPECT_EQ(dl_copy_file(path.c_str(), to.c_str()), 0);
    EXPECT_EQ(summary(read_file(to)), summary(content));
    EXPECT_EQ(dl_get_file_md5(path.c_str(), digest), 0);
    EXPECT_EQ(digest, md5_hex(content));
  }
  write_file(path, "content");
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  for (const std::string& same : {path, link}) {
    EXPECT_EQ(dl_copy_file(path.c_str(), same.c_str()), 0);
    EXPECT_EQ(read_file(path), "content") << "a file copied onto itself is kept";
  }
  EXPECT_EQ(log.messages(), lines{});
  EXPECT_EQ(dl_copy_file(path.c_str(), "/dev/full"), 0) << "a write that stops short is no failure";
  EXPECT_EQ(dl_copy_file("/", path.c_str()), 0) << "nor a read";
  EXPECT_EQ(dl_get_file_md5("/", digest), 0);
  EXPECT_EQ(log.messages(DL_LOG_WARNING),
            (lines{"copy stopped short, errno 28", "copy stopped short, errno 21",
                   "digest stopped short, errno 21"}));
  write_file(path, "content");

  log.clear();
  EXPECT_EQ(dl_copy_file(nullptr, path.c_str()), -1);
  EXPECT_EQ(dl_copy_file(path.c_str(), nullptr), -1);
  EXPECT_EQ(dl_copy_file(missing.c_str(), path.c_str()), -1);
  EXPECT_EQ(read_file(path), "content") << "opened only when there is something to copy";
  EXPECT_EQ(dl_copy_file(path.c_str(), missing.c_str()), -1);
  EXPECT_EQ(dl_get_file_md5(path.c_str(), nullptr), -1);
  EXPECT_EQ(dl_get_file_md5(missing.c_str(), digest), -1);
  EXPECT_EQ(log.messages(DL_LOG_ERROR), (lines{"Source file can't open! ", "Target file can't open! ",
                                               "MD5 error", "file can't be opened"}));
}

TEST_F(files, a_failed_download_removes_what_it_wrote_and_nothing_else) {
  const std::string other = dir.file("other"), moved = dir.file("moved");
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  const auto fail = [&](auto meanwhile) {
    write_file(path, "old");
    download_file file(DL_LOG_FTP, 512, 1000000);
    ASSERT_TRUE(file.open(link.c_str()));
    EXPECT_EQ(file.accept(static_cast<uint32_t>(file.room().size()), nullptr), 0);
    EXPECT_EQ(read_file(path).size(), 65536u) << "written, and never finished";
    meanwhile();
  };
  fail([] {});
  EXPECT_EQ(names_in(dir.path()), lines{"link"}) << "what the link leads to";
  fail([&] { ASSERT_EQ(rename(path.c_str(), moved.c_str()), 0); });
  EXPECT_EQ(names_in(dir.path()), lines{"link"}) << "a file that was moved";
  fail([&] { ASSERT_EQ(::link(path.c_str(), other.c_str()), 0); });
  EXPECT_EQ(read_file(other), "") << "a second name keeps no part";
  write_file(other, "foreign");
  fail([&] { ASSERT_EQ(rename(other.c_str(), path.c_str()), 0); });
  EXPECT_EQ(read_file(link), "foreign") << "another file that took the name";
}

#if FETCHRIG_EXTRAS
TEST_F(files, a_part_is_its_owners_alone_and_of_one_call_at_a_time) {
  // Receives `bytes` of nine; tells how much was held.
  const auto receive = [&](std::string_view bytes) -> uint64_t {
    fetchrig::partial_file part(DL_LOG_FTP);
    if (!part.open(path.c_str()) || part.start({"ftp://h/f", "20260101000000", 9}) != 0) return UINT64_MAX;
    const uint64_t held = part.held();
    download_file file(DL_LOG_FTP, 512, 9);
    file.open(part);
    bytes.copy(file.room().data(), bytes.size());
    EXPECT_EQ(file.accept(static_cast<uint32_t>(bytes.size()), nullptr), 0);
    EXPECT_EQ(held + bytes.size() == 9 ? file.finish(nullptr) : 0, 0);
    return held;
  };
  struct stat status = {};
  EXPECT_EQ(receive("12345"), 0u);
  EXPECT_EQ(stat(dir.file("file.part").c_str(), &status) | (status.st_mode & 07777), 0600u);
  {
    fetchrig::partial_file part(DL_LOG_FTP);
    EXPECT_TRUE(part.open(path.c_str()));
    EXPECT_EQ(receive("xxxx"), UINT64_MAX) << "somebody is at it";
  }
  EXPECT_EQ(receive("6789"), 5u);
  EXPECT_EQ(read_file(path), "123456789");
  EXPECT_EQ(names_in(dir.path()), lines{"file"});
  EXPECT_EQ(stat(path.c_str(), &status) | (status.st_mode & 0600), 0600u);
  EXPECT_TRUE(fetchrig::partial_file::fits(path.c_str()) && !fetchrig::partial_file::fits("/dev/null"));
  ASSERT_EQ(symlink(path.c_str(), dir.file("file.part").c_str()), 0);
  EXPECT_EQ(receive("x"), UINT64_MAX) << "no link is followed";
  EXPECT_FALSE(fetchrig::partial_file::fits(path.c_str())) << "it is somebody else's";
  unlink(dir.file("file.part").c_str());
  EXPECT_TRUE(fetchrig::partial_file::fits(path.c_str()));
  write_file(dir.file("file.part.info"), "notes of another program");
  EXPECT_FALSE(fetchrig::partial_file::fits(path.c_str()));
}
#endif

}  // namespace
