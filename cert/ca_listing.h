// SPDX-License-Identifier: MIT
// ca_listing.h: describing the certificates of the trusted-CA store, option 1, at most 10. An entry that holds no
// certificate, a link to nothing above all, is removed from the disk on the way; one that merely could not be read now
// is kept. One certificate operation at a time.
#ifndef FETCHRIG_CERT_CA_LISTING_H
#define FETCHRIG_CERT_CA_LISTING_H

#include "include/fetchrig_types.h"

namespace fetchrig {

// Clears the list and fills it. 0, or -2 when the store cannot be opened.
[[nodiscard]] int list_trusted_cas(dl_trust_ca_list& list);

// The same in long form, which rewrites DER entries as PEM. 0, or -1 with code 2. After 0 the code is that of the last
// entry read: 0, or 1 when that was not described.
[[nodiscard]] int list_trusted_cas_ex(dl_trust_ca_list_ex& list, dl_result& result);

}  // namespace fetchrig
#endif
