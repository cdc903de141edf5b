#include "lumora/platform/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

extern char** environ;

namespace lumora::subprocess {
namespace {

using Clock = std::chrono::steady_clock;

// Blocks SIGPIPE in this thread while input is written, and takes back a SIGPIPE that the
// writes raised, so that a helper closing its input early fails a write with EPIPE instead of
// ending this process. The process-wide disposition is left alone.
class SigpipeBlock {
 public:
  SigpipeBlock() {
    sigemptyset(&pipeOnly_);
    sigaddset(&pipeOnly_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly_, &previous_);
    wasPending_ = pending();
  }
  ~SigpipeBlock() {
    if (!wasPending_ && pending()) {
      const timespec now{};
      sigtimedwait(&pipeOnly_, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
  SigpipeBlock(const SigpipeBlock&) = delete;
  SigpipeBlock& operator=(const SigpipeBlock&) = delete;

 private:
  static bool pending() {
    sigset_t set;
    sigpending(&set);
    return sigismember(&set, SIGPIPE) == 1;
  }
  sigset_t pipeOnly_;
  sigset_t previous_;
  bool wasPending_ = false;
};

// Milliseconds left until `deadline` for poll(): -1 (no limit) without one, at least 0.
int pollWait(const std::optional<Clock::time_point>& deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

bool passed(const std::optional<Clock::time_point>& deadline) {
  return deadline && Clock::now() >= *deadline;
}

// waitpid's status as a result.
RunResult ended(int status, bool inputTaken) {
  if (WIFEXITED(status)) return {RunResult::End::exited, WEXITSTATUS(status), inputTaken};
  return {RunResult::End::signalled, WIFSIGNALED(status) ? WTERMSIG(status) : 0, inputTaken};
}

void waitFor(pid_t pid, int& status) {
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

RunResult killGroup(pid_t pid) {
  kill(-pid, SIGKILL);
  kill(pid, SIGKILL);  // in case it has left its group
  int status = 0;
  waitFor(pid, status);
  return {RunResult::End::timedOut, 0, false};
}

}  // namespace

WriteEnd writeAll(int fd, std::string_view bytes, std::optional<Clock::time_point> deadline) {
  SigpipeBlock block;
  size_t done = 0;
  while (done < bytes.size()) {
    pollfd writable{fd, POLLOUT, 0};
    const int ready = poll(&writable, 1, pollWait(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      if (passed(deadline)) return WriteEnd::timedOut;
      continue;
    }
    const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n <= 0) return WriteEnd::readerGone;
    done += static_cast<size_t>(n);
  }
  return WriteEnd::written;
}

RunResult runWithInput(const std::vector<std::string>& argv, std::string_view input,
                       const RunOptions& options) {
  if (argv.empty()) return {RunResult::End::notStarted, ENOENT, false};
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return {RunResult::End::notStarted, errno, false};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[0], STDIN_FILENO);
  if (options.quiet) {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  }
  // The helper starts with nothing blocked and SIGPIPE at its default, whatever this process
  // does with them.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, pipeOnly;
  sigemptyset(&none);
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &pipeOnly);
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (options.timeLimit) {
    posix_spawnattr_setpgroup(&attributes, 0);
    flags |= POSIX_SPAWN_SETPGROUP;
  }
  posix_spawnattr_setflags(&attributes, flags);

  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, args[0], &actions, &attributes, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(pipeFds[0]);
  if (rc != 0) {
    close(pipeFds[1]);
    return {RunResult::End::notStarted, rc, false};
  }

  std::optional<Clock::time_point> deadline;
  if (options.timeLimit) deadline = Clock::now() + *options.timeLimit;
  fcntl(pipeFds[1], F_SETFL, fcntl(pipeFds[1], F_GETFL) | O_NONBLOCK);
  const WriteEnd written = writeAll(pipeFds[1], input, deadline);
  close(pipeFds[1]);
  if (written == WriteEnd::timedOut) return killGroup(pid);
  const bool taken = written == WriteEnd::written;

  int status = 0;
  if (!deadline) {
    waitFor(pid, status);
    return ended(status, taken);
  }
  // A clipboard helper ends within milliseconds, so a short sleep between checks is cheap.
  for (;;) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) return ended(status, taken);
    if (done < 0 && errno != EINTR) return ended(status, taken);  // as waitFor would
    if (passed(deadline)) return killGroup(pid);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::optional<std::string> findProgram(std::string_view name, std::string_view searchPath) {
  if (name.empty() || name.find('/') != std::string_view::npos) return std::nullopt;
  for (size_t start = 0; start <= searchPath.size();) {
    size_t end = searchPath.find(':', start);
    if (end == std::string_view::npos) end = searchPath.size();
    const std::string_view directory = searchPath.substr(start, end - start);
    start = end + 1;
    if (directory.empty()) continue;
    std::string candidate(directory);
    if (candidate.back() != '/') candidate += '/';
    candidate += name;
    struct stat info;
    if (stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
        access(candidate.c_str(), X_OK) == 0)
      return candidate;
  }
  return std::nullopt;
}

}  // namespace lumora::subprocess
