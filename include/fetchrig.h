/* SPDX-License-Identifier: MIT */
/** @file
 * The public interface of libfetchrig.
 *
 * libfetchrig downloads and uploads files over HTTP, HTTPS, FTP and TFTP, manages certificates and a store of
 * trusted CAs, and fetches distinctive ringtones. Plain C99; neither OpenSSL's headers nor a C++ compiler is needed.
 * Calls that take OpenSSL types, the HTTP authentication helpers and others are in fetchrig_openssl.h.
 *
 * Every call is synchronous. Waits on plain sockets end after DL_OPT_NET_TIMEOUT seconds; TLS waits have no limit
 * unless dl_set_tls_wait_limit() sets one. Call dl_config_init() or dl_set_option() once before several threads use
 * the library; after that any thread may call anything. One session or handle belongs to one thread at a time, and
 * certificate operations run one at a time.
 *
 * No call is a cancellation point: a thread that is cancelled inside one ends at its next cancellation point after the
 * call has returned (with asynchronous cancellation as it returns, and what the call made for it is lost). The library
 * works in a child of fork(); sessions stay with the process that goes on using them. It may be unloaded when no call
 * runs and everything it handed out is closed.
 *
 * Unless a comment says otherwise: texts are NUL-terminated, passed texts are borrowed for the duration of the call,
 * a transfer call returns 0 (reads: a byte count) or -1 and stores the code and its text in the caller's dl_result.
 *
 * OpenSSL keeps an error queue for each thread. HTTPS transfers and certificate operations empty it, entries of the
 * application's included, so read yours before you call. Certificate operations and the closing of an HTTPS session
 * leave it empty; after a TLS connection that failed it may hold OpenSSL's reasons. Other calls do not touch it. */
#ifndef FETCHRIG_H
#define FETCHRIG_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "fetchrig_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- result codes */

/** Writes the text of `code` into `buffer`, at most `size` bytes with the terminator, and returns the length of the
 * whole text (which may be `size` or more: the text was cut). An unknown code (0 too) reads "Unknown Error".
 * Any thread. */
FETCHRIG_API int dl_get_error_string(int32_t code, char *buffer, uint32_t size);

/** Stores in `info` (264 bytes, or null) the most telling cause of what the calling thread's last transfer or
 * certificate operation met, and returns it (enum dl_cause). A transfer begins with the call that opens a session or
 * moves a whole file; reading and sending go on with it, and what a later connection or HTTP response makes good is
 * forgotten. What the other side or OpenSSL said counts before what it led to. Ask it after a failure, or where a
 * success may leave a cause. Touches nothing else, errno included: a log callback may call it. */
FETCHRIG_API int dl_last_cause(dl_cause_info *info);

/* ---------------------------------------------------------------- configuration */

/** Initialises the library: defaults, log to the system log under "QXFR" (dl_log_init() with flags 1), OpenSSL, which
 * reads its own configuration when TLS or certificates first need it. Harmless when already initialised. The result
 * carries no status. Call it before other threads use the library. */
FETCHRIG_API int dl_config_init(void);

/** Sets option `option` from `value` (see enum dl_option), initialising the library first when needed. Returns 0, or
 * -1 for a null value, an unknown option or a number out of range; then nothing changes. Any thread. */
FETCHRIG_API int32_t dl_set_option(uint32_t option, const void *value);

/** Copies text option 1, 13 or 14 into `buffer`, at most `size` bytes; a text of `size` characters or more is copied
 * without a terminator. Returns 0, or -1 for another option, a null buffer or an uninitialised library. Any thread. */
FETCHRIG_API int32_t dl_get_option(uint32_t option, char *buffer, uint32_t size);

/** Ends the library's use: every option is lost. No other call may run. Harmless without initialisation. */
FETCHRIG_API void dl_exit(void);

/** The library's version, "5.3.0.4"; a constant. Any thread. */
FETCHRIG_API const char *dl_get_version(void);

