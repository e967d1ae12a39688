// exports.cpp: the exported calls on certificates and keys.
#include "cert/passphrase.h"
#include "include/fetchrig_openssl.h"

using namespace fetchrig;

int password_cb(char* buffer, int size, int writing, void* user_data) {
  return option_password_cb(buffer, size, writing, user_data);
}
