/* public_header.c: the public headers as a C99 application sees them: they compile alone and first, their
 * records have the layout that callers were built with, and calls work through the shared library. */
#include <fetchrig.h>
#include <fetchrig_openssl.h>

#include <stdio.h>
#include <string.h>

/* C99 has no static assertion; an array of negative size stops the compiler as well. */
#define JOIN_(first, second) first##second
#define JOIN(first, second) JOIN_(first, second)
#define ASSERT_LAYOUT(condition) extern char JOIN(layout_, __LINE__)[(condition) ? 1 : -1]
#define AT(type, field, offset) ASSERT_LAYOUT(offsetof(type, field) == (offset))

/* clang-format off */

/* Records of fixed widths are the same everywhere. */
ASSERT_LAYOUT(sizeof(dl_result) == 260); AT(dl_result, message, 4);
ASSERT_LAYOUT(sizeof(dl_cause_info) == 264); AT(dl_cause_info, number, 4); AT(dl_cause_info, text, 8);
ASSERT_LAYOUT(sizeof(dl_ring_entry) == 128); AT(dl_ring_entry, number, 1); AT(dl_ring_entry, name, 2);
ASSERT_LAYOUT(sizeof(dl_ca_info) == 260); AT(dl_ca_info, org, 64); AT(dl_ca_info, not_after, 128);
AT(dl_ca_info, hash, 192); AT(dl_ca_info, path, 196); ASSERT_LAYOUT(sizeof(dl_trust_ca_list) == 4 + 10 * 260);
AT(dl_trust_ca_list, entries, 4); ASSERT_LAYOUT(sizeof(dl_ca_info_ex) == 596); AT(dl_ca_info_ex, serial, 1);
AT(dl_ca_info_ex, sig_alg, 65); AT(dl_ca_info_ex, key_alg, 129); AT(dl_ca_info_ex, key_bits, 196);
AT(dl_ca_info_ex, priv_alg, 200); AT(dl_ca_info_ex, priv_bits, 264); AT(dl_ca_info_ex, issuer, 268);
AT(dl_ca_info_ex, subject, 332); AT(dl_ca_info_ex, hash, 396); AT(dl_ca_info_ex, not_before, 400);
AT(dl_ca_info_ex, not_after, 464); AT(dl_ca_info_ex, path, 528); AT(dl_ca_info_ex, ext_count, 592);
ASSERT_LAYOUT(sizeof(dl_trust_ca_list_ex) == 4 + 10 * 596); AT(dl_trust_ca_list_ex, entries, 4);
ASSERT_LAYOUT(sizeof(dl_ftp_session) == 16 + 512); AT(dl_ftp_session, ctrl_sock, 4);
AT(dl_ftp_session, data_sock, 8); AT(dl_ftp_session, remaining, 12); AT(dl_ftp_session, host, 16);

/* Records with pointers grow with them: fields follow each other at natural alignment. */
#define WORD sizeof(void*)
AT(dl_url, method, 4); AT(dl_url, host, 8); AT(dl_url, path, 8 + WORD); AT(dl_url, port, 8 + 2 * WORD);
AT(dl_url, user, 8 + 3 * WORD); AT(dl_url, password, 8 + 4 * WORD);
ASSERT_LAYOUT(sizeof(dl_url) == 8 + 5 * WORD); AT(dl_request, user, WORD); AT(dl_request, password, 2 * WORD);
AT(dl_request, proxy, 3 * WORD); ASSERT_LAYOUT(sizeof(dl_request) == 4 * WORD); AT(dl_handle, session, WORD);
ASSERT_LAYOUT(sizeof(dl_handle) == 2 * WORD); AT(dl_http_request, url, WORD);
AT(dl_http_request, user, 2 * WORD); AT(dl_http_request, password, 3 * WORD);
AT(dl_http_request, proxy, 4 * WORD); AT(dl_http_request, headers, 5 * WORD);
AT(dl_http_request, body, 6 * WORD); ASSERT_LAYOUT(sizeof(dl_http_request) == 7 * WORD);
AT(dl_http_request_ex, auth_type, WORD); AT(dl_auth_info, password, WORD); AT(dl_http_session, sock, 4);
AT(dl_http_session, ssl, 8); AT(dl_http_session, ssl_ctx, 8 + WORD); AT(dl_http_session, flags, 8 + 2 * WORD);
AT(dl_http_session, remaining, 12 + 2 * WORD); AT(dl_http_session, chunk, 16 + 2 * WORD);
AT(dl_http_session, headers, 16 + 3 * WORD); AT(dl_http_session, headers_len, 16 + 4 * WORD);
AT(http_chunk_buf, length, WORD); AT(http_chunk_buf, capacity, WORD + 4);
AT(http_chunk_buf, finished, WORD + 8); AT(dl_tftp_session, sock, 4); AT(dl_tftp_session, block, 8);
AT(dl_tftp_session, carry, WORD == 8 ? 16 : 12); AT(digest_challenge, cnonce, WORD);
AT(digest_challenge, realm, 2 * WORD); AT(digest_challenge, session, 3 * WORD);
AT(digest_challenge, stale, 3 * WORD + 4); AT(digest_challenge, opaque, 3 * WORD + 8);
AT(digest_challenge, qop, 4 * WORD + 8); AT(digest_challenge, algorithm, 5 * WORD + 8);
AT(digest_challenge, nc, 6 * WORD + 8);

