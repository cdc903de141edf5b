// The compose assistant: the panel's state and operations, without any user interface.
//
// It takes the message being answered, asks for its quoted passages, builds at most two chat
// messages from them and an instruction, asks one client for a streamed answer and shows the
// text as it grows. Front-ends draw its state and call its operations.
//
// Threading: every field is read and written on the main executor, and every operation must
// be called there. A run's steps up to the request run on the executor too; the streaming call
// and the chunk loop run on a worker thread that posts each change back (chunks that come
// faster than the executor runs are shown together: the newest carries the whole text).
// Observers are called on the executor after each change.
//
// Edits: while the input page is up with a stored conversation chosen, the instruction and the
// model picker edit that conversation, and the edits are saved at most once a second. An edit
// still waiting for its save when the page goes (Generate, another conversation, the panel
// closing) is saved then rather than dropped; a failed save keeps the edit in memory.
//
// Lifetime: made with make() and held by shared_ptr, and destroyed on the executor's thread.
// Destroying the panel stops its runs and waits for their workers; the executor and everything
// in Dependencies must outlive it.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/mailcontent/MailReader.h"
#include "lumora/chat/ChatMessage.h"
#include "lumora/chat/Service.h"
#include "lumora/panel/ComposeSession.h"
#include "lumora/panel/Conversations.h"
#include "lumora/platform/Pasteboard.h"
#include "lumora/platform/Executor.h"
#include "lumora/store/SettingsKeys.h"

namespace lumora {

class DefaultsStore;

class MailExtensionView : public std::enable_shared_from_this<MailExtensionView> {
 public:
  // The panel's stored fields, in the command's own settings: the instruction, the chosen
  // model and conversation, and what the model reads of the message ("quoted" or "message").
  static constexpr SettingName kPromptKey = SettingName::mailDefaultPrompt;
  static constexpr SettingName kSelectedModelKey = SettingName::mailSelectedModel;
  static constexpr SettingName kSelectedConversationKey = SettingName::mailSelectedConversationId;
  static constexpr SettingName kReadingKey = SettingName::mailReading;
  // The least time between two saves of a conversation's edits.
  static constexpr std::chrono::seconds kSaveInterval{1};
  // Appended to the reply when a run is cancelled before its stream exists.
  static constexpr std::string_view kCancelledText = "已取消";
  // The temperature of every run.
  static constexpr double kTemperature = 1.0;

  struct Dependencies {
    MainExecutor& executor;
    const ComposeSession& session;
    DefaultsStore& ownDefaults;   // the three stored fields
    ChatEnvironment environment;  // settings and transport for the clients
    Pasteboard& pasteboard;
    ConversationSource& conversations;
    // The default model as the settings say now ("defaultModel").
    std::function<std::string()> defaultModel;
    // The quoted passages of a raw message; may throw, which fails the run.
    std::function<std::vector<std::string>(std::string_view)> quotedTexts;
    // Values that replace the stored fields for this panel only (keys as above): reads give
    // them, writes change them in memory and never reach the store.
    std::map<std::string, std::string, std::less<>> overrides;
    // Told the service each run goes to, on the executor (the command's dry run shows it).
    std::function<void(const Service&)> onServiceChosen;
    // The same passages as quotedTexts, read without its debug line: for saying what a run
    // will send before it runs. Unset: quotedTexts.
    std::function<std::vector<std::string>(std::string_view)> previewQuotedTexts;
    // The whole-message reading of a raw message (a draft, with the flag), within the budget
    // the settings give. Unset: MailReader's own, with its default budget.
    std::function<MailReading(std::string_view, bool draft)> readMessage;
    // Where Insert puts the reply; none: the front-end cannot write into the draft, and the
    // panel offers no Insert.
    DraftInserter* inserter = nullptr;
  };

  // What the model is given of the message being answered: its quoted passages (the default),
  // or the whole message, new text apart from the earlier thread.
  enum class Reading { quoted, message };
  static std::string_view readingName(Reading reading);
  // The reading named `name`; nullopt for any other word.
  static std::optional<Reading> readingNamed(std::string_view name);

  // What a run would send of the message, said before it runs.
  struct ReadingSummary {
    enum class Kind {
      newMail,       // no message behind the mail: the instruction alone
      passages,      // quoted: `passages` passages
      noPassages,    // quoted: the message quotes nothing, the instruction alone
      unreadable,    // quoted: the message cannot be read (`failure` says why)
      message,       // message: the sender's message and `earlier` earlier ones
      draft,         // message: a draft, with the message it answers when `earlier` > 0
      emptyMessage,  // message: no text in it, the instruction alone
    };
    Kind kind = Kind::newMail;
    size_t passages = 0;
    size_t characters = 0;  // of the user's message as it goes
    std::string sender;     // the sender's name, or address
    size_t earlier = 0;
    bool shortened = false;  // the message was cut to its budget
    std::string failure;
  };

