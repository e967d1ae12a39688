// http_servers.cpp: the configurations of nginx and Apache.
#include <unistd.h>

#include <filesystem>

#include "tests/support/servers.h"

namespace test {
namespace {

constexpr int start_limit_ms = 20000;

bool ready(uint16_t port, child_process& server) {
  return wait_until_accepts(port, start_limit_ms, false, &server);
}

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

// Replaces every "@NAME@" of a configuration.
using values = std::vector<std::pair<std::string, std::string>>;
std::string filled(std::string text, const values& named) {
  for (const auto& [name, value] : named) {
    const std::string mark = "@" + name + "@";
    for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + value.size())) {
      text.replace(at, mark.size(), value);
    }
  }
  return text;
}

constexpr const char* nginx_conf = R"conf(daemon off;
master_process off;
worker_processes 1;
pid @PLACE@/nginx.pid;
error_log @PLACE@/error.log;
events { worker_connections 256; }
http {
  log_format short "$request_method $request_uri $status";
  access_log @PLACE@/access.log short;
  client_body_temp_path @PLACE@/tmp-body;
  proxy_temp_path @PLACE@/tmp-proxy;
  fastcgi_temp_path @PLACE@/tmp-fastcgi;
  uwsgi_temp_path @PLACE@/tmp-uwsgi;
  scgi_temp_path @PLACE@/tmp-scgi;
  client_max_body_size 0;
  default_type application/octet-stream;
  server {
@LISTEN@
    root @ROOT@;
    location /chunked/ { alias @ROOT@/; ssi on; ssi_types *; }
    location /streamed/ { alias @ROOT@/; ssi on; ssi_types *; chunked_transfer_encoding off; }
    location /private/ { alias @ROOT@/; auth_basic "the vault"; auth_basic_user_file @PLACE@/users; }
    location /closed/ {
      alias @ROOT@/upload/; dav_methods PUT; auth_basic "the vault"; auth_basic_user_file @PLACE@/users;
    }
    location /upload/ { dav_methods PUT; }
    location = /hop/0 { try_files /hop.txt =404; }
    location ~ ^/moved/(.*)$ { return 301 $scheme://$http_host/$1; }
    location ~ ^/to-https/(.*)$ { return 302 https://$host:@HTTPS_PORT@/$1; }
@HOPS@
  }
}
)conf";

std::string listen_lines(uint16_t port, const std::string& how) {
  std::string lines = "    listen 127.0.0.1:" + std::to_string(port) + how + ";\n";
  if (have_ipv6()) lines += "    listen [::1]:" + std::to_string(port) + how + " ipv6only=on;\n";
  return lines;
}

std::string tls_lines(const nginx_settings& settings) {
  std::string lines = "    ssl_certificate " + settings.cert_file + ";\n    ssl_certificate_key " +
                      settings.key_file + ";\n    ssl_protocols " + settings.tls_protocols +
                      ";\n    ssl_ciphers DEFAULT:@SECLEVEL=0;\n";
  if (!settings.client_ca_file.empty()) {
    lines += "    ssl_client_certificate " + settings.client_ca_file + ";\n    ssl_verify_client on;\n";
  }
  return lines;
}

std::string hop_lines() {
  std::string lines;
  for (int hop = 1; hop <= 8; ++hop) {
    lines += "    location = /hop/" + std::to_string(hop) + " { return 302 $scheme://$http_host/hop/" +
             std::to_string(hop - 1) + "; }\n";
  }
  return lines;
}

constexpr const char* apache_conf = R"conf(ServerRoot @PLACE@
ServerName 127.0.0.1
PidFile @PLACE@/apache.pid
ErrorLog @PLACE@/error.log
@USER@
StartServers 2
MinSpareServers 1
LoadModule mpm_prefork_module @MODULES@/mod_mpm_prefork.so
LoadModule authn_core_module @MODULES@/mod_authn_core.so
LoadModule authn_file_module @MODULES@/mod_authn_file.so
LoadModule authz_core_module @MODULES@/mod_authz_core.so
LoadModule authz_user_module @MODULES@/mod_authz_user.so
LoadModule auth_digest_module @MODULES@/mod_auth_digest.so
LoadModule alias_module @MODULES@/mod_alias.so
LoadModule env_module @MODULES@/mod_env.so
LoadModule cgi_module @MODULES@/mod_cgi.so
LoadModule proxy_module @MODULES@/mod_proxy.so
LoadModule proxy_http_module @MODULES@/mod_proxy_http.so
LoadModule proxy_connect_module @MODULES@/mod_proxy_connect.so
Listen 127.0.0.1:@PORT@
Listen 127.0.0.1:@PROXY_PORT@
Mutex file:@PLACE@
LogFormat "%m %U %>s" short
CustomLog @PLACE@/access.log short
DocumentRoot @ROOT@
SetEnv FORM_DIR @ROOT@/form
SetEnv PYTHONDONTWRITEBYTECODE 1
ScriptAlias /form @SCRIPT@
ScriptAlias /digest-form @SCRIPT@
Alias /digest/ @ROOT@/
<Directory />
  Require all granted
</Directory>
<LocationMatch "^/digest(/|-form)">
  AuthType Digest
  AuthName "the vault"
  AuthDigestProvider file
  AuthUserFile @PLACE@/digest-users
  Require valid-user
</LocationMatch>
<VirtualHost 127.0.0.1:@PROXY_PORT@>
  ProxyRequests On
  AllowCONNECT 1-65535
</VirtualHost>
)conf";

}  // namespace

