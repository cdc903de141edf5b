// The native host's protocol with the Thunderbird add-on: the panel opened on a message sent in
// pieces, its state and reply travelling as small messages, Copy through the add-on, the host
// rules, and what a bad message or a closed port does.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "NativeHost.h"
#include "lumora/mailcontent/MailReader.h"
#include "lumora/platform/Base64.h"
#include "lumora/store/DefaultsStore.h"
#include "support/FakeTransport.h"
#include "support/TempDir.h"

namespace lumora::nativehost {
namespace {

using nlohmann::json;
using testing::FakeAnswer;
using testing::Gate;
using testing::sseRecord;
using namespace std::chrono_literals;

class NativeHostTest : public ::testing::Test {
 protected:
  NativeHostTest() : shared_(dir_ / "shared.json"), own_(dir_ / "own.json") {
    shared_.set("apiKey", "sk-test-0000");
    own_.set("mailSelectedModel", "gpt-4o");
  }
  ~NativeHostTest() override { host_.reset(); }

  void SetUp() override { host_ = std::make_unique<NativeHost>(environment()); }

  NativeHost::Environment environment() {
    return {
        .executor = executor_,
        .send =
            [this](std::string_view message) {
              EXPECT_LE(message.size(), kMaxOutgoingBytes);
              {
                std::lock_guard lock(mutex_);
                sent_.push_back(json::parse(message));
              }
              executor_.post([] {});  // a copy sends from its own thread: wake the runner
              return true;
            },
        .panelDependencies =
            [this](const ComposeSession& session, Pasteboard& pasteboard) {
              return MailExtensionView::Dependencies{
                  .executor = executor_,
                  .session = session,
                  .ownDefaults = own_,
                  .environment = ChatEnvironment{shared_, transport_},
                  .pasteboard = pasteboard,
                  .conversations = conversations_,
                  .defaultModel = [] { return std::string("gpt-3.5-turbo"); },
                  .quotedTexts =
                      [this](std::string_view message) {
                        received_ = std::string(message);
                        return std::vector<std::string>{"the quoted passage"};
                      },
                  .overrides = {},
                  .onServiceChosen = {},
              };
            },
        .inChina = [] { return false; },
        .maxMessageBytes = [] { return size_t{1000}; },
        .copyTimeout = copyTimeout_,
        .panelOpening = {},
    };
  }

  void receive(const std::string& payload) {
    host_->receive({FrameReader::Frame::Kind::message, payload, payload.size()});
    executor_.drain();
  }
  void receive(const json& message) { receive(message.dump()); }

  // Every message sent since the last call.
  std::vector<json> take() {
    executor_.drain();
    std::lock_guard lock(mutex_);
    for (const json& m : sent_)
      if (m["type"] == "state") lastGenerating_ = m["header"]["title"] == "Writing...";
    return std::exchange(sent_, {});
  }
  std::vector<json> takeOfType(std::string_view type) {
    std::vector<json> out;
    for (json& m : take())
      if (m["type"] == type) out.push_back(std::move(m));
    return out;
  }
  std::string lastError() {
    const auto errors = takeOfType("error");
    return errors.empty() ? "" : errors.back()["message"].get<std::string>();
  }

  // Runs until `done`, collecting what is sent meanwhile.
  std::vector<json> runUntil(const std::function<bool()>& done) {
    EXPECT_TRUE(executor_.runUntil(done, 5s));
    return take();
  }

  // Runs until the latest state satisfies `done`, and returns it.
  json stateWhen(const std::function<bool(const json&)>& done) {
    json state;
    EXPECT_TRUE(executor_.runUntil(
        [&] {
          for (json& m : take())
            if (m["type"] == "state") state = std::move(m);
          return state.is_object() && done(state);
        },
        5s));
    return state;
  }
  static bool copyEnded(const json& state) { return !state["copying"].get<bool>(); }

  // Generate, run to its end; the messages sent meanwhile.
  std::vector<json> generate(FakeAnswer answer) {
    transport_.enqueue(std::move(answer));
    receive(json{{"type", "operation"}, {"name", "startGeneration"}});
    return runUntil([this] { return !generating(); });
  }

  bool generating() {
    std::lock_guard lock(mutex_);
    for (auto it = sent_.rbegin(); it != sent_.rend(); ++it)
      if ((*it)["type"] == "state") return (*it)["header"]["title"] == "Writing...";
    return lastGenerating_;
  }

