// `lumora panel` end to end: the real binary in an 80x24 tmux pane, typed at with send-keys and
// read back with capture-pane, against a loopback server.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "support/FakeTransport.h"
#include "support/Process.h"
#include "support/ScriptedServer.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;
using testing::ProcessResult;
using testing::Response;
using testing::ScriptedServer;
using testing::sseRecord;

constexpr const char* kKey = "sk-test-panel-abcdef987654";
constexpr auto kPatience = 20s;

std::string findProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string_view rest = path ? path : "/usr/bin:/bin";
  while (!rest.empty()) {
    const size_t colon = rest.find(':');
    const std::filesystem::path candidate =
        std::filesystem::path(rest.substr(0, colon)) / name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate.string();
    rest = colon == std::string_view::npos ? "" : rest.substr(colon + 1);
  }
  return {};
}

std::string quoted(const std::string& word) {
  std::string out = "'";
  for (char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string readAll(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A tmux server of the test's own, its socket in the test's directory, so that nothing of the
// user's is touched and nothing is left behind.
class Tmux {
 public:
  Tmux(std::string program, const std::filesystem::path& directory)
      : program_(std::move(program)), socket_((directory / "tmux.socket").string()) {}
  ~Tmux() { tmux({"kill-server"}); }

  ProcessResult start(const std::string& shellCommand) {
    return tmux({"new-session", "-d", "-x", "80", "-y", "24", "-s", "panel", shellCommand});
  }
  std::string screen() { return tmux({"capture-pane", "-p", "-t", "panel"}).out; }
  std::string screenWithColours() { return tmux({"capture-pane", "-e", "-p", "-t", "panel"}).out; }
  // Closes the pane's terminal under whatever runs in it.
  void close() { tmux({"kill-session", "-t", "panel"}); }
  void keys(std::vector<std::string> keys) {
    keys.insert(keys.begin(), {"send-keys", "-t", "panel"});
    tmux(keys);
  }
  void type(const std::string& text) { tmux({"send-keys", "-t", "panel", "-l", text}); }
  void resize(int columns, int rows) {
    tmux({"resize-window", "-t", "panel", "-x", std::to_string(columns), "-y",
          std::to_string(rows)});
  }

  // Polls the pane until `ok` holds; the last screen is kept for the failure message.
  bool waitFor(const std::function<bool(const std::string&)>& ok,
               std::chrono::milliseconds patience = kPatience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
      last_ = screen();
      if (ok(last_)) return true;
      std::this_thread::sleep_for(50ms);
    }
    return false;
  }
  bool waitFor(const std::string& text) {
    return waitFor([&](const std::string& s) { return s.find(text) != std::string::npos; });
  }
  const std::string& last() const { return last_; }

 private:
  ProcessResult tmux(std::vector<std::string> args) {
    args.insert(args.begin(), {program_, "-u", "-S", socket_, "-f", "/dev/null"});
    return testing::runProcess(args, {.setEnv = {{"TERM", "xterm-256color"}},
                                      .unsetEnv = {"TMUX"},
                                      .timeout = 10s});
  }

  std::string program_;
  std::string socket_;
  std::string last_;
};

bool has(const std::string& screen, std::string_view text) {
  return screen.find(text) != std::string::npos;
}

class PanelTerminalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tmuxProgram_ = findProgram("tmux");
    if (tmuxProgram_.empty()) GTEST_SKIP() << "tmux is not installed";
    ASSERT_EQ(lumora({"settings", "set", "apiKey", kKey}).status, 0);
  }

  ProcessResult lumora(std::vector<std::string> args) {
    args.insert(args.begin(), LUMORA_BINARY);
    return testing::runProcess(args, {.setEnv = environment(), .unsetEnv = {"LUMORA_DEBUG"}});
  }

  std::map<std::string, std::string> environment() const {
    return {{"XDG_CONFIG_HOME", (home_ / "config").string()},
            {"XDG_DATA_HOME", (home_ / "data").string()},
            {"LUMORA_OPENAI_BASE_URL", server_.baseUrl()},
            {"LUMORA_CLIPBOARD_COMMAND", "cat > " + quoted((home_ / "clipboard").string())},
            {"LUMORA_DEBUG", "1"},
            {"LANG", "C.UTF-8"}};
  }

  // The panel in the pane: `input` piped in, debug lines kept in a file, and the exit status
  // shown once it ends.
  void openPanel(Tmux& tmux, const std::string& input, const std::string& term = "") {
    std::string command = "cat " + quoted(input) + " | env";
    for (const auto& [name, value] : environment()) command += " " + name + "=" + quoted(value);
    if (!term.empty()) command += " TERM=" + term;
    command += ' ';
    command += quoted(LUMORA_BINARY) + " panel - 2>" + quoted((home_ / "debug").string()) +
               "; echo \"[exit $?]\"; sleep 60";
    ASSERT_EQ(tmux.start(command).status, 0);
  }

  std::string writeMessage() {
    const auto path = home_ / "message.eml";
    std::ofstream(path, std::ios::binary)
        << "From: Ann <ann@example.org>\r\n"
           "To: Bo <bo@example.net>\r\n"
           "Subject: Lunch on Friday\r\n"
           "MIME-Version: 1.0\r\n"
           "Content-Type: text/html; charset=utf-8\r\n"
           "Content-Transfer-Encoding: quoted-printable\r\n"
           "\r\n"
           "<html><body><p>Sure!</p><blockquote>Shall we have lunch on Friday?</blockquote>"
           "</body></html>\r\n";
    return path.string();
  }

  // The message of the mail client recipes: its subject names Mars, so that the colouring
  // rule has something to colour.
  std::string marsMessage() {
    std::string message = readAll(writeMessage());
    message.replace(message.find("Lunch on Friday"), 15, "Trip to Mars");
    return "Date: Mon, 23 Nov 2026 10:00:00 +0000\r\n" + message;
  }

  // A mail client in the pane, with the test's environment and `lumora` on its PATH. No debug
  // lines: the client gives the panel its own terminal, where they would be written at the end
  // and wait for a key.
  std::string mailClientCommand(const std::string& program) {
    std::string command = "env";
    for (const auto& [name, value] : environment())
      if (name != "LUMORA_DEBUG") command += " " + name + "=" + quoted(value);
    command += " EDITOR=true PATH=" +
               quoted(std::filesystem::path(LUMORA_BINARY).parent_path().string() +
                      ":/usr/bin:/bin");
    return command + " " + program + " 2>" + quoted((home_ / "debug").string()) +
           "; echo \"[exit $?]\"; sleep 60";
  }

  // In a panel a mail client opened on the Mars message: a reply is made, copied, and the
  // panel is closed.
  void replyAndCopy(Tmux& tmux) {
    server_.enqueue(Response::stream(sseRecord("Dear Ann, see you on Mars.", "stop") +
                                         "data: [DONE]\n\n",
                                     64));
    ASSERT_TRUE(tmux.waitFor("Instruction")) << tmux.last();
    tmux.keys({"C-g"});
    ASSERT_TRUE(tmux.waitFor("see you on Mars")) << tmux.last();
    tmux.keys({"c"});
    ASSERT_TRUE(tmux.waitFor("Copied")) << tmux.last();
    EXPECT_EQ(readAll(home_ / "clipboard"), "Dear Ann, see you on Mars.");
    ASSERT_EQ(server_.requests().size(), 1u);
    EXPECT_EQ(nlohmann::json::parse(server_.requests()[0].body)["messages"][1]["content"],
              "Shall we have lunch on Friday?");
    tmux.keys({"C-q"});
    ASSERT_TRUE(tmux.waitFor([](const std::string& s) { return !has(s, "Instruction"); }))
        << tmux.last();
  }

  testing::TempDir home_;
  ScriptedServer server_;
  std::string tmuxProgram_;
};

