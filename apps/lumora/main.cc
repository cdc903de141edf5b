// `lumora`: dispatches to its subcommands.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "Commands.h"
#include "DebugLines.h"

namespace {

struct Command {
  const char* name;
  const char* help;
  int (*run)(const lumora::cli::Args&);
};

constexpr Command kCommands[] = {
    {"reply", "write a reply to a message with the chosen model", lumora::cli::replyCommand},
    {"panel", "the compose assistant as a full-screen terminal panel", lumora::cli::panelCommand},
    {"compose", "the panel on a draft, as a mail client's editor: Insert, then the editor",
     lumora::cli::composeCommand},
    {"settings", "read and write the settings", lumora::cli::settingsCommand},
    {"conversations", "the stored presets of instruction and model",
     lumora::cli::conversationsCommand},
    {"teams", "the self-hosted team servers", lumora::cli::teamsCommand},
    {"models", "list the model catalogue", lumora::cli::modelsCommand},
    {"route", "show which service would answer a model, and why", lumora::cli::routeCommand},
    {"voices", "list the voices of the Azure speech service", lumora::cli::voicesCommand},
    {"check-recipients", "mark recipients that mail may not go to",
     lumora::cli::checkRecipientsCommand},
    {"headers", "print the extra header of outgoing mail", lumora::cli::headersCommand},
    {"colour", "print the colour of a message by its subject", lumora::cli::colourCommand},
    {"sendmail", "send a message through the real sendmail, with the rules applied",
     lumora::cli::sendmailCommand},
    {"integrate", "print the configuration lines for neomutt or aerc",
     lumora::cli::integrateCommand},
};

void usage(FILE* out) {
  std::fprintf(out,
               "Usage: lumora COMMAND [ARGS...]\n"
               "\n"
               "Lumora writes replies to e-mail with the language model of your choice.\n"
               "\n"
               "Commands:\n");
  int width = 0;
  for (const Command& c : kCommands) width = std::max(width, static_cast<int>(std::strlen(c.name)));
  for (const Command& c : kCommands) std::fprintf(out, "  %-*s  %s\n", width, c.name, c.help);
  std::fprintf(out,
               "\n"
               "Run 'lumora COMMAND --help' for a command's options.\n"
               "Options: --help, --version\n");
}

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
  if (argc < 2) {
    usage(stderr);
    return lumora::cli::kExitUsage;
  }
  const std::string name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    usage(stdout);
    return lumora::cli::kExitOk;
  }
  if (name == "--version") {
    std::printf("lumora %s\n", LUMORA_VERSION);
    return lumora::cli::kExitOk;
  }
  // A command may also turn debug lines on with an option of its own.
  lumora::frontend::routeDebugLines();
  for (const Command& c : kCommands) {
    if (name == c.name) return c.run(lumora::cli::Args(argv + 2, argv + argc));
  }
  std::fprintf(stderr, "lumora: unknown command '%s'\n", name.c_str());
  usage(stderr);
  return lumora::cli::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  const bool outputClosed = holdClosedStreams();
  return finishOutput(run(argc, argv), outputClosed);
}
