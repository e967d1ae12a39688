/* SPDX-License-Identifier: MIT */
/** @file
 * Exported calls that take OpenSSL or socket types, HTTP authentication, and small helpers.
 *
 * For programs that build on libfetchrig's parts; most applications need fetchrig.h alone. Plain C99; needs OpenSSL's
 * headers. The helpers behave like the standard function each comment names. Any thread.
 *
 * The thread's OpenSSL error queue: dl_cert_build_rsa_key() and dl_cert_write_key() leave it empty; the other calls on
 * TLS, keys, requests and names may empty it and may leave OpenSSL's reasons in it when they fail. */
#ifndef FETCHRIG_OPENSSL_H
#define FETCHRIG_OPENSSL_H

#include <netdb.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <stdio.h>
#include <sys/time.h>

#include "fetchrig.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- transport */

/** Waits until `sock` is readable (`mode` bit 0) or writable (bit 1), at most `seconds`. Returns a positive number when
 * ready, 0 after the time, negative with errno on failure. Interrupted waits go on. Any descriptor number works. */
FETCHRIG_API int dl_select(int sock, int mode, int seconds);
/** Resolves `host`: IPv4 only when `ipv6` is 0, else both. Release the list with freeaddrinfo(). Null on failure. */
FETCHRIG_API struct addrinfo *dl_look_up_host(const char *host, int ipv6, int socket_type);
/** Connects to host and port, each address in turn for at most `seconds` (0: no limit). Returns a blocking socket,
 * which the caller closes, or -1 (DL_ERR_HOST) or -3 (DL_ERR_CONNECT). */
FETCHRIG_API int dl_connect(const char *host, int port, int ipv6, int seconds);
/** Makes a TLS client session over the connected `sock`. `cert_file` (may be empty) holds client certificate and key,
 * `ca_dir` the trusted CAs in a hashed directory, `method` is option 3, the switches options 4 and 10, `host` the name
 * or address that was dialled. Returns 0 with both objects stored, to be released with SSL_free() and SSL_CTX_free(),
 * or -3 with nothing stored. `sock` stays the caller's.
 * The session may be used like one over OpenSSL's socket BIO: SSL_get_fd() gives `sock`, nothing is read ahead, and
 * once `sock` is non-blocking a call that would wait ends with SSL_ERROR_WANT_READ or SSL_ERROR_WANT_WRITE. On a
 * blocking socket dl_set_tls_wait_limit() holds for each wait; one that passes ends the call with SSL_ERROR_SYSCALL
 * and errno ETIMEDOUT. No call raises SIGPIPE. */
FETCHRIG_API int dl_do_SSL_connect(int sock, const char *cert_file, const char *ca_dir, int method, int verify_peer,
                                   int verify_host, const char *host, SSL **ssl, SSL_CTX **ctx);

/* ---------------------------------------------------------------- HTTP authentication (RFC 7617, RFC 2617) */

/** Parses a WWW-Authenticate value into `state`; with `proxy` not 0, into the proxy fields. One thread per record. */
FETCHRIG_API int Curl_input_auth(http_auth_state *state, int proxy, const char *header);
/** Builds the answer line for the picked scheme. `method` is "GET" and so on, `path` the path of the request line. */
FETCHRIG_API int Curl_output_auth(http_auth_state *state, int proxy, const char *method, const char *path);
/** Builds a Digest answer; without a nonce there is none and the result is 0. A user, password or challenge value
 * that would break the header line (CR, LF) fails with HTTP_ANSWER_SCHEME. */
FETCHRIG_API int Curl_output_digest(http_auth_state *state, int proxy, const char *method, const char *path);
/** Builds a BroadWorks XSI answer; needs a Basic challenge and a user and password that are not empty. */
FETCHRIG_API int Curl_output_xsi_auth(http_auth_state *state);
/** Releases a challenge's texts and zeroes stale, nc and session. */
FETCHRIG_API void Curl_digest_cleanup_one(digest_challenge *challenge);
/** Completes an unquoted qop list of a Digest challenge. `parameters` begins at the parameter's name, `name_len` is the
 * length of that name, `value` (1024 bytes) holds the value read so far; items behind commas are appended to it. Does
 * nothing for a quoted value. */
FETCHRIG_API void get_all_qop_content(const char *parameters, size_t name_len, char *value);

/* ---------------------------------------------------------------- keys and requests */

/** Loads the RSA key from `path` (sets `reused` to 1) or generates one of `bits` bits. The caller owns `key`. Returns 0
 * or -1; an existing file that cannot be opened is never replaced, one without a readable key is removed. Fails after
 * OPENSSL_cleanup(). */