TEST_F(PanelTerminalTest, PickGenerateStopRegenerateCopyBack) {
  // The first answer streams slowly enough to be stopped; the second comes whole.
  Response slow;
  slow.framing = testing::Framing::kChunked;
  for (int i = 0; i < 60; ++i) slow.send(sseRecord("word" + std::to_string(i) + " ")).sleep(200ms);
  server_.enqueue(slow);
  const std::string reply = "Dear Ann, Friday works. 周五见! Best, Bo";
  server_.enqueue(Response::stream(sseRecord("Dear Ann, Friday works. ") +
                                       sseRecord("周五见! Best, Bo", "stop") + "data: [DONE]\n\n",
                                   24, testing::Framing::kChunked, 20ms));

  Tmux tmux(tmuxProgram_, home_.path());
  openPanel(tmux, writeMessage());
  ASSERT_TRUE(tmux.waitFor("Instruction")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "Generate")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "You're my assistant, please reply this email")) << tmux.last();

  // A new instruction, with wide characters.
  tmux.keys({"C-u"});
  tmux.type("Answer briefly, 请简短");
  ASSERT_TRUE(tmux.waitFor("Answer briefly, 请简短")) << tmux.last();

  // The model picker, filtered by typing.
  tmux.keys({"Tab", "Tab"});
  tmux.type("4o-mi");
  ASSERT_TRUE(tmux.waitFor("› 4o-mi")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "gpt-4o-mini")) << tmux.last();
  EXPECT_FALSE(has(tmux.last(), "claude")) << tmux.last();
  tmux.keys({"Enter"});
  ASSERT_TRUE(tmux.waitFor([](const std::string& s) {
    return !has(s, "› 4o-mi") && has(s, "[gpt-4o-mini");
  })) << tmux.last();

  // Generate, and stop while the reply streams in.
  tmux.keys({"F5"});
  ASSERT_TRUE(tmux.waitFor("word2")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "Writing...")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "Stop")) << tmux.last();
  tmux.keys({"s"});
  ASSERT_TRUE(tmux.waitFor("Regenerate")) << tmux.last();
  EXPECT_FALSE(has(tmux.last(), "Writing...")) << tmux.last();
  EXPECT_FALSE(has(tmux.last(), "word59")) << tmux.last();
  EXPECT_TRUE(server_.waitForClientDisconnect(5s).has_value());

  // Regenerate replaces the text.
  tmux.keys({"r"});
  ASSERT_TRUE(tmux.waitFor([&](const std::string& s) {
    return has(s, "周五见! Best, Bo") && has(s, "Regenerate");
  })) << tmux.last();
  EXPECT_FALSE(has(tmux.last(), "word0")) << tmux.last();

  // Copy through the clipboard command.
  tmux.keys({"c"});
  ASSERT_TRUE(tmux.waitFor("Copied")) << tmux.last();
  EXPECT_EQ(readAll(home_ / "clipboard"), reply);

  // Back to the input page, which kept its values.
  tmux.keys({"b"});
  ASSERT_TRUE(tmux.waitFor("Instruction")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "Answer briefly, 请简短")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "[gpt-4o-mini")) << tmux.last();

  tmux.keys({"C-q"});
  ASSERT_TRUE(tmux.waitFor("[exit 0]")) << tmux.last();
  EXPECT_FALSE(has(tmux.last(), "Generate")) << "the screen was given back: " << tmux.last();

  // What went out: the quoted passage under the typed instruction, to the picked model.
  const auto requests = server_.requests();
  ASSERT_EQ(requests.size(), 2u);
  for (const auto& request : requests) {
    const auto body = nlohmann::json::parse(request.body);
    EXPECT_EQ(body["model"], "gpt-4o-mini");
    EXPECT_EQ(body["messages"][0]["role"], "system");
    EXPECT_EQ(body["messages"][0]["content"], "Answer briefly, 请简短");
    EXPECT_EQ(body["messages"][1]["content"], "Shall we have lunch on Friday?");
  }
  EXPECT_EQ(lumora({"settings", "get", "mailSelectedModel"}).out, "gpt-4o-mini\n");
  EXPECT_EQ(lumora({"settings", "get", "mailDefaultPrompt"}).out, "Answer briefly, 请简短\n");
  const std::string debug = readAll(home_ / "debug");
  const size_t begin = debug.find("[debug] mail session begin");
  EXPECT_NE(begin, std::string::npos) << debug;
  EXPECT_NE(debug.find("[debug] mail session end", begin), std::string::npos) << debug;
  EXPECT_FALSE(has(debug, kKey)) << debug;
}

