#include "NativeHost.h"

#include <nlohmann/json.hpp>

#include "lumora/chat/Errors.h"
#include "lumora/panel/SessionHandlers.h"
#include "lumora/platform/Base64.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/Text.h"

namespace lumora::nativehost {

using nlohmann::json;

namespace {

// Texts from the store or the server may hold broken UTF-8; they are shown with U+FFFD rather
// than failing the message.
std::string dump(const json& message) {
  return message.dump(-1, ' ', false, json::error_handler_t::replace);
}

const std::string* stringField(const json& request, const char* key) {
  const auto it = request.find(key);
  return it != request.end() && it->is_string() ? it->get_ptr<const std::string*>() : nullptr;
}

// A list of strings, or none when the field is missing or holds anything else.
std::optional<std::vector<std::string>> stringsField(const json& request, const char* key) {
  const auto it = request.find(key);
  if (it == request.end() || !it->is_array()) return std::nullopt;
  std::vector<std::string> values;
  values.reserve(it->size());
  for (const json& value : *it) {
    if (!value.is_string()) return std::nullopt;
    values.push_back(value.get<std::string>());
  }
  return values;
}

json pickerJson(const PanelDescription::Picker& picker) {
  json entries = json::array();
  for (const auto& entry : picker.entries) {
    entries.push_back(entry.divider ? json{{"divider", true}}
                                    : json{{"label", entry.label}, {"value", entry.value}});
  }
  return {{"operation", operationName(picker.operation)},
          {"entries", std::move(entries)},
          {"selection", picker.selection}};
}

json buttonJson(const PanelDescription::Button& button) {
  return {{"label", button.label},
          {"symbol", button.symbol},
          {"operation", operationName(button.operation)}};
}

// Sends `text` as messages of `type` in pieces under the browser's limit; `first` and `rest`
// fill each piece's other fields.
bool sendPieces(const std::function<bool(std::string_view)>& send, std::string_view text,
                const std::function<json(std::string_view, bool last, bool first)>& piece) {
  const std::vector<std::string_view> pieces = textPieces(text);
  if (pieces.empty()) return send(dump(piece({}, true, true)));
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (!send(dump(piece(pieces[i], i + 1 == pieces.size(), i == 0)))) return false;
  }
  return true;
}

}  // namespace

std::vector<std::string_view> textPieces(std::string_view text, size_t most) {
  std::vector<std::string_view> pieces;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = start + most;
    if (end >= text.size()) {
      end = text.size();
    } else {
      // Back off to the start of the character that the cut would split.
      size_t cut = end;
      while (cut > start && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
      if (cut > start) end = cut;
    }
    pieces.push_back(text.substr(start, end - start));
    start = end;
  }
  return pieces;
}

namespace {
constexpr std::pair<PanelOperation, std::string_view> kOperationNames[] = {
    {PanelOperation::leaveResult, "leaveResult"},
    {PanelOperation::startGeneration, "startGeneration"},
    {PanelOperation::stopGeneration, "stopGeneration"},
    {PanelOperation::copyOutput, "copyOutput"},
    {PanelOperation::setInstruction, "setInstruction"},
    {PanelOperation::selectConversation, "selectConversation"},
    {PanelOperation::selectModel, "selectModel"},
    {PanelOperation::setConversationModel, "setConversationModel"},
    {PanelOperation::switchReading, "switchReading"},
    {PanelOperation::insertOutput, "insertOutput"},
};
}  // namespace

std::string_view operationName(PanelOperation operation) {
  for (const auto& [op, name] : kOperationNames)
    if (op == operation) return name;
  return "none";
}

PanelOperation operationNamed(std::string_view name) {
  for (const auto& [op, opName] : kOperationNames)
    if (opName == name) return op;
  return PanelOperation::none;
}

