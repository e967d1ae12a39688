// modes.cpp: the ways in which a story is played and the rules for each.
#include "tests/scenario/modes.h"

#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <utility>

#include "include/fetchrig_types.h"
#include "tests/scenario/cert_client.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace scenario {
namespace {

using std::string;

constexpr unsigned run_limit_s = 60;  // of real time
constexpr long least_runs = 2;        // of each mode, however few are asked for
constexpr long most_runs = 2000;      // when all are

char now_playing[256];

void on_alarm(int) {
  const char text[] = "\nnever ends: ";
  [[maybe_unused]] ssize_t told = ::write(STDERR_FILENO, text, sizeof text - 1);
  told = ::write(STDERR_FILENO, now_playing, strlen(now_playing));
  _exit(3);
}

// Whether an answer says where its body ends.
bool tells_end(const story& told) {
  static const std::regex sign("Content-Length: [0-9]|chunked");
  return std::any_of(told.steps.begin(), told.steps.end(),
                     [](const step& one) { return one.what == ">>" && std::regex_search(one.bytes, sign); });
}

// A connection that ends early ends a body without an error, as the calls state: when the answer is cut so, less may
// arrive, and a status that was cut may read as another. Nothing of the kind passes a certificate that is not trusted,
// and a ring is whole where its end is told.
bool may_end_early(const story& told, const outcome& whole, const run& with) {
  const std::string& url = told.words.at(0);
  const bool http = !url.starts_with("ftp:") && !url.starts_with("tftp:");
  const bool behind_tls = !told.connections.empty() && told.connections.back().has("tls");
  const bool untrusted = whole.code == DL_ERR_CONNECT && behind_tls;
  const bool ring = told.verb == "ring" && tells_end(told);
  return http && with.network.how == cut::end && !with.network.cut_up && !untrusted && !ring;
}

// Whether the last bytes of it were sent; those of an old file were not.
bool was_sent(const story& told, const string& content) {
  const string end = content.substr(content.size() - std::min<std::size_t>(content.size(), 8));
  return std::any_of(told.steps.begin(), told.steps.end(), [&](const step& one) {
    return one.what == ">>" && one.bytes.find(end) != string::npos;
  });
}

bool resumes(const story& told) {
  return std::any_of(told.options.begin(), told.options.end(),
                     [](const auto& option) { return option.first == "EXTRA_RESUME"; });
}

// To FTP's servers other commands may go when one failed, to TFTP's all is sent again, and the whole file is asked for
// when its part cannot be gone on with.
bool asks_nothing_else(const story& told) {
  if (resumes(told)) return false;
  return std::none_of(told.connections.begin(), told.connections.end(),
                      [](const connection& one) { return one.at.port == 21 || one.has("udp"); });
}

bool is_known_code(int code) {
  return (code >= -19 && code <= 0 && code != -10) || (code >= 100 && code <= 999);
}

std::vector<string> broken_rules(const story& told, const outcome& whole, const outcome& seen,
                                 const run& with) {
  if (is_certificate_call(told)) return broken_certificate_rules(told, whole, seen);
  std::vector<string> broken = seen.broken;
  const bool early = may_end_early(told, whole, with);
  const bool ring = told.verb == "ring";
  const auto rule = [&](bool holds, const char* what) {
    if (!holds) broken.push_back(what);
  };
  const bool known = is_known_code(seen.code) || (seen.code == untouched_code && seen.rc == -1);
  rule(known || seen.code == whole.code, "a code that is none");
  rule(ring || seen.rc == -1 || seen.code == 0, "success with a code");
  rule(ring || seen.rc == 0 || seen.rc == -1, "a return value that is none");
  rule(!ring || !told.argument("name") || seen.rc == whole.rc, "neither the ring nor the one in its place");
  rule(!ring || seen.told.at("redirect").empty() || seen.file, "a ring that is not there");
  const bool whole_ok = whole.rc >= 0 && whole.code == 0, ok = seen.rc >= 0 && seen.code == 0;
  rule(whole_ok || !ok || early, "accepts what is refused without a fault");
  const auto old = told.arguments.find("old");
  const bool kept = seen.file && old != told.arguments.end() && *seen.file == old->second;
  const bool part =
      seen.file && (whole.file ? whole.file->starts_with(*seen.file) : was_sent(told, *seen.file));
  // Where the file cannot be looked at, nobody can tell that its name is still its own.
  const call which = with.what ? with.what->which : call::memory;
  const bool unseen = which == call::lstat || (which == call::fstat && !resumes(told));
  const bool emptied = unseen && seen.file && seen.file->empty();
  rule(!seen.file || kept || seen.file == whole.file || (early && part) || emptied, "a partial file");
  const string& left = seen.told.at("part");
  const bool was_there = std::any_of(told.files.begin(), told.files.end(),
                                     [&](const auto& one) { return one.second.content == left; });
  rule(left == "none" || was_there || !whole_ok || whole.file->starts_with(left), "a part of another file");
  const bool draws_no_nonce = with.what && with.what->which == call::random;
  for (const string& problem : seen.problems)
    rule(early || draws_no_nonce || !asks_nothing_else(told) || problem.find("received") == string::npos,
         problem.c_str());
  const bool falls_back = ring && !seen.file && seen.told.at("ring") != whole.told.at("ring");
  rule(!ok || !whole_ok || seen.file == whole.file || (early && part) || falls_back,
       "success with another file");
  rule(!whole_ok || whole.body.starts_with(seen.body) || (early && whole.read_code != 0), "another body");
  const bool read_ok = ok && seen.read_code == 0, whole_read_ok = whole_ok && whole.read_code == 0;
  rule(!read_ok || early || (whole_read_ok && seen.body == whole.body),
       "a body that ends well, but is another");
  for (std::size_t i = 1; i < std::min(seen.links.size(), whole.links.size()); ++i) {
    const link &now = *seen.links[i], &then = *whole.links[i];
    const bool in_order = now.client_closed && !now.client_aborted && !now.dead;
    const bool sends_file = then.client_closed && then.num_up > 0 && then.num_down == 0 && !then.datagrams;
    std::size_t sent = now.num_up;
    for (const packet& late : now.in_flight) sent += late.bytes.size();
    const bool unasked = with.what && with.what->which == call::getsockopt && seen.code == DL_ERR_CONNECT;
    rule(!sends_file || unasked || !in_order || sent == then.num_up,
         "part of a file that ends in good order");
  }
  const int64_t limit_us = int64_t{60} * 1000000;
  rule(seen.took_us - whole.took_us <= (whole.num_waits + 4) * limit_us, "waits longer than its waits imply");
  return broken;
}

// Nothing may come of the fault.
std::vector<string> differences(const story& told, const outcome& seen) {
  std::vector<string> found = complaints(told, seen);
  found.insert(found.end(), seen.broken.begin(), seen.broken.end());
  return found;
}

}  // namespace

