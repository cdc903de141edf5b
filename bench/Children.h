// Work done in a forked child, so that its peak resident memory is its own: the child starts
// from this process as it stands at the fork, so a benchmark forks while it is small, before it
// has allocated anything large, and its allocator is as a starting program's.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>

#include "Common.h"

namespace lumora::bench {

inline long maxResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// The whole file at `path` into `out`; false when it cannot be read whole.
inline bool readWholeFile(const std::string& path, std::string& out) {
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return false;
  struct stat st {};
  bool ok = fstat(fd, &st) == 0;
  if (ok) {
    out.resize(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (done < out.size()) {
      const ssize_t n = read(fd, out.data() + done, out.size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    ok = done == out.size();
  }
  close(fd);
  return ok;
}

// What `work` returns in a forked child, handed back through a pipe; none when the child did not
// end normally.
template <typename Result>
std::optional<Result> inChild(const std::function<Result()>& work) {
  static_assert(std::is_trivially_copyable_v<Result>);
  int fds[2];
  if (pipe(fds) != 0) die("bench", "pipe failed");
  const pid_t child = fork();
  if (child < 0) die("bench", "fork failed");
  if (child == 0) {
    close(fds[0]);
    const Result r = work();
    (void)!write(fds[1], &r, sizeof r);
    _exit(0);
  }
  close(fds[1]);
  Result r{};
  const bool got = read(fds[0], &r, sizeof r) == sizeof r;
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (!got || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return r;
}

// Writes what `make` gives to a temporary file, from a child, so that this process's allocator
// never holds a large block that the measuring children would inherit and reuse.
inline std::string writeInChild(const std::function<std::string()>& make) {
  char path[] = "/tmp/lumora-bench-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) die("bench", "cannot make a temporary file");
  close(fd);
  const pid_t child = fork();
  if (child < 0) die("bench", "fork failed");
  if (child == 0) {
    const std::string m = make();
    FILE* f = std::fopen(path, "wb");
    if (!f || std::fwrite(m.data(), 1, m.size(), f) != m.size() || std::fclose(f) != 0) _exit(1);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    die("bench", "cannot write a generated message");
  return path;
}

}  // namespace lumora::bench
