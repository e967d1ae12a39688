// servers.cpp: starting a server and knowing when it is ready; FTP and TFTP servers.
#include "tests/support/servers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

namespace test {
namespace {

constexpr int start_limit_ms = 20000;
constexpr int file_limit_ms = 20000;

bool tcp_ready(uint16_t port, child_process& server) {
  return wait_until_accepts(port, start_limit_ms, false, &server);
}

bool tcp6_ready(uint16_t port, child_process& server) {
  return wait_until_accepts(port, start_limit_ms, true, &server);
}

// One read request for a file that is not there; true when anything answers.
bool answers_tftp(int fd, const sockaddr_storage& address, socklen_t address_len, int limit_ms) {
  const std::string request("\0\1no-such-file\0octet\0", 21);
  const auto* to = reinterpret_cast<const sockaddr*>(&address);
  if (sendto(fd, request.data(), request.size(), 0, to, address_len) < 0) return false;
  pollfd watched = {fd, POLLIN, 0};
  return poll(&watched, 1, limit_ms) > 0;
}

bool tftp_ready(uint16_t port, child_process& server, bool ipv6) {
  sockaddr_storage address = {};
  auto* four = reinterpret_cast<sockaddr_in*>(&address);
  auto* six = reinterpret_cast<sockaddr_in6*>(&address);
  address.ss_family = ipv6 ? AF_INET6 : AF_INET;
  four->sin_port = htons(port);  // at the same place in both
  inet_pton(address.ss_family, ipv6 ? "::1" : "127.0.0.1",
            ipv6 ? static_cast<void*>(&six->sin6_addr) : static_cast<void*>(&four->sin_addr));
  const int fd = socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  bool ready = false;
  for (int tries = 0; !ready && tries < 30 && server.running(); ++tries) {
    ready = answers_tftp(fd, address, ipv6 ? sizeof *six : sizeof *four, 100);
  }
  close(fd);
  return ready;
}

constexpr const char* vsftpd_conf =
    "listen=YES\nbackground=NO\nlisten_address=127.0.0.1\nanonymous_enable=YES\nno_anon_password=YES\n"
    "write_enable=YES\nanon_upload_enable=YES\nanon_mkdir_write_enable=YES\nanon_other_write_enable=YES\n"
    "anon_world_readable_only=NO\nanon_umask=022\nrun_as_launching_user=YES\nseccomp_sandbox=NO\nisolate=NO\n"
    "isolate_network=NO\nconnect_from_port_20=NO\nxferlog_enable=NO\n";

}  // namespace

bool have_ipv6() {
  const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const bool usable = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  if (fd >= 0) close(fd);
  return usable;
}

// Servers started as root continue as other users, who must reach the files.
loopback_server::loopback_server() : root_(place_.make_dir("root")) {
  place_.let_others_read();
  std::filesystem::permissions(place_.make_dir("root/upload"), std::filesystem::perms(0777));
}

std::string loopback_server::get_whole(const std::string& name, std::size_t size) const {
  constexpr int step_ms = 5;
  for (int waited_ms = 0; waited_ms < file_limit_ms; waited_ms += step_ms) {
    std::error_code missing;
    if (std::filesystem::file_size(path_of(name), missing) == size && !missing) break;
    poll(nullptr, 0, step_ms);
  }
  return get(name);
}

void loopback_server::start(const std::vector<std::string>& programs, transport kind,
                            const command& command_for, const probe& is_ready) {
  const std::string program = find_program(programs);
  if (program.empty()) {
    why_ = programs.front() + " is not installed";
    return;
  }
  for (int tries = 0; tries < 3; ++tries) {
    port_ = free_port(kind);
    std::vector<std::string> argv = command_for(port_);
    argv.insert(argv.begin(), program);
    server_ = std::make_unique<child_process>(argv);
    if (is_ready(port_, *server_)) {
      why_.clear();
      return;
    }
    why_ = program + " does not start: " + server_->output() + server_->errors();
  }
}

std::string loopback_server::url_for(const std::string& scheme, uint16_t port, const std::string& path,
                                     bool ipv6) const {
  return scheme + "://" + (ipv6 ? "[::1]" : "127.0.0.1") + ":" + std::to_string(port) + path;
}

vsftpd_server::vsftpd_server() {
  const auto command_for = [this](uint16_t port) -> std::vector<std::string> {
    write_file(place_.file("vsftpd.conf"), std::string(vsftpd_conf) + "listen_port=" + std::to_string(port) +
                                               "\nanon_root=" + root_ + "\nsecure_chroot_dir=" + root_ +
                                               "\n");
    return {place_.file("vsftpd.conf")};
  };
  start({"vsftpd"}, transport::tcp, command_for, tcp_ready);
}

std::string vsftpd_server::url(const std::string& path) const {
  return url_for("ftp", port(), path, false);
}

// Debian's python3, which sees Debian's modules, not another one that comes first in PATH.
pyftpd_server::pyftpd_server(bool ipv6) : ipv6_(ipv6) {
  const auto command_for = [this](uint16_t port) -> std::vector<std::string> {
    return {FETCHRIG_SOURCE_DIR "/tests/support/ftp_server.py",
            ipv6_ ? "::1" : "127.0.0.1",
            std::to_string(port),
            root_,
            server_user,
            server_password};
  };
  start({"/usr/bin/python3"}, transport::tcp, command_for, ipv6 ? tcp6_ready : tcp_ready);
}

std::string pyftpd_server::url(const std::string& path) const {
  return url_for("ftp", port(), path, ipv6_);
}

tftp_server::tftp_server(tftp_program program, bool ipv6, const std::vector<std::string>& options)
    : ipv6_(ipv6) {
  const auto with_options = [&](std::vector<std::string> argv) {
    argv.insert(argv.begin(), options.begin(), options.end());
    return argv;
  };
  const auto hpa = [&](uint16_t port) -> std::vector<std::string> {
    const std::string at = (ipv6 ? "[::1]:" : "127.0.0.1:") + std::to_string(port);
    return with_options(
        {"--foreground", ipv6 ? "-6" : "-4", "--address", at, "--create", "--permissive", "--secure", root_});
  };
  const auto atftpd = [&](uint16_t port) -> std::vector<std::string> {
    return with_options({"--daemon", "--no-fork", "--bind-address=127.0.0.1",
                         "--port=" + std::to_string(port), "--logfile=-", "--verbose=3", root_});
  };
  const auto ready = [ipv6](uint16_t port, child_process& server) { return tftp_ready(port, server, ipv6); };
  if (program == tftp_program::tftpd_hpa && geteuid() != 0)
    refuse("in.tftpd runs as root only");
  else if (program == tftp_program::tftpd_hpa)
    start({"in.tftpd"}, transport::udp, hpa, ready);
  else
    start({FETCHRIG_SOURCE_DIR "/build-servers/usr/sbin/atftpd"}, transport::udp, atftpd, ready);
}

std::string tftp_server::url(const std::string& path) const {
  return url_for("tftp", port(), path, ipv6_);
}

}  // namespace test
