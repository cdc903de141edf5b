// `lumora compose`: an editor for a mail client. The panel opens on the draft the client hands
// its editor; Insert writes the reply into the draft; then the real editor runs on it.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "CommandLine.h"
#include "Commands.h"
#include "DebugLines.h"
#include "Support.h"
#include "TerminalPanel.h"
#include "lumora/mailcontent/DraftText.h"
#include "lumora/panel/MailExtensionView.h"

namespace lumora::cli {
namespace {

// Insert: the draft as it was handed over, with the reply put in, written over the file whole
// or not at all.
class DraftFile final : public DraftInserter {
 public:
  DraftFile(std::filesystem::path path, std::string draft)
      : path_(std::move(path)), draft_(std::move(draft)) {}

  void insert(const std::string& reply) override {
    const std::string text = draftWithReply(draft_, reply);
    // A draft reached through a link is written where the link points, and the link stays.
    std::error_code ec;
    const std::filesystem::path target = std::filesystem::canonical(path_, ec);
    if (ec) fail(ec.value());
    struct stat info {};
    if (stat(target.c_str(), &info) != 0) fail(errno);
    std::string temporary =
        (target.parent_path() / ("." + target.filename().string() + ".lumora-XXXXXX")).string();
    const int fd = mkstemp(temporary.data());
    if (fd < 0) fail(errno);
    const auto abandon = [&](int error) {
      close(fd);
      unlink(temporary.c_str());
      fail(error);
    };
    for (size_t written = 0; written < text.size();) {
      const ssize_t n = write(fd, text.data() + written, text.size() - written);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) abandon(errno);
      written += static_cast<size_t>(n);
    }
    if (fchmod(fd, info.st_mode & 07777) != 0 || fsync(fd) != 0) abandon(errno);
    if (close(fd) != 0) {
      unlink(temporary.c_str());
      fail(errno);
    }
    if (rename(temporary.c_str(), target.c_str()) != 0) {
      const int error = errno;
      unlink(temporary.c_str());
      fail(error);
    }
  }

 private:
  [[noreturn]] void fail(int error) const {
    throw InsertError("The reply could not be written into " + path_.string() + ": " +
                      std::strerror(error) + ".");
  }

  std::filesystem::path path_;
  std::string draft_;
};

std::string chooseEditor(const std::optional<std::string>& given) {
  if (given) return *given;
  for (const char* name : {"LUMORA_EDITOR", "VISUAL", "EDITOR"}) {
    const char* value = std::getenv(name);
    if (value && *value && !runsLumora(value)) return value;
  }
  return "vi";
}

// Runs `command` through /bin/sh with `file` as its last argument, on this terminal; its exit
// status, 128 and the signal's number when a signal ended it.
int runEditor(const std::string& command, const std::string& file) {
  const std::string script = command + " \"$1\"";
  const pid_t pid = fork();
  if (pid < 0) {
    std::fprintf(stderr, "lumora: cannot run the editor: %s\n", std::strerror(errno));
    return kExitFailed;
  }
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", script.c_str(), "lumora-editor", file.c_str(),
          static_cast<char*>(nullptr));
    std::fprintf(stderr, "lumora: cannot run /bin/sh for the editor: %s\n", std::strerror(errno));
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return kExitFailed;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return kExitFailed;
}

}  // namespace

const Command& composeDeclaration() {
  static const Command command{
      .name = "compose",
      .summary = "the panel on a draft, as a mail client's editor: Insert, then the editor",
      .usage = R"(
lumora compose [--read quoted|message] [--editor CMD] [--no-mouse] [--debug] FILE
)",
      .help =
          {
              {.text = R"(
An editor for a mail client (neomutt's and aerc's editor): the panel opens on the draft
FILE, reading the message quoted in it; Insert writes the finished reply into FILE after
your own text and before the quoted message, and closes the panel; then the real editor
runs on FILE, and its exit status is this command's.
)"},
              {.column = 18,
               .entries = {{"FILE",
                            "the draft the mail client hands its editor; a header block in it (as\n"
                            "neomutt's edit_headers writes) is kept as it is"},
                           {"--read"},
                           {"--editor"},
                           {"--no-mouse"},
                           {"--debug"}}},
              {.text = R"(
In the panel, i on the result page is Insert; quitting without it leaves FILE exactly as
it was. FILE is written whole or not at all (a new file renamed over it, its mode kept).
)"},
              {.text = R"(
Exit status: the editor's; 1 when FILE cannot be read or the editor cannot be run,
2 usage error.
)"},
          },
      .options =
          {
              {.name = "--read",
               .choices = readingNames(),
               .help = "what the model reads of the draft (default here: message, the whole\n"
                       "quoted message and what you typed)"},
              {.name = "--editor",
               .value = "CMD",
               .needs = "a command",
               .takesEmpty = false,
               .help = "the editor to run after the panel (default: LUMORA_EDITOR, else VISUAL\n"
                       "or EDITOR unless they name lumora, else vi); run by /bin/sh with FILE\n"
                       "as its last argument"},
              {.name = "--no-mouse", .help = "leave the mouse to the terminal"},
              {.name = "--debug",
               .help = "debug lines on standard error, written when the panel closes"},
          },
      .rules = {.operands = {.name = "FILE",
                             .least = 1,
                             .most = 1,
                             .tooFew = "FILE is missing: the draft to open",
                             .tooMany = "only one FILE can be given"}},
      .run = composeCommand,
  };
  return command;
}

int composeCommand(const Args& args) {
  Parsed parsed;
  if (const auto end = readArguments(args, composeDeclaration(), parsed)) return *end;
  if (parsed.has("--debug")) frontend::sendDebugLinesToStandardError();
  const std::string& path = parsed.operands[0];

  std::optional<std::string> draft = readMessage(path);
  if (!draft) return kExitFailed;
  DraftFile file(path, *draft);
  // The panel's own failure (no terminal, say) leaves the draft to the editor: the user is
  // never kept from writing the mail.
  runTerminalPanel({.message = std::move(draft),
                    .draft = true,
                    .reading = parsed.value("--read").value_or("message"),
                    .mouse = !parsed.has("--no-mouse"),
                    .inserter = &file});
  return runEditor(chooseEditor(parsed.value("--editor")), path);
}

}  // namespace lumora::cli
