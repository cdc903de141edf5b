// The compose assistant's operations and states, driven through an in-memory transport.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "lumora/chat/Errors.h"
#include "lumora/panel/MailExtensionView.h"
#include "lumora/panel/PanelDescription.h"
#include "lumora/models/ConversationModel.h"
#include "lumora/store/DefaultsStore.h"
#include "support/FakeTransport.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using testing::FakeAnswer;
using testing::FakeTransport;
using testing::Gate;
using testing::sseRecord;

constexpr const char* kConversationId = "0F8FAD5B-D9CB-469F-A165-70867728950E";

class PanelTest : public ::testing::Test {
 protected:
  PanelTest() : shared_(dir_ / "shared.json"), own_(dir_ / "own.json") {
    shared_.set("apiKey", "sk-test-0000");
  }

  std::shared_ptr<MailExtensionView> makePanel(std::optional<std::string> raw = std::nullopt,
                                               bool withMessage = false,
                                               ConversationSource* conversations = nullptr,
                                               Pasteboard* pasteboard = nullptr) {
    session_ = withMessage ? SimpleComposeSession(std::move(raw)) : SimpleComposeSession();
    MailExtensionView::Dependencies deps{
        .executor = executor_,
        .session = session_,
        .ownDefaults = own_,
        .environment = ChatEnvironment{shared_, transport_},
        .pasteboard = pasteboard ? *pasteboard : pasteboard_,
        .conversations = conversations ? *conversations : conversations_,
        .defaultModel = [] { return std::string("gpt-3.5-turbo"); },
        .quotedTexts =
            [this](std::string_view) {
              if (parserFailure_) std::rethrow_exception(parserFailure_);
              return passages_;
            },
        .overrides = overrides_,
        .onServiceChosen = {},
        .previewQuotedTexts = {},
        .readMessage = {},
        .inserter = inserter_,
    };
    return MailExtensionView::make(std::move(deps));
  }

  // Runs the executor until the latest run has ended.
  void settle(MailExtensionView& panel) {
    ASSERT_TRUE(
        executor_.runUntil([&] { return panel.latestRunEnded(); }, std::chrono::seconds(5)));
  }

  // A run that the transport answers with `answer`, to its end.
  void generate(MailExtensionView& panel, FakeAnswer answer = {}) {
    transport_.enqueue(std::move(answer));
    panel.startGeneration();
    settle(panel);
  }

  // Copy, waited for to its end.
  void copy(MailExtensionView& panel) {
    panel.copyOutput();
    ASSERT_TRUE(executor_.runUntil([&] { return !panel.copying(); }, std::chrono::seconds(5)));
  }

  // A run stopped while it waits for the response head, run to its end.
  void stopBeforeTheHead(MailExtensionView& panel) {
    auto gate = std::make_shared<Gate>();
    transport_.enqueue(FakeAnswer{.pieces = {}, .headGate = gate});
    panel.startGeneration();
    executor_.runUntil([&] { return panel.generating(); }, std::chrono::seconds(5));
    panel.stopGeneration();
    settle(panel);
  }

  nlohmann::json lastBody() const {
    auto requests = transport_.requests();
    return requests.empty() ? nlohmann::json() : nlohmann::json::parse(requests.back().body);
  }

  class ListConversations final : public ConversationSource {
   public:
    std::vector<std::shared_ptr<CDConversation>> list;
    std::exception_ptr failure;
    std::exception_ptr saveFailure;
    int saves = 0;
    std::vector<std::shared_ptr<CDConversation>> fetchConversations() override {
      if (failure) std::rethrow_exception(failure);
      return list;
    }
    void save() override {
      ++saves;
      if (saveFailure) std::rethrow_exception(saveFailure);
    }
    void set(std::optional<CDConversation::Fields> fields) {
      list.clear();
      if (fields) list.push_back(std::make_shared<CDConversation>(1, std::move(*fields)));
    }
  };

  testing::TempDir dir_;
  DefaultsStore shared_;
  DefaultsStore own_;
  // Timed work (the throttled saves) follows this clock, which only the tests move.
  MainExecutor::Clock::time_point clock_{};
  MainExecutor executor_{[this] { return clock_; }};
  FakeTransport transport_;
  MemoryPasteboard pasteboard_;
  ListConversations conversations_;
  SimpleComposeSession session_;
  std::vector<std::string> passages_;
  std::exception_ptr parserFailure_;
  decltype(MailExtensionView::Dependencies::overrides) overrides_;
  DraftInserter* inserter_ = nullptr;
};

// The messages of the last request, a line each: "role: content".
std::string brief(const nlohmann::json& messages) {
  std::string out;
  for (const auto& m : messages)
    out += m["role"].get<std::string>() + ": " + m["content"].get<std::string>() + "\n";
  return out;
}

