// main.cpp: scenario [--every N] [--only NAME] [--mode MODE] [--n N] FILE...
#include <stdio.h>
#include <string.h>

#include <exception>

#include "tests/scenario/modes.h"

int main(int count, char** words) {
  using namespace scenario;
  selection chosen;
  std::vector<std::string> files;
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    const char* value = i + 1 < count ? words[i + 1] : "";
    if (word == "--every")
      chosen.every = atol(value), ++i;
    else if (word == "--only")
      chosen.only = value, ++i;
    else if (word == "--mode")
      chosen.mode = value, ++i;
    else if (word == "--n")
      chosen.n = atol(value), ++i;
    else
      files.push_back(word);
  }
  chosen.tells = chosen.n > 0;
  try {
    std::vector<std::string> paths;
    for (const std::string& file : files) {
      char* absolute = realpath(file.c_str(), nullptr);
      paths.push_back(absolute ? absolute : file);
      free(absolute);
    }
    stage on;
    player plays(on, chosen);
    for (const std::string& file : paths) {
      for (const story& told : read_stories(file, on.directory())) plays.play(told);
    }
    const tally& all = plays.counted();
    printf(
        "%ld scenarios, %ld runs: %ld faults injected, %ld exchanges cut, %ld waits silenced; %ld runs "
        "failed\n",
        all.stories, all.runs, all.faults, all.offsets, all.waits, all.failures);
    return all.stories == 0 || all.failures > 0;
  } catch (const std::exception& error) {
    fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
