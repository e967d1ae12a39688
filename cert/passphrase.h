// SPDX-License-Identifier: MIT
// passphrase.h: pass phrases for OpenSSL's PEM readers, in the form of its callback. Any thread.
#ifndef FETCHRIG_CERT_PASSPHRASE_H
#define FETCHRIG_CERT_PASSPHRASE_H

namespace fetchrig {

// Copies `user_data` (a text) or, without it, option 16 into `buffer` and returns the length: of `user_data` as many
// bytes as fit, without a terminator, of option 16 at most size - 1, terminated.
int option_password_cb(char* buffer, int size, int writing, void* user_data);

// Supplies no pass phrase, so that OpenSSL never prompts on the terminal.
int no_password_cb(char* buffer, int size, int writing, void* user_data);

}  // namespace fetchrig
#endif