FETCHRIG_API int dl_cert_build_rsa_key(const char *path, int bits, EVP_PKEY **key, int *reused);
/** Writes the key to `path` in PEM without encryption, as described at the certificates in fetchrig.h; a link there is
 * replaced. The integers are ignored. Returns 0, also when the file cannot be written (see the log), or -1. */
FETCHRIG_API int dl_cert_write_key(const char *path, int unused1, EVP_PKEY *key, int unused2);
/** Parses "/type=value/type=value" into a new name, the caller's; null when malformed. `string_type` is MBSTRING_ASC
 * and the like. */
FETCHRIG_API X509_NAME *do_subject(const char *text, int string_type);
/** Sets the request's subject from the text. Returns 1 or 0. */
FETCHRIG_API int build_subject(X509_REQ *request, const char *text, int string_type);
/** Sets version 0, subject and public key of the request. `unused` is ignored. Returns 0 or -1. */
FETCHRIG_API int make_REQ(X509_REQ *request, EVP_PKEY *key, const char *text, int unused, int string_type);
/** The verification callback of dl_cert_verify(): logs a problem and lets a fixed set of errors pass. */
FETCHRIG_API int cb(int ok, X509_STORE_CTX *context);
/** OpenSSL's pass-phrase callback: copies `user_data` (a text) or option 16 into `buffer`, returns the length. */
FETCHRIG_API int password_cb(char *buffer, int size, int writing, void *user_data);

/* ---------------------------------------------------------------- helpers */

/** Base64 (RFC 4648, standard alphabet, "=" padding) of `size` bytes into a new text in `*out`, released with free().
 * Returns its length, or 0 with `*out` null without memory. Encoding no bytes gives an empty text. */
FETCHRIG_API size_t Curl_base64_encode(const char *input, size_t size, char **out);
/** Decodes a base64 text into a new buffer in `*out` (with an extra terminator), released with free(). Returns the
 * number of bytes, or 0 with `*out` null when the text is not base64. */
FETCHRIG_API size_t Curl_base64_decode(const char *text, unsigned char **out);
/** MD5 (RFC 1321) of a text into 16 bytes. */
FETCHRIG_API void Curl_md5it(unsigned char *digest, const unsigned char *text);

/** printf(). */
FETCHRIG_API int curl_mprintf(const char *format, ...) FETCHRIG_PRINTF(1, 2);
/** fprintf(). */
FETCHRIG_API int curl_mfprintf(FILE *stream, const char *format, ...) FETCHRIG_PRINTF(2, 3);
/** sprintf(). */
FETCHRIG_API int curl_msprintf(char *buffer, const char *format, ...) FETCHRIG_PRINTF(2, 3);
/** snprintf(). */
FETCHRIG_API int curl_msnprintf(char *buffer, size_t size, const char *format, ...) FETCHRIG_PRINTF(3, 4);
/** asprintf(), but it returns the new text, or null. */
FETCHRIG_API char *curl_maprintf(const char *format, ...) FETCHRIG_PRINTF(1, 2);
/** vprintf(). */
FETCHRIG_API int curl_mvprintf(const char *format, va_list arguments) FETCHRIG_PRINTF(1, 0);
/** vfprintf(). */
FETCHRIG_API int curl_mvfprintf(FILE *stream, const char *format, va_list arguments) FETCHRIG_PRINTF(2, 0);
/** vsprintf(). */
FETCHRIG_API int curl_mvsprintf(char *buffer, const char *format, va_list arguments) FETCHRIG_PRINTF(2, 0);
/** vsnprintf(). */
FETCHRIG_API int curl_mvsnprintf(char *buffer, size_t size, const char *format, va_list arguments)
    FETCHRIG_PRINTF(3, 0);
/** curl_maprintf() with a list of arguments. */
FETCHRIG_API char *curl_mvaprintf(const char *format, va_list arguments) FETCHRIG_PRINTF(1, 0);

/** 1 when the texts are equal, ignoring ASCII letter case (strcasecmp), else 0. */
FETCHRIG_API int Curl_raw_equal(const char *first, const char *second);
/** The same for `max` characters at most (strncasecmp). */
FETCHRIG_API int Curl_raw_nequal(const char *first, const char *second, size_t max);
/** strtok_r. */
FETCHRIG_API char *Curl_strtok_r(char *text, const char *separators, char **rest);

/** The current time of day. */
FETCHRIG_API struct timeval curlx_tvnow(void);
/** free(), null allowed. */
FETCHRIG_API void Curl_safefree(void *memory);

#ifdef __cplusplus
}
#endif
#endif