/** Ends TLS waits after `seconds` without progress, that is, when no byte has moved on the connection for so long: in
 * the handshake, in every TLS read, in every TLS write. So a large body may take as long as it needs. Against a peer
 * that trickles bytes, a handshake, a read, or one record of a write (16 KiB) takes at most ten times `seconds`.
 * 0, the default, sets no limit. A limit that is passed fails like a broken connection. Holds for connections made
 * afterwards. Any thread. */
FETCHRIG_API void dl_set_tls_wait_limit(uint32_t seconds);

/** Switches one of today's habits of the internet on or off, or sets its number (enum dl_extra), initialising the
 * library first when needed. Transfers read it once, when they begin. Returns 0, or -1 for an unknown number, a value
 * out of range, or a library that was built without extras; then nothing changes. Any thread. */
FETCHRIG_API int dl_set_extra(uint32_t extra, uint32_t value);

/** The value of one of them (enum dl_extra); 0 for an unknown number, before initialisation and in a library that was
 * built without extras. Any thread. */
FETCHRIG_API uint32_t dl_get_extra(uint32_t extra);

/** Sets all of them at once (enum dl_extras) but for DL_EXTRA_TLS_WAIT_LIMIT, which stays as it is. Returns 0, or -1 as
 * dl_set_extra(). Any thread. */
FETCHRIG_API int dl_set_extras(uint32_t set);

/** The largest file downloaded or uploaded while DL_EXTRA_WHOLE_BODIES is on, in bytes; 0, as after dl_config_init():
 * option 6 holds. Initialises the library first when needed. Returns 0, or -1 for a limit above 2^63-1 and in a library
 * that was built without extras. Any thread. */
FETCHRIG_API int dl_set_size_limit(uint64_t bytes);

/* ---------------------------------------------------------------- log */

/** Selects the outputs (enum dl_log_flags) and the callback (or null), and sets every module's level to 4. Returns 0.
 * Call it after dl_config_init(), which calls it too. Any thread. */
FETCHRIG_API int dl_log_init(uint32_t flags, dl_log_callback callback);

/** Sets every module's level from a verbosity: 0 debug (7), 1 info (6), 2 warning (4), 3 error (3), any other value
 * notice (5). Returns the new level. Any thread. */
FETCHRIG_API int dl_set_log_level(uint32_t verbosity);

/** Sets one module's level, or all for module 0. Returns 0 for module 0, the previous level for 1 to 6, and -1 for a
 * larger number. Any thread. */
FETCHRIG_API int dl_set_log_module_level(uint32_t module, uint32_t level);

/** Kept for old callers; does nothing. A callback is installed through dl_log_init(). */
FETCHRIG_API void dl_set_log_callback(dl_log_callback callback);
/** As dl_set_log_callback(). */
FETCHRIG_API void dl_set_log_cb_printf(dl_log_callback callback);

/** The log module under the dl_ calls. qxfr_log() writes one message (cut so that the line has at most 382
 * characters) when `level` is at most the module's level (0 to 7); the result means nothing. Modules above 6 and
 * levels above 9 are not allowed. Any thread. */
FETCHRIG_API int qxfr_log(int module, int level, const char *format, ...) FETCHRIG_PRINTF(3, 4);
/** The same with a list of arguments. */
FETCHRIG_API int qxfr_vlog(int module, int level, const char *format, va_list arguments) FETCHRIG_PRINTF(3, 0);
/** As dl_log_init(), under the first 4 characters of `identity` (padded with spaces; null: "slog"). Returns 0. */
FETCHRIG_API int qxfr_log_init(const char *identity, uint32_t flags, dl_log_callback callback);
/** Back to the console alone: no system log, no time stamps, no callback, every level 4; the identity stays. (Before
 * the first initialisation only module 0 has level 4, the others 0.) dl_exit() does not call it. Returns 0. */
