// `lumora panel`: the compose assistant as a full-screen terminal panel. The panel's state and
// operations are the library's; this command runs the main executor and the terminal together
// on one thread, and the terminal layer draws the panel's description.
#include <langinfo.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>

#include "Clipboard.h"
#include "CommandLine.h"
#include "Commands.h"
#include "DebugLines.h"
#include "Support.h"
#include "TerminalPanel.h"
#include "lumora/chat/Errors.h"
#include "lumora/panel/SessionHandlers.h"
#include "lumora/platform/Debug.h"
#include "lumora/store/Features.h"
#include "terminal/PanelScreen.h"
#include "terminal/Terminal.h"

namespace lumora::cli {
namespace {

using namespace std::chrono_literals;
using terminal::PanelScreen;
using terminal::Terminal;

// How long the screen waits between two drawings at the least, however fast the reply comes.
constexpr auto kFrameInterval = 30ms;
// How long the loop sleeps at the most between two looks at the executor's work.
constexpr auto kIdleWait = 50ms;

volatile std::sig_atomic_t gSignalled = 0;

void noteSignal(int) { gSignalled = 1; }

// SIGINT, SIGTERM and SIGHUP end the panel through its loop, so that the terminal is given
// back. Installed before the terminal library starts, which then leaves them alone.
void watchSignals() {
  struct sigaction action {};
  action.sa_handler = noteSignal;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

// The limits of the compose session in the debug output, whichever way the panel ends.
class SessionMarks {
 public:
  explicit SessionMarks(const ComposeSession& session) : session_(session) {
    handler_.mailComposeSessionDidBegin(session_);
  }
  ~SessionMarks() { handler_.mailComposeSessionDidEnd(session_); }

 private:
  const ComposeSession& session_;
  ComposeSessionHandler handler_ = MailExtension().handlerForComposeSession(session_);
};

// Debug lines written while the screen is up would land in the middle of it when standard
// error is the terminal: then they wait, and go out once the screen is gone.
class HeldDebugLines {
 public:
  HeldDebugLines() {
    if (!debug::enabled() || isatty(STDERR_FILENO) != 1) return;
    held_ = true;
    debug::setSink([this](std::string_view line) {
      std::lock_guard lock(mutex_);
      if (lines_.size() < kMostLines) lines_.emplace_back(line);
    });
  }
  ~HeldDebugLines() { release(); }
  void release() {
    if (!held_) return;
    held_ = false;
    debug::setSink(debug::stderrSink());
    std::lock_guard lock(mutex_);
    for (const std::string& line : lines_) std::fprintf(stderr, "%s\n", line.c_str());
    lines_.clear();
  }

 private:
  static constexpr size_t kMostLines = 10'000;
  bool held_ = false;
  std::mutex mutex_;
  std::deque<std::string> lines_;
};

// Wide characters need a UTF-8 character type; one that is not is replaced for this process.
void useUtf8Locale() {
  std::setlocale(LC_ALL, "");
  const char* codeset = nl_langinfo(CODESET);
  if (!codeset || std::strcmp(codeset, "UTF-8") != 0) std::setlocale(LC_CTYPE, "C.UTF-8");
}

// Runs the executor and the terminal until the user leaves; returns the exit status. Each
// drawing holds `drawing`, which a copy's OSC 52 sequence waits for.
int runPanel(MainExecutor& executor, Terminal& terminal, PanelScreen& screen, bool& changed,
             std::mutex& drawing, const std::function<bool()>& done) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point drawn{};
  while (true) {
    executor.drain();
    if (gSignalled) return kExitInterrupted;
    if (done && done()) return kExitOk;
    const Clock::time_point now = Clock::now();
    const std::optional<Clock::time_point> due = screen.nextChange();
    if (due && now >= *due) changed = true;
    // Drawings are spaced: a fast reply is shown in steps, not chunk by chunk.
    if (changed && now - drawn >= kFrameInterval) {
      const std::lock_guard lock(drawing);
      terminal.begin();
      screen.draw(terminal, now);
      terminal.finish();
      drawn = now;
      changed = false;
    }
    Clock::duration wait = kIdleWait;
    if (changed) wait = std::min(wait, drawn + kFrameInterval - now);
    if (const auto next = screen.nextChange()) wait = std::min(wait, *next - now);
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
    pollfd input{terminal.inputDescriptor(), POLLIN, 0};
    poll(&input, 1, static_cast<int>(std::max<long>(0, ms)));
    if (input.revents & (POLLHUP | POLLERR | POLLNVAL)) return kExitInterrupted;
    while (std::optional<terminal::Key> key = terminal.readKey()) {
      changed = true;
      switch (screen.handle(*key)) {
        case PanelScreen::Outcome::stay: break;
        case PanelScreen::Outcome::quit: screen.commitEdits(); return kExitOk;
        case PanelScreen::Outcome::interrupt: screen.commitEdits(); return kExitInterrupted;
      }
    }
    screen.commitEdits();
  }
}

}  // namespace

int runTerminalPanel(TerminalPanelRun run) {
  useUtf8Locale();
  watchSignals();
  try {
    MainExecutor executor;
    const SimpleComposeSession session =
        run.message ? SimpleComposeSession(std::move(run.message), run.draft)
                    : SimpleComposeSession();
    std::mutex drawing;
    PanelPasteboard clipboard = makePasteboard(drawing);
    Features& features = Features::shared(&executor);
    SessionMarks marks(session);
    {
      HeldDebugLines held;
      std::unique_ptr<Terminal> terminal = Terminal::open(run.mouse);
      MailExtensionView::Dependencies deps =
          panelDependencies(executor, session, defaultTransport(), *clipboard.pasteboard);
      if (run.reading)
        deps.overrides[std::string(keyOf(MailExtensionView::kReadingKey))] = *run.reading;
      deps.inserter = run.inserter;
      auto panel = MailExtensionView::make(std::move(deps));
      PanelScreen screen(*panel, {.inChina = [&features] { return features.inChina(); },
                                  .copyNote = clipboard.note,
                                  .language = userLanguage()});
      bool changed = true;
      panel->setObserver([&changed] { changed = true; });
      panel->panelDidAppear();
      // With a draft to write into, the panel's work is done once the reply is in it.
      const auto done = [&panel] { return panel->insertions() > 0; };
      const int status = runPanel(executor, *terminal, screen, changed, drawing,
                                  run.inserter ? std::function<bool()>(done) : nullptr);
      // A run still going is stopped here, and its worker waited for, before the terminal
      // is given back.
      panel.reset();
      executor.drain();
      return status;
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumora: %s\n", describeFailure(e).c_str());
    return kExitFailed;
  }
}

const Command& panelDeclaration() {
  static const Command command{
      .name = "panel",
      .summary = "the compose assistant as a full-screen terminal panel",
      .usage = R"(
lumora panel [MESSAGE] [--read quoted|message] [--no-mouse] [--debug]
)",
      .help =
          {
              {.text = R"(
The compose assistant as a full-screen panel in this terminal: write the instruction,
pick a conversation and a model, Generate, and copy the reply.
)"},
              {.column = 14,
               .entries =
                   {{"MESSAGE",
                     "the raw message being answered (a file, or - for standard input);\n"
                     "without it, standard input when that is not a terminal and not empty,\n"
                     "else a new mail"},
                    {"--read"},
                    {"--no-mouse"},
                    {"--debug"}}},
              {.text = R"(
The keyboard is read from the terminal (/dev/tty), so a mail client can pipe the
message in.
)"},
              {.text = R"(
Input page:
  Tab, Shift-Tab   next or previous field: instruction, conversation, model, Generate
  Enter           in the instruction: a new line; on a picker: open it; on Generate: run
  typing          on a picker: open it filtered; in an open picker: filter it
  Up, Down, Enter  in an open picker: move and choose; Esc closes it
  Ctrl-G, F5       Generate
  Ctrl-R           switch what the model reads: the quoted passages or the whole
                   message (the line above the pickers says which; remembered in
                   mailReading unless --read was given)
  Ctrl-A, Ctrl-E, Ctrl-K, Ctrl-U, Ctrl-W   line start, line end, delete to end, delete
                   to start, delete word
Result page:
  s Stop (while writing)   r Regenerate   c Copy   b or Esc Back
  i Insert the finished reply into the draft (under lumora compose)
  Up, Down, PgUp, PgDn, Home, End, Space   scroll
Anywhere: Ctrl-Q quits, stopping a run (q too, on the result page and on Generate);
Ctrl-C quits with status 130. The mouse can click controls and scroll.
)"},
              {.text = R"(
Copy puts the reply on the clipboard by the first way that works: the command in
LUMORA_CLIPBOARD_COMMAND or the setting clipboardCommand (the reply on its standard
input), wl-copy, xclip or xsel in a graphical session, tmux (load-buffer -w) under tmux,
else the terminal's OSC 52 sequence. "Copied" means a program or tmux took it; "Sent to
the terminal's clipboard" means the sequence went out, which the terminal does not
confirm. When nothing worked, the error line says what to install or set.
)"},
              {.text = R"(
Exit status: 0 quit, 1 failed (reason on standard error), 2 usage error, 130 Ctrl-C,
SIGINT, SIGTERM or SIGHUP.
)"},
          },
      .options =
          {
              {.name = "--read",
               .choices = readingNames(),
               .help = "what the model reads of MESSAGE, for this run: its quoted passages, or\n"
                       "the whole message (default: the setting mailReading, else quoted)"},
              {.name = "--no-mouse",
               .help = "leave the mouse to the terminal (for selecting text)"},
              {.name = "--debug",
               .help = "debug lines on standard error, written when the panel closes if standard\n"
                       "error is the terminal (also LUMORA_DEBUG=1)"},
          },
      .rules = {.operands = optionalMessage()},
      .run = panelCommand,
  };
  return command;
}

int panelCommand(const Args& args) {
  Parsed parsed;
  if (const auto end = readArguments(args, panelDeclaration(), parsed)) return *end;
  if (parsed.has("--debug")) frontend::sendDebugLinesToStandardError();
  const std::optional<std::string> message =
      parsed.operands.empty() ? std::nullopt : std::optional(parsed.operands[0]);

  std::optional<std::string> raw;
  if (message || isatty(STDIN_FILENO) != 1) {
    auto bytes = readMessage(message.value_or("-"));
    if (!bytes) return kExitFailed;
    // Nothing on a standard input that was not asked for (/dev/null from a launcher) is a new
    // mail, not an empty message.
    if (message || !bytes->empty()) raw = std::move(*bytes);
  }
  return runTerminalPanel({.message = std::move(raw),
                           .reading = parsed.value("--read"),
                           .mouse = !parsed.has("--no-mouse")});
}

}  // namespace lumora::cli