  // The reply text as the page has it, from the output messages.
  static void apply(std::string& page, const std::vector<json>& messages) {
    for (const json& m : messages) {
      if (m["type"] != "output") continue;
      if (m["reset"].get<bool>()) page.clear();
      page += m["text"].get<std::string>();
    }
  }

  testing::TempDir dir_;
  DefaultsStore shared_;
  DefaultsStore own_;
  MainExecutor executor_;
  testing::FakeTransport transport_;
  NoConversations conversations_;
  std::chrono::milliseconds copyTimeout_ = 5s;
  std::mutex mutex_;
  std::vector<json> sent_;
  bool lastGenerating_ = false;
  std::string received_;
  std::unique_ptr<NativeHost> host_;
};

TEST_F(NativeHostTest, OpensOnTheMessageSentInPiecesAndDrawsTheInputPage) {
  const std::string message = "Subject: hi\r\n\r\n" + std::string(300, 'm') + "\xE6\xB8\xA9";
  receive(json{{"type", "open"}, {"messageSize", message.size()}, {"language", "en-US"}});
  EXPECT_TRUE(take().empty());  // nothing is drawn before the message is whole
  for (size_t at = 0; at < message.size(); at += 100)
    receive(json{{"type", "messageData"}, {"data", base64::encode(message.substr(at, 100))}});
  const auto states = takeOfType("state");
  ASSERT_EQ(states.size(), 1u);
  const json& state = states[0];
  EXPECT_EQ(state["page"], "input");
  EXPECT_EQ(state["header"]["title"], "Lumora");
  EXPECT_EQ(state["header"]["symbol"], "wand.and.stars");
  EXPECT_EQ(state["instruction"], "You're my assistant, please reply this email");
  EXPECT_EQ(state["modelPicker"]["selection"], "gpt-4o");
  EXPECT_EQ(state["modelPicker"]["operation"], "selectModel");
  EXPECT_EQ(state["conversationPicker"]["entries"][0], (json{{"label", "Prompt"}, {"value", ""}}));
  EXPECT_EQ(state["generate"]["operation"], "startGeneration");
  EXPECT_TRUE(state["error"].is_null());

  generate(FakeAnswer{.pieces = {sseRecord("ok")}});
  EXPECT_EQ(received_, message);  // the parser saw the message byte for byte
}

// The page learns what the model reads and switches the reading; the next run sends it.
TEST_F(NativeHostTest, TheReadingLineAndItsSwitch) {
  const std::string message =
      "From: Carla Mendes <carla@example.org>\r\nDate: Tue, 3 Nov 2026 09:12:44 +0100\r\n"
      "Subject: Offsite\r\n\r\nCould you send the agenda?\r\n";
  receive(json{{"type", "open"}, {"messageSize", message.size()}});
  receive(json{{"type", "messageData"}, {"data", base64::encode(message)}});
  auto states = takeOfType("state");
  ASSERT_FALSE(states.empty());
  EXPECT_EQ(states.back()["reading"]["line"], "The model reads: 1 quoted passage (18 characters)");
  EXPECT_EQ(states.back()["reading"]["wholeMessage"], false);
  EXPECT_EQ(states.back()["reading"]["toggle"],
            (json{{"label", "Read the whole message"}, {"symbol", ""},
                  {"operation", "switchReading"}}));

  const std::string whole = MailReader::read(message).text;
  const std::string line = "The model reads: the message from Carla Mendes (" +
                           std::to_string(MailReader::read(message).characters) + " characters)";
  struct Step {
    json operation;
    bool wholeMessage;
  };
  const Step steps[] = {
      {{{"type", "operation"}, {"name", "switchReading"}}, true},
      {{{"type", "operation"}, {"name", "switchReading"}, {"value", "quoted"}}, false},
      {{{"type", "operation"}, {"name", "switchReading"}, {"value", "message"}}, true},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.operation.dump());
    receive(step.operation);
    const json state = stateWhen([](const json&) { return true; });
    EXPECT_EQ(state["reading"]["wholeMessage"], step.wholeMessage);
    if (step.wholeMessage) {
      EXPECT_EQ(state["reading"]["line"], line);
    }
    EXPECT_EQ(own_.string("mailReading"), step.wholeMessage ? "message" : "quoted");
  }
  receive(json{{"type", "operation"}, {"name", "switchReading"}, {"value", "all"}});
  EXPECT_EQ(lastError(), "The reading \"all\" is neither \"quoted\" nor \"message\".");

