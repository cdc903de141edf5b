// Commands run as child processes and timed from spawn to exit, so that a whole program (its
// start, its work and its exit) can be set beside another one doing the same job.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace lumora::bench {

// This process's environment with `set` added or replacing, and the names in `unset` left out.
inline std::vector<std::string> environmentWith(const std::map<std::string, std::string>& set,
                                                const std::vector<std::string>& unset = {}) {
  std::map<std::string, std::string> variables;
  for (char** e = environ; *e; ++e) {
    const std::string_view entry = *e;
    const size_t eq = entry.find('=');
    if (eq != std::string_view::npos)
      variables[std::string(entry.substr(0, eq))] = std::string(entry.substr(eq + 1));
  }
  for (const std::string& name : unset) variables.erase(name);
  for (const auto& [name, value] : set) variables[name] = value;
  std::vector<std::string> out;
  for (const auto& [name, value] : variables) out.push_back(name + "=" + value);
  return out;
}

// The proxy variables: loopback traffic through a proxy would measure the proxy.
inline const std::vector<std::string>& proxyVariables() {
  static const std::vector<std::string> names = {"http_proxy",  "HTTP_PROXY", "https_proxy",
                                                 "HTTPS_PROXY", "all_proxy",  "ALL_PROXY"};
  return names;
}

// The file that `program` names on PATH (or `program` itself when it holds a slash), or empty
// when there is none. Looked up once, so that the search is not part of what is timed.
inline std::string onPath(const std::string& program) {
  if (program.find('/') != std::string::npos)
    return ::access(program.c_str(), X_OK) == 0 ? program : std::string();
  const char* path = std::getenv("PATH");
  std::string_view rest = path ? path : "/usr/bin:/bin";
  while (true) {
    const size_t colon = rest.find(':');
    std::string dir(rest.substr(0, colon));
    if (dir.empty()) dir = ".";
    const std::string candidate = dir + "/" + program;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    if (colon == std::string_view::npos) return {};
    rest.remove_prefix(colon + 1);
  }
}

// A command line and its environment, made once so that building them is not timed.
class Command {
 public:
  // `argv[0]` is the program's path (see onPath); `environment` holds NAME=VALUE entries.
  Command(std::vector<std::string> argv, std::vector<std::string> environment)
      : argv_(std::move(argv)), environment_(std::move(environment)) {
    for (std::string& a : argv_) argp_.push_back(a.data());
    argp_.push_back(nullptr);
    for (std::string& e : environment_) envp_.push_back(e.data());
    envp_.push_back(nullptr);
  }
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  const std::vector<std::string>& argv() const { return argv_; }
  char* const* argp() const { return argp_.data(); }
  char* const* envp() const { return envp_.data(); }

 private:
  std::vector<std::string> argv_, environment_;
  std::vector<char*> argp_, envp_;
};

struct Exit {
  double seconds = 0;  // from the spawn to the exit
  double cpuSeconds = 0;  // user and system time of the child, all its threads
  int status = -1;     // the exit status, or 128 + the signal that ended it
  std::string out;     // standard output, when kept
  std::string err;     // standard error
};

enum class Output {
  discard,  // standard output goes to /dev/null
  keep,     // standard output is kept in memory and returned
};

namespace detail {

// A file in memory: writing to it costs about what writing to /dev/null does, and it is read
// back once the child has exited, so no reading runs beside the child.
inline int memoryFile(const char* name) {
  const int fd = ::memfd_create(name, MFD_CLOEXEC);
  if (fd < 0) throw std::runtime_error(std::string("memfd_create: ") + std::strerror(errno));
  return fd;
}

inline std::string contents(int fd) {
  std::string out;
  char buffer[65536];
  ::lseek(fd, 0, SEEK_SET);
  while (true) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out.append(buffer, static_cast<size_t>(n));
  }
  return out;
}

}  // namespace detail

// Runs `command` with standard input from /dev/null and waits for it to exit.
inline Exit run(const Command& command, Output output) {
  const int devNull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (devNull < 0) throw std::runtime_error("cannot open /dev/null");
  const int outFd = output == Output::keep ? detail::memoryFile("stdout") : devNull;
  const int errFd = detail::memoryFile("stderr");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, devNull, 0);
  posix_spawn_file_actions_adddup2(&actions, outFd, 1);
  posix_spawn_file_actions_adddup2(&actions, errFd, 2);

  Exit exit;
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  const int error =
      ::posix_spawn(&pid, command.argp()[0], &actions, nullptr, command.argp(), command.envp());
  int status = 0;
  rusage usage{};
  if (error == 0) {
    while (::wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
    }
  }
  exit.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  exit.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
  posix_spawn_file_actions_destroy(&actions);
  if (error == 0) {
    exit.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (output == Output::keep) exit.out = detail::contents(outFd);
    exit.err = detail::contents(errFd);
  }
  if (outFd != devNull) ::close(outFd);
  ::close(errFd);
  ::close(devNull);
  if (error != 0)
    throw std::runtime_error("cannot start " + command.argv()[0] + ": " + std::strerror(error));
  return exit;
}

}  // namespace lumora::bench