// A terminal type without cursor addressing still gets the panel, in plain ANSI; a failure
// shows above the page, and Ctrl-C leaves with the interrupted status.
// The line that says what the model reads, Ctrl-R to read the whole message instead, and the
// same line from `lumora reply` when its standard error is the terminal.
TEST_F(PanelTerminalTest, TheReadingLineAndItsSwitch) {
  const auto path = home_ / "mars.eml";
  std::ofstream(path, std::ios::binary) << marsMessage();
  server_.enqueue(Response::stream(sseRecord("Friday it is.", "stop") + "data: [DONE]\n\n", 64));

  Tmux tmux(tmuxProgram_, home_.path());
  openPanel(tmux, path.string());
  ASSERT_TRUE(tmux.waitFor("The model reads: 1 quoted passage (30 characters)")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "Ctrl-R Read the whole message")) << tmux.last();
  tmux.keys({"C-r"});
  ASSERT_TRUE(tmux.waitFor("The model reads: the message from Ann and 1 earlier message"))
      << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "Ctrl-R Read only the quoted passages")) << tmux.last();
  // The instruction is untouched by the key.
  EXPECT_TRUE(has(tmux.last(), "You're my assistant, please reply this email")) << tmux.last();
  tmux.keys({"C-g"});
  ASSERT_TRUE(tmux.waitFor("Friday it is.")) << tmux.last();
  ASSERT_EQ(server_.requests().size(), 1u);
  const auto messages = nlohmann::json::parse(server_.requests()[0].body)["messages"];
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[1]["content"],
            "From: Ann <ann@example.org>\nDate: Mon, 23 Nov 2026 10:00:00 +0000\n"
            "Subject: Trip to Mars\n\nSure!\n\n----- Earlier messages in the thread -----\n"
            "> Shall we have lunch on Friday?");
  tmux.keys({"C-q"});
  ASSERT_TRUE(tmux.waitFor("[exit 0]")) << tmux.last();
  EXPECT_EQ(lumora({"settings", "get", "mailReading"}).out, "message\n");
  tmux.close();

  // `lumora reply` says it on the terminal, before the request.
  Tmux reply(tmuxProgram_, home_.path());
  std::string command = "env";
  for (const auto& [name, value] : environment())
    if (name != "LUMORA_DEBUG") command += " " + name + "=" + quoted(value);
  command += " " + quoted(LUMORA_BINARY) + " reply --read quoted --dry-run " +
             quoted(path.string()) + " >/dev/null; echo \"[exit $?]\"; sleep 60";
  ASSERT_EQ(reply.start(command).status, 0);
  ASSERT_TRUE(reply.waitFor("[exit 0]")) << reply.last();
  EXPECT_TRUE(has(reply.last(), "The model reads: 1 quoted passage (30 characters)"))
      << reply.last();
}

