// Copy's way to the clipboard, driven through every branch: stand-in wl-copy, xclip and xsel
// scripts on a PATH of their own that record what they receive, and a file for the terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>

#include "lumora/platform/Errors.h"
#include "lumora/platform/Subprocess.h"
#include "lumora/platform/SystemPasteboard.h"
#include "support/Fixtures.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;

const std::string kText = "Grüße, 你好\n";
const std::string kOsc52 = "\x1b]52;c;R3LDvMOfZSwg5L2g5aW9Cg==\x07";
const std::string kOsc52Tmux = "\x1bPtmux;\x1b\x1b]52;c;R3LDvMOfZSwg5L2g5aW9Cg==\x07\x1b\\";

enum class Helper { works, fails, hangs };

class SystemPasteboardTest : public ::testing::Test {
 protected:
  // Puts stand-ins on a PATH of their own. One that works writes its arguments, one a line,
  // then its input to NAME.got; one that fails reads its input and exits 1; one that hangs
  // sleeps without reading.
  void install(const std::map<std::string, Helper>& helpers) {
    std::filesystem::remove_all(bin());
    std::filesystem::create_directory(bin());
    const char* bodies[] = {"{ printf '%s\\n' \"$@\"; cat; } > \"$0.got\"",
                            "cat > /dev/null; exit 1", "sleep 30"};
    for (const auto& [name, helper] : helpers) {
      std::ofstream(bin() / name) << "#!/bin/sh\n" << bodies[static_cast<int>(helper)] << "\n";
      chmod((bin() / name).c_str(), 0755);
    }
  }
  std::filesystem::path bin() const { return dir_ / "bin"; }
  std::string received(const std::string& name) const {
    const auto file = bin() / (name + ".got");
    return std::filesystem::exists(file) ? testing::readFile(file) : "(not run)";
  }

  // `environment` is all the pasteboard sees; its PATH holds the stand-ins alone.
  SystemPasteboard::Options options(std::map<std::string, std::string> environment,
                                    int terminal) const {
    environment.emplace("PATH", bin().string());
    SystemPasteboard::Options o;
    o.environment = [environment](const std::string& name) -> std::optional<std::string> {
      if (auto it = environment.find(name); it != environment.end()) return it->second;
      return std::nullopt;
    };
    o.terminal = terminal;
    o.timeLimit = 10s;
    return o;
  }

  testing::TempDir dir_;
};

