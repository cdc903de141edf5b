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

// What each program is given, one argument a line.
const std::map<std::string, std::string> kArguments = {
    {"wl-copy", "--type\ntext/plain;charset=utf-8\n"},
    {"xclip", "-selection\nclipboard\n"},
    {"xsel", "--clipboard\n--input\n"},
};

enum class Helper { works, fails, hangs };

class SystemPasteboardTest : public ::testing::Test {
 protected:
  SystemPasteboardTest() { std::filesystem::create_directory(dir_ / "bin"); }

  // A stand-in helper on the test's PATH. One that works records its arguments and its input
  // under its own name; one that fails reads its input and exits 1; one that hangs sleeps.
  void install(const std::string& name, Helper helper) {
    const std::string record = (dir_ / name).string();
    std::ofstream script(dir_ / "bin" / name);
    script << "#!/bin/sh\n";
    switch (helper) {
      case Helper::works:
        script << "printf '%s\\n' \"$@\" > '" << record << ".args'\ncat > '" << record
               << ".in'\n";
        break;
      case Helper::fails:
        script << "cat > /dev/null\nexit 1\n";
        break;
      case Helper::hangs:
        script << "sleep 30\n";
        break;
    }
    script.close();
    chmod((dir_ / "bin" / name).c_str(), 0755);
  }
  std::string received(const std::string& name) const {
    return std::filesystem::exists(dir_ / (name + ".in")) ? testing::readFile(dir_ / (name + ".in"))
                                                         : "(not run)";
  }
  std::string argsOf(const std::string& name) const {
    return testing::readFile(dir_ / (name + ".args"));
  }

  // `environment` is the whole environment the pasteboard sees; PATH is the stand-ins' alone.
  SystemPasteboard::Options options(std::map<std::string, std::string> environment,
                                    int terminal) const {
    environment.emplace("PATH", (dir_ / "bin").string());
    SystemPasteboard::Options o;
    o.environment = [environment](const std::string& name) -> std::optional<std::string> {
      if (auto it = environment.find(name); it != environment.end()) return it->second;
      return std::nullopt;
    };
    o.terminal = terminal;
    o.timeLimit = 10s;
    return o;
  }
  // The file that stands for the terminal, open for writing.
  int terminalFile() {
    if (terminal_ >= 0) close(terminal_);
    terminal_ = open((dir_ / "tty").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    return terminal_;
  }
  std::string terminalBytes() const { return testing::readFile(dir_ / "tty"); }

  ~SystemPasteboardTest() override {
    if (terminal_ >= 0) close(terminal_);
  }

  testing::TempDir dir_;
  int terminal_ = -1;
};

TEST_F(SystemPasteboardTest, TheFirstWayThatWorksGetsTheText) {
  struct Case {
    const char* name;
    std::map<std::string, std::string> environment;
    std::map<std::string, Helper> helpers;  // the rest are not installed
    std::string setting;                    // "clipboardCommand"
    std::string used;                       // the helper that must hold the text, or "tty"
    std::string tty;                        // what the terminal must receive
  };
  const std::string command = "cat > '" + (dir_ / "command.in").string() + "'";
  const std::string setting = "cat > '" + (dir_ / "setting.in").string() + "'";
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
       with({{"LUMORA_CLIPBOARD_COMMAND", "cat >/dev/null; exit 3"}}), allWork, "", "wl-copy",
       ""},
      {"a missing command gives way to wl-copy",
       with({{"LUMORA_CLIPBOARD_COMMAND", "no-such-clipboard-program"}}), allWork, "",
       "wl-copy", ""},
      {"Wayland without wl-copy: xclip", everything,
       {{"xclip", Helper::works}, {"xsel", Helper::works}}, "", "xclip", ""},
      {"a failing wl-copy gives way to xclip", everything,
       {{"wl-copy", Helper::fails}, {"xclip", Helper::works}}, "", "xclip", ""},
      {"a failing xclip gives way to xsel", {{"DISPLAY", ":0"}},
       {{"xclip", Helper::fails}, {"xsel", Helper::works}}, "", "xsel", ""},
      {"an empty WAYLAND_DISPLAY is no Wayland session", {{"WAYLAND_DISPLAY", ""}, {"DISPLAY", ":1"}},
       allWork, "", "xclip", ""},
      {"no graphical session: OSC 52", {}, allWork, "", "tty", kOsc52},
      {"under tmux: OSC 52 wrapped for tmux", {{"TMUX", "/tmp/tmux-0/default,1,0"}}, allWork, "",
       "tty", kOsc52Tmux},
      {"every X helper failing: OSC 52", {{"DISPLAY", ":0"}},
       {{"xclip", Helper::fails}, {"xsel", Helper::fails}}, "", "tty", kOsc52},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(dir_ / "bin");
    std::filesystem::create_directory(dir_ / "bin");
    for (const char* name : {"wl-copy", "xclip", "xsel", "command", "setting"})
      std::filesystem::remove(dir_ / (std::string(name) + ".in"));
    for (const auto& [name, helper] : c.helpers) install(name, helper);

