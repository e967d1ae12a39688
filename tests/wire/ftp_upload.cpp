// ftp_upload.cpp: sending files to scripted servers: which command is chosen, what goes over the wire, and
// how each failure ends.
#include <fcntl.h>
#include <unistd.h>

#include "core/owners.h"
#include "tests/wire/ftp_script.h"

namespace test {
namespace {

constexpr int32_t append = 1;
constexpr int32_t store = 2;
constexpr uint32_t limit_store = 1;
constexpr uint32_t limit_stop = 2;

class ftp_upload : public ftp_test {
 protected:
  void SetUp() override {
    local_ = dir_.file("local");
    content_ = make_bytes(1000);
    write_file(local_, content_);
  }
  int upload(ftp_peers& peers, int32_t post_mode = store, uint32_t limit_mode = limit_stop,
             const char* remote_name = "/r") {
    return dl_ftp_send_file("127.0.0.1", peers.control.port(), nullptr, nullptr, remote_name, local_.c_str(),
                            post_mode, limit_mode, &result_);
  }
  int open(ftp_peers& peers) {
    return dl_ftp_send_open(&session_, "127.0.0.1", peers.control.port(), nullptr, nullptr, local_.c_str(),
                            "r", store, limit_stop, &result_);
  }

  dl_ftp_session* session_ = nullptr;
  std::string local_;
  std::string content_;
};

// The server's side of a transfer that succeeds.
connection_script accepted(const std::string& command, const std::string& answer = "150 go") {
  return turn(command, answer) + connection_script{send("226-done\r\n226 all\r\n")} + turn("QUIT", "221 bye");
}

TEST_F(ftp_upload, sizes_and_modes_choose_the_command) {
  const struct {
    const char* name;
    uint32_t limit;
    std::string size_answer;
    int32_t post_mode;
    uint32_t limit_mode;
    const char* command;  // or null: refused
    int code;
    std::string message;
    std::vector<std::string> log;  // at level 6
  } rows[] = {
      {"append", 2000, "213 1000", append, limit_stop, "APPE r", 0, "", {"FTP APPE"}},
      {"store", 2000, "213 1000", store, limit_stop, "STOR r", 0, "", {"FTP STOR"}},
      {"limit mode is not looked at", 2000, "213 1000", store, 9, "STOR r", 0, "", {"FTP STOR"}},
      {"new file",
       2000,
       "550 none",
       append,
       limit_stop,
       "STOR r",
       0,
       "",
       {"File not found, use STOR", "FTP STOR"}},
      {"new file, post mode is not looked at",
       2000,
       "550 none",
       7,
       9,
       "STOR r",
       0,
       "",
       {"File not found, use STOR", "FTP STOR"}},
      {"no SIZE", 1000, "500 what", append, limit_stop, "APPE r", 0, "", {"FTP APPE"}},
      {"odd SIZE", 1000, "213 many", append, limit_stop, "APPE r", 0, "", {"FTP APPE"}},
      {"beyond, store",
       1999,
       "213 1000",
       append,
       limit_store,
       "STOR r",
       0,
       "",
       {"exceed max file size,stor"}},
      {"alone beyond, store",
       999,
       "550 none",
       append,
       limit_store,
       "STOR r",
       0,
       "",
       {"File not found, use STOR", "exceed max file size,stor"}},
      {"beyond, stop",
       1999,
       "213 1000",
       store,
       limit_stop,
       nullptr,
       -15,
       "exceed max file size,stop\n",
       {"exceed max file size,stop"}},
      {"sum beyond 32 bits",
       UINT32_MAX,
       "213 4294967000",
       store,
       limit_stop,
       nullptr,
       -15,
       "exceed max file size,stop\n",
       {"exceed max file size,stop"}},
      {"remote beyond 32 bits",
       UINT32_MAX,
       "213 4294967296",
       store,
       limit_stop,
       nullptr,
       -15,
       "exceed max file size,stop\n",
       {"exceed max file size,stop"}},
  };
  for (const auto& row : rows) {
    for (const delivery mode : all_deliveries) {
      SCOPED_TRACE(row.name);
      SCOPED_TRACE(mode);
      log_.clear();
      set_option(DL_OPT_MAX_FILE_SIZE, row.limit);
      const auto size = turn("SIZE r", row.size_answer);
      ftp_peers peers(size + (row.command ? accepted(row.command) : turn("QUIT", "500 never mind")),
                      row.command ? connection_script{expect(content_)} : idle(), mode);
      EXPECT_EQ(row.code == 0 ? 0 : -1, upload(peers, row.post_mode, row.limit_mode)) << log_.all();
      expect_result(row.code, row.message);
      EXPECT_TRUE(peers.data.finish());
      EXPECT_EQ(row.command ? content_ : "", peers.data.received(0));
      expect_log(DL_LOG_INFO, row.log);
    }
  }
}

TEST_F(ftp_upload, unknown_modes_are_refused_with_the_size_answer) {
  const struct {
    uint32_t limit;
    const char* size_answer;
    const char* log;
  } rows[] = {{999, "213 5", "unknow limit mode"},
              {2000, "213 5", "Unknow post mode"},
              {2000, "500 what", "Unknow post mode"}};
  for (const auto& row : rows) {
    log_.clear();
    set_option(DL_OPT_MAX_FILE_SIZE, row.limit);
    ftp_peers peers(turn("SIZE r", row.size_answer));
    EXPECT_EQ(-1, upload(peers, 3, 0));
    expect_result(-15, row.size_answer);
    expect_log(DL_LOG_ERROR, {row.log});
    EXPECT_EQ("SIZE r\r\n", peers.commands());
  }
}

TEST_F(ftp_upload, success_is_told_in_the_log) {
  ftp_peers peers(turn("SIZE r", "550 none") + accepted("STOR r", "125 go"), {expect(content_)});
  EXPECT_EQ(0, upload(peers));
  expect_log(DL_LOG_NOTICE, {"Post open success", "send: 1000 bytes"});
  expect_log(DL_LOG_ERROR, {});
  EXPECT_EQ("SIZE r\r\nSTOR r\r\nQUIT\r\n", peers.commands());
}

TEST_F(ftp_upload, without_a_remote_name_the_local_one_is_used) {
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    ftp_peers peers(turn("SIZE local", "550 none") + accepted("STOR local"), {expect(content_)});
    EXPECT_EQ(0, upload(peers, store, limit_stop, name)) << log_.all();
  }
}

TEST_F(ftp_upload, an_empty_file_sends_nothing) {
  write_file(local_, "");
  ftp_peers peers(turn("SIZE r", "550 none") + accepted("STOR r"));
  EXPECT_EQ(0, upload(peers)) << log_.all();
  EXPECT_TRUE(peers.data.finish());
  EXPECT_EQ("", peers.data.received(0));
}

TEST_F(ftp_upload, a_large_file_arrives_whole) {
  content_ = make_bytes(2000000);
  write_file(local_, content_);
  ftp_peers peers(turn("SIZE r", "550 none") + accepted("STOR r"), {expect_length(content_.size())});
  EXPECT_EQ(0, upload(peers)) << log_.all();
  EXPECT_TRUE(peers.data.finish());
  EXPECT_TRUE(content_ == peers.data.received(0));
}

TEST_F(ftp_upload, a_refused_transfer_fails_with_the_servers_code) {
  const struct {
    const char* name;
    connection_script script;
    int code;
    std::string message;
  } rows[] = {
      {"name", turn("STOR r", "553 name not allowed"), 553, "Unknown Error"},
      {"server", turn("STOR r", "500 no"), 500, "Server error"},
      {"other good code", turn("STOR r", "226 done"), 226, "Unknown Error"},
      {"closed", {expect("STOR r\r\n")}, -8, "Read Error"},
      {"code 0", turn("STOR r", "000 odd"), -15, "000 odd"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    log_.clear();
    ftp_peers peers(turn("SIZE r", "550 none") + row.script);
    session_ = reinterpret_cast<dl_ftp_session*>(this);
    EXPECT_EQ(-1, open(peers));
    EXPECT_EQ(nullptr, session_);
    expect_result(row.code, row.message);
    expect_log(DL_LOG_ERROR, {"Open data transfer conn err"});
  }
}

TEST_F(ftp_upload, a_local_file_without_a_32_bit_size_is_refused) {
  const fetchrig::unique_fd sparse(::open(local_.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(0, ftruncate(sparse.get(), off_t{1} << 31));
  for (const std::string& path : {local_, dir_.file("missing")}) {
    log_.clear();
    local_ = path;
    ftp_peers peers(turn("SIZE r", "213 1"));
    EXPECT_EQ(-1, open(peers));
    expect_result(-15, "cannot get local file size\n");
    expect_log(DL_LOG_ERROR, {"cannot get local file size"});
    EXPECT_EQ("SIZE r\r\n", peers.commands());
  }
}

TEST_F(ftp_upload, the_final_reply_decides) {
  const struct {
    const char* name;
    connection_script end;
    int rc;
    const char* sent;
  } rows[] = {
      {"no farewell", {send("226 done\r\n"), expect("QUIT\r\n")}, 0, "SIZE r\r\nSTOR r\r\nQUIT\r\n"},
      {"long line",
       connection_script{send("226 " + std::string(8000, 'x') + "\r\n")} + turn("QUIT", "221 bye"), 0,
       "SIZE r\r\nSTOR r\r\nQUIT\r\n"},
      {"disk full", {send("452 full\r\n")}, -1, "SIZE r\r\nSTOR r\r\n"},
      {"250", {send("250 done\r\n")}, -1, "SIZE r\r\nSTOR r\r\n"},
      {"closed", {}, -1, "SIZE r\r\nSTOR r\r\n"},
      {"silent", {stall()}, -1, "SIZE r\r\nSTOR r\r\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.name == std::string_view("silent")) wait_briefly();
    ftp_peers peers(turn("SIZE r", "550 none") + turn("STOR r", "150 go") + row.end, {expect(content_)});
    EXPECT_EQ(row.rc, upload(peers)) << log_.all();
    expect_result(row.rc == 0 ? 0 : -4, row.rc == 0 ? "" : "Send Error");
    EXPECT_EQ(row.sent, peers.commands());
  }
}

TEST_F(ftp_upload, a_data_connection_that_takes_nothing_more) {
  content_ = make_bytes(std::size_t{24} << 20);
  write_file(local_, content_);
  set_option(DL_OPT_MAX_FILE_SIZE, UINT32_MAX);
  wait_briefly();
  gate given_up;
  ftp_peers silent(turn("SIZE r", "550 none") + turn("STOR r", "150 go"), {given_up.wait()});
  EXPECT_EQ(-1, upload(silent));
  given_up.open();
  expect_result(-4, "Send Error");
  EXPECT_EQ(1u, log_.count("dl_select error! errno ")) << log_.all();

  log_.clear();
  ftp_peers resetting(turn("SIZE r", "550 none") + turn("STOR r", "150 go"), {expect_length(10), reset()});
  EXPECT_EQ(-1, upload(resetting));
  expect_result(-4, "Send Error");
  EXPECT_EQ(1u, log_.count("read error! errno ")) << log_.all();
}

TEST_F(ftp_upload, send_refuses_bad_arguments) {
  ftp_peers peers(turn("SIZE r", "550 none") + turn("STOR r", "150 go"));
  ASSERT_EQ(0, open(peers)) << log_.all();
  const std::string sparse_path = dir_.file("sparse");
  const fetchrig::unique_fd sparse(::open(sparse_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(0, ftruncate(sparse.get(), off_t{1} << 31));
  dl_ftp_session no_data = *session_;
  no_data.data_sock = 0;
  dl_ftp_session dead = *session_;
  dead.magic = 0;
  const std::string missing = dir_.file("missing");
  const struct {
    dl_ftp_session* session;
    const char* path;
    std::string log;
  } rows[] = {{nullptr, local_.c_str(), "ftp read with invalid parameter"},
              {&no_data, local_.c_str(), "ftp read with invalid parameter"},
              {&dead, local_.c_str(), "ftp read with invalid parameter"},
              {session_, nullptr, "Can't open "},
              {session_, missing.c_str(), "Can't open " + missing},
              {session_, sparse_path.c_str(), "local file of 2 GiB or more"}};
  for (const auto& row : rows) {
    log_.clear();
    result_ = {};
    EXPECT_EQ(-1, dl_ftp_send(row.session, row.path, &result_));
    expect_result(-6, "Invalid Parameter");
    expect_log(DL_LOG_ERROR, {row.log});
  }
  EXPECT_EQ(-1, dl_ftp_send(session_, local_.c_str(), nullptr));
  dl_ftp_close(session_);
  EXPECT_TRUE(peers.data.finish());
  EXPECT_EQ("", peers.data.received(0));
}

TEST_F(ftp_upload, the_data_connection_is_gone_after_a_transfer) {
  ftp_peers peers(turn("SIZE r", "550 none") + accepted("STOR r"), {expect(content_)});
  ASSERT_EQ(0, open(peers));
  EXPECT_EQ(1000, dl_ftp_send(session_, local_.c_str(), &result_));
  EXPECT_EQ(0, session_->data_sock);
  EXPECT_EQ(-1, dl_ftp_send(session_, local_.c_str(), &result_));
  expect_result(-6, "Invalid Parameter");
  dl_ftp_close(session_);
}

}  // namespace
}  // namespace test