TEST_F(SystemPasteboardTest, TheFirstWayThatWorksGetsTheText) {
  struct Case {
    const char* name;
    std::map<std::string, std::string> environment;
    std::map<std::string, Helper> helpers;  // the rest are not installed
    std::string setting;                    // "clipboardCommand"
    std::string used;                       // the one that must hold the text, or "tty"
    std::string tty;                        // what the terminal must receive
  };
  const std::string command = "cat > '" + (bin() / "command.got").string() + "'";
  const std::string setting = "cat > '" + (bin() / "setting.got").string() + "'";
  const std::map<std::string, std::string> everything = {
      {"WAYLAND_DISPLAY", "wayland-0"}, {"DISPLAY", ":0"}, {"TMUX", "/tmp/tmux-0/default,1,0"}};
  const auto with = [&](std::map<std::string, std::string> extra) {
    extra.insert(everything.begin(), everything.end());
    return extra;
  };
  const std::map<std::string, Helper> allWork = {
      {"wl-copy", Helper::works}, {"xclip", Helper::works}, {"xsel", Helper::works}};
  const Case cases[] = {
      {"the variable's command before everything", with({{"LUMORA_CLIPBOARD_COMMAND", command}}),
       allWork, setting, "command", ""},
      {"the setting's command when the variable is unset", everything, allWork, setting,
       "setting", ""},
      {"an empty variable leaves the setting in force", with({{"LUMORA_CLIPBOARD_COMMAND", ""}}),
       allWork, setting, "setting", ""},
      {"a failing command gives way to wl-copy",
       with({{"LUMORA_CLIPBOARD_COMMAND", "no-such-clipboard-program"}}), allWork, "", "wl-copy",
       ""},
      {"Wayland without wl-copy: xclip", everything,
       {{"xclip", Helper::works}, {"xsel", Helper::works}}, "", "xclip", ""},
      {"a failing wl-copy gives way to xclip", everything,
       {{"wl-copy", Helper::fails}, {"xclip", Helper::works}}, "", "xclip", ""},
      {"a failing xclip gives way to xsel", {{"DISPLAY", ":0"}},
       {{"xclip", Helper::fails}, {"xsel", Helper::works}}, "", "xsel", ""},
      {"an empty WAYLAND_DISPLAY is no Wayland session",
       {{"WAYLAND_DISPLAY", ""}, {"DISPLAY", ":1"}}, allWork, "", "xclip", ""},
      {"no graphical session: OSC 52", {}, allWork, "", "tty", kOsc52},
      {"under tmux: tmux's own buffer", {{"TMUX", "/tmp/tmux-0/default,1,0"}},
       {{"tmux", Helper::works}}, "", "tmux", ""},
      {"under a tmux that cannot: OSC 52 wrapped for tmux", {{"TMUX", "/tmp/tmux-0/default,1,0"}},
       {{"tmux", Helper::fails}}, "", "tty", kOsc52Tmux},
      {"a graphical session before tmux", everything, allWork, "", "wl-copy", ""},
  };
  // What each program is given before the text, one argument a line.
  const std::map<std::string, std::string> arguments = {
      {"wl-copy", "--type\ntext/plain;charset=utf-8\n"},
      {"xclip", "-selection\nclipboard\n"},
      {"xsel", "--clipboard\n--input\n"},
      {"tmux", "load-buffer\n-w\n-\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    install(c.helpers);
    const auto tty = dir_ / "tty";
    const int terminal = open(tty.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    SystemPasteboard::Options o = options(c.environment, terminal);
    o.configuredCommand = [&] { return c.setting; };
    SystemPasteboard pasteboard(o);
    pasteboard.setString(kText);
    close(terminal);
    // Only a program that took the text is "Copied"; a sequence sent to the terminal is not
    // known to have arrived.
    EXPECT_EQ(pasteboard.lastDelivery(), c.used == "tty" ? SystemPasteboard::Delivery::terminal
                                                         : SystemPasteboard::Delivery::program);

    for (const char* name : {"command", "setting", "wl-copy", "xclip", "xsel", "tmux"}) {
      const auto given = arguments.find(name);
      const std::string expected = (given == arguments.end() ? "" : given->second) + kText;
      EXPECT_EQ(received(name), c.used == name ? expected : "(not run)") << name;
    }
    EXPECT_EQ(testing::readFile(tty), c.tty);
  }
}

TEST_F(SystemPasteboardTest, AHungHelperIsKilledAndALongReplyReachesTheNextWhole) {
  // The hung helper reads nothing, so the write of a reply larger than a pipe holds is what
  // the time limit has to end.
  install({{"wl-copy", Helper::hangs}, {"xclip", Helper::works}});
  std::string text;
  for (int i = 0; text.size() < 1'000'000; ++i) text += "line " + std::to_string(i) + " ü\n";
  SystemPasteboard::Options o =
      options({{"WAYLAND_DISPLAY", "w"}, {"DISPLAY", ":0"}}, SystemPasteboard::kNoTerminal);
  o.timeLimit = 300ms;
  SystemPasteboard(o).setString(text);
  EXPECT_EQ(received("xclip"), "-selection\nclipboard\n" + text);
}

TEST_F(SystemPasteboardTest, WhenNothingWorksTheErrorSaysWhatWasTriedAndWhatToDo) {
  int gone[2];  // a terminal nobody reads: writing raises SIGPIPE unless it is kept from us
  ASSERT_EQ(pipe(gone), 0);
  close(gone[0]);
  struct Case {
    std::map<std::string, std::string> environment;
    std::map<std::string, Helper> helpers;
    int terminal;
    std::string tried;
    bool terminalTakesOsc52 = true;
  };
  // A terminal that would show the sequence as text is never written to.
  const auto tty = dir_ / "tty";
  const int shown = open(tty.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const std::string noSession =
      "there is no graphical session (neither WAYLAND_DISPLAY nor DISPLAY is set); ";
  const Case cases[] = {
      {{}, {}, SystemPasteboard::kNoTerminal, noSession + "there is no terminal for OSC 52"},
      {{}, {}, gone[1], noSession + "the terminal did not take the OSC 52 sequence"},
      {{{"LUMORA_CLIPBOARD_COMMAND", "exit 4"}, {"WAYLAND_DISPLAY", "w"}, {"DISPLAY", ":0"}},
       {{"xclip", Helper::fails}}, SystemPasteboard::kNoTerminal,
       "the clipboard command failed (exit status 4); wl-copy is not installed; xclip failed "
       "(exit status 1); xsel is not installed; there is no terminal for OSC 52"},
      {{{"TMUX", "/tmp/t,1,0"}}, {{"tmux", Helper::fails}}, shown,
       noSession + "tmux failed (exit status 1); this terminal shows OSC 52 as text instead of "
                   "taking it",
       false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.tried);
    install(c.helpers);
    try {
      SystemPasteboard::Options o = options(c.environment, c.terminal);
      o.terminalTakesOsc52 = c.terminalTakesOsc52;
      SystemPasteboard(o).setString(kText);
      ADD_FAILURE() << "copied";
    } catch (const PasteboardError& e) {
      const std::string text = e.what();
      EXPECT_NE(text.find(": " + c.tried + ". Install wl-clipboard"), std::string::npos) << text;
    }
  }
  close(gone[1]);
  close(shown);
  EXPECT_EQ(testing::readFile(tty), "");
}

TEST_F(SystemPasteboardTest, HelpersThatStopReadingAndProgramsOnThePath) {
  // A helper that exits at once has not taken a reply larger than the pipe holds.
  const std::string big(1 << 20, 'x');
  auto r = subprocess::runWithInput({"/bin/sh", "-c", "exit 0"}, big);
  EXPECT_EQ(r.end, subprocess::RunResult::End::exited);
  EXPECT_FALSE(r.inputTaken);
  r = subprocess::runWithInput({(dir_ / "missing").string()}, "x");
  EXPECT_EQ(r.end, subprocess::RunResult::End::notStarted);

  // Only executable files count, and an empty entry is not the current directory.
  install({{"tool", Helper::works}});
  std::filesystem::create_directories(dir_ / "dir" / "tool");
  EXPECT_EQ(subprocess::findProgram("tool", "::" + (dir_ / "dir").string() + ":" + bin().string()),
            (bin() / "tool").string());
  EXPECT_EQ(subprocess::findProgram("tool", ""), std::nullopt);
}

}  // namespace
}  // namespace lumora