FETCHRIG_API int qxfr_log_exit(void);
/** As dl_set_log_module_level(). */
FETCHRIG_API int qxfr_log_set(uint32_t module, int level);
/** As qxfr_log_set() for the module of that name, any letter case; -22 when there is none. */
FETCHRIG_API int qxfr_log_set2(const char *name, int level);
/** The module's level, or -1 above 6. */
FETCHRIG_API int qxfr_log_get(uint32_t module);
/** The module's name (a constant), or null above 6. */
FETCHRIG_API const char *qxfr_log_name(uint32_t module);

/* ---------------------------------------------------------------- URLs */

/** Parses an "http://" or "https://" URL (any letter case). Spaces become "%20". `user`, `password` and `code` may be
 * null. Returns a record that the caller releases with dl_url_free(), or null. Stores in `code` 0, DL_ERR_URL,
 * DL_ERR_IPV6_DISABLED or DL_ERR_MEMORY. User information inside the URL is refused. Any thread. */
FETCHRIG_API dl_url *dl_url_parse(const char *url, const char *user, const char *password, int32_t *code);

/** Releases a record of dl_url_parse(); null is allowed. */
FETCHRIG_API void dl_url_free(dl_url *url);

/** The default port of scheme 0 (http, 80) or 1 (https, 443). */
FETCHRIG_API int scheme_default_port(uint32_t scheme);

/** A new copy, released with free(), of the characters from `start` to before `end`; null without memory. */
FETCHRIG_API char *strdupdelim(const char *start, const char *end);

/** Lower-cases `text` in place (ASCII), at most `count` characters, up to the first `stop` or the end. */
FETCHRIG_API void str2lower(char *text, int count, char stop);

/* ---------------------------------------------------------------- transfers over any protocol */

/** Opens the URL for reading. `redirect` (DL_REDIRECT_SIZE bytes) is needed for HTTP and HTTPS. On success stores a
 * handle in `handle`, to be released with dl_close(); on failure stores null. A missing argument returns -1, logged,
 * and leaves `result` as it is; a URL that cannot be split or a missing `redirect` leaves it empty; other failures
 * fill it as the protocol's own open call does. Blocks. Any thread. */
FETCHRIG_API int dl_open(const dl_request *request, dl_handle **handle, char *redirect, dl_result *result);

/** Reads up to `size` (above 0) bytes of the file into `buffer`. Returns the count, 0 at the end, -1 on failure; for a
 * missing argument or a `size` below 1, `result` stays as it is. */
FETCHRIG_API int dl_read(dl_handle *handle, char *buffer, int32_t size, dl_result *result);

/** Closes the transfer and releases the handle. Null is logged and ignored. */
FETCHRIG_API void dl_close(dl_handle *handle);

/** Downloads the URL into the file `local_path`, created or truncated. A failed download removes what it wrote, through
 * a symbolic link the file that it leads to; never another file that took the name meanwhile, a device or a pipe. A
 * file that grows past option 6 fails with -8 and "exceed max size %d". For a missing argument, a URL that cannot be
 * split or a missing `redirect`, `result` stays as it is. Blocks. Any thread. */
FETCHRIG_API int dl_download(const dl_request *request, const char *local_path, char *redirect, dl_result *result);

/** Uploads `local_path` to the URL. HTTP and HTTPS: `headers` (lines ending in CRLF; a POST needs a multipart content
 * type with "boundary=") and `redirect` are required, `mode` is enum dl_upload_mode (anything else posts). FTP and
 * TFTP write `remote_name` (null or empty: the local file's name), not the URL's path; FTP takes `mode` as enum
 * dl_ftp_post_mode and `limit_mode`. For a missing argument or a URL that cannot be split, `result` stays as it is.
 * Blocks. Any thread. */
FETCHRIG_API int dl_upload(const dl_request *request, const char *local_path, const char *remote_name, char *redirect,
                           dl_result *result, const char *headers, int32_t mode, uint32_t limit_mode);

/* ---------------------------------------------------------------- HTTP and HTTPS (RFC 9112, RFC 7617, RFC 2617) */

