// Runs a program as a child process with its own environment and standard input, and collects
// what it writes. For end-to-end tests of the command.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace lumora::testing {

struct ProcessResult {
  int status = -1;  // exit status, or 128 + signal number when killed
  std::string out;
  std::string err;
};

struct ProcessOptions {
  std::map<std::string, std::string> setEnv;  // added to (or replacing in) this environment
  std::vector<std::string> unsetEnv;
  std::string input;                          // standard input, then end of file
  std::chrono::milliseconds timeout{30'000};  // then SIGKILL
  // Called whenever standard output has grown; may signal the child through `pid`.
  std::function<void(pid_t pid, const std::string& outSoFar)> onOutput;
};

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

}  // namespace lumora::testing
