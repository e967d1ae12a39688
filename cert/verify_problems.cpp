// SPDX-License-Identifier: MIT
// verify_problems.cpp: the numbers of the last verification.
#include "cert/verify_problems.h"

#include <array>

#include "include/fetchrig_types.h"

namespace fetchrig {
namespace {

// Written and read by each thread for itself.
thread_local std::array<int32_t, DL_MAX_VERIFY_PROBLEMS> problems;
thread_local std::size_t num_problems = 0;

}  // namespace

void clear_verify_problems() {
  num_problems = 0;
}

void note_verify_problem(int error) {
  if (num_problems < problems.size()) problems[num_problems++] = error;
}

std::span<const int32_t> verify_problems() {
  return std::span(problems).first(num_problems);
}

}  // namespace fetchrig