TEST_F(PanelTerminalTest, DumbTerminalErrorsAndInterrupt) {
  server_.enqueue(Response::json(
      401, R"({"error":{"message":"Incorrect API key provided.","code":"invalid_api_key"}})"));
  Tmux tmux(tmuxProgram_, home_.path());
  openPanel(tmux, writeMessage(), "dumb");
  ASSERT_TRUE(tmux.waitFor("Instruction")) << tmux.last();
  tmux.keys({"F5", "C-g"});  // a vt100 has no F5: the key does nothing
  ASSERT_TRUE(tmux.waitFor("Error invalid_api_key")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "please reply this email ")) << "nothing typed: " << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "Instruction")) << "no text: the input page again";
  tmux.keys({"C-c"});
  ASSERT_TRUE(tmux.waitFor("[exit 130]")) << tmux.last();
  EXPECT_FALSE(has(tmux.last(), "Instruction")) << "a vt100 has no second screen: cleared";
}

// A stored conversation as preset: choosing it swaps the instruction and the model, edits go
// to it and not to the stored prompt, and the layout follows the window's size.
TEST_F(PanelTerminalTest, ConversationPresetsAndResizing) {
  const ProcessResult added = lumora({"conversations", "add", "--title", "回复客户", "--instruction",
                                      "礼貌地回复", "--model", "claude-3-haiku-20240307"});
  ASSERT_EQ(added.status, 0) << added.err;
  const std::string id = added.out.substr(0, added.out.find('\n'));
  Tmux tmux(tmuxProgram_, home_.path());
  openPanel(tmux, writeMessage());
  ASSERT_TRUE(tmux.waitFor("Instruction")) << tmux.last();

  tmux.keys({"Tab", "Enter"});
  ASSERT_TRUE(tmux.waitFor("type to filter")) << tmux.last();
  tmux.type("客户");
  tmux.keys({"Enter"});
  ASSERT_TRUE(tmux.waitFor("[claude-3-haiku-20240307")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "│ 礼貌地回复")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "[回复客户")) << tmux.last();

  // Typed into the conversation, then straight to the picker: the edit stays with it.
  tmux.keys({"BTab", "End"});
  tmux.type("，谢谢");
  tmux.keys({"Tab", "Enter", "Home", "Enter"});
  ASSERT_TRUE(tmux.waitFor("[Prompt")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "You're my assistant, please reply this email")) << tmux.last();

  tmux.keys({"Enter"});
  tmux.type("客户");
  tmux.keys({"Enter"});
  ASSERT_TRUE(tmux.waitFor("礼貌地回复，谢谢")) << tmux.last();

  // Wider, then narrower: the outline spans the window.
  tmux.resize(100, 30);
  ASSERT_TRUE(tmux.waitFor([](const std::string& s) {
    return has(s, "╮\n") && s.find("╮") > s.find("╭─ Instruction ") + 90;
  })) << tmux.last();
  tmux.resize(44, 12);
  ASSERT_TRUE(tmux.waitFor([](const std::string& s) {
    const size_t begin = s.find("╭─ Instruction ");
    const size_t end = s.find("╮", begin);
    return begin != std::string::npos && end != std::string::npos && s.find('\n', begin) > end &&
           has(s, "[  Generate  ]");
  })) << tmux.last();

  tmux.keys({"C-q"});
  ASSERT_TRUE(tmux.waitFor("[exit 0]")) << tmux.last();
  const std::string shown = lumora({"conversations", "show", id}).out;
  EXPECT_TRUE(has(shown, "instruction: 礼貌地回复，谢谢")) << shown;
  EXPECT_EQ(lumora({"settings", "get", "mailDefaultPrompt"}).out,
            "You're my assistant, please reply this email\n");
}

