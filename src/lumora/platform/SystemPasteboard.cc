#include "lumora/platform/SystemPasteboard.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "lumora/platform/Base64.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/Subprocess.h"

namespace lumora {
namespace {

// Where programs are looked for when PATH is unset: the system's own directories.
constexpr std::string_view kDefaultSearchPath = "/usr/local/bin:/usr/bin:/bin";

std::string duration(std::chrono::milliseconds limit) {
  if (limit.count() % 1000 == 0) return std::to_string(limit.count() / 1000) + " s";
  return std::to_string(limit.count()) + " ms";
}

// Why a helper did not put the text on the clipboard, after its name.
std::string whyNot(const subprocess::RunResult& run, std::chrono::milliseconds limit) {
  using End = subprocess::RunResult::End;
  switch (run.end) {
    case End::exited:
      if (run.code != 0) return "failed (exit status " + std::to_string(run.code) + ")";
      return "did not read the text";
    case End::signalled:
      return "was ended by signal " + std::to_string(run.code);
    case End::timedOut:
      return "did not finish within " + duration(limit);
    case End::notStarted:
      return std::string("could not be started (") + std::strerror(run.code) + ")";
  }
  return "failed";
}

std::string joined(const std::vector<std::string>& notes) {
  std::string out;
  for (const std::string& note : notes) out += (out.empty() ? "" : "; ") + note;
  return out;
}

}  // namespace

SystemPasteboard::SystemPasteboard(Options options) : options_(std::move(options)) {}

std::optional<std::string> SystemPasteboard::variable(const std::string& name) const {
  if (options_.environment) return options_.environment(name);
  const char* value = std::getenv(name.c_str());
  return value ? std::optional<std::string>(value) : std::nullopt;
}

bool SystemPasteboard::isSet(const std::string& name) const {
  const std::optional<std::string> value = variable(name);
  return value && !value->empty();
}

std::string SystemPasteboard::osc52(std::string_view text, bool tmux) {
  const std::string sequence = "\x1b]52;c;" + base64::encode(text) + "\x07";
  if (!tmux) return sequence;
  // tmux hands the body of a "tmux;" device control string to its own terminal, with every
  // escape in it doubled.
  std::string wrapped = "\x1bPtmux;";
  for (char c : sequence) {
    if (c == '\x1b') wrapped += c;
    wrapped += c;
  }
  return wrapped + "\x1b\\";
}

void SystemPasteboard::setString(const std::string& text) {
  std::vector<std::string> notes;  // why each way tried did not work
  const subprocess::RunOptions runOptions{options_.timeLimit, true};
  auto run = [&](const std::string& what, const std::vector<std::string>& argv) {
    const subprocess::RunResult result = subprocess::runWithInput(argv, text, runOptions);
    if (result.succeeded()) {
      debug::line({"[debug] copied with", what});
      lastDelivery_ = Delivery::program;
      return true;
    }
    notes.push_back(what + " " + whyNot(result, options_.timeLimit));
    return false;
  };
  auto program = [&](const std::string& name, std::vector<std::string> args) {
    const std::optional<std::string> path =
        subprocess::findProgram(name, variable("PATH").value_or(std::string(kDefaultSearchPath)));
    if (!path) {
      notes.push_back(name + " is not installed");
      return false;
    }
    args.insert(args.begin(), *path);
    return run(name, args);
  };

  std::string command = variable("LUMORA_CLIPBOARD_COMMAND").value_or("");
  if (command.empty() && options_.configuredCommand) command = options_.configuredCommand();
  if (!command.empty() && run("the clipboard command", {"/bin/sh", "-c", command})) return;

  const bool wayland = isSet("WAYLAND_DISPLAY");
  const bool x11 = isSet("DISPLAY");
  // The type is given so that wl-copy does not guess another one from the reply's words.
  if (wayland && program("wl-copy", {"--type", "text/plain;charset=utf-8"})) return;
  if (x11 && (program("xclip", {"-selection", "clipboard"}) ||
              program("xsel", {"--clipboard", "--input"})))
    return;
  if (!wayland && !x11)
    notes.push_back("there is no graphical session (neither WAYLAND_DISPLAY nor DISPLAY is set)");
  // tmux answers for its own buffer, and passes the text on to its terminal's clipboard as its
  // set-clipboard option says; an OSC 52 sequence written through it says nothing back.
  const bool tmux = isSet("TMUX");
  if (tmux && program("tmux", {"load-buffer", "-w", "-"})) return;
  // Why nothing worked, and what would.
  const auto failure = [&] {
    return PasteboardError(
        "Could not copy to the clipboard: " + joined(notes) +
        ". Install wl-clipboard (Wayland) or xclip or xsel (X11), " +
        (options_.terminalTakesOsc52 ? "use a terminal that supports OSC 52, " : "") +
        "or set LUMORA_CLIPBOARD_COMMAND or the setting \"clipboardCommand\" to a command that "
        "takes the text on its standard input.");
  };
  if (!options_.terminalTakesOsc52) {
    notes.push_back("this terminal shows OSC 52 as text instead of taking it");
    throw failure();
  }

  int terminal = options_.terminal;
  const bool ownTerminal = terminal == kControllingTerminal;
  if (ownTerminal) terminal = open("/dev/tty", O_WRONLY | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  if (terminal < 0) {
    notes.push_back("there is no terminal for OSC 52");
  } else {
    const std::string sequence = osc52(text, tmux);
    std::unique_lock<std::mutex> drawing;
    if (options_.terminalLock) drawing = std::unique_lock(*options_.terminalLock);
    const subprocess::WriteEnd written = subprocess::writeAll(
        terminal, sequence, std::chrono::steady_clock::now() + options_.timeLimit);
    if (drawing) drawing.unlock();
    if (ownTerminal) close(terminal);
    if (written == subprocess::WriteEnd::written) {
      debug::line({"[debug] copied with OSC 52"});
      lastDelivery_ = Delivery::terminal;
      return;
    }
    notes.push_back("the terminal did not take the OSC 52 sequence");
  }
  throw failure();
}

}  // namespace lumora
