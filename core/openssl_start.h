// SPDX-License-Identifier: MIT
// openssl_start.h: OpenSSL start-up and the lock table it may ask for. Called by initialisation and dl_exit()
// alone, on one thread, before and after all other use.
#ifndef FETCHRIG_CORE_OPENSSL_START_H
#define FETCHRIG_CORE_OPENSSL_START_H

namespace fetchrig {

void openssl_start();
void openssl_stop();

}  // namespace fetchrig
#endif