  generate(FakeAnswer{.pieces = {sseRecord("ok")}});
  const auto body = json::parse(transport_.requests().back().body);
  EXPECT_EQ(body["messages"].back()["content"], whole);
}

TEST_F(NativeHostTest, ChineseUserInterfaceGetsChineseWords) {
  receive(json{{"type", "open"}, {"messageSize", nullptr}, {"language", "zh-CN"}});
  const auto states = takeOfType("state");
  ASSERT_EQ(states.size(), 1u);
  EXPECT_NE(states[0]["generate"]["label"], "Generate");
}

// The reply travels as appended pieces, never the whole text per chunk; Regenerate replaces
// it at its first chunk; Back clears it. The page's copy always equals the panel's text.
TEST_F(NativeHostTest, TheReplyTravelsAsDeltas) {
  receive(json{{"type", "open"}});
  take();
  std::string page;
  auto gate = std::make_shared<Gate>();
  transport_.enqueue(
      FakeAnswer{.pieces = {sseRecord("Dear "), sseRecord("Ann,")}, .bodyGate = gate});
  receive(json{{"type", "operation"}, {"name", "startGeneration"}});
  auto messages = runUntil([&] {
    std::lock_guard lock(mutex_);
    std::string text;
    apply(text, sent_);
    return text == "Dear Ann,";
  });
  apply(page, messages);
  EXPECT_EQ(page, "Dear Ann,");
  gate->open();
  messages = runUntil([this] { return !generating(); });
  apply(page, messages);

  messages = generate(FakeAnswer{.pieces = {sseRecord("Hello"), sseRecord(" Bob")}});
  apply(page, messages);
  EXPECT_EQ(page, "Hello Bob");
  size_t textBytes = 0;
  bool sawReset = false;
  for (const json& m : messages) {
    if (m["type"] != "output") continue;
    textBytes += m["text"].get<std::string>().size();
    sawReset |= m["reset"].get<bool>();
  }
  EXPECT_TRUE(sawReset);
  EXPECT_EQ(textBytes, page.size());  // each byte of the reply went over once

  receive(json{{"type", "operation"}, {"name", "leaveResult"}});
  messages = take();
  apply(page, messages);
  EXPECT_EQ(page, "");
  const auto state = std::find_if(messages.begin(), messages.end(),
                                  [](const json& m) { return m["type"] == "state"; });
  ASSERT_NE(state, messages.end());
  EXPECT_EQ((*state)["page"], "input");
}

// A long reply goes in pieces, each under the browser's limit (checked on every send), cut on
// whole characters.
TEST_F(NativeHostTest, ALongReplyGoesInPieces) {
  receive(json{{"type", "open"}});
  take();
  std::string reply;
  while (reply.size() < 3 * kTextPieceBytes) reply += "\"quoted\" \xE6\xB8\xA9\n";
  std::string page;
  apply(page, generate(FakeAnswer{.pieces = {sseRecord(reply)}}));
  EXPECT_EQ(page, reply);
}

TEST_F(NativeHostTest, StopKeepsTheTextAndClosingThePortStopsTheRun) {
  receive(json{{"type", "open"}});
  take();
  auto gate = std::make_shared<Gate>();
  transport_.enqueue(FakeAnswer{.pieces = {sseRecord("so far")}, .bodyGate = gate});
  receive(json{{"type", "operation"}, {"name", "startGeneration"}});
  runUntil([this] {
    std::lock_guard lock(mutex_);
    return std::any_of(sent_.begin(), sent_.end(),
                       [](const json& m) { return m["type"] == "output"; });
  });
  receive(json{{"type", "operation"}, {"name", "stopGeneration"}});
  std::string page = "so far";
  apply(page, runUntil([this] { return !generating(); }));
  EXPECT_EQ(page, "so far");

  // A second run, still waiting when the port closes: close returns, the run is stopped.
  auto head = std::make_shared<Gate>();
  transport_.enqueue(FakeAnswer{.pieces = {}, .headGate = head});
  receive(json{{"type", "operation"}, {"name", "startGeneration"}});
  host_->receive({FrameReader::Frame::Kind::truncated, {}, 0});
  EXPECT_TRUE(host_->closed());
  EXPECT_FALSE(host_->panelOpen());
  executor_.drain();
}

TEST_F(NativeHostTest, CopyGoesThroughTheAddOnAndWaitsForItsAnswer) {
  receive(json{{"type", "open"}});
  std::string reply;
  while (reply.size() < kTextPieceBytes + 10) reply += "word ";
  generate(FakeAnswer{.pieces = {sseRecord(reply)}});

  // Copy: the text arrives in pieces, the add-on answers, and Copy bounces.
  receive(json{{"type", "operation"}, {"name", "copyOutput"}});
  std::string copied;
  bool whole = false;
  const auto collect = [&] {
    for (const json& m : take()) {
      if (m["type"] != "copy") continue;
      copied += m["text"].get<std::string>();
      whole = !m["more"].get<bool>();
    }
    return whole;
  };
  ASSERT_TRUE(executor_.runUntil(collect, 5s));
  EXPECT_EQ(copied, reply);
  receive(json{{"type", "copied"}, {"error", nullptr}});
  json state = stateWhen(copyEnded);
  EXPECT_EQ(state["copyBounces"], 1);
  EXPECT_TRUE(state["error"].is_null());

  // The add-on's failure is the panel's error line; nothing bounces.
  receive(json{{"type", "operation"}, {"name", "copyOutput"}});
  whole = false;
  copied.clear();
  ASSERT_TRUE(executor_.runUntil(collect, 5s));
  receive(json{{"type", "copied"}, {"error", "clipboard access denied"}});
  state = stateWhen(copyEnded);
  EXPECT_EQ(state["copyBounces"], 1);
  EXPECT_EQ(state["error"], "The clipboard did not take the reply: clipboard access denied");
}

// Insert goes the way Copy does, as "insert" pieces answered by "inserted"; the button comes
// with the finished reply.
TEST_F(NativeHostTest, InsertGoesThroughTheAddOnAndWaitsForItsAnswer) {
  receive(json{{"type", "open"}});
  std::string reply;
  while (reply.size() < kTextPieceBytes + 10) reply += "line ";
  json state;
  for (json& m : generate(FakeAnswer{.pieces = {sseRecord(reply)}}))
    if (m["type"] == "state") state = std::move(m);
  ASSERT_EQ(state["buttons"].size(), 3u);
  EXPECT_EQ(state["buttons"][1],
            (json{{"label", "Insert"}, {"symbol", "text.insert"}, {"operation", "insertOutput"}}));

  const auto insertAndAnswer = [&](const json& answer) {
    receive(json{{"type", "operation"}, {"name", "insertOutput"}});
    std::string inserted;
    bool whole = false;
    EXPECT_TRUE(executor_.runUntil(
        [&] {
          for (const json& m : take()) {
            if (m["type"] != "insert") continue;
            inserted += m["text"].get<std::string>();
            whole = !m["more"].get<bool>();
          }
          return whole;
        },
        5s));
    EXPECT_EQ(inserted, reply);
    receive(answer);
    return stateWhen([](const json& s) { return !s["inserting"].get<bool>(); });
  };
  state = insertAndAnswer(json{{"type", "inserted"}, {"error", nullptr}});
  EXPECT_EQ(state["insertions"], 1);
  EXPECT_TRUE(state["error"].is_null());
  state = insertAndAnswer(json{{"type", "inserted"}, {"error", "the compose window was closed"}});
  EXPECT_EQ(state["insertions"], 1);
  EXPECT_EQ(state["error"], "The reply could not be inserted: the compose window was closed");
}

TEST_F(NativeHostTest, ACopyWithoutAnswerEndsAtItsTimeoutOrAtClose) {
  copyTimeout_ = 50ms;
  host_ = std::make_unique<NativeHost>(environment());
  receive(json{{"type", "open"}});
  receive(json{{"type", "operation"}, {"name", "copyOutput"}});
  const json state = stateWhen([](const json& s) { return copyEnded(s) && !s["error"].is_null(); });
  EXPECT_EQ(state["error"], "Thunderbird did not confirm the copy within 50 ms.");

  // Closing the port releases a copy still waiting: the host's end does not hang on it.
  copyTimeout_ = std::chrono::hours(1);
  host_ = std::make_unique<NativeHost>(environment());
  receive(json{{"type", "open"}});
  receive(json{{"type", "operation"}, {"name", "copyOutput"}});
  ASSERT_TRUE(executor_.runUntil(
      [&] {
        for (const json& m : take())
          if (m["type"] == "copy") return true;
        return false;
      },
      5s));
  host_->close();
  EXPECT_FALSE(host_->panelOpen());
}

// Bad messages are answered with an error and leave the session as it was: the next good
// message works.
TEST_F(NativeHostTest, BadMessagesGetAClearErrorAndLoseNothing) {
  receive(json{{"type", "open"}});
  take();
  struct Case {
    const char* name;
    std::string payload;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"not JSON", "{\"type\":", "A message from the add-on is not valid JSON (at byte 9)"},
      {"a number beyond any double", R"({"type":"open","messageSize":1E400})",
       "holds a value that cannot be read"},
      {"not an object", "[1,2]", "A message from the add-on has no \"type\""},
      {"deeply nested", std::string(500'000, '[') + std::string(500'000, ']'),
       "A message from the add-on has no \"type\""},
      {"a type that is not text", R"({"type":7})", "has no \"type\""},
      {"unknown type", R"({"type":"launch"})", "the unknown type \"launch\""},
      {"unknown operation", R"({"type":"operation","name":"send"})", "names no known operation"},
      {"operation without value", R"({"type":"operation","name":"setInstruction"})",
       "needs a text \"value\""},
      {"addresses not strings", R"({"type":"checkRecipients","addresses":[1]})",
       "\"addresses\" must be a list of strings"},
      {"a second open", R"({"type":"open"})", "The panel is already open."},
      {"message data without open", R"({"type":"messageData","data":"YQ=="})",
       "No message is being sent."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    receive(c.payload);
    EXPECT_NE(lastError().find(c.error), std::string::npos);
  }
  host_->receive({FrameReader::Frame::Kind::oversize, {}, 5u << 20});
  EXPECT_EQ(lastError(),
            "A message of 5 MiB from the add-on is larger than the limit of 1 MiB and was left "
            "out.");

  receive(json{{"type", "operation"}, {"name", "setInstruction"}, {"value", "Be brief"}});
  const auto states = takeOfType("state");
  ASSERT_FALSE(states.empty());
  EXPECT_EQ(states.back()["instruction"], "Be brief");
}

// A message that cannot be put together leaves no half panel: the add-on can open again.
TEST_F(NativeHostTest, AMessageThatDoesNotArriveWholeIsRefused) {
  struct Case {
    const char* name;
    json open;
    std::vector<std::string> pieces;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"over the size limit",
       json{{"type", "open"}, {"messageSize", 1001}},
       {},
       "The message is larger than 1000 bytes, the limit of the setting \"maxMessageMiB\""},
      {"a size that is no number",
       json{{"type", "open"}, {"messageSize", "12"}},
       {},
       "\"messageSize\" must be a number of bytes."},
      {"bad Base64",
       json{{"type", "open"}, {"messageSize", 4}},
       {"YWJj", "!!"},
       "A piece of the message being answered is not valid Base64."},
      {"longer than announced",
       json{{"type", "open"}, {"messageSize", 2}},
       {"YWJj"},
       "The message being answered came longer than announced."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    host_ = std::make_unique<NativeHost>(environment());
    receive(c.open);
    for (const auto& piece : c.pieces) receive(json{{"type", "messageData"}, {"data", piece}});
    EXPECT_NE(lastError().find(c.error), std::string::npos);
    EXPECT_FALSE(host_->panelOpen());
    receive(json{{"type", "open"}, {"messageSize", 2}});
    receive(json{{"type", "messageData"}, {"data", "b2s="}});
    EXPECT_TRUE(host_->panelOpen());
  }
}

TEST_F(NativeHostTest, AnswersTheHostRules) {
  struct Case {
    json request;
    json answer;
  };
  const std::vector<Case> cases = {
      {json{{"type", "checkRecipients"},
            {"addresses", {"ann@example.org", "bob@example.com", "Eve <eve@example.com>"}}},
       json{{"type", "recipients"},
            {"annotations", {{"bob@example.com", "example.com is not a valid domain"}}},
            {"refusal", "example.com is not a valid recipient domain"}}},
      {json{{"type", "checkRecipients"}, {"addresses", json::array()}},
       json{{"type", "recipients"}, {"annotations", json::object()}, {"refusal", nullptr}}},
      {json{{"type", "headers"}},
       json{{"type", "headers"}, {"headers", {{"X-CustomHeader", {"This ia a custom header."}}}}}},
      {json{{"type", "colour"}, {"subjects", {"Mars rover", "Marshall plan", "MARS", "mars"}}},
       json{{"type", "colours"}, {"colours", {"red", "red", nullptr, nullptr}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request.dump());
    receive(c.request);
    const auto sent = take();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0], c.answer);
  }
}

}  // namespace
}  // namespace lumora::nativehost