std::string stateMessage(const PanelDescription& d) {
  const bool input = d.page == PanelDescription::Page::input;
  json state = {
      {"type", "state"},
      {"page", input ? "input" : "result"},
      {"header",
       {{"operation", operationName(d.header.leading)},
        {"symbol", d.header.symbol},
        {"title", d.header.title}}},
      {"error", d.errorLine ? json(*d.errorLine) : json(nullptr)},
      {"copyBounces", d.copyBounces},
      {"copying", d.copying},
      {"inserting", d.inserting},
      {"insertions", d.insertions},
  };
  if (input) {
    state["instruction"] = d.instruction;
    state["conversationPicker"] = pickerJson(d.conversationPicker);
    state["modelPicker"] = pickerJson(d.modelPicker);
    state["generate"] = buttonJson(d.generate);
    state["reading"] = {{"line", d.reading.line},
                        {"wholeMessage", d.reading.wholeMessage},
                        {"toggle", buttonJson(d.reading.toggle)}};
  } else {
    json buttons = json::array();
    for (const auto& button : d.buttons) buttons.push_back(buttonJson(button));
    state["buttons"] = std::move(buttons);
  }
  return dump(state);
}

std::optional<std::string> AddOnExchange::run(const std::string& text) {
  {
    std::lock_guard lock(mutex_);
    if (closed_) return words_.closed;
    waiting_ = true;
    answer_.reset();
  }
  const bool sent = sendPieces(send_, text, [this](std::string_view piece, bool last, bool) {
    return json{{"type", words_.type}, {"text", piece}, {"more", !last}};
  });
  std::unique_lock lock(mutex_);
  const bool done =
      sent && answered_.wait_for(lock, timeout_, [this] { return answer_.has_value() || closed_; });
  waiting_ = false;
  if (!sent || closed_) return words_.closed;
  if (!done) {
    const auto ms = timeout_.count();
    return words_.noAnswer + " " +
           (ms % 1000 == 0 ? std::to_string(ms / 1000) + " seconds." : std::to_string(ms) + " ms.");
  }
  if (!answer_->empty()) return words_.refused + " " + *answer_;
  return std::nullopt;
}

void AddOnExchange::answered(std::string failure) {
  std::lock_guard lock(mutex_);
  if (!waiting_) return;  // an answer nobody waits for: late, after a timeout
  answer_ = std::move(failure);
  answered_.notify_all();
}

void AddOnExchange::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  answered_.notify_all();
}

AddOnPasteboard::AddOnPasteboard(std::function<bool(std::string_view)> send,
                                 std::chrono::milliseconds timeout)
    : exchange_({"copy", "The panel was closed before the reply was copied.",
                 "Thunderbird did not confirm the copy within",
                 "The clipboard did not take the reply:"},
                std::move(send), timeout) {}

AddOnInserter::AddOnInserter(std::function<bool(std::string_view)> send,
                             std::chrono::milliseconds timeout)
    : exchange_({"insert", "The panel was closed before the reply was inserted.",
                 "Thunderbird did not confirm the insertion within",
                 "The reply could not be inserted:"},
                std::move(send), timeout) {}

NativeHost::Environment NativeHost::watchingOutput(Environment environment, NativeHost* host) {
  // The port's output gone (the browser closed its end, the pipe broke) ends the session as the
  // end of its input does: the run stops instead of streaming into nothing. The close waits for
  // the executor, as a send may come from inside the panel's own callbacks.
  environment.send = [send = std::move(environment.send), &executor = environment.executor,
                      host](std::string_view message) {
    if (send(message)) return true;
    executor.post([host] {
      if (!host->closed_) host->close();
    });
    return false;
  };
  return environment;
}

NativeHost::NativeHost(Environment environment)
    : env_(watchingOutput(std::move(environment), this)),
      pasteboard_(env_.send, env_.copyTimeout),
      inserter_(env_.send, env_.copyTimeout) {}

NativeHost::~NativeHost() { close(); }

void NativeHost::close() {
  closed_ = true;
  pasteboard_.close();
  inserter_.close();
  if (!panel_) return;
  // The compose window's panel is gone: its run stops here, and the worker is waited for.
  panel_.reset();
  ComposeSessionHandler().mailComposeSessionDidEnd(*session_);
}

void NativeHost::sendError(const std::string& message) {
  env_.send(dump({{"type", "error"}, {"message", message}}));
}

