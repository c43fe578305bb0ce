#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

// The command-line tool as people and scripts meet it, for programs that know its VLTCTL_PROGRAM.

// Runs a verb (none if empty) with its arguments to its end.
inline ProgramResult RunVerb(const std::vector<std::string>& verb,
                             const std::vector<std::string>& words,
                             const std::map<std::string, std::string>& environment = {}) {
  std::vector<std::string> all = {VLTCTL_PROGRAM};
  all.insert(all.end(), verb.begin(), verb.end());
  all.insert(all.end(), words.begin(), words.end());
  return RunProgram(all, 60s, environment);
}

// One run and its expected outcome.
struct VerbRun {
  std::vector<std::string> words;
  int status;
  std::string output;
  std::string errors;  // a part of standard error; if empty, nothing is printed there
};

inline void ExpectRuns(const std::vector<std::string>& verb, const std::vector<VerbRun>& runs) {
  for (const VerbRun& run : runs) {
    SCOPED_TRACE(testing::PrintToString(run.words));
    const ProgramResult result = RunVerb(verb, run.words);
    EXPECT_EQ(run.status, result.status) << result.errors;
    EXPECT_EQ(run.output, result.output);
    EXPECT_EQ(run.errors.empty(), result.errors.empty()) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find(run.errors)) << result.errors;
  }
}
