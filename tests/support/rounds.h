#pragma once

#include <chrono>

// Counts the rounds of a test in which threads race or take turns: `most` of them, or as many as
// begin within ten seconds, but at least 50, since a turn may take long on a busy machine.
class Rounds {
 public:
  explicit Rounds(int most) : limit(most) {}

  // Returns whether there is another round, and counts it.
  bool Next() {
    if (count == limit || (count >= 50 && std::chrono::steady_clock::now() >= end)) return false;
    count++;
    return true;
  }
  int Count() const { return count; }

 private:
  const int limit;
  const std::chrono::steady_clock::time_point end =
      std::chrono::steady_clock::now() + std::chrono::seconds(10);
  int count = 0;
};
