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

#include "Commands.h"
#include "DebugLines.h"
#include "Support.h"
#include "TerminalPanel.h"
#include "lumora/mailcontent/DraftText.h"
#include "lumora/panel/MailExtensionView.h"

namespace lumora::cli {
namespace {

constexpr const char* kComposeHelp =
    "Usage: lumora compose [--read quoted|message] [--editor CMD] [--no-mouse] [--debug] FILE\n"
    "\n"
    "An editor for a mail client (neomutt's and aerc's editor): the panel opens on the draft\n"
    "FILE, reading the message quoted in it; Insert writes the finished reply into FILE after\n"
    "your own text and before the quoted message, and closes the panel; then the real editor\n"
    "runs on FILE, and its exit status is this command's.\n"
    "\n"
    "  FILE            the draft the mail client hands its editor; a header block in it (as\n"
    "                  neomutt's edit_headers writes) is kept as it is\n"
    "  --read quoted|message\n"
    "                  what the model reads of the draft (default here: message, the whole\n"
    "                  quoted message and what you typed)\n"
    "  --editor CMD    the editor to run after the panel (default: LUMORA_EDITOR, else VISUAL\n"
    "                  or EDITOR unless they name lumora, else vi); run by /bin/sh with FILE\n"
    "                  as its last argument\n"
    "  --no-mouse      leave the mouse to the terminal\n"
    "  --debug         debug lines on standard error, written when the panel closes\n"
    "\n"
    "In the panel, i on the result page is Insert; quitting without it leaves FILE exactly as\n"
    "it was. FILE is written whole or not at all (a new file renamed over it, its mode kept).\n"
    "\n"
    "Exit status: the editor's; 1 when FILE cannot be read or the editor cannot be run,\n"
    "2 usage error.\n";

struct Options {
  std::optional<std::string> file;
  std::optional<std::string> reading;
  std::optional<std::string> editor;
  bool mouse = true;
  bool debug = false;
};

int parse(const Args& args, Options& o) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    // "--name VALUE" or "--name=VALUE".
    const auto value = [&](std::string_view name, std::optional<std::string>& out) {
      if (a == name) {
        if (i + 1 >= args.size()) return false;
        out = args[++i];
        return true;
      }
      out = a.substr(name.size() + 1);
      return true;
    };
    const auto is = [&](std::string_view name) {
      return a == name || (a.starts_with(name) && a.size() > name.size() && a[name.size()] == '=');
    };
    if (a == "--help" || a == "-h") {
      std::fputs(kComposeHelp, stdout);
      return -1;
    } else if (is("--read")) {
      if (!value("--read", o.reading) || !MailExtensionView::readingNamed(*o.reading))
        return usageError("--read takes quoted or message", kComposeHelp);
    } else if (is("--editor")) {
      if (!value("--editor", o.editor) || o.editor->empty())
        return usageError("--editor needs a command", kComposeHelp);
    } else if (a == "--no-mouse") {
      o.mouse = false;
    } else if (a == "--debug") {
      o.debug = true;
    } else if (a.size() > 1 && a[0] == '-') {
      return usageError("unknown option '" + a + "'", kComposeHelp);
    } else if (!o.file) {
      o.file = a;
    } else {
      return usageError("only one FILE can be given", kComposeHelp);
    }
  }
  if (!o.file) return usageError("FILE is missing: the draft to open", kComposeHelp);
  return 0;
}

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

int composeCommand(const Args& args) {
  Options options;
  if (int status = parse(args, options); status != 0) return status < 0 ? kExitOk : status;
  if (options.debug) frontend::sendDebugLinesToStandardError();

  std::optional<std::string> draft = readMessage(*options.file);
  if (!draft) return kExitFailed;
  DraftFile file(*options.file, *draft);
  // The panel's own failure (no terminal, say) leaves the draft to the editor: the user is
  // never kept from writing the mail.
  runTerminalPanel({.message = std::move(draft),
                    .draft = true,
                    .reading = options.reading.value_or("message"),
                    .mouse = options.mouse,
                    .inserter = &file});
  return runEditor(chooseEditor(options.editor), *options.file);
}

}  // namespace lumora::cli
