// modes.h: plays each story in every way it may go wrong, holds the outcome against the rules that every run obeys, and
// counts.
#ifndef FETCHRIG_TESTS_SCENARIO_MODES_H
#define FETCHRIG_TESTS_SCENARIO_MODES_H

#include <map>
#include <string>

#include "tests/scenario/client.h"

namespace scenario {

// What is asked for on the command line.
struct selection {
  long every = 1;    // of faults, offsets and waits this one and no others
  std::string only;  // part of a story's name
  std::string mode;  // "" for all
  long n = 0;        // of a mode; 0: all
};

struct tally {
  long stories = 0, runs = 0, offsets = 0, waits = 0, failures = 0;
  std::map<std::string, long> faults = {};  // injected, by the call that failed
};

class player {
 public:
  explicit player(const selection& chosen) : chosen_(chosen) {}
  void play(const story& told, stage& on);
  const tally& counted() const { return tally_; }

 private:
  bool play_whole(const story& told);
  void cut_everywhere(const story& told);
  void fall_silent(const story& told);
  void fail_each_call(const story& told);
  void damage(const story& told);
  // Plays those of the `count` runs of a mode that are chosen; `with(n)` is the n-th, from 1 on. Counts those in which
  // what it was to suffer came.
  template <typename With>
  void play_chosen(const story& told, const std::string& mode, long count, long& struck, With with);
  // Sets the watchdog.
  void begin(const std::string& name);
  outcome check(const story& told, const run& with);
  void report(const std::vector<std::string>& found, const outcome& seen);

  stage* stage_ = nullptr;
  selection chosen_;
  tally tally_;
  outcome whole_;  // without any fault
  std::string playing_;
};

}  // namespace scenario
#endif
