// `lumora panel` end to end: the real binary in an 80x24 tmux pane, typed at with send-keys and
// read back with capture-pane, against a loopback server.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
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
  bool waitFor(const std::string& text, std::chrono::milliseconds patience = kPatience) {
    return waitFor([&](const std::string& s) { return s.find(text) != std::string::npos; },
                   patience);
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
  // and wait for a key. HOME is the test's too: the clients keep state under it (neomutt's
  // ~/postponed), which must neither come from the user's nor be left there. TMPDIR too: aerc
  // writes each draft it composes there and never removes it.
  std::string mailClientCommand(const std::string& program) {
    const std::filesystem::path tmp = home_ / "tmp";
    std::filesystem::create_directories(tmp);
    std::string command = "env HOME=" + quoted(home_.path().string()) +
                          " TMPDIR=" + quoted(tmp.string());
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
    ASSERT_FALSE(server_.requests().empty());
    // The binding reads the whole message: its new text, then what it quotes.
    const std::string read =
        nlohmann::json::parse(server_.requests().back().body)["messages"][1]["content"];
    EXPECT_NE(read.find("Sure!\n\n----- Earlier messages in the thread -----\n"
                        "> Shall we have lunch on Friday?"),
              std::string::npos)
        << read;
    tmux.keys({"C-q"});
    ASSERT_TRUE(tmux.waitFor([](const std::string& s) { return !has(s, "Instruction"); }))
        << tmux.last();
  }

  // In the panel a mail client opened on its draft of a reply to the Mars message: a reply
  // is made and inserted, which closes the panel and hands the draft to the editor.
  void replyAndInsert(Tmux& tmux) {
    server_.enqueue(Response::stream(sseRecord("Dear Ann,\n\nFriday suits me.", "stop") +
                                         "data: [DONE]\n\n",
                                     64));
    ASSERT_TRUE(tmux.waitFor("The model reads: your draft and the message it answers"))
        << tmux.last();
    tmux.keys({"C-g"});
    ASSERT_TRUE(tmux.waitFor("Friday suits me.")) << tmux.last();
    ASSERT_TRUE(tmux.waitFor("i Insert")) << tmux.last();
    tmux.keys({"i"});
    ASSERT_TRUE(tmux.waitFor([](const std::string& s) { return !has(s, "Regenerate"); }))
        << tmux.last();
  }

  // aerc 0.14 now and then drops the first key after it starts or gets its screen back, Alt-l
  // as much as ':'. So the tests type the command a key is bound to on aerc's command line,
  // pressing ':' until the line opens.
  void aercCommand(Tmux& tmux, const std::string& line) {
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
  }

  // An editor that keeps the draft as it is handed over (its copy beside it) and ends at once.
  std::string scriptedEditor() {
    const auto path = home_ / "editor.sh";
    std::ofstream(path) << "#!/bin/sh\ncp \"$1\" " << quoted((home_ / "edited").string())
                        << "\nexit 0\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path.string();
  }

  // A sendmail that keeps the message it is given.
  std::string recordingSendmail() {
    const auto path = home_ / "sendmail.sh";
    std::ofstream(path) << "#!/bin/sh\ncat > " << quoted((home_ / "sent.eml").string())
                        << "\nexit 0\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path.string();
  }

  // A plain-text question, as the compose road answers it.
  std::string lunchMessage() const {
    return "Date: Mon, 23 Nov 2026 10:00:00 +0000\r\nFrom: Ann <ann@example.org>\r\n"
           "To: Bo <bo@example.net>\r\nSubject: Lunch on Friday\r\n"
           "Message-ID: <lunch@example.org>\r\nMIME-Version: 1.0\r\n"
           "Content-Type: text/plain; charset=utf-8\r\n\r\nShall we have lunch on Friday?\r\n";
  }

  // y at the client's last question sends the mail: `sent` is what the recording sendmail
  // received, checked to hold the reply above the quote.
  void sendAndRecord(Tmux& tmux, std::string& sent) {
    tmux.keys({"y"});
    ASSERT_TRUE(tmux.waitFor([&](const std::string&) {
      return std::filesystem::exists(home_ / "sent.eml") && !readAll(home_ / "sent.eml").empty();
    })) << tmux.last();
    sent = readAll(home_ / "sent.eml");
    expectSentReplyAboveTheQuote(sent);
  }

  // The recorded mail holds the reply above the quoted original, which is unchanged. The
  // mail as sent may be quoted-printable with CR LF line ends (aerc's): compared as text.
  void expectSentReplyAboveTheQuote(const std::string& raw) {
    std::string sent;
    for (size_t i = 0; i < raw.size(); ++i) {
      if (raw[i] == '\r') continue;
      if (raw.compare(i, 2, "=\n") == 0 || raw.compare(i, 3, "=\r\n") == 0) {
        i += raw[i + 1] == '\r' ? 2 : 1;
      } else if (raw[i] == '=' && i + 2 < raw.size() && std::isxdigit(raw[i + 1]) &&
                 std::isxdigit(raw[i + 2])) {
        sent += static_cast<char>(std::stoi(raw.substr(i + 1, 2), nullptr, 16));
        i += 2;
      } else {
        sent += raw[i];
      }
    }
    const size_t reply = sent.find("Dear Ann,\n\nFriday suits me.\n\n");
    const size_t quote = sent.find("wrote:\n> Shall we have lunch on Friday?\n");
    EXPECT_NE(reply, std::string::npos) << sent;
    EXPECT_NE(quote, std::string::npos) << sent;
    EXPECT_LT(reply, quote) << sent;
  }

  testing::TempDir home_;
  ScriptedServer server_;
  std::string tmuxProgram_;
};