/** Opens the request's URL, following redirects (option 5) and answering challenges (option 15), until a final status.
 * On success stores the session, positioned at the start of the body; close it with dl_http_close(). Fails for a
 * status of 400 or more and for 304, with the status as code. `redirect` has DL_REDIRECT_SIZE bytes. Blocks.
 * Codes: -6 missing argument, -7, -14, URL codes -9 and -13, -1 and -3 connecting, -4 composing or sending, -5 bad
 * status line, -8 reading, -11 authentication, -12 and -17 redirects. */
FETCHRIG_API int dl_http_open(dl_http_session **session, const dl_http_request *request, char *redirect,
                              dl_result *result);
/** The same with an authentication type; a 304 is a success. */
FETCHRIG_API int dl_http_open_ex(dl_http_session **session, const dl_http_request_ex *request, char *redirect,
                                 dl_result *result);

/** Reads body bytes until `size` are there or the body ends. Returns the count, 0 at the end, -1 on failure. A session
 * holds at most 64 KiB of the body beyond `buffer`: a chunk up to that size is received whole before it is delivered,
 * of a larger one bytes may have been delivered when it fails. What a failed read of a chunked body had placed in
 * `buffer` is kept for the next read. */
FETCHRIG_API int dl_http_read(dl_http_session *session, char *buffer, int32_t size, dl_result *result);

/** The final status of the session's response, or 0: no live session, or a record that no open call made. */
FETCHRIG_API int dl_http_get_status(const dl_http_session *session);

/** How far the body of the session's response has been read, and what ended it (enum dl_body_end). */
FETCHRIG_API int dl_http_body_end(const dl_http_session *session);

/** The status of the last response that the calling thread's most recent HTTP open or post call received, whether that
 * call succeeded or not; 0 when it received none. dl_open(), dl_download() and dl_upload() count as such calls for
 * HTTP URLs. */
FETCHRIG_API int dl_http_last_status(void);

/** Closes the connection and releases the session; ignores null and records that are no live session. */
FETCHRIG_API void dl_http_close(dl_http_session *session);

/** Downloads the body into `local_path`, or, when that is null, into a file of the current directory named after the
 * last part of the URL's path. As dl_download(). */
FETCHRIG_API int dl_http_recv_to_file(const dl_http_request *request, const char *local_path, char *redirect,
                                      dl_result *result);
/** The same with an authentication type. */
FETCHRIG_API int dl_http_recv_to_file_ex(const dl_http_request_ex *request, const char *local_path, char *redirect,
                                         dl_result *result);

/** The header line of the last 200 response whose name is `name` (any letter case, at most 127 characters): the whole
 * line, its name in lower case; owned by the session. Null when there is none. */
FETCHRIG_API const char *dl_http_find_header_by_name(const dl_http_session *session, const char *name);

/** Sends `local_path` as the body of a PUT, or as a one-part multipart/form-data POST whose boundary stands in the
 * request's headers. Success is a status below 400; the session is closed before the call returns, `session` is left
 * null. Codes as dl_http_open(); what is no regular file, cannot be read to its end, or has 2 GiB and more, fails with
 * -4, and nothing is sent. */
FETCHRIG_API int dl_http_post_file(dl_http_session **session, const dl_http_request *request, const char *local_path,
                                   char *redirect, dl_result *result);

/** Posts the request's body and answers each challenge with the next of `count` credentials (null: with the request's
 * own). On success the session is open for reading the answer. Codes as dl_http_open(). */
FETCHRIG_API int dl_http_post_multi_auth(dl_http_session **session, const dl_http_request *request,
                                         const dl_auth_info *credentials, int32_t count, char *redirect,
                                         dl_result *result);

/* ---------------------------------------------------------------- FTP (RFC 959, RFC 2428) */

/** Logs in (null or empty user: "anonymous"), opens a passive data connection and requests `path`. `port` 0 means 21.
 * Stores the session or null. Codes: -6, -7, -1, -3, -4, -8, -15 (the message is the server's reply line), -18, -19.
 * Blocks. Any thread. */
