// SPDX-License-Identifier: MIT
// ringtone.h: the steps from an alert text to a ring. Downloads are cached in /tmp under the MD5 of their
// URL; a file that is there counts as complete, so it gets its name only when it is. Any thread;
// no state in memory.
#ifndef FETCHRIG_RINGTONE_RINGTONE_H
#define FETCHRIG_RINGTONE_RINGTONE_H

#include <stdint.h>

namespace fetchrig {

// The largest WAVE file taken, bytes.
inline constexpr uint32_t max_ring_bytes = 204800;

// A host that never resolves (RFC 6761): a URL with it asks for the ring name, as one with 127.0.0.1 does.
inline constexpr const char* placeholder_ring_host = "ringtone.invalid";

// 1 when the name starts with a prefix of ring_tab, else 0. Digits behind it become the ring number.
int ring_prefix_lookup(const char* name, int32_t* ring_number);

// 1 when the name is found by prefix or among the configured ring entries, else 0. Null is never found.
int ring_name_lookup(const char* name, int32_t* ring_number);

// Stores the path of the cached file of `url`: 0 after a download, 1 when it was there, -1 when it failed.
int ring_fetch_wave(const char* url, char* path, uint32_t path_size);

// The ring for an alert text, which is a URL or a ring name, else for `ring_name`; either may be null. Returns 1 with
// the number stored, or with the path of a WAVE file stored and the number left alone; 0 when there is none.
int find_ring(const char* alert, const char* ring_name, int32_t* ring_number, char* path, uint32_t path_size);

}  // namespace fetchrig
#endif