    SystemPasteboard::Options o = options(c.environment, terminalFile());
    o.configuredCommand = [&] { return c.setting; };
    SystemPasteboard(o).setString(kText);

    for (const char* name : {"command", "setting", "wl-copy", "xclip", "xsel"}) {
      const bool used = c.used == name;
      EXPECT_EQ(received(name), used ? kText : "(not run)") << name;
    }
    EXPECT_EQ(terminalBytes(), c.tty);
    if (auto it = kArguments.find(c.used); it != kArguments.end()) {
      EXPECT_EQ(argsOf(c.used), it->second);
    }
  }
}

TEST_F(SystemPasteboardTest, AHungHelperIsKilledAndTheNextWayTried) {
  install("wl-copy", Helper::hangs);
  install("xclip", Helper::works);
  SystemPasteboard::Options o = options({{"WAYLAND_DISPLAY", "w"}, {"DISPLAY", ":0"}},
                                        SystemPasteboard::kNoTerminal);
  o.timeLimit = 300ms;
  SystemPasteboard(o).setString(kText);
  EXPECT_EQ(received("xclip"), kText);
}

TEST_F(SystemPasteboardTest, ALongReplyReachesTheHelperWhole) {
  install("wl-copy", Helper::works);
  std::string text;
  for (int i = 0; text.size() < 1'000'000; ++i) text += "line " + std::to_string(i) + " ü\n";
  SystemPasteboard(options({{"WAYLAND_DISPLAY", "w"}}, SystemPasteboard::kNoTerminal))
      .setString(text);
  EXPECT_EQ(received("wl-copy"), text);
}

TEST_F(SystemPasteboardTest, WhenNothingWorksTheErrorSaysWhatWasTriedAndWhatToDo) {
  struct Case {
    std::map<std::string, std::string> environment;
    std::map<std::string, Helper> helpers;
    std::string tried;
  };
  const Case cases[] = {
      {{}, {}, "there is no graphical session (neither WAYLAND_DISPLAY nor DISPLAY is set); "
               "there is no terminal for OSC 52"},
      {{{"LUMORA_CLIPBOARD_COMMAND", "exit 4"}, {"WAYLAND_DISPLAY", "w"}, {"DISPLAY", ":0"}},
       {{"xclip", Helper::fails}},
       "the clipboard command failed (exit status 4); wl-copy is not installed; xclip failed "
       "(exit status 1); xsel is not installed; there is no terminal for OSC 52"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.tried);
    std::filesystem::remove_all(dir_ / "bin");
    std::filesystem::create_directory(dir_ / "bin");
    for (const auto& [name, helper] : c.helpers) install(name, helper);
    try {
      SystemPasteboard(options(c.environment, SystemPasteboard::kNoTerminal)).setString(kText);
      ADD_FAILURE() << "copied";
    } catch (const PasteboardError& e) {
      EXPECT_EQ(std::string(e.what()),
                "Could not copy to the clipboard: " + c.tried +
                    ". Install wl-clipboard (Wayland) or xclip or xsel (X11), use a terminal "
                    "that supports OSC 52, or set LUMORA_CLIPBOARD_COMMAND or the setting "
                    "\"clipboardCommand\" to a command that takes the text on its standard "
                    "input.");
    }
  }
}

TEST_F(SystemPasteboardTest, ATerminalThatIsGoneFailsWithoutKillingTheProcess) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);  // nobody reads: a write raises SIGPIPE unless it is kept from this process
  EXPECT_THROW(SystemPasteboard(options({}, fds[1])).setString(kText), PasteboardError);
  close(fds[1]);
}

TEST_F(SystemPasteboardTest, HelpersThatStopReadingAndProgramsOnThePath) {
  // A helper that exits at once has not taken a reply larger than the pipe holds.
  const std::string big(1 << 20, 'x');
  auto r = subprocess::runWithInput({"/bin/sh", "-c", "exit 0"}, big);
  EXPECT_EQ(r.end, subprocess::RunResult::End::exited);
  EXPECT_FALSE(r.inputTaken);
  EXPECT_FALSE(r.succeeded());
  r = subprocess::runWithInput({(dir_ / "missing").string()}, "x");
  EXPECT_EQ(r.end, subprocess::RunResult::End::notStarted);

  // Only executable regular files count, and an empty entry is not the current directory.
  install("tool", Helper::works);
  std::filesystem::create_directories(dir_ / "dir" / "tool");
  std::filesystem::create_directories(dir_ / "noexec");
  std::ofstream(dir_ / "noexec" / "tool") << "#!/bin/sh\n";
  const std::string bin = (dir_ / "bin").string();
  const std::string candidates = "::" + (dir_ / "dir").string() + ":" +
                                 (dir_ / "noexec").string() + ":" + bin + "/";
  EXPECT_EQ(subprocess::findProgram("tool", candidates), bin + "/tool");
  EXPECT_EQ(subprocess::findProgram("tool", ""), std::nullopt);
  EXPECT_EQ(subprocess::findProgram("bin/tool", dir_.path().string()), std::nullopt);
}

}  // namespace
}  // namespace lumora
