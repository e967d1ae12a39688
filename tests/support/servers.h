// servers.h: real servers on loopback for one test: each has a directory and ports of its own, is ready when
// its constructor returns, and is stopped by its destructor. A server that cannot run here does not start;
// then REQUIRE_SERVER skips the test. One thread at a time.
#ifndef FETCHRIG_TESTS_SUPPORT_SERVERS_H
#define FETCHRIG_TESTS_SUPPORT_SERVERS_H

#include <gtest/gtest.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

#define REQUIRE_SERVER(server) \
  if (!(server).started()) GTEST_SKIP() << "SKIPPED: " << (server).why()

namespace test {

// The user that servers with a login know.
inline constexpr const char* server_user = "phone";
inline constexpr const char* server_password = "s3cret";

// Whether ::1 can be used on this machine.
bool have_ipv6();

// What the servers have in common.
class loopback_server {
 public:
  bool started() const { return why_.empty(); }
  // Why it did not start, with what it printed.
  const std::string& why() const { return why_; }
  uint16_t port() const { return port_; }
  // The served directory's files, by path in it. "upload/" in it is writable for the server.
  void put(const std::string& name, std::string_view content) const { write_file(path_of(name), content); }
  std::string get(const std::string& name) const { return read_file(path_of(name)); }
  // The file once it has `size` bytes, or what there is after some seconds: a TFTP server may acknowledge the
  // last block before it has written it.
  std::string get_whole(const std::string& name, std::size_t size) const;
  bool has(const std::string& name) const { return file_exists(path_of(name)); }
  std::string path_of(const std::string& name) const { return root_ + "/" + name; }

 protected:
  // The command line for a port.
  using command = std::function<std::vector<std::string>(uint16_t port)>;
  using probe = std::function<bool(uint16_t port, child_process& server)>;

  loopback_server();
  ~loopback_server() = default;
  // Starts the first of `programs` that is installed; once more on another port when it ends at once.
  void start(const std::vector<std::string>& programs, transport kind, const command& command_for,
             const probe& is_ready);
  // Does not start, for this reason.
  void refuse(const std::string& why) { why_ = why; }
  std::string url_for(const std::string& scheme, uint16_t port, const std::string& path, bool ipv6) const;

  temp_dir place_;    // configuration and logs
  std::string root_;  // what is served

 private:
  std::string why_ = "not started";
  uint16_t port_ = 0;
  std::unique_ptr<child_process> server_;
};

// nginx: HTTP and, with a certificate, HTTPS; on ::1 as well where there is IPv6. Paths beside plain files:
//   /hop/N         302, N times, until "/hop/0" answers hop_text     /moved/X      301 to /X
//   /to-https/X    302 to the HTTPS server's /X
//   /chunked/X     the file X in chunks                              /streamed/X   ended by closing, no
//   length /private/X     the file X behind Basic authentication            /closed/X     likewise for PUT
//   /upload/X      PUT stores a file
struct nginx_settings {
  std::string cert_file = {};  // not empty: HTTPS
  std::string key_file = {};
  std::string tls_protocols = "TLSv1.2 TLSv1.3";
  std::string client_ca_file = {};  // not empty: HTTPS demands a client certificate of this CA
};
class nginx_server : public loopback_server {
 public:
  static constexpr const char* hop_text = "the end of the road\n";
  explicit nginx_server(const nginx_settings& settings = {});
  std::string url(const std::string& path, bool ipv6 = false) const;
  std::string https_url(const std::string& path, bool ipv6 = false) const;
  uint16_t https_port() const { return https_port_; }
  // The requests served, a line each: "METHOD URI STATUS".
  std::string access_log() const { return read_file(place_.file("access.log")); }

 private:
  uint16_t https_port_ = 0;
};

// Apache: HTTP with Digest authentication, forms and a forward proxy.
//   /digest/X      the file X behind Digest authentication           /form         POST of a multipart form:
//   its /digest-form   the form receiver behind Digest authentication                  files go to form/NAME
class apache_server : public loopback_server {
 public:
  apache_server();
  std::string url(const std::string& path) const;
  // A proxy for "http" URLs that also lets CONNECT through.
  std::string proxy_url() const;
  std::string access_log() const { return read_file(place_.file("access.log")); }
  // One line "FIELD FILENAME TYPE SIZE" for each part of the last form.
  std::string last_form() const { return get("form/.parts"); }

 private:
  uint16_t proxy_port_ = 0;
};

// vsftpd: anonymous login, uploads to "upload/".
class vsftpd_server : public loopback_server {
 public:
  vsftpd_server();
  std::string url(const std::string& path) const;
};

// pyftpdlib: server_user and anonymous may do anything; EPSV; with `ipv6` on ::1.
class pyftpd_server : public loopback_server {
 public:
  explicit pyftpd_server(bool ipv6 = false);
  std::string url(const std::string& path) const;

 private:
  bool ipv6_;
};

// tftpd-hpa, which runs as root only, and atftpd, which knows IPv4 only; both take uploads to "upload/".
// `options` are added to the server's command line.
enum class tftp_program { tftpd_hpa, atftpd };
class tftp_server : public loopback_server {
 public:
  explicit tftp_server(tftp_program program, bool ipv6 = false, const std::vector<std::string>& options = {});
  std::string url(const std::string& path) const;

 private:
  bool ipv6_;
};

}  // namespace test
#endif
