// SPDX-License-Identifier: MIT
// cause.h: why the calling thread's last transfer or certificate operation failed, as a number that programs can
// read: what dl_last_cause() tells. Noted where the failure is detected, beside its log line and before it, so that a
// log callback finds it. Each thread has its own; no lock, no allocation, errno stays.
#ifndef FETCHRIG_CORE_CAUSE_H
#define FETCHRIG_CORE_CAUSE_H

#include <string_view>

#include "include/fetchrig_types.h"

namespace fetchrig {

// Forgets the cause: at the start of an operation, and when what it met was made good.
void clear_cause();

// Notes what the other side, OpenSSL or the system said, in place of an earlier cause.
void note_cause(dl_cause cause, int number = 0, std::string_view text = {});

// Notes a sign of trouble that something else may have led to, such as a wait that ran out: an earlier cause stays.
void note_symptom(dl_cause cause, int number = 0);

// Notes OpenSSL's error, as from ERR_peek_error(): an alert of the server, or OpenSSL's own complaint. Nothing
// when OpenSSL gives no reason.
void note_tls_error(unsigned long error);

[[nodiscard]] const dl_cause_info& last_cause();

}  // namespace fetchrig
#endif