// What goes wrong around the panel: a message it cannot read, a terminal too small, and the
// terminal closing under a running reply.
TEST_F(PanelTerminalTest, AnUnreadableMessageAndATinyTerminal) {
  const auto message = home_ / "broken.eml";
  std::ofstream(message, std::ios::binary)
      << "MIME-Version: 1.0\r\nContent-Type: multipart/alternative; boundary=\"b\"\r\n\r\n"
         "--b\r\nContent-Type: text/html\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
         "<blockquote>=FF</blockquote>\r\n--b--\r\n";
  Tmux tmux(tmuxProgram_, home_.path());
  openPanel(tmux, message.string());
  ASSERT_TRUE(tmux.waitFor("Instruction")) << tmux.last();
  tmux.keys({"C-g"});
  ASSERT_TRUE(tmux.waitFor("not valid UTF-8 text")) << tmux.last();
  EXPECT_TRUE(has(tmux.last(), "Generate")) << "still on the input page: " << tmux.last();
  EXPECT_TRUE(server_.requests().empty());

  // Too small to show the page, then large again: the panel draws what fits and recovers.
  tmux.resize(12, 3);
  tmux.waitFor([](const std::string& s) { return s.size() < 100; });
  tmux.resize(80, 24);
  ASSERT_TRUE(tmux.waitFor("Generate")) << tmux.last();
  tmux.keys({"C-q"});
  ASSERT_TRUE(tmux.waitFor("[exit 0]")) << tmux.last();
}

TEST_F(PanelTerminalTest, ClosingTheTerminalMidStreamEndsTheRun) {
  Response slow;
  slow.framing = testing::Framing::kChunked;
  for (int i = 0; i < 100; ++i) slow.send(sseRecord("word" + std::to_string(i) + " ")).sleep(200ms);
  server_.enqueue(slow);
  Tmux tmux(tmuxProgram_, home_.path());
  openPanel(tmux, writeMessage());
  ASSERT_TRUE(tmux.waitFor("Instruction")) << tmux.last();
  tmux.keys({"C-g"});
  ASSERT_TRUE(tmux.waitFor("word1")) << tmux.last();
  tmux.close();
  // The process ends at the hang-up and lets go of the stream: nothing is left reading.
  EXPECT_TRUE(server_.waitForClientDisconnect(10s).has_value());
}

