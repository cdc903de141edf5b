// What the report-style benchmarks share: timing, medians and giving up with a reason.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace lumora::bench {

// Writes "PROGRAM: WHAT" to standard error and exits 1.
[[noreturn]] inline void die(const char* program, const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", program, what.c_str());
  std::exit(1);
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The wall time of `work`, in seconds.
inline double seconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace lumora::bench
