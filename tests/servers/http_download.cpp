// http_download.cpp: HTTP and HTTPS in both directions against nginx and Apache.
#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/http_fixture.h"
#include "tests/support/pki.h"
#include "tests/support/servers.h"

namespace test {
namespace {

constexpr uint32_t mib = 1 << 20;

class http_servers : public http_test {
 protected:
  http_servers() {
    set_option(DL_OPT_NET_TIMEOUT, 10);
    set_option(DL_OPT_SSL_METHOD, 3);
    set_option(DL_OPT_VERIFY_PEER, 1);
    set_option(DL_OPT_VERIFY_HOST, 1);
    set_option(DL_OPT_HTTPS_CA_DIR, ca_.hashed_dir());
  }

  int get(const std::string& url, const char* user = nullptr, const char* password = nullptr) {
    const dl_request request = {url.c_str(), user, password, nullptr};
    return dl_download(&request, local_.c_str(), redirect_, &result_);
  }
  int put(const std::string& url, const std::string& headers, int mode) {
    const dl_request request = {url.c_str(), server_user, server_password, nullptr};
    return dl_upload(&request, local_.c_str(), nullptr, redirect_, &result_, headers.c_str(), mode, 0);
  }
  // An independent judge, whatever the size.
  static bool same(const std::string& first, const std::string& second) {
    return run({"cmp", first, second}).status == 0;
  }
  void got_whole(const nginx_server& server, const std::string& url) {
    SCOPED_TRACE(url);
    log_.clear();
    EXPECT_EQ(0, get(url)) << state();
    EXPECT_TRUE(same(server.path_of("a.bin"), local_));
  }
  void make_file(const std::string& path, std::size_t size) const {
    const std::string block = make_bytes(mib - 1);
    std::ofstream out(path, std::ios::binary);
    for (std::size_t at = 0; at < size; at += block.size()) {
      out.write(block.data(), static_cast<std::streamsize>(std::min(block.size(), size - at)));
    }
  }
  std::string state() const {
    return std::to_string(result_.code) + " " + result_.message + "\n" + log_.all();
  }

  test_ca ca_{place_};
  cert_files files_ = ca_.issue("server");
  const std::string local_ = place_.file("local.bin");
  char redirect_[DL_REDIRECT_SIZE] = {};
  dl_result result_ = {};
};

TEST_F(http_servers, sizes_over_http_and_both_tls_versions) {
  set_option(DL_OPT_MAX_FILE_SIZE, 201 * mib);
  for (const char* version : {"TLSv1.2", "TLSv1.3"}) {
    nginx_server server({files_.cert, files_.key, version});
    REQUIRE_SERVER(server);
    for (const std::size_t size : {0u, 1u, 1024u, 2 * mib, 200 * mib}) {
      make_file(server.path_of("a.bin"), size);
      for (const std::string& url : {server.url("/a.bin"), server.https_url("/a.bin")}) {
        SCOPED_TRACE(::testing::Message() << version << " " << url << " " << size);
        got_whole(server, url);
      }
    }
  }
}

TEST_F(http_servers, ways_of_answering) {
  nginx_server server({files_.cert, files_.key});
  REQUIRE_SERVER(server);
  make_file(server.path_of("a.bin"), 2 * mib);
  for (const char* path :
       {"/a.bin", "/chunked/a.bin", "/streamed/a.bin", "/moved/a.bin", "/to-https/a.bin"}) {
    got_whole(server, server.url(path));
    got_whole(server, server.https_url(path));
  }
  EXPECT_EQ(server.https_url("/a.bin"), redirect_);
  EXPECT_EQ(0, get(server.url("/hop/5"))) << state();
  EXPECT_EQ(nginx_server::hop_text, read_file(local_));
  if (!have_ipv6()) return;
  set_option(DL_OPT_IPV6, 1);
  server.put("a.bin", "over IPv6");
  got_whole(server, server.https_url("/a.bin", true));
}

TEST_F(http_servers, basic_and_digest) {
  nginx_server nginx;
  apache_server apache;
  REQUIRE_SERVER(nginx);
  REQUIRE_SERVER(apache);
  nginx.put("a.bin", "behind basic");
  apache.put("a.bin", "behind digest");
  const std::pair<std::string, const char*> places[] = {{nginx.url("/private/a.bin"), "behind basic"},
                                                        {apache.url("/digest/a.bin"), "behind digest"}};
  for (const auto& [url, content] : places) {
    EXPECT_EQ(0, get(url, server_user, server_password)) << state();
    EXPECT_EQ(content, read_file(local_));
    EXPECT_EQ(-1, get(url, server_user, "wrong"));
    EXPECT_EQ(DL_ERR_AUTH, result_.code);
  }
  EXPECT_EQ(0u, log_.count(server_password));
}

TEST_F(http_servers, uploads) {
  nginx_server nginx({files_.cert, files_.key});
  apache_server apache;
  REQUIRE_SERVER(nginx);
  REQUIRE_SERVER(apache);
  const std::string form = "Content-Type: multipart/form-data; boundary=----XyZ\r\n";
  for (const std::size_t size : {0u, 1u, 3u * mib}) {
    SCOPED_TRACE(size);
    make_file(local_, size);
    const std::pair<std::string, const char*> places[] = {{nginx.url("/upload/plain"), "upload/plain"},
                                                          {nginx.https_url("/upload/tls"), "upload/tls"},
                                                          {nginx.url("/closed/basic"), "upload/basic"}};
    for (const auto& [url, path] : places) {
      EXPECT_EQ(0, put(url, "", DL_HTTP_PUT)) << state();
      EXPECT_TRUE(same(local_, nginx.path_of(path)));
    }
    for (const char* path : {"/form", "/digest-form"}) {
      EXPECT_EQ(0, put(apache.url(path), form, DL_HTTP_POST)) << state();
      EXPECT_EQ("upload local.bin application/octet-stream " + std::to_string(size) + "\n",
                apache.last_form());
      EXPECT_TRUE(same(local_, apache.path_of("form/local.bin")));
    }
  }
  EXPECT_EQ(-1, put(nginx.url("/no-put-here"), "", DL_HTTP_PUT));
  EXPECT_EQ(405, result_.code) << state();
}

TEST_F(http_servers, options_decide_which_certificates_are_taken) {
  const test_ca other(place_, "other");
  const cert_files elsewhere = ca_.issue("wrong", {.common_name = "elsewhere", .alt_names = "DNS:elsewhere"});
  nginx_server server({files_.cert, files_.key}), misnamed({elsewhere.cert, elsewhere.key});
  REQUIRE_SERVER(server);
  REQUIRE_SERVER(misnamed);
  for (const auto* one : {&server, &misnamed}) one->put("a.bin", "ours");
  const auto code_from = [&](const nginx_server& from, uint32_t peer, uint32_t host) {
    set_option(DL_OPT_VERIFY_PEER, peer);
    set_option(DL_OPT_VERIFY_HOST, host);
    return get(from.https_url("/a.bin")) == 0 ? 0 : result_.code;
  };
  const int32_t taken = 0, refused = DL_ERR_CONNECT;
  EXPECT_EQ((std::vector{refused, taken}),
            (std::vector{code_from(misnamed, 1, 1), code_from(misnamed, 1, 0)}));
  set_option(DL_OPT_HTTPS_CA_DIR, other.hashed_dir());
  EXPECT_EQ((std::vector{refused, taken}), (std::vector{code_from(server, 1, 1), code_from(server, 0, 1)}));
}

}  // namespace
}  // namespace test
