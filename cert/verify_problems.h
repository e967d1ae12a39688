// SPDX-License-Identifier: MIT
// verify_problems.h: what OpenSSL found wrong with a certificate's chain in the calling thread's last verification,
// let pass or not: the first DL_MAX_VERIFY_PROBLEMS numbers (X509_V_ERR_). Each thread has its own; no lock.
#ifndef FETCHRIG_CERT_VERIFY_PROBLEMS_H
#define FETCHRIG_CERT_VERIFY_PROBLEMS_H

#include <stdint.h>

#include <span>

namespace fetchrig {

void clear_verify_problems();
void note_verify_problem(int error);
[[nodiscard]] std::span<const int32_t> verify_problems();

}  // namespace fetchrig
#endif
