// main.cpp: scenario [--every N] [--only NAME] [--mode MODE] [--n N] FILE...
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include <exception>
#include <filesystem>

#include "tests/scenario/modes.h"

int main(int count, char** words) {
  using namespace scenario;
  const option options[] = {{"every", required_argument, nullptr, 'e'},
                            {"only", required_argument, nullptr, 'o'},
                            {"mode", required_argument, nullptr, 'm'},
                            {"n", required_argument, nullptr, 'n'},
                            {}};
  selection chosen;
  for (int letter; (letter = getopt_long(count, words, "", options, nullptr)) != -1;) {
    if (letter == 'e') chosen.every = atol(optarg);
    if (letter == 'o') chosen.only = optarg;
    if (letter == 'm') chosen.mode = optarg;
    if (letter == 'n') chosen.n = atol(optarg);
    if (letter == '?') return 2;
  }
  try {
    std::vector<std::filesystem::path> files;  // the stage is in a directory of its own
    for (int i = optind; i < count; ++i) files.push_back(std::filesystem::absolute(words[i]));
    player plays(chosen);
    for (const auto& file : files) {
      stage on;  // of its own: certificates of two files may have one name
      for (const story& told : read_stories(file, on.directory())) plays.play(told, on);
    }
    const tally& all = plays.counted();
    std::string split;
    long faults = 0;
    for (const auto& [call, number] : all.faults) {
      if (number > 0) split += (split.empty() ? "" : ", ") + std::to_string(number) + " " + call;
      faults += number;
    }
    printf(
        "%ld scenarios, %ld runs: %ld faults injected (%s), %ld exchanges cut, %ld waits silenced; %ld runs "
        "failed\n",
        all.stories, all.runs, faults, split.c_str(), all.offsets, all.waits, all.failures);
    return all.stories == 0 || all.failures > 0;
  } catch (const std::exception& error) {
    fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
