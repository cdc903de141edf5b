// What the report-style benchmarks share: timing, medians and giving up with a reason.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>
#include <functional>
#include <string>
#include <vector>

namespace lumora::bench {

// Writes "PROGRAM: WHAT" to standard error and exits 1.
[[noreturn]] inline void die(const char* program, const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", program, what.c_str());
  std::exit(1);
}

// The argument after argv[i] as a whole positive number, moving i past it; 0 when there is no
// such argument or it is not one.
inline size_t positiveArgument(int& i, int argc, char** argv) {
  if (i + 1 >= argc) return 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(argv[++i], &end, 10);
  return *end == '\0' ? static_cast<size_t>(value) : 0;
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

// Runs `script` with /usr/bin/python3 and `arguments` (already quoted as the shell needs), and
// returns the median seconds of its rounds. The script defines `once()`, one round, and `runs`;
// the timing loop is added here, so neither the interpreter's start nor its reading of the
// inputs counts. Negative when Python or the script fails.
inline double pythonSeconds(std::string script, const std::string& arguments) {
  script += R"(
times = []
for _ in range(runs):
    start = time.perf_counter()
    once()
    times.append(time.perf_counter() - start)
times.sort()
print(times[len(times) // 2])
)";
  char path[] = "/tmp/lumora-bench-XXXXXX.py";
  const int fd = mkstemps(path, 3);
  if (fd < 0) return -1;
  const bool written = write(fd, script.data(), script.size()) == static_cast<ssize_t>(script.size());
  close(fd);
  double result = -1;
  if (written) {
    const std::string command = "/usr/bin/python3 " + std::string(path) + " " + arguments;
    if (FILE* pipe = popen(command.c_str(), "r")) {
      if (std::fscanf(pipe, "%lf", &result) != 1) result = -1;
      if (pclose(pipe) != 0) result = -1;
    }
  }
  unlink(path);
  return result;
}

}  // namespace lumora::bench