nginx_server::nginx_server(const nginx_settings& settings) {
  put("hop.txt", hop_text);
  write_file(place_.file("users"), std::string(server_user) + ":{PLAIN}" + server_password + "\n");
  const auto command_for = [&](uint16_t port) -> std::vector<std::string> {
    std::string listen = listen_lines(port, "");
    if (!settings.cert_file.empty()) {
      https_port_ = free_port();
      listen += listen_lines(https_port_, " ssl") + tls_lines(settings);
    }
    write_file(place_.file("nginx.conf"), filled(nginx_conf, {{"LISTEN", listen},
                                                              {"HOPS", hop_lines()},
                                                              {"HTTPS_PORT", std::to_string(https_port_)},
                                                              {"ROOT", root_},
                                                              {"PLACE", place_.path()}}));
    return {"-p", place_.path(), "-c", place_.file("nginx.conf"), "-e", place_.file("error.log")};
  };
  start({"nginx"}, transport::tcp, command_for, ready);
}

std::string nginx_server::url(const std::string& path, bool ipv6) const {
  return url_for("http", port(), path, ipv6);
}

std::string nginx_server::https_url(const std::string& path, bool ipv6) const {
  return url_for("https", https_port_, path, ipv6);
}

apache_server::apache_server() {
  std::filesystem::permissions(place_.make_dir("root/form"), std::filesystem::perms(0777));
  const std::string realm = std::string(server_user) + ":the vault:";
  write_file(place_.file("digest-users"), realm + md5_hex(realm + server_password) + "\n");
  const bool is_root = geteuid() == 0;
  const auto command_for = [&](uint16_t port) -> std::vector<std::string> {
    proxy_port_ = free_port();
    write_file(place_.file("apache.conf"),
               filled(apache_conf, {{"PORT", std::to_string(port)},
                                    {"PROXY_PORT", std::to_string(proxy_port_)},
                                    {"USER", is_root ? "User www-data\nGroup www-data" : ""},
                                    {"MODULES", "/usr/lib/apache2/modules"},
                                    {"SCRIPT", quoted(place_.file("receive_form.py"))},
                                    {"ROOT", root_},
                                    {"PLACE", place_.path()}}));
    return {"-D", "FOREGROUND", "-f", place_.file("apache.conf")};
  };
  // A copy that the server's user can reach and run.
  std::filesystem::copy_file(FETCHRIG_SOURCE_DIR "/tests/support/receive_form.py",
                             place_.file("receive_form.py"));
  std::filesystem::permissions(place_.file("receive_form.py"), std::filesystem::perms(0755));
  start({"apache2"}, transport::tcp, command_for, ready);
}

std::string apache_server::url(const std::string& path) const {
  return url_for("http", port(), path, false);
}

std::string apache_server::proxy_url() const {
  return url_for("http", proxy_port_, "", false);
}

}  // namespace test
