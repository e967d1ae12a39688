// passphrase.h: pass phrases for OpenSSL's PEM readers. The exported password_cb() is in fetchrig_openssl.h;
// TLS set-up and the certificate operations register it. Any thread.
#ifndef FETCHRIG_CERT_PASSPHRASE_H
#define FETCHRIG_CERT_PASSPHRASE_H

namespace fetchrig {

// A callback that supplies no pass phrase, so that OpenSSL never prompts on the terminal.
int no_password_cb(char* buffer, int size, int writing, void* user_data);

}  // namespace fetchrig
#endif
