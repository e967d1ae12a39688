// SPDX-License-Identifier: MIT
// extras.cpp: the values of the extras.
#include "core/extras.h"

#include <algorithm>
#include <atomic>
#include <iterator>

#include "core/config.h"

namespace fetchrig {
namespace {

// Under the configuration lock.
transfer_extras values;

// One layer keeps something.
std::atomic<void (*)()> end_action{nullptr};

struct switch_extra {
  uint32_t extra;
  bool transfer_extras::*field;
};

constexpr switch_extra switches[] = {
    {DL_EXTRA_REDIRECTS, &transfer_extras::redirects},
    {DL_EXTRA_PROXY, &transfer_extras::proxy},
    {DL_EXTRA_DIGEST, &transfer_extras::digest},
    {DL_EXTRA_WHOLE_BODIES, &transfer_extras::whole_bodies},
    {DL_EXTRA_RESUME, &transfer_extras::resume},
    {DL_EXTRA_FTP_FALLBACKS, &transfer_extras::ftp_fallbacks},
    {DL_EXTRA_FTP_TLS, &transfer_extras::ftp_tls},
    {DL_EXTRA_TFTP_PORTS, &transfer_extras::tftp_ports},
};

struct number_extra {
  uint32_t extra;
  uint32_t min;  // beside 0
  uint32_t max;
  uint32_t transfer_extras::*field;
};

constexpr number_extra numbers[] = {
    {DL_EXTRA_TFTP_WINDOW, 0, 32767, &transfer_extras::tftp_window},
    {DL_EXTRA_TFTP_BLOCK_SIZE, 8, 65464, &transfer_extras::tftp_blksize},
    {DL_EXTRA_KEPT_CONNECTIONS, 0, 64, &transfer_extras::kept_connections},
};

constexpr transfer_extras recommended = {
    .redirects = true,
    .proxy = true,
    .digest = true,
    .whole_bodies = true,
    .ftp_fallbacks = true,
    .tftp_ports = true,
    .tftp_window = 16,
    .kept_connections = 4,
};

template <typename Table>
auto find_extra(const Table& table, uint32_t extra) {
  const auto* found = std::find_if(std::begin(table), std::end(table),
                                   [extra](const auto& entry) { return entry.extra == extra; });
  return found == std::end(table) ? nullptr : found;
}

// Changes the values by `change` under the lock. What is kept between transfers ends when less is to be kept.
template <typename Change>
int store(Change change) {
  if (!config_initialised()) config_init();
  bool keeps_less = false;
  {
    const config_lock lock;
    const uint32_t kept = values.kept_connections;
    change();
    keeps_less = values.kept_connections < kept;
  }
  if (void (*end)() = end_action.load(std::memory_order_acquire); keeps_less && end) end();
  return 0;
}

}  // namespace

transfer_extras current_extras() {
  if (!config_initialised()) return {};
  const config_lock lock;
  return values;
}

int store_extra(uint32_t extra, uint32_t value) {
  if (extra == DL_EXTRA_TLS_WAIT_LIMIT) {
    set_tls_wait_limit(value);
    return 0;
  }
  if (const auto* entry = find_extra(switches, extra)) {
    return value <= 1 ? store([&] { values.*entry->field = value != 0; }) : -1;
  }
  const auto* entry = find_extra(numbers, extra);
  if (!entry || value > entry->max || (value != 0 && value < entry->min)) return -1;
  return store([&] { values.*entry->field = value; });
}

int store_extras(uint32_t set) {
  if (set > DL_EXTRAS_RECOMMENDED) return -1;
  return store([set] {
    const uint64_t limit = values.size_limit;
    values = set == DL_EXTRAS_RECOMMENDED ? recommended : transfer_extras{};
    values.size_limit = limit;
  });
}

int store_size_limit(uint64_t bytes) {
  if (bytes > INT64_MAX) return -1;
  return store([bytes] { values.size_limit = bytes; });
}

uint32_t read_extra(uint32_t extra) {
  if (extra == DL_EXTRA_TLS_WAIT_LIMIT) return tls_wait_limit_seconds();
  const transfer_extras now = current_extras();
  if (const auto* entry = find_extra(switches, extra)) return now.*entry->field ? 1 : 0;
  const auto* entry = find_extra(numbers, extra);
  return entry ? now.*entry->field : 0;
}

void clear_extras() {
  values = {};
}

void at_library_end(void (*end)()) {
  end_action.store(end, std::memory_order_release);
}

void end_extras() {
  if (void (*end)() = end_action.exchange(nullptr, std::memory_order_acq_rel)) end();
}

}  // namespace fetchrig
