// Running a helper program with bytes on its standard input: the real sendmail behind the
// sendmail wrapper, the clipboard programs behind Copy.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lumora::subprocess {

struct RunOptions {
  // With a limit, the helper runs in a process group of its own, and that group is killed when
  // the helper has neither taken its input nor ended by then. Without one, the wait is as long
  // as the helper takes (a sendmail may talk to a slow server).
  std::optional<std::chrono::milliseconds> timeLimit;
  // Standard output and error go to /dev/null instead of being shared with this process. A
  // clipboard program that stays behind to serve the selection must not keep our output open.
  bool quiet = false;
};

struct RunResult {
  enum class End {
    exited,      // `code` is the exit status
    signalled,   // `code` is the signal
    timedOut,    // killed at the time limit
    notStarted,  // `code` is the errno of the failed start
  };
  End end = End::notStarted;
  int code = 0;
  // False when the helper closed its standard input before it had taken all of it.
  bool inputTaken = false;

  bool succeeded() const { return end == End::exited && code == 0 && inputTaken; }
};

// Starts argv[0] (a path, not looked up on PATH) with argv, this process's environment and
// `input` on its standard input, then waits for it. A helper that stops reading early gets no
// more input and this process no SIGPIPE.
RunResult runWithInput(const std::vector<std::string>& argv, std::string_view input,
                       const RunOptions& options = {});

enum class WriteEnd { written, readerGone, timedOut };

// Writes all of `bytes` to `fd` (blocking or not), giving up at `deadline`. A reader that has
// gone fails the write (no SIGPIPE reaches this process).
WriteEnd writeAll(int fd, std::string_view bytes,
                  std::optional<std::chrono::steady_clock::time_point> deadline);

// The executable file `name` in the first directory of `searchPath` (a PATH value) that has
// one; nullopt when none does. Empty entries (the current directory) are not searched.
std::optional<std::string> findProgram(std::string_view name, std::string_view searchPath);

}  // namespace lumora::subprocess