// The documented neomutt lines at work: neomutt under tmux on a small Maildir, the key pipes
// the message into the panel, a reply is made and copied; then a mail to the reserved domain
// is refused by the sendmail wrapper, and neomutt says so.
TEST_F(PanelTerminalTest, TheNeomuttRecipe) {
  const std::string neomutt = findProgram("neomutt");
  if (neomutt.empty()) GTEST_SKIP() << "neomutt is not installed";
  const auto mail = home_ / "Mail";
  for (const char* sub : {"cur", "new", "tmp"}) std::filesystem::create_directories(mail / sub);
  std::ofstream(mail / "cur" / "1.lumora:2,S", std::ios::binary) << marsMessage();
  const std::string snippet = lumora({"integrate", "neomutt"}).out;
  ASSERT_NE(snippet.find("lumora panel -"), std::string::npos) << snippet;
  const auto rc = home_ / "neomuttrc";
  std::ofstream(rc) << "set folder=" << mail.string() << "\nset spoolfile=" << mail.string()
                    << "\nset mbox_type=Maildir\nset wait_key=no\nset from=bo@example.net\n"
                       "set use_from=yes\nset editor=true\nset abort_unmodified=no\n"
                       "set record=\"\"\nset header_cache=\"\"\n"
                    << snippet;

  Tmux tmux(tmuxProgram_, home_.path());
  ASSERT_EQ(tmux.start(mailClientCommand(neomutt + " -n -F " + quoted(rc.string()))).status, 0);
  ASSERT_TRUE(tmux.waitFor("Trip to Mars")) << tmux.last();

  // The key pipes the message into the panel; a reply is made and copied.
  tmux.keys({"Escape", "a"});
  ASSERT_NO_FATAL_FAILURE(replyAndCopy(tmux));
  ASSERT_TRUE(tmux.waitFor("Trip to Mars")) << "back in neomutt: " << tmux.last();

  // A new mail to the reserved domain: the wrapper refuses it and neomutt shows why.
  tmux.keys({"m"});
  ASSERT_TRUE(tmux.waitFor("To:")) << tmux.last();
  tmux.type("bob@example.com");
  tmux.keys({"Enter"});
  ASSERT_TRUE(tmux.waitFor("Subject:")) << tmux.last();
  tmux.type("Hello");
  tmux.keys({"Enter"});
  ASSERT_TRUE(tmux.waitFor("bob@example.com")) << tmux.last();
  tmux.keys({"y"});
  ASSERT_TRUE(tmux.waitFor([](const std::string& s) {
    return has(s, "example.com is not a valid recipient domain") && has(s, "exited 65");
  })) << tmux.last();
}