void player::begin(const string& name) {
  playing_ = name;
  snprintf(now_playing, sizeof now_playing, "%s\n", name.c_str());
  alarm(run_limit_s);
}

template <typename With>
void player::play_chosen(const story& told, const string& mode, long count, long& struck, With with) {
  if (!chosen_.mode.empty() && chosen_.mode != mode) return;
  // Variants are much alike: of theirs every so-manyth is enough. So are certificates' stories, of whose sample not
  // every mode is in every one; nearly all their allocations are OpenSSL's.
  const bool allocates = mode.starts_with("memory");
  const bool is_certificate = is_certificate_call(told) && chosen_.every > 1;
  const long rarely = told.is_variant ? 12 : is_certificate ? (allocates ? 20 : 1) : 0;
  const long asked = chosen_.every * std::max(count / most_runs, 1L);
  const long stride = rarely > 0 ? asked * rarely : std::clamp<long>(count / least_runs, 1, asked);
  const long offset = static_cast<long>(std::hash<string>()(told.name + mode) % 997);
  for (long n = 1; n <= count; ++n) {
    if (chosen_.n > 0 ? chosen_.n != n : (n + offset) % stride != 0) continue;
    begin(told.name + ": --mode " + mode + " --n " + std::to_string(n));
    struck += check(told, with(n)).struck;
  }
}

void player::report(const std::vector<string>& found, const outcome& seen) {
  if (found.empty()) return;
  ++tally_.failures;
  printf("FAILED %s\n", playing_.c_str());
  for (const string& one : found) printf("  %s\n", one.c_str());
  printf("came to %d, code %d, read %d, after %ld waits; log:\n", seen.rc, seen.code, seen.read_code,
         seen.num_waits);
  for (const log_line& line : seen.lines)
    printf("  %d %s %s\n", line.level, line.module.c_str(), line.text.c_str());
  fflush(stdout);
}

