#include "support/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

extern char** environ;

namespace lumora::testing {

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
  std::map<std::string, std::string> env;
  for (char** e = environ; *e; ++e) {
    const std::string entry = *e;
    const size_t eq = entry.find('=');
    if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& name : options.unsetEnv) env.erase(name);
  for (const auto& [k, v] : options.setEnv) env[k] = v;
  std::vector<std::string> envStrings;
  for (const auto& [k, v] : env) envStrings.push_back(k + "=" + v);
  std::vector<char*> envp;
  for (auto& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<std::string> args = argv;
  std::vector<char*> argp;
  for (auto& a : args) argp.push_back(a.data());
  argp.push_back(nullptr);

  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC))
    throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  // The child starts with default signal dispositions and nothing blocked.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid;
  const int rc = posix_spawn(&pid, argp[0], &actions, &attr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  if (rc != 0) throw std::runtime_error(std::string("spawn failed: ") + std::strerror(rc));

  // Standard input is written whole first: the tests' inputs are small.
  size_t written = 0;
  while (written < options.input.size()) {
    const ssize_t n =
        ::write(in[1], options.input.data() + written, options.input.size() - written);
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  ::close(in[1]);

  ProcessResult result;
  const auto deadline = std::chrono::steady_clock::now() + options.timeout;
  bool outOpen = true, errOpen = true;
  while (outOpen || errOpen) {
    pollfd fds[2] = {{outOpen ? out[0] : -1, POLLIN, 0}, {errOpen ? err[0] : -1, POLLIN, 0}};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      kill(pid, SIGKILL);
      break;
    }
    if (poll(fds, 2, static_cast<int>(left.count())) < 0) continue;
    char buffer[65536];
    for (int i = 0; i < 2; ++i) {
      if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n <= 0) {
        (i == 0 ? outOpen : errOpen) = false;
        continue;
      }
      (i == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(n));
      if (i == 0 && options.onOutput) options.onOutput(pid, result.out);
    }
  }
  ::close(out[0]);
  ::close(err[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace lumora::testing
