// modes.h: plays each story in every way it may go wrong, holds the outcome against the rules that every run obeys, and
// counts.
#ifndef FETCHRIG_TESTS_SCENARIO_MODES_H
#define FETCHRIG_TESTS_SCENARIO_MODES_H

#include <string>

#include "tests/scenario/client.h"

namespace scenario {

// What is asked for on the command line.
struct selection {
  long every = 1;    // of faults, offsets and waits this one and no others
  std::string only;  // part of a story's name
  std::string mode;  // "" for all
  long n = 0;        // 0: all
  bool tells = false;
};

struct tally {
  long stories = 0, runs = 0, faults = 0, offsets = 0, waits = 0, failures = 0;
};

class player {
 public:
  player(stage& on, const selection& chosen) : stage_(on), chosen_(chosen) {}
  void play(const story& told);
  const tally& counted() const { return tally_; }

 private:
  bool play_whole(const story& told);
  void cut_everywhere(const story& told);
  void fall_silent(const story& told);
  void fail_each_call(const story& told);
  // Whether the n-th of `count` runs of the mode is to be played; sets the watchdog.
  bool takes(const story& told, const std::string& mode, long n, long count);
  void check(const story& told, const run& with, long& struck, bool harmless);
  void report(const std::vector<std::string>& found);

  stage& stage_;
  selection chosen_;
  tally tally_;
  outcome whole_;  // without any fault
  std::string playing_;
};

}  // namespace scenario
#endif