/* The configuration record: texts of 512 bytes around the numbers. */
AT(dl_config, initialised, 0); AT(dl_config, trust_ca_dir, offsetof(dl_config, user_agent) + 512);
AT(dl_config, device_cert_file, offsetof(dl_config, user_agent) + 2 * 512);
AT(dl_config, https_ca_dir, offsetof(dl_config, user_agent) + 3 * 512);
AT(dl_config, https_cert_file, offsetof(dl_config, user_agent) + 4 * 512);
AT(dl_config, ssl_method, offsetof(dl_config, user_agent) + 5 * 512);
AT(dl_config, verify_peer, offsetof(dl_config, ssl_method) + 4);
AT(dl_config, max_redirects, offsetof(dl_config, ssl_method) + 8);
AT(dl_config, verify_host, offsetof(dl_config, ssl_method) + 12);
AT(dl_config, temp_dir, offsetof(dl_config, ssl_method) + 16);
AT(dl_config, key_passphrase, offsetof(dl_config, temp_dir) + 512);
AT(dl_config, key_seed, offsetof(dl_config, temp_dir) + 2 * 512);
AT(dl_config, max_file_size, offsetof(dl_config, temp_dir) + 3 * 512);
AT(dl_config, net_timeout, offsetof(dl_config, max_file_size) + 4);
AT(dl_config, ipv6_enable, offsetof(dl_config, max_file_size) + 6);
AT(dl_config, auth_retry_limit, offsetof(dl_config, max_file_size) + 8);
AT(dl_config, rings, offsetof(dl_config, max_file_size) + 10);
AT(dl_config, caller_tag, offsetof(dl_config, rings) + 1280);
/* clang-format on */

static int failures;
static int lines;

static void expect(int holds, const char* what) {
  if (holds) return;
  ++failures;
  fprintf(stderr, "failed: %s\n", what);
}

static int count_line(const char* line, int32_t length) {
  expect(line[length - 1] == '\n', "a log line ends in a line feed");
  ++lines;
  return 0;
}

int main(void) {
  const uint32_t timeout = 5;
  dl_result result;
  char redirect[DL_REDIRECT_SIZE];
  dl_handle* handle = NULL;
  dl_request request;
  int32_t code = 1;
  dl_url* url = dl_url_parse("https://h:8443/a b", "user", NULL, &code);
  expect(url && code == 0 && url->port == 8443 && strcmp(url->path, "/a%20b") == 0 && !url->password, "URL");
  dl_url_free(url);
  dl_config_init();
  dl_log_init(0, count_line);
  expect(dl_set_option(DL_OPT_NET_TIMEOUT, &timeout) == 0 && g_dl_cfg.net_timeout == 5, "option set");
  /* An address that the options do not allow: the request fails before it reaches the network. */
  memset(&request, 0, sizeof request);
  memset(&result, 0x55, sizeof result);
  request.url = "http://[::1]/";
  expect(dl_open(&request, &handle, redirect, &result) == -1 && !handle && lines > 0, "refused and logged");
  expect(strcmp(ring_tab[0], "ringtone-") == 0 && !ring_tab[3], "ring names");
  expect(memcmp(wave_fmt, "WAVEfmt ", 8) == 0, "WAVE template");
  dl_exit();
  return failures != 0;
}
