// ftp_upload.cpp: sending files to scripted servers: which command is chosen, what goes over the wire, and
// how each failure ends.
#include <unistd.h>

#include "tests/wire/ftp_script.h"

namespace test {
namespace {

constexpr int32_t append = 1, store = 2;
constexpr uint32_t limit_store = 1, limit_stop = 2;

class ftp_upload : public ftp_test {
 protected:
  void fill(std::size_t size) {
    content_ = make_bytes(size);
    write_file(local_, content_);
  }
  // A file of 2 GiB.
  std::string sparse() {
    const std::string path = dir_.file("sparse");
    write_file(path, "");
    EXPECT_EQ(0, truncate(path.c_str(), off_t{1} << 31));
    return path;
  }
  int upload(ftp_peers& peers, int32_t post_mode = store, uint32_t limit_mode = limit_stop,
             const char* remote_name = "/r") {
    return dl_ftp_send_file("127.0.0.1", peers.control.port(), nullptr, nullptr, remote_name, local_.c_str(),
                            post_mode, limit_mode, &result_);
  }
  int open(ftp_peers& peers, const std::string& local) {
    session_ = reinterpret_cast<dl_ftp_session*>(this);
    const int rc = dl_ftp_send_open(&session_, "127.0.0.1", peers.control.port(), nullptr, nullptr,
                                    local.c_str(), "r", store, limit_stop, &result_);
    EXPECT_EQ(rc == 0, session_ != nullptr);
    return rc;
  }

