// A URL that parses, put together again from its parts, parses into the same parts.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "fuzz/support/check.h"
#include "include/fetchrig.h"

namespace {

struct url_deleter {
  void operator()(dl_url* url) const { dl_url_free(url); }
};
using unique_url = std::unique_ptr<dl_url, url_deleter>;

// The URL in full: brackets around an IPv6 address, the port always there.
std::string rebuilt(const dl_url& url) {
  const bool brackets = strchr(url.host, ':');
  std::string text = url.scheme == 0 ? "http://" : "https://";
  if (brackets) text += '[';
  text += url.host;
  if (brackets) text += ']';
  text.append(":").append(std::to_string(url.port)).append(url.path);
  return text;
}

bool prepare() {
  const uint32_t on = 1;
  dl_config_init();
  dl_log_init(0, nullptr);
  return dl_set_option(DL_OPT_IPV6, &on) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool prepared = prepare();
  FUZZ_CHECK(prepared);
  const std::string text(reinterpret_cast<const char*>(data), size);
  int32_t code = 1;
  const unique_url url(dl_url_parse(text.c_str(), "user", nullptr, &code));
  FUZZ_CHECK((code == 0) == (url != nullptr));
  if (!url) {
    FUZZ_CHECK(code == DL_ERR_URL);
    return 0;
  }
  FUZZ_CHECK(url->scheme <= 1 && url->method == 0 && url->port <= 65535);
  FUZZ_CHECK(strlen(url->host) > 0 && url->path[0] == '/');
  FUZZ_CHECK(!strpbrk(url->host, " \r\n") && !strpbrk(url->path, " \r\n"));
  FUZZ_CHECK(strcmp(url->user, "user") == 0 && !url->password);
  // A bracketed host without a colon is no address and needs its brackets to be read again.
  const bool plain = !strpbrk(url->host, "/?#[") || strchr(url->host, ':');
  if (!plain) return 0;
  const unique_url again(dl_url_parse(rebuilt(*url).c_str(), nullptr, nullptr, &code));
  FUZZ_CHECK(again && again->scheme == url->scheme && again->port == url->port);
  FUZZ_CHECK(strcmp(again->host, url->host) == 0 && strcmp(again->path, url->path) == 0);
  return 0;
}