  static std::shared_ptr<MailExtensionView> make(Dependencies dependencies);
  ~MailExtensionView();

  // State.
  const ReplyText& output() const { return output_; }
  bool generating() const { return generating_; }
  const std::string& errorMessage() const { return errorMessage_; }
  const std::vector<std::shared_ptr<CDConversation>>& conversations() const {
    return conversations_;
  }
  bool copyAnimating() const { return copyAnimating_; }
  // A copy is under way: Copy does nothing until it ends.
  bool copying() const { return copying_; }
  // How many times Copy was used: each use flips copyAnimating and adds one here.
  unsigned copyBounces() const { return copyBounces_; }
  // Insert: whether the front-end can put the reply into the draft, whether it is doing so now,
  // and how many times it has.
  bool canInsert() const { return deps_.inserter != nullptr; }
  bool inserting() const { return inserting_; }
  unsigned insertions() const { return insertions_; }
  // True once the latest run has ended, whichever way: its last change has been made.
  bool latestRunEnded() const;

  // The stored fields: each read asks the store, each write goes to it at once.
  std::string prompt() const;
  void setPrompt(const std::string& value);
  std::string selectedModel() const;
  void setSelectedModel(const std::string& value);
  std::string selectedConversationId() const;
  void setSelectedConversationId(const std::string& value);
  Reading reading() const;
  void setReading(Reading value);
  // From one reading to the other.
  void switchReading();

  // What the next run would send of the message, under the reading now chosen. The message is
  // read once per reading and kept: a run sends what this said.
  const ReadingSummary& readingSummary() const;

  // True when there is text to show, or a run is under way: the result page.
  bool showsResult() const { return !output_.empty() || generating_; }
  // The conversation whose canonical id equals selectedConversationId, compared as text.
  std::shared_ptr<CDConversation> selectedConversation() const;

  // The instruction editor and the model picker: the chosen conversation's instruction and
  // model (the empty text when missing), else the stored prompt and selected model.
  std::string instruction() const;
  void setInstruction(const std::string& value);
  std::string pickedModel() const;
  void setPickedModel(const std::string& value);

  // Operations.
  void panelDidAppear();
  void loadConversations();
  void startGeneration();
  void stopGeneration();
  void leaveResult();
  // Copy. The text is handed to the pasteboard on a thread of its own, as a clipboard helper
  // may take seconds, and the panel goes on meanwhile (copying() says so). When it ends,
  // copyAnimating flips; when no clipboard took the text, errorMessage says why instead.
  void copyOutput();
  // Insert: the finished reply into the draft, on a thread of its own as Copy is. Does nothing
  // while a run is under way (the reply is not finished), with no reply, or without an
  // inserter. When the draft could not take it, errorMessage says why.
  void insertOutput();

  // Called on the executor after every change of state.
  void setObserver(std::function<void()> observer) { observer_ = std::move(observer); }

 private:
  struct Task;
  struct Editing;

  explicit MailExtensionView(Dependencies dependencies);
  std::string stored(SettingName name) const;
  void store(SettingName name, const std::string& value);
  void generate(const std::shared_ptr<Task>& task);
  void showLatest(const std::shared_ptr<Task>& task);
  void fail(const std::shared_ptr<Task>& task, std::exception_ptr failure);
  void finish(const std::shared_ptr<Task>& task);
  void copied(const std::string& failure);
  void inserted(const std::string& failure);
  const MailReading& messageReading(std::string_view raw) const;
  void changed();
  void followEditedConversation();
  void endEditing();
  void scheduleSave();
  void saveEdits();

  Dependencies deps_;
  ReplyText output_;
  bool generating_ = false;
  std::shared_ptr<Task> generatingTask_;
  std::string errorMessage_;
  std::vector<std::shared_ptr<CDConversation>> conversations_;
  bool copyAnimating_ = false;
  unsigned copyBounces_ = 0;
  bool copying_ = false;
  std::function<void()> observer_;
  std::vector<std::shared_ptr<Task>> tasks_;  // every run whose worker may still be going
  bool appeared_ = false;
  std::unique_ptr<Editing> editing_;  // while a conversation's editor is up
  bool savePosted_ = false;           // a save waits on the executor
  bool inserting_ = false;
  unsigned insertions_ = 0;
  std::jthread inserter_;  // the latest Insert
  // The message as each reading reads it, once asked for.
  mutable std::optional<MailReading> messageReading_;
  mutable std::optional<ReadingSummary> summaries_[2];
  std::jthread copier_;               // the latest copy; declared last, so joined first
};

}  // namespace lumora
