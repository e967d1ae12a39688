// ftp_download.cpp: fetching files from scripted servers, as well-behaved and as bad as they come.
#include <unistd.h>

#include "tests/wire/ftp_script.h"

namespace test {
namespace {

class ftp_download : public ftp_test {
 protected:
  int open(ftp_peers& peers) {
    session_ = reinterpret_cast<dl_ftp_session*>(this);
    const int rc =
        dl_ftp_open(&session_, "127.0.0.1", peers.control.port(), nullptr, nullptr, "/f", &result_);
    EXPECT_EQ(rc == 0, session_ != nullptr);
    return rc;
  }
  int fetch(ftp_peers& peers, const char* to, const char* path = "/f") {
    return dl_ftp_recv_to_file("127.0.0.1", peers.control.port(), nullptr, nullptr, path, to, &result_);
  }

  dl_ftp_session* session_ = nullptr;
  const std::string out_ = dir_.file("out");
};

connection_script serve(uint64_t size, const std::string& name = "f") {
  return turn("SIZE " + name, "213 " + std::to_string(size)) + turn("RETR " + name, "150 go");
}

TEST_F(ftp_download, reads_give_full_requests_then_the_rest_then_the_end) {
  const std::string content = make_bytes(1000);
  for (const delivery mode : all_deliveries) {
    SCOPED_TRACE(mode);
    // What the server sends beyond the announced size is not part of the file.
    ftp_peers peers(serve(1000), {send(content), send("beyond")}, mode);
    ASSERT_EQ(0, open(peers)) << log_.all();
    std::string got(1024, '#');
    EXPECT_EQ(0, dl_ftp_read(session_, got.data(), 0, &result_));
    EXPECT_EQ(512, dl_ftp_read(session_, got.data(), 512, &result_));
    EXPECT_EQ(488u, session_->remaining);
    EXPECT_EQ(488, dl_ftp_read(session_, got.data() + 512, 512, &result_));
    EXPECT_EQ(0, dl_ftp_read(session_, got.data() + 1000, 24, &result_));
    EXPECT_EQ(content + std::string(24, '#'), got);
    dl_ftp_close(session_);
  }
}

TEST_F(ftp_download, files_of_every_size_arrive_whole_under_their_name) {
  const std::string back = ::testing::UnitTest::GetInstance()->original_working_dir();
  ASSERT_EQ(0, chdir(dir_.path().c_str()));
  // clang-format off
  const struct { uint32_t size; const char* path; const char* sent; const char* to; const char* file; } rows[] = {
      {0, "/f", "f", "out", "out"},
      {512, "/pub/a.bin", "pub/a.bin", nullptr, "a.bin"},
      {513, "plain", "plain", nullptr, "plain"},
      {300000, "//x/b c", "/x/b c", nullptr, "b c"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.size);
    log_.clear();
    set_option(DL_OPT_MAX_FILE_SIZE, row.size);  // may be reached
    const std::string content = make_bytes(row.size);
    ftp_peers peers(serve(row.size, row.sent), {send(content + "tail")});
    EXPECT_EQ(0, fetch(peers, row.to, row.path)) << log_.all();
    expect_result(0, "");
    EXPECT_TRUE(content == read_file(dir_.file(row.file)));
    expect_log(DL_LOG_INFO, {"Sending size cmd to get file size", "File size:" + std::to_string(row.size)});
    expect_log(DL_LOG_NOTICE, {"Open Success", "recv: " + std::to_string(row.size) + " bytes"});
    expect_log(DL_LOG_ERROR, {});
  }
  ASSERT_EQ(0, chdir(back.c_str()));
}

TEST_F(ftp_download, a_failure_leaves_no_file) {
  const std::string no_size = "Get file size error", wrong = "Server response wrong code : ";
  const std::string large = "exceed max size", part = make_bytes(700);
  const auto sized = turn("SIZE f", "213 5");
  gate requested;
  // clang-format off
  const struct { connection_script control, data; int code; const char* message; std::string log; } rows[] = {
      {turn("SIZE f", "550 no such file"), idle, -15, "550 no such file", no_size},
      {turn("SIZE f", "213 large"), idle, -15, "213 large", no_size},
      {{expect("SIZE f\r\n")}, idle, -8, "Read Error", no_size},
      {sized + turn("RETR f", "550-no\r\n550 gone"), idle, -15, "550 gone", wrong + "550"},
      {sized + turn("RETR f", "151 odd"), idle, -15, "151 odd", wrong + "151"},
      {sized + connection_script{expect("RETR f\r\n"), send("150-")}, idle, -8, "Read Error", "Send RETR cmd Error"},
      // The limit is 70000 and judged in steps of 512 bytes; what comes after the step beyond it is not waited for.
      {serve(70001), {send(make_bytes(70001))}, -8, "exceed max size 70000", large},
      {serve(80000), {send(make_bytes(70144)), stall()}, -8, "exceed max size 70000", large},
      {serve(4294967296), {send(make_bytes(70144)), stall()}, -8, "exceed max size 70000", large},
      {serve(1000), {send(part)}, -8, "Read Error", "data connection closed too early"},
      {serve(1000) + connection_script{call([&] { requested.open(); })}, {send(part), requested.wait(), reset()},
       -8, "Read Error", "read error! errno 104"},
      // Option 7 is read again for each read.
      {serve(1000), {call([&] { wait_briefly(); }), send(part), stall()}, -8, "Read Error",
       "dl_select error! errno 0"},
  };
  // clang-format on
  set_option(DL_OPT_MAX_FILE_SIZE, 70000);
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    log_.clear();
    ftp_peers peers(row.control, row.data);
    EXPECT_EQ(-1, fetch(peers, out_.c_str()));
    expect_result(row.code, row.message);
    EXPECT_EQ(1u, log_.messages(DL_LOG_ERROR).size()) << log_.all();
    EXPECT_EQ(1u, log_.count(row.log)) << log_.all();
    EXPECT_FALSE(file_exists(out_));
    if (!row.data.empty()) continue;
    ftp_peers again(row.control);
    EXPECT_EQ(-1, open(again));
    expect_result(row.code, row.message);
  }
}

TEST_F(ftp_download, a_file_of_4_gib_never_ends_as_if_it_were_whole) {
  for (const uint64_t size : {UINT64_C(4294967295), UINT64_C(4294967296), UINT64_MAX}) {
    SCOPED_TRACE(size);
    ftp_peers peers(serve(size), {send("end")});
    ASSERT_EQ(0, open(peers)) << log_.all();
    EXPECT_EQ(UINT32_MAX, session_->remaining);
    session_->remaining = 3;
    char bytes[4];
    const bool whole = size == UINT32_MAX;
    EXPECT_EQ(3, dl_ftp_read(session_, bytes, 4, &result_));
    EXPECT_EQ(whole ? 0 : -1, dl_ftp_read(session_, bytes, 4, &result_));
    expect_result(whole ? 0 : -8, whole ? "" : "Read Error");
    EXPECT_EQ(0, dl_ftp_read(session_, bytes, 0, &result_));
    dl_ftp_close(session_);
  }
}

TEST_F(ftp_download, a_local_file_that_cannot_be_made_leaves_the_result_alone) {
  ftp_peers peers(serve(3), {send("abc")});
  EXPECT_EQ(-1, fetch(peers, dir_.file("missing/out").c_str()));
  expect_result(0, "");
  expect_log(DL_LOG_ERROR, {"Can't open " + dir_.file("missing/out")});
}

TEST_F(ftp_download, reads_refuse_bad_arguments_and_fail_at_an_early_end) {
  ftp_peers peers(serve(1000), {send("abc")});
  ASSERT_EQ(0, open(peers));
  char bytes[512];
  dl_ftp_session no_data = *session_, dead = *session_;
  no_data.data_sock = 0;
  dead.magic = 10133;
  // clang-format off
  const struct { dl_ftp_session* session; char* buffer; int32_t size; } rows[] = {
      {nullptr, bytes, 1}, {session_, nullptr, 1}, {session_, bytes, -1}, {&no_data, bytes, 1}, {&dead, bytes, 1}};
  // clang-format on
  for (const auto& row : rows) {
    log_.clear();
    result_ = {};
    EXPECT_EQ(-1, dl_ftp_read(row.session, row.buffer, row.size, &result_));
    expect_result(-6, "Invalid Parameter");
    expect_log(DL_LOG_ERROR, {"ftp read with invalid parameter"});
  }
  EXPECT_EQ(-1, dl_ftp_read(session_, bytes, 1, nullptr));
  EXPECT_EQ(3, dl_ftp_read(session_, bytes, 3, &result_));
  EXPECT_EQ(-1, dl_ftp_read(session_, bytes, 512, &result_));
  expect_result(-8, "Read Error");
  EXPECT_EQ(997u, session_->remaining);
  dl_ftp_close(session_);
}

}  // namespace
}  // namespace test