// `lumora compose` as a mail client's editor: Insert puts the reply into the draft after the
// user's lines and before the quotation, keeping the file's mode, then the editor runs and
// its status is the command's; leaving without Insert keeps the draft to the byte.
TEST_F(PanelTerminalTest, ComposeInsertsIntoTheDraftThenRunsTheEditor) {
  const std::string draft = "Hi Ann,\n\nOn Mon, Ann <ann@example.org> wrote:\n> Lunch?\n";
  const auto file = home_ / "draft.txt";
  const auto editor = home_ / "editor.sh";
  std::ofstream(editor) << "#!/bin/sh\ncp \"$1\" " << quoted((home_ / "edited").string())
                        << "\nexit 7\n";
  std::filesystem::permissions(editor, std::filesystem::perms::owner_all);
  int runs = 0;
  const auto run = [&](const std::vector<std::string>& keys, bool insert) {
    std::ofstream(file, std::ios::binary) << draft;
    chmod(file.c_str(), 0640);
    std::filesystem::remove(home_ / "edited");
    // A tmux server of each run's own: the last one may still be going away.
    const auto socketDirectory = home_ / ("run" + std::to_string(++runs));
    std::filesystem::create_directory(socketDirectory);
    Tmux tmux(tmuxProgram_, socketDirectory);
    std::string command = "env";
    for (const auto& [name, value] : environment())
      if (name != "LUMORA_DEBUG") command += " " + name + "=" + quoted(value);
    command += " " + quoted(LUMORA_BINARY) + " compose --editor " + quoted(editor.string()) + " " +
               quoted(file.string()) + "; echo \"[exit $?]\"; sleep 60";
    ASSERT_EQ(tmux.start(command).status, 0);
    if (insert) {
      ASSERT_NO_FATAL_FAILURE(replyAndInsert(tmux));
    } else {
      ASSERT_TRUE(tmux.waitFor("The model reads: your draft")) << tmux.last();
      tmux.keys(keys);
    }
    ASSERT_TRUE(tmux.waitFor("[exit 7]")) << tmux.last();
  };

  server_.setDefaultResponse(Response::stream(sseRecord("unused"), 64));
  ASSERT_NO_FATAL_FAILURE(run({"C-q"}, false));
  EXPECT_EQ(readAll(file), draft);
  EXPECT_EQ(readAll(home_ / "edited"), draft);  // the editor ran on it all the same

  ASSERT_NO_FATAL_FAILURE(run({}, true));
  const std::string expected =
      "Hi Ann,\n\nDear Ann,\n\nFriday suits me.\n\nOn Mon, Ann <ann@example.org> wrote:\n> "
      "Lunch?\n";
  EXPECT_EQ(readAll(file), expected);
  EXPECT_EQ(readAll(home_ / "edited"), expected);
  EXPECT_EQ(std::filesystem::status(file).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write |
                std::filesystem::perms::group_read);
  // Nothing is left beside the draft.
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(file.parent_path()))
    files += entry.path().filename().string().find(".lumora-") != std::string::npos;
  EXPECT_EQ(files, 0u);
  // The whole draft was read: the user's lines and the message they answer.
  const std::string read =
      nlohmann::json::parse(server_.requests().back().body)["messages"][1]["content"];
  EXPECT_EQ(read, "The reply written so far:\nHi Ann,\n\n----- The message being answered -----\n"
                  "On Mon, Ann <ann@example.org> wrote:\n> Lunch?");
}