void NativeHost::receive(const FrameReader::Frame& frame) {
  using Kind = FrameReader::Frame::Kind;
  switch (frame.kind) {
    case Kind::end:
    case Kind::truncated:
      close();
      return;
    case Kind::oversize:
      sendError("A message of " + text::sizeText(frame.size) +
                " from the add-on is larger than the limit of " +
                text::sizeText(kMaxIncomingBytes) + " and was left out.");
      return;
    case Kind::message:
      break;
  }
  json request;
  try {
    request = json::parse(frame.payload);
  } catch (const json::parse_error& e) {
    sendError("A message from the add-on is not valid JSON (at byte " + std::to_string(e.byte) +
              ") and was left out.");
    return;
  } catch (const json::exception&) {
    // Well-formed text the parser still refuses: a number beyond any double, say.
    sendError(
        "A message from the add-on holds a value that cannot be read (a number out of "
        "range) and was left out.");
    return;
  }
  const std::string* type = request.is_object() ? stringField(request, "type") : nullptr;
  if (!type) {
    sendError("A message from the add-on has no \"type\" and was left out.");
    return;
  }
  try {
    handle(request);
  } catch (const std::exception& e) {
    sendError(describeFailure(e));
  }
}

void NativeHost::handle(const json& request) {
  const std::string& type = *stringField(request, "type");
  if (type == "open") {
    open(request);
  } else if (type == "messageData") {
    messageData(request);
  } else if (type == "operation") {
    operation(request);
  } else if (type == "copied") {
    const std::string* error = stringField(request, "error");
    pasteboard_.answered(error ? (error->empty() ? "unknown error" : *error) : "");
  } else if (type == "inserted") {
    const std::string* error = stringField(request, "error");
    inserter_.answered(error ? (error->empty() ? "unknown error" : *error) : "");
  } else if (type == "checkRecipients") {
    const auto addresses = stringsField(request, "addresses");
    if (!addresses) return sendError("\"addresses\" must be a list of strings.");
    const auto refusal = ComposeSessionHandler::refusal(*addresses);
    env_.send(dump({{"type", "recipients"},
                    {"annotations", ComposeSessionHandler::annotations(*addresses)},
                    {"refusal", refusal ? json(refusal->what()) : json(nullptr)}}));
  } else if (type == "headers") {
    env_.send(dump({{"type", "headers"},
                    {"headers", ComposeSessionHandler().additionalHeaders(
                                    session_ ? *session_ : SimpleComposeSession())}}));
  } else if (type == "colour") {
    const auto subjects = stringsField(request, "subjects");
    if (!subjects) return sendError("\"subjects\" must be a list of strings.");
    json colours = json::array();
    for (const std::string& subject : *subjects) {
      json colour = nullptr;
      MessageActionHandler::shared().decideAction(subject, [&](auto decision) {
        if (decision && decision->backgroundColor == MessageColor::red) colour = "red";
      });
      colours.push_back(std::move(colour));
    }
    env_.send(dump({{"type", "colours"}, {"colours", std::move(colours)}}));
  } else {
    sendError("A message from the add-on has the unknown type \"" + type + "\".");
  }
}

void NativeHost::open(const json& request) {
  if (opened_) return sendError("The panel is already open.");
  if (const std::string* language = stringField(request, "language"))
    language_ = languageOf(*language);
  const auto size = request.find("messageSize");
  if (size == request.end() || size->is_null()) {
    opened_ = true;
    return appear();
  }
  if (!size->is_number_unsigned()) return sendError("\"messageSize\" must be a number of bytes.");
  const uint64_t bytes = size->get<uint64_t>();
  const size_t limit = env_.maxMessageBytes();
  if (bytes > limit) {
    return sendError("The message is larger than " + text::sizeText(limit) +
                     ", the limit of the setting \"maxMessageMiB\" (lumora settings set "
                     "maxMessageMiB N).");
  }
  opened_ = true;
  messageSize_ = bytes;
  message_.reserve(bytes);
  if (bytes == 0) appear();
}