FETCHRIG_API int dl_ftp_open(dl_ftp_session **session, const char *host, uint32_t port, const char *user,
                             const char *password, const char *path, dl_result *result);
/** Reads `size` bytes, or the rest of the file when that is less. Returns the count, 0 at the end, -1 on failure. Of a
 * file of 4 GiB or more `remaining` can count only the first 4294967295 bytes: after them -8 comes instead of 0. */
FETCHRIG_API int dl_ftp_read(dl_ftp_session *session, char *buffer, int32_t size, dl_result *result);
/** Closes both connections (no QUIT) and releases the session. Null or a dead record is logged and ignored. */
FETCHRIG_API void dl_ftp_close(dl_ftp_session *session);
/** Downloads `path` into `local_path` (null: the last part of `path`, in the current directory). As dl_download(). */
FETCHRIG_API int dl_ftp_recv_to_file(const char *host, uint32_t port, const char *user, const char *password,
                                     const char *path, const char *local_path, dl_result *result);
/** Logs in and starts an upload of `local_path` as `remote_name` (null or empty: the local file's name). A reply other
 * than 125 or 150 to the transfer command fails with that reply's code. A directory, device or pipe is refused with -8
 * before that command. */
FETCHRIG_API int dl_ftp_send_open(dl_ftp_session **session, const char *host, uint32_t port, const char *user,
                                  const char *password, const char *local_path, const char *remote_name,
                                  int32_t post_mode, uint32_t limit_mode, dl_result *result);
/** Sends the file and reads the server's final reply. Returns the bytes sent or -1: -6 for a file that cannot be
 * opened, -8 for one that cannot be read (the data connection is closed then), -4. A data connection over which a file
 * was not sent to its end is reset when it is closed, as to the server a regular end would be the end of the file. */
FETCHRIG_API int dl_ftp_send(dl_ftp_session *session, const char *local_path, dl_result *result);
/** Open, send and close in one call. */
FETCHRIG_API int dl_ftp_send_file(const char *host, uint32_t port, const char *user, const char *password,
                                  const char *remote_name, const char *local_path, int32_t post_mode,
                                  uint32_t limit_mode, dl_result *result);
/** Opens the passive data connection of a logged-in session: EPSV when option 8 is on (PASV after a 522), else PASV.
 * `reply` (`reply_size` bytes) receives the server's last line. Returns 0 or a negative dl_code. Success replaces
 * `data_sock`, anything else leaves it; an older data connection is the caller's to close. */
FETCHRIG_API int dl_ftp_create_data_conn(dl_ftp_session *session, char *reply, int32_t reply_size, int32_t timeout_s);

/* ---------------------------------------------------------------- TFTP (RFC 1350, RFC 2347, RFC 2348) */

/** Requests `remote_name` (at most 255 characters) from `host`; `port` 0 means 69. Stores the session or null. Codes:
 * -6, -14, -7, -1, -2, -4, and -16 when nothing answers. Blocks. Any thread; see the README for opening many
 * sessions within one second. */
FETCHRIG_API int dl_tftp_open(dl_tftp_session **session, const char *host, uint32_t port, const char *remote_name,
                              dl_result *result);
/** Reads up to `size` bytes; less only at the end of the file. Returns the count, 0 at the end, -1 on failure. */
FETCHRIG_API int dl_tftp_read(dl_tftp_session *session, char *buffer, int32_t size, dl_result *result);
/** The size of the whole file, in bytes, as the server has announced it (RFC 2349); it is asked with
 * DL_EXTRA_TFTP_WINDOW or DL_EXTRA_TFTP_BLOCK_SIZE. Returns 0 with `size` filled, or -1 where it is not known or told
 * as 0, for null and for a dead record; nothing is logged. The session's thread. */
