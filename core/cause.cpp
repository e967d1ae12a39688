// SPDX-License-Identifier: MIT
// cause.cpp: the calling thread's last cause.
#include "core/cause.h"

#include <errno.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include "core/text.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

static_assert(sizeof(dl_cause_info) == 264);

// Written and read by each thread for itself.
thread_local dl_cause_info last;

// What a call that goes on may have met: no reason to leave out what ended it.
bool is_remark(int cause) {
  return cause == DL_CAUSE_NONE || cause == DL_CAUSE_HEADER_CUT || cause == DL_CAUSE_TOO_LARGE;
}

}  // namespace

void clear_cause() {
  last = {};
}

void note_cause(dl_cause cause, int number, std::string_view text) {
  last.cause = cause;
  last.number = number;
  copy_text(last.text, printable(text).c_str());
}

void note_symptom(dl_cause cause, int number) {
  if (is_remark(last.cause)) note_cause(cause, number);
}

// OpenSSL gives an alert the reason SSL_AD_REASON_OFFSET and its number. A code of OpenSSL has 32 bits.
void note_tls_error(unsigned long error) {
  const int saved = errno;
  const char* words = ERR_reason_error_string(error);
  const int reason = ERR_GET_REASON(error);
  errno = saved;
  if (!words) return;
  if (ERR_GET_LIB(error) == ERR_LIB_SSL && reason >= SSL_AD_REASON_OFFSET) {
    note_cause(DL_CAUSE_TLS_ALERT, reason - SSL_AD_REASON_OFFSET, words);
  } else {
    note_cause(DL_CAUSE_TLS, static_cast<int>(error), words);
  }
}

const dl_cause_info& last_cause() {
  return last;
}

}  // namespace fetchrig