void NativeHost::messageData(const json& request) {
  if (!messageSize_) return sendError("No message is being sent.");
  const std::string* data = stringField(request, "data");
  std::optional<std::string> bytes = data ? base64::decode(*data) : std::nullopt;
  if (bytes && message_.size() + bytes->size() <= *messageSize_) {
    message_ += *bytes;
    if (message_.size() == *messageSize_) appear();
    return;
  }
  // The message cannot be put together any more: the add-on may open again.
  const bool tooLong = bytes.has_value();
  opened_ = false;
  messageSize_.reset();
  std::string().swap(message_);
  sendError(tooLong ? "The message being answered came longer than announced."
                    : "A piece of the message being answered is not valid Base64.");
}

void NativeHost::appear() {
  session_ = messageSize_ ? std::make_unique<SimpleComposeSession>(std::move(message_))
                          : std::make_unique<SimpleComposeSession>();
  messageSize_.reset();
  if (env_.panelOpening) env_.panelOpening();
  ComposeSessionHandler().mailComposeSessionDidBegin(*session_);
  MailExtensionView::Dependencies dependencies = env_.panelDependencies(*session_, pasteboard_);
  // The compose window that opened the panel takes the reply.
  dependencies.inserter = &inserter_;
  panel_ = MailExtensionView::make(std::move(dependencies));
  panel_->setObserver([this] { scheduleFlush(); });
  panel_->panelDidAppear();
  scheduleFlush();
}

void NativeHost::operation(const json& request) {
  if (!panel_) return sendError("The panel is not open.");
  const std::string* name = stringField(request, "name");
  const PanelOperation op = name ? operationNamed(*name) : PanelOperation::none;
  const std::string* value = stringField(request, "value");
  const auto needValue = [&] {
    if (!value) sendError("The operation \"" + *name + "\" needs a text \"value\".");
    return value != nullptr;
  };
  switch (op) {
    case PanelOperation::none:
      return sendError("A message from the add-on names no known operation.");
    case PanelOperation::leaveResult:
      return panel_->leaveResult();
    case PanelOperation::startGeneration:
      return panel_->startGeneration();
    case PanelOperation::stopGeneration:
      return panel_->stopGeneration();
    case PanelOperation::copyOutput:
      return panel_->copyOutput();
    case PanelOperation::setInstruction:
      if (needValue()) panel_->setInstruction(*value);
      return;
    case PanelOperation::selectConversation:
      if (needValue()) panel_->setSelectedConversationId(*value);
      return;
    case PanelOperation::selectModel:
      if (needValue()) panel_->setSelectedModel(*value);
      return;
    case PanelOperation::setConversationModel:
      if (needValue()) panel_->setPickedModel(*value);
      return;
    case PanelOperation::insertOutput:
      return panel_->insertOutput();
    case PanelOperation::switchReading:
      // With a value, the reading it names; without, the other one.
      if (!value) return panel_->switchReading();
      if (const auto reading = MailExtensionView::readingNamed(*value))
        return panel_->setReading(*reading);
      return sendError("The reading \"" + *value + "\" is neither \"quoted\" nor \"message\".");
  }
}

void NativeHost::scheduleFlush() {
  // Changes that come together (a burst of chunks) go out as one update.
  if (flushPosted_) return;
  flushPosted_ = true;
  env_.executor.post([this] { flush(); });
}

void NativeHost::flush() {
  flushPosted_ = false;
  if (!panel_) return;
  // The text goes first: a state that says the run has ended comes after its last words.
  const ReplyText& output = panel_->output();
  if (!output.extends(sentOutput_) || output.size() != sentOutput_.size()) {
    const bool reset = !output.extends(sentOutput_);
    const std::string text = reset ? output.str() : output.suffix(sentOutput_.size());
    sendPieces(env_.send, text, [reset](std::string_view piece, bool, bool first) {
      return json{{"type", "output"}, {"reset", reset && first}, {"text", piece}};
    });
    sentOutput_ = output;
  }
  std::string state = stateMessage(PanelDescription::describe(*panel_, env_.inChina(), language_));
  if (state != sentState_) {
    env_.send(state);
    sentState_ = std::move(state);
  }
}

}  // namespace lumora::nativehost
