// ftp_download.cpp: fetching files from scripted servers, as well-behaved and as bad as they come.
#include <unistd.h>

#include "tests/wire/ftp_script.h"

namespace test {
namespace {

class ftp_download : public ftp_test {
 protected:
  int open(ftp_peers& peers) {
    return dl_ftp_open(&session_, "127.0.0.1", peers.control.port(), nullptr, nullptr, "/f", &result_);
  }
  int read(int32_t size) {
    buffer_.assign(static_cast<std::size_t>(std::max(size, 1)) + 1, '#');
    const int count = dl_ftp_read(session_, buffer_.data(), size, &result_);
    EXPECT_EQ('#', buffer_.back());
    if (count > 0) content_.append(buffer_, 0, static_cast<std::size_t>(count));
    return count;
  }
  int fetch(ftp_peers& peers, const std::string& to) {
    return dl_ftp_recv_to_file("127.0.0.1", peers.control.port(), nullptr, nullptr, "/f", to.c_str(),
                               &result_);
  }

  dl_ftp_session* session_ = nullptr;
  std::string buffer_;
  std::string content_;
};

connection_script announce(uint64_t size) {
  return turn("SIZE f", "213 " + std::to_string(size));
}
connection_script serve(uint64_t size) {
  return announce(size) + turn("RETR f", "150 go");
}

TEST_F(ftp_download, reads_give_full_requests_then_the_rest_then_the_end) {
  const std::string content = make_bytes(1000);
  for (const delivery mode : all_deliveries) {
    SCOPED_TRACE(mode);
    content_.clear();
    // What the server sends beyond the announced size is not part of the file.
    ftp_peers peers(serve(1000), {send(content), send("beyond")}, mode);
    ASSERT_EQ(0, open(peers)) << log_.all();
    EXPECT_EQ(0, read(0));
    EXPECT_EQ(512, read(512));
    EXPECT_EQ(488u, session_->remaining);
    EXPECT_EQ(488, read(512));
    EXPECT_EQ(0, read(512));
    EXPECT_EQ(content, content_);
    dl_ftp_close(session_);
    EXPECT_EQ("SIZE f\r\nRETR f\r\n", peers.commands());
  }
}

TEST_F(ftp_download, whole_files_arrive_in_every_size) {
  for (const std::size_t size : {0u, 1u, 511u, 512u, 513u, 300000u}) {
    SCOPED_TRACE(size);
    log_.clear();
    const std::string content = make_bytes(size);
    ftp_peers peers(serve(size), {send(content + "tail")});
    EXPECT_EQ(0, fetch(peers, dir_.file("out"))) << log_.all();
    expect_result(0, "");
    EXPECT_EQ(content, read_file(dir_.file("out")));
    expect_log(DL_LOG_INFO, {"Sending size cmd to get file size", "File size:" + std::to_string(size)});
    expect_log(DL_LOG_NOTICE, {"Open Success", "recv: " + std::to_string(size) + " bytes"});
    expect_log(DL_LOG_ERROR, {});
  }
}

TEST_F(ftp_download, one_slash_is_removed_and_the_last_part_names_the_file) {
  const std::string back = ::testing::UnitTest::GetInstance()->original_working_dir();
  ASSERT_EQ(0, chdir(dir_.path().c_str()));
  // clang-format off
  const struct { const char* path; const char* sent; const char* file; } rows[] = {
      {"/pub/a.bin", "pub/a.bin", "a.bin"}, {"plain", "plain", "plain"}, {"//x/b c", "/x/b c", "b c"}};
  // clang-format on
  for (const auto& row : rows) {
    const std::string sent = row.sent;
    ftp_peers peers(turn("SIZE " + sent, "213 2") + turn("RETR " + sent, "125 go"), {send("ab")});
    EXPECT_EQ(0, dl_ftp_recv_to_file("127.0.0.1", peers.control.port(), nullptr, nullptr, row.path, nullptr,
                                     &result_));
    EXPECT_EQ("ab", read_file(dir_.file(row.file)));
  }
  ASSERT_EQ(0, chdir(back.c_str()));
}

TEST_F(ftp_download, refusals_fail_the_open_and_leave_no_file) {
  const std::string no_size = "Get file size error", wrong = "Server response wrong code : ";
  // clang-format off
  const struct { connection_script script; int code; const char* message; std::string log; } rows[] = {
      {turn("SIZE f", "550 no such file"), -15, "550 no such file", no_size},
      {turn("SIZE f", "213 large"), -15, "213 large", no_size},
      {{expect("SIZE f\r\n")}, -8, "Read Error", no_size},
      {announce(5) + turn("RETR f", "550-no\r\n550 gone"), -15, "550 gone", wrong + "550"},
      {announce(5) + turn("RETR f", "151 odd"), -15, "151 odd", wrong + "151"},
      {announce(5) + connection_script{expect("RETR f\r\n"), send("150-")}, -8, "Read Error", "Send RETR cmd Error"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    log_.clear();
    ftp_peers peers(row.script);
    session_ = reinterpret_cast<dl_ftp_session*>(this);
    EXPECT_EQ(-1, open(peers));
    EXPECT_EQ(nullptr, session_);
    expect_result(row.code, row.message);
    expect_log(DL_LOG_ERROR, {row.log});
    ftp_peers again(row.script);
    EXPECT_EQ(-1, fetch(again, dir_.file("none")));
    EXPECT_FALSE(file_exists(dir_.file("none")));
  }
}

TEST_F(ftp_download, data_that_ends_or_stops_early_leaves_no_file) {
  const std::string part = make_bytes(700);
  gate requested;
  // clang-format off
  const struct { const char* name; connection_script data; const char* log; } rows[] = {
      {"closed", {send(part)}, "data connection closed too early"},
      {"reset", {send(part), requested.wait(), reset()}, "read error! errno 104"},
      {"silent", {send(part), stall()}, "dl_select error! errno "},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    log_.clear();
    if (row.name == std::string_view("silent")) wait_briefly();
    const bool resets = row.data.size() == 3;
    const auto after = resets ? connection_script{call([&] { requested.open(); })} : idle;
    ftp_peers peers(serve(1000) + after, row.data);
    EXPECT_EQ(-1, fetch(peers, dir_.file("out")));
    expect_result(-8, "Read Error");
    EXPECT_FALSE(file_exists(dir_.file("out")));
    EXPECT_EQ(1u, log_.count(row.log)) << log_.all();
  }
}

TEST_F(ftp_download, the_limit_is_judged_in_steps_of_512_bytes) {
  // clang-format off
  const struct { uint32_t limit; uint64_t announced; std::size_t sent; bool fits; } rows[] = {
      {1000, 1000, 1000, true},
      {1000, 1001, 1001, false},
      {1000, 5000, 1024, false},  // the second step passes it; the rest is not waited for
      {0, 0, 0, true},
      {70000, 4294967296, 70144, false},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.announced);
    log_.clear();
    set_option(DL_OPT_MAX_FILE_SIZE, row.limit);
    ftp_peers peers(serve(row.announced), {send(make_bytes(row.sent)), stall()});
    EXPECT_EQ(row.fits ? 0 : -1, fetch(peers, dir_.file("out")));
    EXPECT_EQ(row.fits, file_exists(dir_.file("out")));
    if (row.fits) continue;
    expect_result(-8, "exceed max size " + std::to_string(row.limit));
    expect_log(DL_LOG_ERROR, {"exceed max size"});
  }
}

TEST_F(ftp_download, a_local_file_that_cannot_be_made_leaves_the_result_alone) {
  ftp_peers peers(serve(3), {send("abc")});
  EXPECT_EQ(-1, fetch(peers, dir_.file("missing/out")));
  expect_result(0, "");
  expect_log(DL_LOG_ERROR, {"Can't open " + dir_.file("missing/out")});
}

TEST_F(ftp_download, reads_refuse_bad_arguments_and_fail_at_an_early_end) {
  ftp_peers peers(serve(1000), {send("abc")});
  ASSERT_EQ(0, open(peers));
  char byte = 0;
  dl_ftp_session no_data = *session_, dead = *session_;
  no_data.data_sock = 0;
  dead.magic = 10133;
  // clang-format off
  const struct { dl_ftp_session* session; char* buffer; int32_t size; } rows[] = {
      {nullptr, &byte, 1}, {session_, nullptr, 1}, {session_, &byte, -1}, {&no_data, &byte, 1}, {&dead, &byte, 1}};
  // clang-format on
  for (const auto& row : rows) {
    log_.clear();
    result_ = {};
    EXPECT_EQ(-1, dl_ftp_read(row.session, row.buffer, row.size, &result_));
    expect_result(-6, "Invalid Parameter");
    expect_log(DL_LOG_ERROR, {"ftp read with invalid parameter"});
  }
  EXPECT_EQ(-1, dl_ftp_read(session_, &byte, 1, nullptr));
  EXPECT_EQ(3, read(3));
  EXPECT_EQ(-1, read(512));
  expect_result(-8, "Read Error");
  EXPECT_EQ(997u, session_->remaining);
  dl_ftp_close(session_);
}

}  // namespace
}  // namespace test