  dl_ftp_session* session_ = nullptr;
  const std::string local_ = dir_.file("local");
  std::string content_;
};

const connection_script new_file = turn("SIZE r", "550 none");
const connection_script farewell = turn("QUIT", "221 bye");

// The server's side of a transfer that gets as far as its final reply.
connection_script transfer(const std::string& command, const std::string& final_reply) {
  return turn(command, "150 go") + connection_script{send(final_reply)};
}
connection_script accepted(const std::string& command) {
  return transfer(command, "226-done\r\n226 all\r\n") + farewell;
}

TEST_F(ftp_upload, sizes_modes_and_replies_decide) {
  const std::string fresh = "File not found, use STOR", over = "exceed max file size,",
                    full = over + "stop\n";
  const std::vector<std::string> refused = {"Open data transfer conn err"}, stored = {fresh, "FTP STOR"};
  const auto appends = accepted("APPE r"), stores = accepted("STOR r"),
             leaves = turn("QUIT", "500 never mind");
  // clang-format off
  const struct { uint32_t limit; const char* size; int32_t post_mode; uint32_t limit_mode; connection_script then;
                 int code; std::string message; std::vector<std::string> info, errors; } rows[] = {
      {2000, "213 1000", append, limit_stop, appends, 0, "", {"FTP APPE"}, {}},
      {2000, "213 1000", store, 9, stores, 0, "", {"FTP STOR"}, {}},
      {2000, "550 none", 7, 9, stores, 0, "", stored, {}},
      {1000, "500 what", append, limit_stop, appends, 0, "", {"FTP APPE"}, {}},
      {1000, "213 many", append, limit_stop, appends, 0, "", {"FTP APPE"}, {}},
      {1999, "213 1000", append, limit_store, stores, 0, "", {over + "stor"}, {}},
      {999, "550 none", append, limit_store, stores, 0, "", {fresh, over + "stor"}, {}},
      {1999, "213 1000", store, limit_stop, leaves, -15, full, {over + "stop"}, {}},
      {UINT32_MAX, "213 4294967000", store, limit_stop, leaves, -15, full, {over + "stop"}, {}},  // the sum: 33 bits
      {UINT32_MAX, "213 4294967296", store, limit_stop, leaves, -15, full, {over + "stop"}, {}},
      {2000, "213 5", 3, limit_stop, {}, -15, "213 5", {}, {"Unknow post mode"}},
      {999, "213 5", store, 0, {}, -15, "213 5", {}, {"unknow limit mode"}},
      // The transfer command refused:
      {2000, "550 none", store, 9, turn("STOR r", "553 name not allowed"), 553, "Unknown Error", stored, refused},
      {2000, "550 none", store, 9, turn("STOR r", "500 no"), 500, "Server error", stored, refused},
      {2000, "550 none", store, 9, turn("STOR r", "226 done"), 226, "Unknown Error", stored, refused},
      {2000, "550 none", store, 9, turn("STOR r", "000 odd"), -15, "000 odd", stored, refused},
      {2000, "550 none", store, 9, {expect("STOR r\r\n")}, -8, "Read Error", stored, refused},
      // The final reply:
      {2000, "550 none", store, 9, transfer("STOR r", "226 " + std::string(8000, 'x') + "\r\n") + farewell,
       0, "", stored, {}},
      {2000, "550 none", store, 9, transfer("STOR r", "226 a\r\n") + connection_script{expect("QUIT\r\n")},
       0, "", stored, {}},
      {2000, "550 none", store, 9, transfer("STOR r", "452 full\r\n"), -4, "Send Error", stored, {}},
      {2000, "550 none", store, 9, transfer("STOR r", "250 done\r\n"), -4, "Send Error", stored, {}},
      {2000, "550 none", store, 9, turn("STOR r", "150 go"), -4, "Send Error", stored, {}},
  };
  // clang-format on
  fill(1000);
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    log_.clear();
    set_option(DL_OPT_MAX_FILE_SIZE, row.limit);
    const bool sent = row.code == 0 || row.code == -4;
    ftp_peers peers(turn("SIZE r", row.size) + row.then, sent ? connection_script{expect(content_)} : idle);
    EXPECT_EQ(row.code == 0 ? 0 : -1, upload(peers, row.post_mode, row.limit_mode)) << log_.all();
    expect_result(row.code, row.message);
    expect_log(DL_LOG_INFO, row.info);
    expect_log(DL_LOG_ERROR, row.errors);
  }
}

TEST_F(ftp_upload, files_of_every_size_arrive_whole_under_their_name) {
  const std::tuple<std::size_t, const char*, std::string> rows[] = {
      {0, nullptr, "local"}, {1000, "", "local"}, {2000000, "/r", "r"}};
  for (const auto& [size, name, sent] : rows) {
    log_.clear();
    fill(size);
    // The limit is that of the beginning.
    set_option(DL_OPT_MAX_FILE_SIZE, 2000000);
    ftp_peers peers(connection_script{call([] { set_option(DL_OPT_MAX_FILE_SIZE, 1); })} +
                        turn("SIZE " + sent, "550 none") + turn("STOR " + sent, "125 go") +
                        connection_script{send("226 done\r\n")} + farewell,
                    {expect_length(size)});
    EXPECT_EQ(0, upload(peers, store, limit_stop, name));
    EXPECT_TRUE(peers.data.finish());
    EXPECT_TRUE(content_ == peers.data.received(0));
    expect_log(DL_LOG_NOTICE, {"Post open success", "send: " + std::to_string(size) + " bytes"});
    expect_log(DL_LOG_ERROR, {});
  }
}

TEST_F(ftp_upload, what_is_no_file_to_send_is_refused_before_the_remote_file_is_touched) {
  const std::string no_size = "cannot get local file size";
  // clang-format off
  const struct { std::string path; int code; std::string message, log; } rows[] = {
      {sparse(), -15, no_size + "\n", no_size}, {dir_.file("missing"), -15, no_size + "\n", no_size},
      {dir_.path(), -8, "Read Error", "Can't read " + dir_.path() + ", errno 21"},
      {"/dev/zero", -8, "Read Error", "Can't read /dev/zero, errno 22"},
  };
  // clang-format on
  for (const auto& row : rows) {
    log_.clear();
    ftp_peers peers(turn("SIZE r", "213 1"));
    EXPECT_EQ(-1, open(peers, row.path));
    expect_result(row.code, row.message);
    expect_log(DL_LOG_ERROR, {row.log});
  }
}

TEST_F(ftp_upload, a_local_file_that_cannot_be_read_is_not_sent_as_a_shorter_one) {
  const std::string unreadable = "/proc/self/mem";  // a regular file, in which nothing is at the start
  ftp_peers peers(new_file + turn("STOR r", "150 go"), {stall()});
  ASSERT_EQ(0, open(peers, unreadable)) << log_.all();
  EXPECT_EQ(-1, dl_ftp_send(session_, unreadable.c_str(), &result_));
  expect_result(-8, "Read Error");
  expect_log(DL_LOG_ERROR, {"Can't read " + unreadable + ", errno 5"});
  EXPECT_EQ(0, session_->data_sock);
  EXPECT_TRUE(peers.data.finish()) << "dropped at once";
  dl_ftp_close(session_);  // says no QUIT
}

TEST_F(ftp_upload, a_data_connection_that_takes_nothing_more) {
  fill(std::size_t{24} << 20);
  set_option(DL_OPT_MAX_FILE_SIZE, UINT32_MAX);
  wait_briefly();
  gate given_up;
  ftp_peers silent(new_file + turn("STOR r", "150 go"), {given_up.wait()});
  EXPECT_EQ(-1, upload(silent));
  given_up.open();
  expect_result(-4, "Send Error");
  EXPECT_EQ(1u, log_.count("dl_select error! errno 0")) << log_.all();

  ftp_peers resetting(new_file + turn("STOR r", "150 go"), {expect_length(10), reset()});
  EXPECT_EQ(-1, upload(resetting));
  expect_result(-4, "Send Error");
  EXPECT_EQ(1u, log_.count("read error! errno ")) << log_.all();
}

TEST_F(ftp_upload, send_refuses_bad_arguments_and_a_second_file) {
  fill(1000);
  ftp_peers peers(new_file + accepted("STOR r"), {expect(content_)});
  ASSERT_EQ(0, open(peers, local_)) << log_.all();
  dl_ftp_session dead = *session_;
  dead.magic = 0;
  const auto refused = [&](dl_ftp_session* session, const char* path, const std::string& log) {
    log_.clear();
    result_ = {};
    EXPECT_EQ(-1, dl_ftp_send(session, path, &result_));
    expect_result(-6, "Invalid Parameter");
    expect_log(DL_LOG_ERROR, {log});
  };
  refused(nullptr, local_.c_str(), "ftp read with invalid parameter");
  refused(&dead, local_.c_str(), "ftp read with invalid parameter");
  refused(session_, nullptr, "Can't open ");
  refused(session_, "/missing", "Can't open /missing");
  refused(session_, sparse().c_str(), "local file of 2 GiB or more");
  EXPECT_EQ(-1, dl_ftp_send(session_, local_.c_str(), nullptr));
  EXPECT_EQ(1000, dl_ftp_send(session_, local_.c_str(), &result_)) << log_.all();
  EXPECT_EQ(0, session_->data_sock);
  refused(session_, local_.c_str(), "ftp read with invalid parameter");
  dl_ftp_close(session_);
}

}  // namespace
}  // namespace test