TEST(ComposeCommand, UsageAndTheEditorChosen) {
  const auto lumora = [](std::vector<std::string> args, std::map<std::string, std::string> env = {}) {
    args.insert(args.begin(), LUMORA_BINARY);
    return testing::runProcess(args, {.setEnv = std::move(env)});
  };
  EXPECT_EQ(lumora({"compose"}).status, 2);
  EXPECT_EQ(lumora({"compose", "--read", "all", "f"}).status, 2);
  EXPECT_EQ(lumora({"compose", "a", "b"}).status, 2);
  EXPECT_EQ(lumora({"compose", "/nonexistent/draft"}).status, 1);
  const ProcessResult help = lumora({"compose", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(has(help.out, "--editor CMD")) << help.out;
}



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
// The road the integration prints first, in neomutt: Lumora as the editor of a reply. From the
// index, r, Ctrl-G and i put the reply into the draft; the editor saves it and y sends it.
TEST_F(PanelTerminalTest, TheNeomuttComposeRoad) {
  const std::string neomutt = findProgram("neomutt");
  if (neomutt.empty()) GTEST_SKIP() << "neomutt is not installed";
  const auto mail = home_ / "Mail";
  for (const char* sub : {"cur", "new", "tmp"}) std::filesystem::create_directories(mail / sub);
  std::ofstream(mail / "cur" / "1.lumora:2,S", std::ios::binary) << lunchMessage();
  const ProcessResult printed = testing::runProcess(
      {LUMORA_BINARY, "integrate", "neomutt"},
      {.setEnv = {{"EDITOR", scriptedEditor()}}, .unsetEnv = {"VISUAL"}});
  const std::string snippet = printed.out;
  ASSERT_NE(snippet.find("set editor=\"lumora compose --editor '"), std::string::npos) << snippet;
  EXPECT_EQ(snippet.find("sendmail"), std::string::npos) << "the mail rules came unasked";
  const auto rc = home_ / "neomuttrc";
  std::ofstream(rc) << "set folder=" << mail.string() << "\nset spoolfile=" << mail.string()
                    << "\nset mbox_type=Maildir\nset wait_key=no\nset from=bo@example.net\n"
                       "set use_from=yes\nset record=\"\"\nset header_cache=\"\"\n"
                       "set fast_reply=yes\nset sendmail=\""
                    << recordingSendmail() << "\"\n"
                    << snippet;

  Tmux tmux(tmuxProgram_, home_.path());
  ASSERT_EQ(tmux.start(mailClientCommand(neomutt + " -n -F " + quoted(rc.string()))).status, 0);
  ASSERT_TRUE(tmux.waitFor("Lunch on Friday")) << tmux.last();
  tmux.keys({"r"});
  ASSERT_NO_FATAL_FAILURE(replyAndInsert(tmux));
  // The editor has run and ended: neomutt's compose menu, then y sends.
  ASSERT_TRUE(tmux.waitFor("y:Send")) << tmux.last();
  expectSentReplyAboveTheQuote(readAll(home_ / "edited"));
  std::string sent;
  ASSERT_NO_FATAL_FAILURE(sendAndRecord(tmux, sent));
  EXPECT_NE(sent.find("Subject: Re: Lunch on Friday"), std::string::npos) << sent;
  EXPECT_EQ(sent.find("X-CustomHeader"), std::string::npos) << sent;
}

TEST_F(PanelTerminalTest, TheNeomuttRecipe) {
  const std::string neomutt = findProgram("neomutt");
  if (neomutt.empty()) GTEST_SKIP() << "neomutt is not installed";
  const auto mail = home_ / "Mail";
  for (const char* sub : {"cur", "new", "tmp"}) std::filesystem::create_directories(mail / sub);
  std::ofstream(mail / "cur" / "1.lumora:2,S", std::ios::binary) << marsMessage();
  // The editor after the panel: one that leaves the draft as it is.
  const std::string snippet =
      testing::runProcess({LUMORA_BINARY, "integrate", "neomutt", "--mail-rules"},
                          {.setEnv = {{"EDITOR", "true"}}, .unsetEnv = {"VISUAL"}})
          .out;
  ASSERT_NE(snippet.find("lumora panel --read message -"), std::string::npos) << snippet;
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
  // Lumora is the editor: its panel opens on the empty draft, and is left without a reply.
  ASSERT_TRUE(tmux.waitFor("This message holds no text")) << tmux.last();
  tmux.keys({"C-q"});
  ASSERT_TRUE(tmux.waitFor("bob@example.com")) << tmux.last();
  tmux.keys({"y"});
  ASSERT_TRUE(tmux.waitFor([](const std::string& s) {
    return has(s, "example.com is not a valid recipient domain") && has(s, "exited 65");
  })) << tmux.last();
}

// The road the integration prints first, in aerc: Lumora as the composer's editor. From the
// message list, Rq (reply, quoting), Ctrl-G and i put the reply into the draft; the editor
// saves it and y sends it.
TEST_F(PanelTerminalTest, TheAercComposeRoad) {
  const std::string aerc = findProgram("aerc");
  if (aerc.empty()) GTEST_SKIP() << "aerc is not installed";
  const auto inbox = home_ / "Mail" / "INBOX";
  for (const char* sub : {"cur", "new", "tmp"}) std::filesystem::create_directories(inbox / sub);
  std::ofstream(inbox / "cur" / "1.lumora:2,S", std::ios::binary) << lunchMessage();
  const std::string snippet =
      testing::runProcess({LUMORA_BINARY, "integrate", "aerc"},
                          {.setEnv = {{"EDITOR", scriptedEditor()}}, .unsetEnv = {"VISUAL"}})
          .out;
  const size_t compose = snippet.find("[compose]\neditor = lumora compose --editor '");
  ASSERT_NE(compose, std::string::npos) << snippet;
  EXPECT_EQ(snippet.find("outgoing"), std::string::npos) << "the mail rules came unasked";
  const auto config = home_ / "config" / "aerc";
  std::filesystem::create_directories(config);
  std::ofstream(config / "binds.conf") << readAll("/usr/share/aerc/binds.conf");
  std::ofstream(config / "aerc.conf") << snippet.substr(compose, snippet.find("\n\n", compose) - compose)
                                      << "\n";
  std::ofstream(config / "accounts.conf")
      << "[local]\nsource = maildir://" << (home_ / "Mail").string()
      << "\ndefault = INBOX\nfrom = Bo <bo@example.net>\noutgoing = " << recordingSendmail()
      << "\n";
  std::filesystem::permissions(config / "accounts.conf", std::filesystem::perms::owner_read |
                                                             std::filesystem::perms::owner_write);

  Tmux tmux(tmuxProgram_, home_.path());
  ASSERT_EQ(tmux.start(mailClientCommand(aerc)).status, 0);
  ASSERT_TRUE(tmux.waitFor("Lunch on Friday")) << tmux.last();
  // Rq is bound to this command; typed, for aerc's dropped first key.
  aercCommand(tmux, "reply -q");
  ASSERT_NO_FATAL_FAILURE(replyAndInsert(tmux));
  ASSERT_TRUE(tmux.waitFor("Send this email?")) << tmux.last();
  expectSentReplyAboveTheQuote(readAll(home_ / "edited"));
  std::string sent;
  ASSERT_NO_FATAL_FAILURE(sendAndRecord(tmux, sent));
  EXPECT_NE(sent.find("Re: Lunch on Friday"), std::string::npos) << sent;
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
  std::istringstream snippet(
      testing::runProcess({LUMORA_BINARY, "integrate", "aerc", "--mail-rules"},
                          {.setEnv = {{"EDITOR", "true"}}, .unsetEnv = {"VISUAL"}})
          .out);
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

  const auto exCommand = [&](const std::string& line) { aercCommand(tmux, line); };
  const std::string& binds = files["binds.conf"];
  const size_t bound = binds.find("<A-l> = :");
  ASSERT_NE(bound, std::string::npos) << binds;
  const std::string keyCommand = binds.substr(bound + 9, binds.find("<Enter>", bound) - bound - 9);
  ASSERT_EQ(keyCommand, "pipe -m lumora panel --read message -");
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
  // Lumora is the editor: its panel opens on the empty draft, and is left without a reply.
  // A new mail starts in the To field: Ctrl-J moves on through the fields to the editor, where
  // Ctrl-Q reaches the panel.
  ASSERT_TRUE(tmux.waitFor("This message holds no text")) << tmux.last();
  for (int attempt = 0; attempt < 6 && !has(tmux.last(), "Send this email?"); ++attempt) {
    tmux.keys({"C-q"});
    if (tmux.waitFor("Send this email?", 1s)) break;
    tmux.keys({"C-j"});
  }
  ASSERT_TRUE(has(tmux.last(), "Send this email?")) << tmux.last();
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