FETCHRIG_API int dl_tftp_get_size(const dl_tftp_session *session, uint64_t *size);
/** Ends a session of either direction. Null or a dead record is logged and ignored. */
FETCHRIG_API void dl_tftp_close(dl_tftp_session *session);
/** Downloads `remote_name` into `local_path` (null: `remote_name`). As dl_download(). */
FETCHRIG_API int dl_tftp_recv_to_file(const char *host, uint32_t port, const char *remote_name, const char *local_path,
                                      dl_result *result);
/** Sends a write request and waits until the server accepts it. */
FETCHRIG_API int dl_tftp_send_open(dl_tftp_session **session, const char *host, uint32_t port, const char *remote_name,
                                   dl_result *result);
/** Sends the file block by block. Returns the bytes sent or -1. */
FETCHRIG_API int dl_tftp_send(dl_tftp_session *session, const char *local_path, dl_result *result);
/** Open, send and close in one call; `remote_name` null or empty: the local file's name. A directory, device or pipe is
 * refused with -8 before anything is sent. */
FETCHRIG_API int dl_tftp_send_file(const char *host, uint32_t port, const char *remote_name, const char *local_path,
                                   dl_result *result);

/* ---------------------------------------------------------------- certificates (RFC 5280) */

/* Certificates and keys are read from regular files of at most 16 MiB; anything else is treated like a file that cannot
 * be read. Files that receive a private key are written beside their place, synced and renamed, so that a failure keeps
 * the old file; devices and pipes are written to. Their mode is 0600, or the old file's where that was this user's own
 * and closed to others. Commands of the store (mkdir, ln, rm) run in the shell and read nothing of the standard input;
 * one that fails is logged at error level of DL_LOG_CMN and noted (DL_CAUSE_COMMAND), the call's result stays. */

/** Issues a client certificate for `subject` ("/O=Acme/CN=0011AB") with the CA in `ca_cert` and `ca_key`. The RSA key
 * comes from `key_file` when that holds one in PEM without a pass phrase; else it is generated with `bits` bits,
 * deterministically from the common name and option 25, and written there, in place of what the file held. `cert_file`
 * receives certificate and key in PEM. Returns 0 or -1.
 * Anyone can compute a key generated here from the certificate alone, whatever option 25 holds: such keys are for
 * provisioning tests and old systems only. For any other use write a random RSA key to `key_file` first. The
 * certificate is signed with MD5 and valid from 1 March 2014 to 24 February 2034; the CA's key must be RSA, in PEM
 * without a pass phrase; the subject must start with "/" and be ASCII. */
FETCHRIG_API int dl_generate_client_cert(const char *ca_cert, const char *ca_key, const char *key_file,
                                         const char *cert_file, const char *subject, int bits);
/** Verifies the certificate in `path` (PEM or DER) against a hashed directory and a PEM file (each may be null: the
 * system's default). `flags` bit 0 first checks that the file holds the matching private key. Returns 0 or -1 with an
 * enum dl_cert_verify_code in `result`. Writes "path: " to standard output. */
FETCHRIG_API int dl_cert_verify(const char *path, const char *ca_dir, const char *ca_file, uint32_t flags,
                                dl_result *result);
/** The problems that the calling thread's last dl_cert_verify() met in the chain, let pass or not, in the order in
 * which OpenSSL told them: stores at most `count` of its numbers (X509_V_ERR_) in `numbers` and returns how many, at
 * most DL_MAX_VERIFY_PROBLEMS. A certificate that verified with problems was let pass and is not trusted. */
FETCHRIG_API int dl_cert_verify_problems(int32_t *numbers, int32_t count);
/** Describes a certificate file. Returns 0, -1 (null argument) or -2 (not readable); the record is not cleared. */
FETCHRIG_API int dl_get_ca_info(const char *path, dl_ca_info *info);
/** The long form; `flags` bit 0 also reads the private key that follows the certificate. A DER file is rewritten as
 * PEM. Returns 0, or -1 with code 1 (argument, not readable) or 2 (set-up) in `result`. */