// What goes out for each combination of passages and chosen conversation.
TEST_F(PanelTest, MessagesAndModelFollowThePresetTables) {
  struct Case {
    const char* name;
    std::vector<std::string> passages;
    std::string conversationId;
    std::optional<CDConversation::Fields> conversation;
    std::string messages;
    std::string model;
  };
  const CDConversation::Fields withPrompt{.id = kConversationId,
                                          .systemPrompt = "Be brief.",
                                          .model = "claude-3-haiku"};
  const CDConversation::Fields withoutPrompt{.id = kConversationId, .model = "claude-3-haiku"};
  const CDConversation::Fields emptyPrompt{.id = kConversationId, .systemPrompt = ""};
  const std::string lowerId = "0f8fad5b-d9cb-469f-a165-70867728950e";
  const std::string prompt = "You're my assistant, please reply this email";
  const std::string quotes = "user: first quote\nsecond quote\n";
  const std::vector<std::string> two{"first quote", "second quote"};
  const Case cases[] = {
      {"quotes, nothing chosen", two, "", std::nullopt, "system: " + prompt + "\n" + quotes,
       "gpt-4o"},
      {"quotes, id not a UUID", two, "not-a-uuid", withPrompt, "system: " + prompt + "\n" + quotes,
       "gpt-4o"},
      {"quotes, conversation gone", two, kConversationId, std::nullopt, quotes, "gpt-4o"},
      {"quotes, conversation without instruction keeps the model", two, kConversationId,
       withoutPrompt, quotes, "gpt-4o"},
      {"quotes, conversation with instruction and model", two, kConversationId, withPrompt,
       "system: Be brief.\n" + quotes, "claude-3-haiku"},
      {"quotes, lower-case id still matches", two, lowerId, withPrompt,
       "system: Be brief.\n" + quotes, "claude-3-haiku"},
      {"quotes, empty instruction is still a system message", two, kConversationId, emptyPrompt,
       "system: \n" + quotes, "gpt-4o"},
      {"no quotes, nothing chosen", {}, "", std::nullopt, "user: " + prompt + "\n", "gpt-4o"},
      {"no quotes, conversation instruction is the user message",
       {},
       kConversationId,
       withPrompt,
       "user: Be brief.\n",
       "gpt-4o"},
      {"no quotes, lower-case id is compared as text and misses",
       {},
       lowerId,
       withPrompt,
       "user: " + prompt + "\n",
       "gpt-4o"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    passages_ = c.passages;
    conversations_.set(c.conversation);
    own_.set("mailSelectedConversationId", c.conversationId);
    own_.set("mailSelectedModel", "gpt-4o");
    auto panel = makePanel("From: a@example.org\r\n\r\nhello", true);
    panel->panelDidAppear();
    generate(*panel);
    const nlohmann::json body = lastBody();
    EXPECT_EQ(brief(body["messages"]), c.messages);
    EXPECT_EQ(body["model"], c.model);
    EXPECT_EQ(body["temperature"], 1.0);
  }
}

TEST_F(PanelTest, MessageBytesThatAreNotUtf8CountAsANewMail) {
  passages_ = {"never asked for"};
  auto panel = makePanel(std::string("Subject: \xff\xfe\r\n\r\nbody"), true);
  panel->panelDidAppear();
  generate(*panel);
  EXPECT_EQ(lastBody()["messages"].size(), 1u);
  EXPECT_EQ(lastBody()["messages"][0]["role"], "user");
  EXPECT_EQ(panel->errorMessage(), "");
}

TEST_F(PanelTest, AParserFailureIsShownAndNothingIsSent) {
  parserFailure_ = std::make_exception_ptr(DecodingError("The message could not be read."));
  auto panel = makePanel("x", true);
  panel->startGeneration();
  settle(*panel);
  EXPECT_TRUE(transport_.requests().empty());
  EXPECT_EQ(panel->errorMessage(), "The message could not be read.");
  EXPECT_FALSE(panel->generating());
}

// A reply in Latin-1 8bit, which the quoted reading leaves alone (its bytes are not UTF-8) and
// the whole-message reading reads.
const std::string kLatin1Reply =
    "From: Carla Mendes <carla@example.org>\r\nDate: Tue, 3 Nov 2026 09:12:44 +0100\r\n"
    "Subject: Rechnung\r\nContent-Type: text/plain; charset=iso-8859-1\r\n"
    "Content-Transfer-Encoding: 8bit\r\n\r\nK\xf6nnen Sie bis Freitag zahlen?\r\n\r\n"
    "On Mon, 2 Nov 2026, Sam Lee <sam@example.org> wrote:\r\n> Die Rechnung folgt.\r\n";

TEST_F(PanelTest, TheWholeMessageGoesAsOneUserMessageUnderTheInstruction) {
  struct Case {
    const char* name;
    std::optional<CDConversation::Fields> conversation;
    std::string conversationId;
    std::string system;  // empty: no system message
  };
  const Case cases[] = {
      {"no conversation", std::nullopt, "", "You're my assistant, please reply this email"},
      {"a conversation with an instruction",
       CDConversation::Fields{.id = kConversationId, .systemPrompt = "Be brief."},
       kConversationId, "Be brief."},
      {"a conversation without one", CDConversation::Fields{.id = kConversationId},
       kConversationId, ""},
  };
  const MailReading expected = MailReader::read(kLatin1Reply);
  ASSERT_NE(expected.newText.find("Können Sie bis Freitag zahlen?"), std::string::npos);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    conversations_.set(c.conversation);
    own_.set("mailSelectedConversationId", c.conversationId);
    own_.set("mailReading", "message");
    passages_ = {"never asked for"};
    auto panel = makePanel(kLatin1Reply, true);
    panel->panelDidAppear();
    generate(*panel);
    const std::string system =
        c.system.empty() ? "" : "system: " + c.system + "\n";
    EXPECT_EQ(brief(lastBody()["messages"]), system + "user: " + expected.text + "\n");
  }
  // With no message behind the mail the reading changes nothing: the instruction alone.
  conversations_.set(std::nullopt);
  own_.set("mailSelectedConversationId", "");
  auto panel = makePanel();
  panel->panelDidAppear();
  generate(*panel);
  EXPECT_EQ(brief(lastBody()["messages"]), "user: You're my assistant, please reply this email\n");
}

