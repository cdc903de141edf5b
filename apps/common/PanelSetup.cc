#include "PanelSetup.h"

#include "lumora/chat/Errors.h"
#include "lumora/mailcontent/MailParser.h"
#include "lumora/mailcontent/MailReader.h"
#include "lumora/store/ConversationStore.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/UserSettings.h"

namespace lumora::frontend {
namespace {

// The passages, or the failure of a run whose request they alone would make too large: they
// are gathered no further than the budget, never all made and then measured.
std::vector<std::string> withinBudget(MailParser::Passages passages, size_t budget) {
  if (!passages.complete) throw RequestTooLargeError(std::nullopt, budget);
  return std::move(passages.texts);
}

}  // namespace

StoreContext* sharedStoreContext() { return &PersistentContainer::shared().viewContext(); }

MailExtensionView::Dependencies panelDependencies(MainExecutor& executor,
                                                  const ComposeSession& session,
                                                  HttpTransport& transport,
                                                  Pasteboard& pasteboard) {
  // One source for the process: the store it reads is opened once, on first use.
  static StoreConversations conversations(sharedStoreContext);
  const size_t requestBudget = UserSettings::shared().maxRequestBytes();
  return MailExtensionView::Dependencies{
      .executor = executor,
      .session = session,
      .ownDefaults = ownDefaults(),
      .environment = ChatEnvironment{.sharedDefaults = sharedDefaults(),
                                     .transport = transport,
                                     .store = sharedStoreContext,
                                     .maxReplyBytes = UserSettings::shared().maxReplyBytes(),
                                     .maxRequestBytes = requestBudget},
      .pasteboard = pasteboard,
      .conversations = conversations,
      .defaultModel = [] { return UserSettings::shared().defaultModel.get(); },
      .quotedTexts =
          [requestBudget](std::string_view message) {
            return withinBudget(MailParser::quotedTexts(message, requestBudget), requestBudget);
          },
      .overrides = {},
      .onServiceChosen = {},
      .previewQuotedTexts =
          [requestBudget](std::string_view message) -> std::vector<std::string> {
        std::optional<std::string> html = MailParser::htmlSource(message);
        if (!html) return {};
        return withinBudget(MailParser::blockquoteTexts(std::move(*html), requestBudget),
                            requestBudget);
      },
      .readMessage =
          [](std::string_view message, bool draft) {
            const int64_t budget = UserSettings::shared().mailReadingMaxCharacters.get();
            return MailReader::read(message, static_cast<size_t>(budget), draft);
          },
      .inserter = nullptr,
  };
}

}  // namespace lumora::frontend