FETCHRIG_API int dl_get_ca_info_ex(const char *path, dl_ca_info_ex *info, uint32_t flags, dl_result *result);
/** Lists the trusted-CA store (option 1), at most 10 entries. Every name with ".0" in it counts as an entry; one that
 * leads nowhere, or was read to its end and holds no certificate, is removed, which is logged at notice level. Returns
 * 0, with DL_CAUSE_LOCAL_FILE when one could not be read just now and DL_CAUSE_LIST_FULL when names were left out, -1
 * (null) or -2 (the directory cannot be opened). */
FETCHRIG_API int dl_get_trust_ca_info(dl_trust_ca_list *list);
/** The long form. Returns 0, or -1 with code 1 (`list` is null) or 2 (the directory cannot be opened) in `result`.
 * After 0 the code is the last looked-at entry's: 0, or 1 when that was no certificate. No text is stored. */
FETCHRIG_API int dl_get_trust_ca_info_ex(dl_trust_ca_list_ex *list, dl_result *result);
/** Describes the device certificate (option 2). Returns 0, -1, -2, or -3 when its private key does not belong to it. */
FETCHRIG_API int dl_get_ser_ca_info(dl_ca_info *info);
/** Installs a CA certificate into the store. Returns 0, -1 (also for a store whose path is too long for dl_del_ca()),
 * -2 (already installed) or -3 (among the factory CAs). 0 does not tell that copying and linking worked;
 * dl_last_cause() does. */
FETCHRIG_API int dl_install_ca(const char *path);
/** Removes the certificate at `path` and its store entries. Returns 0, also when a removal failed, of which
 * dl_last_cause() tells. */
FETCHRIG_API int dl_del_ca(const char *path);
/** Installs a PEM file with certificate and private key as the device certificate (option 2). Returns 0 or -2 to -8:
 * no key, no certificate, mismatch, set-up, directory, path or method or already installed, factory certificate.
 * When the file cannot be written the result is 0 too, with DL_CAUSE_LOCAL_FILE and the old file untouched. Where the
 * option names a link, its target is replaced. */
FETCHRIG_API int dl_install_ser_ca(const char *path);
/** Installs a certificate or key alone, completed from the current device certificate. Returns 0, or -1 with nothing
 * changed: also when the current file cannot be read, or when it or the given one holds a private key that option 16
 * does not open, or a certificate that cannot be read, that would be lost. */
FETCHRIG_API int dl_install_ser_ca_separate(const char *path);
/** Deletes the device certificate file. Returns 0. */
FETCHRIG_API int dl_del_ser_ca(void);

/* ---------------------------------------------------------------- ringtones */

/** Turns an alert text (a URL, a ring name, or null) into a ring: 1 with either the ring number stored, or -1 there and
 * the path of a cached WAVE file in `path` (`path_size` bytes); 0 when the default ring is to be played. `ring_name`
 * (or null) is the fall-back, and counts in place of an alert text that is no URL. Blocks while it downloads. */
FETCHRIG_API int dl_distinctive_ringtone_download(const char *alert, const char *ring_name, int32_t *ring_number,
                                                  char *path, uint32_t path_size);

/* ---------------------------------------------------------------- files and text */

/** 1 when every character is a decimal digit, "#" or "*" (so also for an empty text), else 0. `text` is not null. */
FETCHRIG_API int isfromdialpad(const char *text);
/** 1 when `path` is a directory (links are followed), else 0. */
FETCHRIG_API int dl_path_is_directory(const char *path);
/** The size of the file in bytes, or -1: no such file, or 2 GiB and more. */
FETCHRIG_API int32_t dl_get_file_size(const char *path);
/** Copies a file; the target is created or truncated. Returns 0 (also when a write stopped short) or -1. Copying a
 * file onto itself keeps it. */
FETCHRIG_API int dl_copy_file(const char *source, const char *target);
/** Writes the MD5 of the file as 32 lower-case hexadecimal digits and a terminator into `digest` (33 bytes or more).
 * Returns 0 or -1. */
FETCHRIG_API int dl_get_file_md5(const char *path, char *digest);

#ifdef __cplusplus
}
#endif
#endif