TEST_F(PanelTest, TheReadingLineSaysWhatARunWillSend) {
  struct Case {
    const char* name;
    std::optional<std::string> raw;  // none: a new mail
    const char* reading;
    std::vector<std::string> passages;
    bool parserFails;
    std::string line;
    std::string toggle;
  };
  const std::string draft = "Hi Carla,\n\nOn Tue, Carla Mendes wrote:\n> Are you coming?\n";
  const Case cases[] = {
      {"new mail", std::nullopt, "quoted", {}, false,
       "A new mail: the model gets your instruction alone", "Read the whole message"},
      {"two passages", "x", "quoted", {"abc", "dé"}, false,
       "The model reads: 2 quoted passages (6 characters)", "Read the whole message"},
      {"one passage", "x", "quoted", {"a"}, false,
       "The model reads: 1 quoted passage (1 characters)", "Read the whole message"},
      {"nothing quoted", kLatin1Reply, "quoted", {"not UTF-8, never asked"}, false,
       "This mail quotes nothing: the model gets your instruction alone", "Read the whole message"},
      {"unreadable", "x", "quoted", {}, true,
       "The quoted passages cannot be read: The message could not be read.",
       "Read the whole message"},
      {"the whole message", kLatin1Reply, "message", {}, false,
       "The model reads: the message from Carla Mendes and 1 earlier message (" +
           std::to_string(MailReader::read(kLatin1Reply).characters) + " characters)",
       "Read only the quoted passages"},
      {"a draft", draft, "message", {}, false,
       "The model reads: your draft and the message it answers (" +
           std::to_string(MailReader::read(draft).characters) + " characters)",
       "Read only the quoted passages"},
      {"an empty message", "", "message", {}, false,
       "This message holds no text: the model gets your instruction alone",
       "Read only the quoted passages"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    own_.set("mailReading", c.reading);
    passages_ = c.passages;
    parserFailure_ = c.parserFails ? std::make_exception_ptr(
                                         DecodingError("The message could not be read."))
                                   : nullptr;
    auto panel = makePanel(c.raw, c.raw.has_value());
    panel->panelDidAppear();
    const PanelDescription d = PanelDescription::describe(*panel, false, Language::english);
    EXPECT_EQ(d.reading.line, c.line);
    EXPECT_EQ(d.reading.toggle.label, c.toggle);
    EXPECT_EQ(d.reading.toggle.operation, PanelOperation::switchReading);
  }
  parserFailure_ = nullptr;
}

TEST_F(PanelTest, SwitchingTheReadingIsRememberedUnlessChosenForThisRunOnly) {
  auto panel = makePanel(kLatin1Reply, true);
  panel->panelDidAppear();
  EXPECT_EQ(panel->reading(), MailExtensionView::Reading::quoted);
  panel->switchReading();
  EXPECT_EQ(panel->reading(), MailExtensionView::Reading::message);
  EXPECT_EQ(own_.string("mailReading"), "message");
  panel->switchReading();
  EXPECT_EQ(own_.string("mailReading"), "quoted");
  // A word that names no reading, written by another program, reads as the default.
  own_.set("mailReading", "everything");
  EXPECT_EQ(panel->reading(), MailExtensionView::Reading::quoted);

  own_.remove("mailReading");
  overrides_ = {{"mailReading", "message"}};
  auto once = makePanel(kLatin1Reply, true);
  EXPECT_EQ(once->reading(), MailExtensionView::Reading::message);
  once->switchReading();
  EXPECT_EQ(once->reading(), MailExtensionView::Reading::quoted);
  EXPECT_FALSE(own_.string("mailReading").has_value());
}

TEST_F(PanelTest, TheModelIsFilledInOnlyWhenEmpty) {
  auto panel = makePanel();
  panel->panelDidAppear();
  EXPECT_EQ(panel->selectedModel(), "gpt-3.5-turbo");
  EXPECT_EQ(own_.string("mailSelectedModel"), "gpt-3.5-turbo");
  panel->setSelectedModel("gpt-4o");
  panel->panelDidAppear();
  EXPECT_EQ(panel->selectedModel(), "gpt-4o");
}

TEST_F(PanelTest, OverridesAreNeverStored) {
  overrides_ = {{"mailSelectedModel", "gpt-4o"}};
  auto panel = makePanel();
  panel->panelDidAppear();
  EXPECT_EQ(panel->selectedModel(), "gpt-4o");
  panel->setSelectedModel("gpt-4.1");
  EXPECT_EQ(panel->selectedModel(), "gpt-4.1");
  EXPECT_FALSE(own_.string("mailSelectedModel").has_value());
}

TEST_F(PanelTest, OutputFollowsTheChunksAndRegenerateReplacesItAtTheFirstChunk) {
  auto panel = makePanel();
  panel->panelDidAppear();
  generate(*panel, FakeAnswer{.pieces = {sseRecord("Hello"), sseRecord(", world", "stop"),
                                         "data: [DONE]\n\n"}});
  EXPECT_EQ(panel->output().str(), "Hello, world");
  EXPECT_FALSE(panel->generating());
  EXPECT_TRUE(panel->showsResult());

  auto gate = std::make_shared<Gate>();
  transport_.enqueue(FakeAnswer{.pieces = {}, .headGate = gate});
  panel->startGeneration();
  executor_.runUntil([&] { return panel->generating(); }, std::chrono::seconds(5));
  EXPECT_EQ(panel->output().str(), "Hello, world");  // old text stands while waiting
  gate->open();
  settle(*panel);
  EXPECT_EQ(panel->output().str(), "Hello, world");  // a stream with no chunk changes nothing

  generate(*panel, FakeAnswer{.pieces = {sseRecord("New")}});
  EXPECT_EQ(panel->output().str(), "New");
}

// Chunks that come faster than the executor runs are shown together, the newest text standing
// for all before it: the reply ends whole and in order, and the observer runs a few times, not
// once per chunk.
TEST_F(PanelTest, ABurstOfChunksEndsWithTheWholeReplyInAFewUpdates) {
  constexpr int kChunks = 5000;
  FakeAnswer answer{.bodyGate = std::make_shared<Gate>()};
  std::string whole;
  for (int i = 0; i < kChunks; ++i) {
    const std::string word = std::to_string(i) + (i % 7 == 0 ? "\n" : " ");
    answer.pieces.push_back(sseRecord(word, i + 1 == kChunks ? "stop" : ""));
    whole += word;
  }
  answer.pieces.push_back("data: [DONE]\n\n");
  const std::shared_ptr<Gate> body = answer.bodyGate;

  auto panel = makePanel();
  panel->panelDidAppear();
  std::vector<std::string> shown;  // each text the observer saw, once
  size_t calls = 0;
  panel->setObserver([&] {
    ++calls;
    if (panel->output().empty() || (!shown.empty() && shown.back() == panel->output().str()))
      return;
    if (shown.empty()) {
      // The executor is held here until the whole body is out, so the chunks come while an
      // update waits, as they do when the reader outruns the main thread.
      body->awaitWaiter();
      body->open();
    }
    shown.push_back(panel->output().str());
  });
  generate(*panel, std::move(answer));

  EXPECT_EQ(panel->output().str(), whole);
  EXPECT_EQ(panel->errorMessage(), "");
  EXPECT_FALSE(panel->generating());
  ASSERT_FALSE(shown.empty());
  EXPECT_EQ(shown.back(), whole);
  for (size_t i = 1; i < shown.size(); ++i)
    EXPECT_TRUE(shown[i].size() > shown[i - 1].size() && shown[i].starts_with(shown[i - 1]))
        << "update " << i << " does not extend the one before";
  EXPECT_LT(calls, kChunks / 50u) << "the observer ran about once per chunk";
}

TEST_F(PanelTest, FailuresKeepTheTextAndTheErrorStaysAfterASuccess) {
  auto panel = makePanel();
  panel->panelDidAppear();
  generate(
      *panel,
      FakeAnswer{.pieces = {sseRecord("Partial")},
                 .bodyFailure = std::make_exception_ptr(TransportError(
                     TransportError::Code::connectionLost, "The network connection was lost."))});
  EXPECT_EQ(panel->output().str(), "Partial");
  EXPECT_EQ(panel->errorMessage(), "The network connection was lost.");

  generate(*panel,
           FakeAnswer{.status = 401,
                      .pieces = {R"({"error":{"message":"Bad key","code":"invalid_api_key"}})"}});
  EXPECT_EQ(panel->errorMessage(), "Error invalid_api_key: Bad key");
  EXPECT_EQ(panel->output().str(), "Partial");

  generate(*panel, FakeAnswer{.pieces = {sseRecord("Fine")}});
  EXPECT_EQ(panel->output().str(), "Fine");
  EXPECT_EQ(panel->errorMessage(), "Error invalid_api_key: Bad key");
}

TEST_F(PanelTest, StopMidStreamKeepsTheTextWithoutTheCancellationMark) {
  auto panel = makePanel();
  auto gate = std::make_shared<Gate>();
  transport_.enqueue(FakeAnswer{.pieces = {sseRecord("So far")}, .bodyGate = gate});
  panel->startGeneration();
  executor_.runUntil([&] { return !panel->output().empty(); }, std::chrono::seconds(5));
  panel->stopGeneration();
  EXPECT_TRUE(panel->generating());  // nothing changes until the run has ended
  settle(*panel);
  EXPECT_EQ(panel->output().str(), "So far");
  EXPECT_FALSE(panel->generating());
  EXPECT_EQ(panel->errorMessage(), "");
}

TEST_F(PanelTest, BackClearsAtOnceAndTheResultPageStaysUntilTheRunEnds) {
  auto panel = makePanel();
  auto gate = std::make_shared<Gate>();
  transport_.enqueue(FakeAnswer{.pieces = {sseRecord("Text")}, .bodyGate = gate});
  panel->startGeneration();
  executor_.runUntil([&] { return !panel->output().empty(); }, std::chrono::seconds(5));
  panel->leaveResult();
  EXPECT_TRUE(panel->output().empty());
  EXPECT_TRUE(panel->showsResult());
  settle(*panel);
  EXPECT_FALSE(panel->showsResult());
}

TEST_F(PanelTest, CopyPutsTheReplyOnThePasteboardAndFlipsTheAnimation) {
  auto panel = makePanel();
  auto gate = std::make_shared<Gate>();
  transport_.enqueue(FakeAnswer{.pieces = {}, .headGate = gate});
  panel->startGeneration();
  executor_.runUntil([&] { return panel->generating(); }, std::chrono::seconds(5));
  copy(*panel);  // during the wait for the first chunk
  EXPECT_TRUE(pasteboard_.declared());
  EXPECT_EQ(pasteboard_.text(), "");
  EXPECT_TRUE(panel->copyAnimating());
  gate->open();
  settle(*panel);

  generate(*panel, FakeAnswer{.pieces = {sseRecord("Copied text")}});
  copy(*panel);
  EXPECT_EQ(pasteboard_.text(), "Copied text");
  EXPECT_FALSE(panel->copyAnimating());
}

// Insert: offered only with an inserter and a finished reply; the whole reply goes to the
// draft on a thread of its own; a draft that refuses it says why in the error line.
TEST_F(PanelTest, InsertPutsTheFinishedReplyIntoTheDraft) {
  class Draft final : public DraftInserter {
   public:
    std::vector<std::string> inserted;
    std::string refusal;
    void insert(const std::string& reply) override {
      if (!refusal.empty()) throw InsertError(refusal);
      inserted.push_back(reply);
    }
  } draft;
  const auto offered = [](const MailExtensionView& panel) {
    const PanelDescription d = PanelDescription::describe(panel, false, Language::english);
    return std::any_of(d.buttons.begin(), d.buttons.end(), [](const auto& b) {
      return b.operation == PanelOperation::insertOutput && b.label == "Insert";
    });
  };
  const auto insert = [&](MailExtensionView& panel) {
    panel.insertOutput();
    ASSERT_TRUE(executor_.runUntil([&] { return !panel.inserting(); }, std::chrono::seconds(5)));
  };

  // Without an inserter there is no Insert, and the operation does nothing.
  auto plain = makePanel();
  generate(*plain, FakeAnswer{.pieces = {sseRecord("Dear Ann")}});
  EXPECT_FALSE(offered(*plain));
  plain->insertOutput();
  EXPECT_FALSE(plain->inserting());

  inserter_ = &draft;
  auto panel = makePanel();
  // While the reply streams it is not finished: no Insert.
  auto gate = std::make_shared<Gate>();
  transport_.enqueue(FakeAnswer{.pieces = {sseRecord("Dear Ann,"), sseRecord(" see you.")},
                                .bodyGate = gate});
  panel->startGeneration();
  ASSERT_TRUE(executor_.runUntil([&] { return !panel->output().empty(); }, std::chrono::seconds(5)));
  EXPECT_FALSE(offered(*panel));
  panel->insertOutput();
  EXPECT_FALSE(panel->inserting());
  gate->open();
  settle(*panel);
  EXPECT_TRUE(offered(*panel));
  insert(*panel);
  EXPECT_EQ(draft.inserted, std::vector<std::string>{"Dear Ann, see you."});
  EXPECT_EQ(panel->insertions(), 1u);
  EXPECT_EQ(panel->errorMessage(), "");

  draft.refusal = "The compose window is gone.";
  insert(*panel);
  EXPECT_EQ(panel->insertions(), 1u);
  EXPECT_EQ(panel->errorMessage(), "The compose window is gone.");
  inserter_ = nullptr;
}

// A clipboard helper that takes its time does not hold the panel: the copy goes on beside it,
// a second Copy meanwhile does nothing, and the bounce comes when the helper is done.
TEST_F(PanelTest, ASlowClipboardDoesNotHoldThePanel) {
  class Slow final : public Pasteboard {
   public:
    void clearContents() override {}
    void setString(const std::string& text) override {
      ++calls;
      gate.wait({});
      copied = text;
    }
    Gate gate;
    std::atomic<int> calls = 0;
    std::string copied;
  } slow;
  auto panel = makePanel(std::nullopt, false, nullptr, &slow);
  generate(*panel, FakeAnswer{.pieces = {sseRecord("Slowly copied")}});

  panel->copyOutput();
  EXPECT_TRUE(panel->copying());
  EXPECT_TRUE(PanelDescription::describe(*panel, false, Language::english).copying);
  panel->copyOutput();
  panel->leaveResult();  // the panel answers while the helper runs
  executor_.drain();
  EXPECT_FALSE(panel->showsResult());
  EXPECT_EQ(panel->copyBounces(), 0u);

  slow.gate.open();
  ASSERT_TRUE(executor_.runUntil([&] { return !panel->copying(); }, std::chrono::seconds(5)));
  EXPECT_EQ(slow.calls, 1);
  EXPECT_EQ(slow.copied, "Slowly copied");
  EXPECT_EQ(panel->copyBounces(), 1u);
}

TEST_F(PanelTest, AConversationFetchFailureIsShownAndTheListStays) {
  conversations_.set(CDConversation::Fields{.id = kConversationId, .systemPrompt = "x"});
  auto panel = makePanel();
  panel->loadConversations();
  conversations_.failure = std::make_exception_ptr(FileError("The store could not be opened."));
  panel->loadConversations();
  EXPECT_EQ(panel->errorMessage(), "The store could not be opened.");
  EXPECT_EQ(panel->conversations().size(), 1u);
}

TEST_F(PanelTest, TheEditorAndModelPickerEditTheChosenConversationOrTheStoredFields) {
  conversations_.set(CDConversation::Fields{.id = kConversationId, .systemPrompt = "Be brief."});
  own_.set("mailDefaultPrompt", "Answer kindly.");
  own_.set("mailSelectedModel", "gpt-4o");
  auto panel = makePanel();
  panel->panelDidAppear();
  const auto& conversation = conversations_.list.front();

  EXPECT_EQ(panel->instruction(), "Answer kindly.");
  EXPECT_EQ(panel->pickedModel(), "gpt-4o");

  // Choosing the conversation swaps both at once; its missing model reads as empty text.
  panel->setSelectedConversationId(kConversationId);
  EXPECT_EQ(panel->instruction(), "Be brief.");
  EXPECT_EQ(panel->pickedModel(), "");
  panel->setInstruction("Be very brief.");
  panel->setPickedModel("claude-3-haiku");
  EXPECT_EQ(conversation->systemPrompt(), "Be very brief.");
  EXPECT_EQ(conversation->model(), "claude-3-haiku");
  EXPECT_EQ(own_.string("mailDefaultPrompt"), "Answer kindly.");
  EXPECT_EQ(own_.string("mailSelectedModel"), "gpt-4o");

  // The next run sees the edit before any save.
  passages_ = {"quote"};
  session_ = SimpleComposeSession("From: a@example.org\r\n\r\nhello");
  generate(*panel);
  EXPECT_EQ(lastBody()["messages"][0]["content"], "Be very brief.");
  EXPECT_EQ(lastBody()["model"], "claude-3-haiku");

  // Back to "Prompt": the stored fields again, untouched by the conversation's edits.
  panel->setSelectedConversationId("");
  panel->setInstruction("Answer in French.");
  EXPECT_EQ(own_.string("mailDefaultPrompt"), "Answer in French.");
  EXPECT_EQ(conversation->systemPrompt(), "Be very brief.");
}

TEST_F(PanelTest, EditsOfAConversationAreSavedAtMostOncePerSecond) {
  conversations_.set(CDConversation::Fields{.id = kConversationId, .systemPrompt = ""});
  own_.set("mailSelectedConversationId", kConversationId);
  auto panel = makePanel();
  panel->panelDidAppear();

  // Ten edits in a burst, as typing makes them: the first is saved at once, the latest when
  // the second is over, and nothing in between.
  for (int i = 1; i <= 10; ++i) {
    panel->setInstruction(std::string(i, 'x'));
    executor_.drain();
    clock_ += std::chrono::milliseconds(50);
  }
  EXPECT_EQ(conversations_.saves, 1);
  clock_ += std::chrono::milliseconds(500);
  executor_.drain();
  EXPECT_EQ(conversations_.saves, 2);
  clock_ += std::chrono::seconds(5);
  executor_.drain();
  EXPECT_EQ(conversations_.saves, 2) << "nothing more to save";

  // After a quiet second the next edit is saved at once again.
  panel->setPickedModel("gpt-4o");
  executor_.drain();
  EXPECT_EQ(conversations_.saves, 3);
}

TEST_F(PanelTest, AnEditWaitingForItsSaveIsSavedWhenTheEditorGoes) {
  conversations_.set(CDConversation::Fields{.id = kConversationId, .systemPrompt = ""});
  own_.set("mailSelectedConversationId", kConversationId);
  const std::function<void(MailExtensionView&)> leaving[] = {
      [&](MailExtensionView& panel) { generate(panel); },
      [](MailExtensionView& panel) { panel.setSelectedConversationId(""); },
  };
  for (size_t i = 0; i < std::size(leaving); ++i) {
    SCOPED_TRACE(i);
    own_.set("mailSelectedConversationId", kConversationId);
    auto panel = makePanel();
    panel->panelDidAppear();
    conversations_.saves = 0;
    panel->setInstruction("first");
    panel->setInstruction("second");  // waits for the end of the second
    executor_.drain();
    ASSERT_EQ(conversations_.saves, 1);
    leaving[i](*panel);
    executor_.drain();
    EXPECT_EQ(conversations_.saves, 2);
  }

  // The panel closing with an edit waiting.
  own_.set("mailSelectedConversationId", kConversationId);
  auto panel = makePanel();
  panel->panelDidAppear();
  conversations_.saves = 0;
  panel->setInstruction("third");
  panel->setInstruction("fourth");
  executor_.drain();
  panel.reset();
  EXPECT_EQ(conversations_.saves, 2);
}

TEST_F(PanelTest, AFailedSaveKeepsTheEditInMemory) {
  conversations_.set(CDConversation::Fields{.id = kConversationId, .systemPrompt = "old"});
  conversations_.saveFailure = std::make_exception_ptr(StoreError("The store is locked."));
  own_.set("mailSelectedConversationId", kConversationId);
  auto panel = makePanel();
  panel->panelDidAppear();
  panel->setInstruction("new");
  executor_.drain();
  EXPECT_EQ(conversations_.saves, 1);
  EXPECT_EQ(panel->instruction(), "new");
  EXPECT_EQ(conversations_.list.front()->systemPrompt(), "new");
  EXPECT_EQ(panel->errorMessage(), "") << "a failed save is not the user's concern";
}

// What the panel shows in each state of a run, as a front-end reads it.
TEST_F(PanelTest, TheDescriptionFollowsTheStatesOfARun) {
  using Page = PanelDescription::Page;
  using Op = PanelOperation;
  const auto describe = [](const MailExtensionView& panel) {
    return PanelDescription::describe(panel, false, Language::english);
  };
  const auto buttons = [](const PanelDescription& d) {
    std::vector<std::pair<std::string, Op>> out;
    for (const auto& b : d.buttons) out.emplace_back(b.label, b.operation);
    return out;
  };
  auto panel = makePanel();
  panel->panelDidAppear();

  // Input.
  PanelDescription d = describe(*panel);
  EXPECT_EQ(d.page, Page::input);
  EXPECT_EQ(d.header.leading, Op::none);
  EXPECT_EQ(d.header.symbol, "wand.and.stars");
  EXPECT_EQ(d.header.title, "Lumora");
  EXPECT_FALSE(d.errorLine);
  EXPECT_EQ(d.instruction, "You're my assistant, please reply this email");
  EXPECT_EQ(d.generate.operation, Op::startGeneration);
  EXPECT_TRUE(d.buttons.empty());

  // Waiting: the result page with nothing in it yet, and Stop.
  auto head = std::make_shared<Gate>();
  auto body = std::make_shared<Gate>();
  transport_.enqueue(FakeAnswer{.pieces = {sseRecord("So far")}, .headGate = head, .bodyGate = body});
  panel->startGeneration();
  executor_.runUntil([&] { return panel->generating(); }, std::chrono::seconds(5));
  d = describe(*panel);
  EXPECT_EQ(d.page, Page::result);
  EXPECT_EQ(d.header.leading, Op::leaveResult);
  EXPECT_EQ(d.header.symbol, "chevron.left");
  EXPECT_EQ(d.header.title, "Writing...");
  EXPECT_TRUE(d.output.empty());
  EXPECT_EQ(buttons(d), (std::vector<std::pair<std::string, Op>>{{"Copy", Op::copyOutput},
                                                                 {"Stop", Op::stopGeneration}}));

  // Streaming.
  head->open();
  executor_.runUntil([&] { return !panel->output().empty(); }, std::chrono::seconds(5));
  d = describe(*panel);
  EXPECT_EQ(d.output, "So far");
  EXPECT_EQ(d.buttons.back().operation, Op::stopGeneration);

  // Result: Regenerate, and the title back.
  body->open();
  settle(*panel);
  d = describe(*panel);
  EXPECT_EQ(d.page, Page::result);
  EXPECT_EQ(d.header.title, "Lumora");
  EXPECT_EQ(d.buttons.back().operation, Op::startGeneration);
  EXPECT_EQ(d.buttons.back().label, "Regenerate");
  const unsigned bounces = d.copyBounces;
  copy(*panel);
  EXPECT_EQ(describe(*panel).copyBounces, bounces + 1);

  // Error with no text: back to the input page with the error above it.
  panel->leaveResult();
  generate(*panel, FakeAnswer{.status = 500, .pieces = {"oops"}});
  d = describe(*panel);
  EXPECT_EQ(d.page, Page::input);
  EXPECT_EQ(d.errorLine, "Unexpected http code 500");

  // Cancelled before the head: the mark is the reply, on the result page.
  stopBeforeTheHead(*panel);
  d = describe(*panel);
  EXPECT_EQ(d.page, Page::result);
  EXPECT_EQ(d.output, "已取消");
  EXPECT_EQ(d.buttons.back().label, "Regenerate");
  EXPECT_EQ(d.errorLine, "Unexpected http code 500") << "an error stays for the panel's life";
}

TEST_F(PanelTest, ThePickersAndTheirWords) {
  conversations_.list = {
      std::make_shared<CDConversation>(
          1, CDConversation::Fields{.id = "0f8fad5b-d9cb-469f-a165-70867728950e",
                                    .title = "Replies",
                                    .systemPrompt = "Be brief.",
                                    .model = std::nullopt}),
      std::make_shared<CDConversation>(2, CDConversation::Fields{.id = std::nullopt})};
  own_.set("mailSelectedModel", "gpt-4o");
  auto panel = makePanel();
  panel->panelDidAppear();

  PanelDescription d = PanelDescription::describe(*panel, false, Language::english);
  std::vector<std::string> labels, values;
  for (const auto& e : d.conversationPicker.entries) {
    labels.push_back(e.divider ? "--" : e.label);
    values.push_back(e.value);
  }
  EXPECT_EQ(labels, (std::vector<std::string>{"Prompt", "--", "Replies", "New Chat"}));
  EXPECT_EQ(values, (std::vector<std::string>{"", "", kConversationId, ""}));
  EXPECT_EQ(d.modelPicker.operation, PanelOperation::selectModel);
  EXPECT_EQ(d.modelPicker.selection, "gpt-4o");
  EXPECT_EQ(d.modelPicker.entries.size(), ConversationModel::allCases().size());

  // A chosen conversation: its instruction, and its model picker with its missing model.
  panel->setSelectedConversationId(kConversationId);
  d = PanelDescription::describe(*panel, true, Language::simplifiedChinese);
  EXPECT_EQ(d.instruction, "Be brief.");
  EXPECT_EQ(d.conversationPicker.selection, kConversationId);
  EXPECT_EQ(d.modelPicker.operation, PanelOperation::setConversationModel);
  EXPECT_EQ(d.modelPicker.selection, "");
  ASSERT_EQ(d.modelPicker.entries.size(), ConversationModel::regionModels().size());
  EXPECT_EQ(d.modelPicker.entries.front().value,
            ConversationModel::regionModels().front().rawValue());
  // The fixed words translated; titles and names as they are.
  EXPECT_EQ(d.header.title, "Lumora");
  EXPECT_EQ(d.generate.label, "生成");
  EXPECT_EQ(d.conversationPicker.entries[0].label, "提示词");
  EXPECT_EQ(d.conversationPicker.entries[3].label, "新对话");
  EXPECT_EQ(d.conversationPicker.entries[2].label, "Replies");
}

TEST_F(PanelTest, ACopyThatNoClipboardTakesSaysWhy) {
  class Refusing final : public Pasteboard {
   public:
    void clearContents() override {}
    void setString(const std::string&) override {
      throw PasteboardError("No clipboard took the text: install wl-clipboard or xclip.");
    }
  } refusing;
  auto panel = makePanel(std::nullopt, false, nullptr, &refusing);
  copy(*panel);
  EXPECT_EQ(panel->errorMessage(), "No clipboard took the text: install wl-clipboard or xclip.");
  EXPECT_FALSE(panel->copyAnimating());
}

}  // namespace
}  // namespace lumora