// The documented aerc lines at work, as the neomutt recipe above: each part of the printed
// snippet goes into the file its comment names, on top of aerc's own key bindings.
TEST_F(PanelTerminalTest, TheAercRecipe) {
  const std::string aerc = findProgram("aerc");
  if (aerc.empty()) GTEST_SKIP() << "aerc is not installed";
  const auto inbox = home_ / "Mail" / "INBOX";
  for (const char* sub : {"cur", "new", "tmp"}) std::filesystem::create_directories(inbox / sub);
  std::ofstream(inbox / "cur" / "1.lumora:2,S", std::ios::binary) << marsMessage();

  // "# FILE: ..." or "# FILE, ..." starts the part of the snippet that goes into FILE.
  const auto config = home_ / "config" / "aerc";
  std::filesystem::create_directories(config / "stylesets");
  std::map<std::string, std::string> files;
  files["binds.conf"] = readAll("/usr/share/aerc/binds.conf");
  files["accounts.conf"] = "[local]\nsource = maildir://" + (home_ / "Mail").string() +
                           "\ndefault = INBOX\nfrom = Bo <bo@example.net>\n";
  std::string* file = nullptr;
  std::istringstream snippet(lumora({"integrate", "aerc"}).out);
  for (std::string line; std::getline(snippet, line);) {
    if (line.starts_with("# ")) {
      const size_t end = line.find_first_of(":,", 2);
      const std::string name = line.substr(2, end - 2);
      if (end != std::string::npos && !name.empty() && name.find(' ') == std::string::npos) {
        file = &files[name];
      }
    } else if (file) {
      *file += line + "\n";
    }
  }
  ASSERT_EQ(files.size(), 4u) << "binds.conf, accounts.conf, aerc.conf and the styleset";
  for (const auto& [name, text] : files) std::ofstream(config / name) << text;
  std::filesystem::permissions(config / "accounts.conf", std::filesystem::perms::owner_read |
                                                             std::filesystem::perms::owner_write);

  Tmux tmux(tmuxProgram_, home_.path());
  ASSERT_EQ(tmux.start(mailClientCommand(aerc)).status, 0);
  ASSERT_TRUE(tmux.waitFor("Trip to Mars")) << tmux.last();
  // The subject colouring: the row is drawn in red through the styleset.
  const std::string colours = tmux.screenWithColours();
  const size_t row = colours.find("Trip to Mars");
  EXPECT_NE(colours.rfind("\x1b[91m", row), std::string::npos) << colours;

  // aerc 0.14 now and then drops the first key after it starts or gets its screen back, Alt-l
  // as much as ':'. So the test types the command the key is bound to on aerc's command line,
  // pressing ':' until the line opens.
  const auto exCommand = [&](const std::string& line) {
    for (int attempt = 0; attempt < 5; ++attempt) {
      tmux.keys({":"});
      const bool open = tmux.waitFor(
          [](const std::string& s) {
            const size_t last = s.find_last_not_of("\n ");
            return last != std::string::npos && s[last] == ':' &&
                   (last == 0 || s[last - 1] == '\n');
          },
          2s);
      if (open) break;
    }
    tmux.type(line);
    tmux.keys({"Enter"});
  };
  const std::string& binds = files["binds.conf"];
  const size_t bound = binds.find("<A-l> = :");
  ASSERT_NE(bound, std::string::npos) << binds;
  const std::string keyCommand = binds.substr(bound + 9, binds.find("<Enter>", bound) - bound - 9);
  ASSERT_EQ(keyCommand, "pipe -m lumora panel -");
  exCommand(keyCommand);
  ASSERT_NO_FATAL_FAILURE(replyAndCopy(tmux));
  // The panel's tab, named after the command, says when the process has ended and closes on
  // the next key. A command typed before the end would go to the ending tab and be lost with
  // it, which a slow exit (as under a sanitizer) shows.
  ASSERT_TRUE(tmux.waitFor("Process complete")) << tmux.last();
  for (int attempt = 0; attempt < 5 && has(tmux.last(), "lumora <"); ++attempt) {
    tmux.keys({"Enter"});
    tmux.waitFor([](const std::string& s) { return !has(s, "lumora <"); }, 2s);
  }
  ASSERT_FALSE(has(tmux.last(), "lumora <")) << tmux.last();

  // A new mail to the reserved domain, its fields filled through aerc's commands: aerc runs
  // the wrapper, which refuses it, and aerc shows its exit status (it drops the reason).
  exCommand("compose");
  ASSERT_TRUE(tmux.waitFor("Send this email?")) << tmux.last();
  for (const char* line : {"header -f To bob@example.com", "header -f Subject Hello", "send"}) {
    exCommand(line);
  }
  ASSERT_TRUE(tmux.waitFor("exit status 65")) << tmux.last();
}

TEST(PanelCommand, HelpAndUsage) {
  const auto lumora = [](std::vector<std::string> args) {
    args.insert(args.begin(), LUMORA_BINARY);
    return testing::runProcess(args);
  };
  const ProcessResult help = lumora({"panel", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(has(help.out, "Ctrl-G")) << help.out;
  EXPECT_TRUE(has(help.out, "LUMORA_CLIPBOARD_COMMAND")) << help.out;
  EXPECT_EQ(lumora({"panel", "--frobnicate"}).status, 2);
  EXPECT_EQ(lumora({"panel", "a", "b"}).status, 2);
  EXPECT_EQ(lumora({"panel", "/nonexistent/message.eml"}).status, 1);
}

}  // namespace
}  // namespace lumora
