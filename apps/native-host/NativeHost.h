// The native host's side of the conversation with the Thunderbird add-on: one panel per port,
// the host rules on request. docs/integrations/thunderbird.md lists the messages.
//
// From the add-on (each a JSON object with "type"):
//   open         {"messageSize": N or null, "language": "en-US"}: a panel for the compose
//                window; N bytes of the message being answered follow in messageData pieces,
//                null is a new mail. The panel appears once the message is whole.
//   messageData  {"data": BASE64}: the next piece of the message
//   operation    {"name": NAME, "value": TEXT}: a control of the panel was used; NAME is one of
//                the operations of the state below
//   copied       {"error": null or TEXT}: the answer to a copy
//   inserted     {"error": null or TEXT}: the answer to an insert
//   checkRecipients {"addresses": [...]}, headers {}, colour {"subjects": [...]}: the host rules
// To the add-on:
//   state        the panel as the page draws it, without the reply text; sent when it changes
//   output       {"reset": BOOL, "text": TEXT}: the reply's new text, appended, or replacing
//                all of it when "reset"; never the whole text per chunk
//   copy         {"text": TEXT, "more": BOOL}: put the text (the pieces joined) on the clipboard
//   insert       {"text": TEXT, "more": BOOL}: put the text into the compose window's body, after
//                what the user wrote and before the quoted original
//   recipients   {"annotations": {ADDRESS: TEXT}, "refusal": null or TEXT}
//   headers      {"headers": {NAME: [VALUE]}}
//   colours      {"colours": ["red" or null, ...]}, one per subject
//   error        {"message": TEXT}: a message that could not be taken; the session goes on
//
// Every message to the add-on stays under the browser's limit: long texts go in pieces.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Framing.h"
#include "lumora/chat/ReplyText.h"
#include "lumora/panel/ComposeSession.h"
#include "lumora/panel/MailExtensionView.h"
#include "lumora/panel/PanelDescription.h"
#include "lumora/platform/Pasteboard.h"

namespace lumora::nativehost {

// The most bytes of text in one message: escaped as JSON, a byte takes six at the most, so a
// piece stays well under the browser's limit.
inline constexpr size_t kTextPieceBytes = 128 * 1024;
// Base64 of the message being answered, per messageData piece, as the add-on cuts it.
inline constexpr size_t kMessagePieceBytes = 512 * 1024;

// `text` cut into pieces of at most `most` bytes, each ending on a whole UTF-8 character
// (a byte that starts no character counts as one). Empty text gives no pieces.
std::vector<std::string_view> textPieces(std::string_view text, size_t most = kTextPieceBytes);

// The name of an operation on the wire, and back (none for an unknown name).
std::string_view operationName(PanelOperation operation);
PanelOperation operationNamed(std::string_view name);

// The "state" message for a description.
std::string stateMessage(const PanelDescription& description);

// A text the add-on is to act on (put on the clipboard, insert into the draft), sent over the
// port in pieces of `type`; the calling thread, the panel's own for the action, waits for the
// add-on's answer.
class AddOnExchange {
 public:
  struct Words {
    std::string type;     // of the pieces: "copy", "insert"
    std::string closed;   // the port closed before the answer
    std::string noAnswer; // "Thunderbird did not confirm the copy within", and the time after
    std::string refused;  // before the add-on's reason
  };
  AddOnExchange(Words words, std::function<bool(std::string_view)> send,
                std::chrono::milliseconds timeout)
      : words_(std::move(words)), send_(std::move(send)), timeout_(timeout) {}
  // Sends `text` and waits. Throws an `Failure` (an Error) with the words above.
  template <typename Failure>
  void exchange(const std::string& text) {
    if (std::optional<std::string> failure = run(text)) throw Failure(*failure);
  }
  // The add-on's answer: empty when it did what it was asked.
  void answered(std::string failure);
  // The port is gone: an exchange still waiting fails now.
  void close();

 private:
  std::optional<std::string> run(const std::string& text);

  Words words_;
  std::function<bool(std::string_view)> send_;
  std::chrono::milliseconds timeout_;
  std::mutex mutex_;
  std::condition_variable answered_;
  std::optional<std::string> answer_;
  bool waiting_ = false;
  bool closed_ = false;
};

// Copy, as the add-on does it: the text goes over the port and the add-on writes the clipboard,
// answering with "copied".
class AddOnPasteboard final : public Pasteboard {
 public:
  AddOnPasteboard(std::function<bool(std::string_view)> send, std::chrono::milliseconds timeout);
  void clearContents() override {}
  // Throws PasteboardError with the add-on's reason, or when it does not answer in time.
  void setString(const std::string& text) override { exchange_.exchange<PasteboardError>(text); }
  void answered(std::string failure) { exchange_.answered(std::move(failure)); }
  void close() { exchange_.close(); }

 private:
  AddOnExchange exchange_;
};

// Insert, as the add-on does it: the text goes over the port and the add-on puts it into the
// compose window's body, answering with "inserted".
class AddOnInserter final : public DraftInserter {
 public:
  AddOnInserter(std::function<bool(std::string_view)> send, std::chrono::milliseconds timeout);
  // Throws InsertError with the add-on's reason, or when it does not answer in time.
  void insert(const std::string& reply) override { exchange_.exchange<InsertError>(reply); }
  void answered(std::string failure) { exchange_.answered(std::move(failure)); }
  void close() { exchange_.close(); }

 private:
  AddOnExchange exchange_;
};

class NativeHost {
 public:
  struct Environment {
    MainExecutor& executor;
    // Writes one message to the add-on; false once the port is gone.
    std::function<bool(std::string_view)> send;
    // The panel's dependencies in this process, for a session and the add-on's pasteboard.
    std::function<MailExtensionView::Dependencies(const ComposeSession&, Pasteboard&)>
        panelDependencies;
    std::function<bool()> inChina;
    std::function<size_t()> maxMessageBytes;
    std::chrono::milliseconds copyTimeout{30'000};
    // Called as a panel opens, before its first run can start (to load the network stack).
    std::function<void()> panelOpening;
  };

  explicit NativeHost(Environment environment);
  // Stops a run still going, and waits for its worker.
  ~NativeHost();

  // One frame from the add-on, on the executor.
  void receive(const FrameReader::Frame& frame);
  // The port is closed: the panel stops its run, as the compose window's panel is gone.
  void close();

  bool panelOpen() const { return panel_ != nullptr; }
  // The port has closed; nothing more will come.
  bool closed() const { return closed_; }

 private:
  static Environment watchingOutput(Environment environment, NativeHost* host);
  void handle(const nlohmann::json& request);
  void open(const nlohmann::json& request);
  void messageData(const nlohmann::json& request);
  void appear();
  void operation(const nlohmann::json& request);
  void sendError(const std::string& message);
  void scheduleFlush();
  void flush();

  Environment env_;
  AddOnPasteboard pasteboard_;
  AddOnInserter inserter_;
  Language language_ = Language::english;
  bool opened_ = false;
  bool closed_ = false;
  std::optional<uint64_t> messageSize_;  // while the message is arriving
  std::string message_;
  std::unique_ptr<SimpleComposeSession> session_;
  std::shared_ptr<MailExtensionView> panel_;
  bool flushPosted_ = false;
  std::string sentState_;
  ReplyText sentOutput_;
};

}  // namespace lumora::nativehost