outcome player::check(const story& told, const run& with) {
  outcome seen = stage_->play(told, with);
  ++tally_.runs;
  // A fault that never came changes nothing, and one of the story's own is part of what it expects.
  const bool changes = seen.struck && told.fault.empty() && !(with.what && with.what->harmless());
  report(changes ? broken_rules(told, whole_, seen, with) : differences(told, seen), seen);
  return seen;
}

bool player::play_whole(const story& told) {
  const long failures = tally_.failures;
  begin(told.name + ": --mode as-sent");
  whole_ = check(told, {});
  const std::pair<const char*, delivery> ways[] = {{"bytes", delivery::byte_by_byte},
                                                   {"glued", delivery::glued}};
  for (const auto& [mode, pieces] : ways) {
    if (is_certificate_call(told) || (!chosen_.mode.empty() && chosen_.mode != mode)) continue;
    begin(told.name + ": --mode " + mode);
    check(told, {.network = {.pieces = pieces}});
  }
  return failures == tally_.failures;
}

void player::cut_everywhere(const story& told) {
  for (std::size_t i = 0; i < whole_.links.size(); ++i) {
    for (const bool up : {false, true}) {
      const auto size = static_cast<long>(up ? whole_.links[i]->num_up : whole_.links[i]->num_down);
      for (const cut how : {cut::end, cut::reset}) {
        const string mode =
            (how == cut::end ? "cut-" : "reset-") + std::to_string(i) + (up ? "-up" : "-down");
        play_chosen(told, mode, size, tally_.offsets, [&](long n) {
          return run{.network = {
                         .how = how, .cut_link = i, .cut_up = up, .cut_at = static_cast<std::size_t>(n - 1)}};
        });
      }
    }
  }
}

void player::fall_silent(const story& told) {
  play_chosen(told, "silent", whole_.num_waits, tally_.waits,
              [](long n) { return run{.network = {.silent_from = n}}; });
}

void player::fail_each_call(const story& told) {
  for (const fault& one : faults) {
    const string name = one.name;
    for (const bool lasting : {false, true}) {
      if (lasting && !one.may_last()) continue;
      play_chosen(told, name + (lasting ? "-lasting" : ""),
                  whole_.counts[static_cast<std::size_t>(one.which)],
                  tally_.faults[name.substr(0, name.find('-'))], [&](long n) {
                    return run{.network = {}, .what = &one, .nth = n, .times = lasting ? LONG_MAX : 1};
                  });
    }
  }
}

// Every fifth byte is another: the file is refused, or taken for what it is now.
void player::damage(const story& told) {
  constexpr std::size_t step = 5;
  const auto is_meant = [&](const auto& file) { return file.first == told.damaged; };
  story other = told;
  const auto file = std::find_if(other.files.begin(), other.files.end(), is_meant);
  if (file == other.files.end() || !(chosen_.mode.empty() || chosen_.mode == "damaged")) return;
  string& content = file->second.content;
  for (std::size_t at = 0; at < content.size(); at += step) {
    if (chosen_.n > 0 && static_cast<std::size_t>(chosen_.n) != at) continue;
    begin(told.name + ": --mode damaged --n " + std::to_string(at));
    content[at] ^= 1;
    const outcome seen = stage_->play(other, {});
    content[at] ^= 1;
    ++tally_.runs;
    ++tally_.faults["damaged"];
    report(broken_damage_rules(told, seen), seen);
  }
}

void player::play(const story& told, stage& on) {
  if (!chosen_.only.empty() && told.name.find(chosen_.only) == string::npos) return;
  signal(SIGALRM, on_alarm);
  stage_ = &on;
  ++tally_.stories;
  const bool sound = play_whole(told);
  if (sound && told.fault.empty() && !told.alone) {
    cut_everywhere(told);
    fall_silent(told);
    fail_each_call(told);
    damage(told);
  }
  alarm(0);
#if defined(__SANITIZE_ADDRESS__)
  playing_ = told.name;
  if (__lsan_do_recoverable_leak_check() != 0) report({"leaks memory"}, whole_);
#endif
}

}  // namespace scenario
