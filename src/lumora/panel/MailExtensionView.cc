#include "lumora/panel/MailExtensionView.h"

#include <mutex>

#include "lumora/chat/ChunkStream.h"
#include "lumora/chat/Errors.h"
#include "lumora/routing/LLMClients.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Text.h"
#include "lumora/platform/Throttle.h"
#include "lumora/platform/Uuid.h"
#include "lumora/store/DefaultsStore.h"

namespace lumora {

// One run: its cancellation and its worker.
struct MailExtensionView::Task {
  std::stop_source stop;
  std::jthread worker;
  std::atomic<bool> done{false};  // the worker has nothing left to do
  bool ended = false;             // the run's last change is made (executor only)

  // The newest text the worker has read, set while an update waits on the executor. Every
  // chunk carries the whole reply so far, so a chunk that comes while an update waits only
  // replaces its text: a fast stream costs the executor one task per wake-up, not per record.
  std::mutex latestMutex;
  std::optional<ReplyText> latest;
};

// The subscription to the edits of the conversation whose editor is up.
struct MailExtensionView::Editing {
  std::shared_ptr<CDConversation> conversation;
  Throttle throttle;
  std::shared_ptr<void> subscription;  // declared last: it ends first, before the throttle
};

bool MailExtensionView::latestRunEnded() const { return generatingTask_ && generatingTask_->ended; }

void MailExtensionView::finish(const std::shared_ptr<Task>& task) {
  generating_ = false;
  task->ended = true;
  changed();
}

std::shared_ptr<MailExtensionView> MailExtensionView::make(Dependencies dependencies) {
  return std::shared_ptr<MailExtensionView>(new MailExtensionView(std::move(dependencies)));
}

MailExtensionView::MailExtensionView(Dependencies dependencies) : deps_(std::move(dependencies)) {}

MailExtensionView::~MailExtensionView() {
  // An edit that waits for its save is saved now: nothing runs for this panel later.
  const bool unsaved = savePosted_ || (editing_ && editing_->throttle.pending());
  editing_.reset();
  if (unsaved) saveEdits();
  for (auto& task : tasks_) {
    task->stop.request_stop();
    if (task->worker.joinable()) task->worker.join();
  }
}

std::string MailExtensionView::stored(SettingName name) const {
  const std::string_view key = keyOf(name);
  if (auto it = deps_.overrides.find(key); it != deps_.overrides.end()) return it->second;
  return deps_.ownDefaults.string(key).value_or(std::string(settingKey(name).defaultText));
}

void MailExtensionView::store(SettingName name, const std::string& value) {
  const std::string_view key = keyOf(name);
  if (auto it = deps_.overrides.find(key); it != deps_.overrides.end()) {
    it->second = value;
  } else {
    try {
      deps_.ownDefaults.set(key, value);
    } catch (const std::exception& e) {
      // A settings file that cannot be written (a read-only directory) costs only the keeping:
      // the choice holds for the rest of this run, and the run goes on.
      debug::line({"[debug] setting not saved:", std::string(key), e.what()});
      deps_.overrides.insert_or_assign(std::string(key), value);
    }
  }
  changed();
}

std::string MailExtensionView::prompt() const { return stored(kPromptKey); }
void MailExtensionView::setPrompt(const std::string& v) { store(kPromptKey, v); }
std::string MailExtensionView::selectedModel() const { return stored(kSelectedModelKey); }
void MailExtensionView::setSelectedModel(const std::string& v) { store(kSelectedModelKey, v); }
std::string MailExtensionView::selectedConversationId() const {
  return stored(kSelectedConversationKey);
}
void MailExtensionView::setSelectedConversationId(const std::string& v) {
  store(kSelectedConversationKey, v);
}

std::string_view MailExtensionView::readingName(Reading reading) {
  return reading == Reading::message ? "message" : "quoted";
}

std::optional<MailExtensionView::Reading> MailExtensionView::readingNamed(std::string_view name) {
  if (name == "quoted") return Reading::quoted;
  if (name == "message") return Reading::message;
  return std::nullopt;
}

MailExtensionView::Reading MailExtensionView::reading() const {
  // A stored word that names no reading, written by hand or by another version, reads as the
  // default.
  return readingNamed(stored(kReadingKey)).value_or(Reading::quoted);
}

void MailExtensionView::setReading(Reading value) {
  store(kReadingKey, std::string(readingName(value)));
}

void MailExtensionView::switchReading() {
  setReading(reading() == Reading::quoted ? Reading::message : Reading::quoted);
}

const MailReading& MailExtensionView::messageReading(std::string_view raw) const {
  if (!messageReading_) {
    const Message* original = deps_.session.originalMessage();
    const bool draft = original && original->isDraft();
    messageReading_ = deps_.readMessage
                          ? deps_.readMessage(raw, draft)
                          : MailReader::read(raw, MailReader::kDefaultMaxCharacters, draft);
  }
  return *messageReading_;
}

const MailExtensionView::ReadingSummary& MailExtensionView::readingSummary() const {
  const Reading now = reading();
  std::optional<ReadingSummary>& slot = summaries_[now == Reading::message ? 1 : 0];
  if (slot) return *slot;
  ReadingSummary summary;
  using Kind = ReadingSummary::Kind;
  const Message* original = deps_.session.originalMessage();
  const std::optional<std::string_view> raw = original ? original->rawData() : std::nullopt;
  if (!raw) {
    summary.kind = Kind::newMail;
  } else if (now == Reading::quoted) {
    summary.kind = Kind::noPassages;  // bytes that are not UTF-8 count as no message at all
    if (text::isValidUtf8(*raw)) {
      try {
        const auto& read = deps_.previewQuotedTexts ? deps_.previewQuotedTexts : deps_.quotedTexts;
        const std::vector<std::string> passages = read(*raw);
        if (!passages.empty()) {
          summary.kind = Kind::passages;
          summary.passages = passages.size();
          summary.characters = passages.size() - 1;  // the line ends that join them
          for (const std::string& passage : passages)
            summary.characters += text::codePointCount(passage);
        }
      } catch (...) {
        summary.kind = Kind::unreadable;
        summary.failure = describeFailure(std::current_exception());
      }
    }
  } else {
    const MailReading& message = messageReading(*raw);
    if (message.text.empty()) {
      summary.kind = Kind::emptyMessage;
    } else {
      summary.kind = message.draft ? Kind::draft : Kind::message;
      summary.characters = message.characters;
      summary.sender = message.senderName.empty() ? message.senderAddress : message.senderName;
      summary.earlier = message.earlierMessages;
      summary.shortened = message.shortened;
    }
  }
  slot = std::move(summary);
  return *slot;
}

std::shared_ptr<CDConversation> MailExtensionView::selectedConversation() const {
  const std::string wanted = selectedConversationId();
  for (const auto& c : conversations_)
    if (c->id() && uuid::canonical(*c->id()) == wanted) return c;
  return nullptr;
}

std::string MailExtensionView::instruction() const {
  if (auto conversation = selectedConversation())
    return conversation->systemPrompt().value_or("");
  return prompt();
}

void MailExtensionView::setInstruction(const std::string& value) {
  if (auto conversation = selectedConversation()) {
    conversation->setSystemPrompt(value);
    changed();
  } else {
    setPrompt(value);
  }
}

std::string MailExtensionView::pickedModel() const {
  if (auto conversation = selectedConversation()) return conversation->model().value_or("");
  return selectedModel();
}

void MailExtensionView::setPickedModel(const std::string& value) {
  if (auto conversation = selectedConversation()) {
    conversation->setModel(value);
    changed();
  } else {
    setSelectedModel(value);
  }
}

void MailExtensionView::changed() {
  followEditedConversation();
  if (observer_) observer_();
}

// The conversation's editor is up while the input page is, with that conversation chosen.
void MailExtensionView::followEditedConversation() {
  // The result page is tested first: it is up for every chunk of a run, and then no stored
  // field needs to be read.
  std::shared_ptr<CDConversation> edited;
  if (appeared_ && !showsResult()) edited = selectedConversation();
  if ((editing_ ? editing_->conversation : nullptr) == edited) return;
  endEditing();
  if (!edited) return;
  std::weak_ptr<MailExtensionView> weak = weak_from_this();
  editing_.reset(new Editing{edited, Throttle(deps_.executor, kSaveInterval, [weak] {
                               if (auto self = weak.lock()) self->scheduleSave();
                             }),
                             nullptr});
  editing_->subscription = edited->onChange([throttle = &editing_->throttle] { throttle->send(); });
}

void MailExtensionView::endEditing() {
  if (!editing_) return;
  const bool pending = editing_->throttle.pending();
  editing_.reset();
  if (pending) scheduleSave();
}

// Saves go through the executor, after the work at hand, as the store's own queue.
void MailExtensionView::scheduleSave() {
  if (savePosted_) return;
  savePosted_ = true;
  std::weak_ptr<MailExtensionView> weak = weak_from_this();
  deps_.executor.post([weak] {
    if (auto self = weak.lock()) self->saveEdits();
  });
}

void MailExtensionView::saveEdits() {
  savePosted_ = false;
  try {
    deps_.conversations.save();
  } catch (const std::exception& e) {
    // The edit stays in memory and goes with the next save.
    debug::line({"[debug] conversation edits not saved:", e.what()});
  } catch (...) {
  }
}

void MailExtensionView::panelDidAppear() {
  if (selectedModel().empty()) setSelectedModel(deps_.defaultModel());
  appeared_ = true;
  loadConversations();
}

void MailExtensionView::loadConversations() {
  try {
    conversations_ = deps_.conversations.fetchConversations();
  } catch (...) {
    errorMessage_ = describeFailure(std::current_exception());
  }
  changed();
}

void MailExtensionView::startGeneration() {
  // Runs whose workers have finished are let go here, on the executor.
  std::erase_if(tasks_, [](const std::shared_ptr<Task>& t) {
    if (!t->done) return false;
    if (t->worker.joinable()) t->worker.join();
    return true;
  });
  auto task = std::make_shared<Task>();
  tasks_.push_back(task);
  generatingTask_ = task;
  std::weak_ptr<MailExtensionView> weak = weak_from_this();
  deps_.executor.post([weak, task] {
    if (auto self = weak.lock()) self->generate(task);
  });
}

void MailExtensionView::stopGeneration() {
  if (generatingTask_) generatingTask_->stop.request_stop();
}

void MailExtensionView::leaveResult() {
  if (generatingTask_) generatingTask_->stop.request_stop();
  output_ = ReplyText();
  changed();
}

void MailExtensionView::copyOutput() {
  if (copying_) return;
  copying_ = true;
  // The previous copy has posted its end, so its thread is finishing or finished.
  if (copier_.joinable()) copier_.join();
  changed();
  copier_ = std::jthread([weak = weak_from_this(), &executor = deps_.executor,
                          &pasteboard = deps_.pasteboard, text = output_.str()] {
    std::string failure;
    try {
      pasteboard.clearContents();
      pasteboard.setString(text);
    } catch (...) {
      failure = describeFailure(std::current_exception());
    }
    executor.post([weak, failure = std::move(failure)] {
      if (auto self = weak.lock()) self->copied(failure);
    });
  });
}

void MailExtensionView::insertOutput() {
  if (!deps_.inserter || inserting_ || generating_ || output_.empty()) return;
  inserting_ = true;
  // The previous Insert has posted its end, so its thread is finishing or finished.
  if (inserter_.joinable()) inserter_.join();
  changed();
  inserter_ = std::jthread([weak = weak_from_this(), &executor = deps_.executor,
                            inserter = deps_.inserter, text = output_.str()] {
    std::string failure;
    try {
      inserter->insert(text);
    } catch (...) {
      failure = describeFailure(std::current_exception());
    }
    executor.post([weak, failure = std::move(failure)] {
      if (auto self = weak.lock()) self->inserted(failure);
    });
  });
}

void MailExtensionView::inserted(const std::string& failure) {
  inserting_ = false;
  if (failure.empty()) {
    ++insertions_;
  } else {
    errorMessage_ = failure;
  }
  changed();
}

void MailExtensionView::copied(const std::string& failure) {
  copying_ = false;
  if (!failure.empty()) {
    // No clipboard could take the text: the user reads why above the panel, and nothing
    // bounces, as nothing was copied.
    errorMessage_ = failure;
  } else {
    copyAnimating_ = !copyAnimating_;
    ++copyBounces_;
  }
  changed();
}

void MailExtensionView::showLatest(const std::shared_ptr<Task>& task) {
  {
    std::lock_guard lock(task->latestMutex);
    output_ = std::move(*task->latest);
    task->latest.reset();
  }
  changed();
}

void MailExtensionView::fail(const std::shared_ptr<Task>& task, std::exception_ptr failure) {
  generating_ = false;
  task->ended = true;
  try {
    std::rethrow_exception(failure);
  } catch (const CancellationError&) {
    output_ = output_.appending(kCancelledText);
  } catch (...) {
    errorMessage_ = describeFailure(std::current_exception());
  }
  changed();
}

void MailExtensionView::generate(const std::shared_ptr<Task>& task) {
  std::vector<std::string> passages;
  std::string model;
  std::vector<ChatMessage> messages;
  std::unique_ptr<LLMClient> client;
  try {
    // The message being answered. Its quoted passages: bytes that are not UTF-8 count as no
    // message at all. The whole message: one passage, read from any bytes.
    if (const Message* original = deps_.session.originalMessage()) {
      if (std::optional<std::string_view> raw = original->rawData()) {
        if (reading() == Reading::message) {
          const MailReading& message = messageReading(*raw);
          if (!message.text.empty()) passages.push_back(message.text);
        } else if (text::isValidUtf8(*raw)) {
          passages = deps_.quotedTexts(*raw);
        }
      }
    }

    model = selectedModel();
    const std::vector<Service> services = LLMClients::fetchServices(deps_.environment);
    // The client is fixed here, from the selected model, before a conversation can change
    // the model name below.
    const Service service = LLMClients::service(model, services, deps_.environment);
    client = LLMClients::client(service, deps_.environment);
    if (deps_.onServiceChosen) deps_.onServiceChosen(service);

    const std::string conversationId = selectedConversationId();
    if (!passages.empty()) {
      std::optional<std::string> system;
      if (const auto wanted = uuid::canonical(conversationId); !wanted) {
        system = prompt();  // none chosen, or not a UUID
      } else {
        for (const auto& c : conversations_) {
          if (!c->id() || uuid::canonical(*c->id()) != wanted) continue;
          if (c->systemPrompt()) {
            system = c->systemPrompt();
            if (c->model()) model = *c->model();
          }
          break;
        }
      }
      if (system) messages.push_back({"system", *system, std::nullopt});
    } else {
      const auto conversation = selectedConversation();
      passages.push_back(conversation && conversation->systemPrompt()
                             ? *conversation->systemPrompt()
                             : prompt());
    }
    std::string joined;
    for (size_t i = 0; i < passages.size(); ++i) {
      if (i > 0) joined += '\n';
      joined += passages[i];
    }
    messages.push_back({"user", std::move(joined), std::nullopt});
  } catch (...) {
    fail(task, std::current_exception());
    return;
  }

  generating_ = true;
  changed();

  std::weak_ptr<MailExtensionView> weak = weak_from_this();
  MainExecutor& executor = deps_.executor;
  // The worker never holds the panel: everything it does to the panel is posted.
  task->worker = std::jthread([weak, &executor, task, client = std::move(client),
                               model = std::move(model), messages = std::move(messages)] {
    std::stop_token stop = task->stop.get_token();
    std::exception_ptr failure;
    try {
      ChunkStream stream = client->streamChat(model, messages, kTemperature, stop);
      // Only the newest chunk of a burst matters: each carries the whole reply so far.
      while (std::optional<StreamChunk> chunk = stream.newest(stop)) {
        bool waiting;
        {
          std::lock_guard lock(task->latestMutex);
          waiting = task->latest.has_value();
          task->latest = std::move(chunk->completed);
        }
        if (!waiting) {
          executor.post([weak, task] {
            if (auto self = weak.lock()) self->showLatest(task);
          });
        }
      }
      // Posted after any update still waiting, so the run ends with its whole text shown.
      executor.post([weak, task] {
        if (auto self = weak.lock()) self->finish(task);
      });
    } catch (...) {
      failure = std::current_exception();
    }
    // Posted once the handler is left, so that this thread holds no part of the error when the
    // panel takes it: its last holder, which frees it, is then the panel's thread.
    if (failure) {
      executor.post([weak, task, failure = std::move(failure)] {
        if (auto self = weak.lock()) self->fail(task, failure);
      });
    }
    task->done = true;
  });
}

}  // namespace lumora
