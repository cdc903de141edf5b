// `lumora`: dispatches to its subcommands.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "CommandLine.h"
#include "Commands.h"
#include "DebugLines.h"

namespace {

// A standard stream the caller closed is held open on a device, so that no file the command
// opens (a settings file, the store) takes its number and receives what was meant for the
// stream. Output goes to /dev/full, whose writes fail, so that a result written there is not
// reported as delivered. Returns whether standard output was closed.
bool holdClosedStreams() {
  bool outputClosed = false;
  for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    const int held = open(fd == STDOUT_FILENO ? "/dev/full" : "/dev/null",
                          fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);
    if (held >= 0 && held != fd) {
      dup2(held, fd);
      close(held);
    }
    if (fd == STDOUT_FILENO) outputClosed = true;
  }
  return outputClosed;
}

// The command's status, unless what it wrote on standard output did not all get there (a full
// disk, a closed stream, an error on close): a result lost is a failure, said on standard error.
int finishOutput(int status, bool outputClosed) {
  errno = 0;
  bool failed = std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
  int error = errno;
  if (std::fclose(stdout) != 0 && !failed) {
    failed = true;
    error = errno;
  }
  if (!failed) return status;
  std::fprintf(stderr, "lumora: cannot write the output: %s\n",
               outputClosed ? "standard output is closed" : std::strerror(error ? error : EIO));
  return status == lumora::cli::kExitOk ? lumora::cli::kExitFailed : status;
}

int run(int argc, char** argv) {
  using lumora::cli::programHelp;
  if (argc < 2) {
    std::fputs(programHelp().c_str(), stderr);
    return lumora::cli::kExitUsage;
  }
  const std::string name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    std::fputs(programHelp().c_str(), stdout);
    return lumora::cli::kExitOk;
  }
  if (name == "--version") {
    std::printf("lumora %s\n", LUMORA_VERSION);
    return lumora::cli::kExitOk;
  }
  // A command may also turn debug lines on with an option of its own.
  lumora::frontend::routeDebugLines();
  for (const lumora::cli::Command* c : lumora::cli::commands()) {
    if (name == c->name) return c->run(lumora::cli::Args(argv + 2, argv + argc));
  }
  std::fprintf(stderr, "lumora: unknown command '%s'\n", name.c_str());
  std::fputs(programHelp().c_str(), stderr);
  return lumora::cli::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  const bool outputClosed = holdClosedStreams();
  return finishOutput(run(argc, argv), outputClosed);
}
