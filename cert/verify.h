// verify.h: how dl_cert_verify() reports what OpenSSL found; the call itself is in fetchrig.h. No state; any
// thread.
#ifndef FETCHRIG_CERT_VERIFY_H
#define FETCHRIG_CERT_VERIFY_H

#include "include/fetchrig_types.h"

namespace fetchrig {

// The code for one of OpenSSL's X509_V_ERR_ values; DL_VERIFY_OTHER for X509_V_OK, as only a positive verdict
// verifies.
[[nodiscard]] dl_cert_verify_code verify_code(int error);

}  // namespace fetchrig
#endif
