// SPDX-License-Identifier: MIT
// exports.cpp: the exported ringtone call.
#include "core/boundary.h"
#include "include/fetchrig.h"
#include "log/log.h"
#include "ringtone/ringtone.h"

using namespace fetchrig;

int dl_distinctive_ringtone_download(const char* alert, const char* ring_name, int32_t* ring_number,
                                     char* path, uint32_t path_size) {
  constexpr int default_ring = 0;
  if (!path || !ring_number) {
    return log_and_return(DL_LOG_HTTP, default_ring, "Invalid Parameter, Try to use default ringtone\n");
  }
  *ring_number = -1;
  return guarded([&] { return find_ring(alert, ring_name, ring_number, path, path_size); },
                 [] { return default_ring; });
}
