#include "PanelSetup.h"

#include "lumora/mailcontent/MailParser.h"
#include "lumora/mailcontent/MailReader.h"
#include "lumora/store/ConversationStore.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/UserSettings.h"

namespace lumora::frontend {

StoreContext* sharedStoreContext() { return &PersistentContainer::shared().viewContext(); }

MailExtensionView::Dependencies panelDependencies(MainExecutor& executor,
                                                  const ComposeSession& session,
                                                  HttpTransport& transport,
                                                  Pasteboard& pasteboard) {
  // One source for the process: the store it reads is opened once, on first use.
  static StoreConversations conversations(sharedStoreContext);
  return MailExtensionView::Dependencies{
      .executor = executor,
      .session = session,
      .ownDefaults = ownDefaults(),
      .environment = ChatEnvironment{.sharedDefaults = sharedDefaults(),
                                     .transport = transport,
                                     .store = sharedStoreContext,
                                     .maxReplyBytes = UserSettings::shared().maxReplyBytes()},
      .pasteboard = pasteboard,
      .conversations = conversations,
      .defaultModel = [] { return UserSettings::shared().defaultModel.get(); },
      .quotedTexts = [](std::string_view message) { return MailParser::quotedTexts(message); },
      .overrides = {},
      .onServiceChosen = {},
      .previewQuotedTexts =
          [](std::string_view message) -> std::vector<std::string> {
        std::optional<std::string> html = MailParser::htmlSource(message);
        if (!html) return {};
        return MailParser::blockquoteTexts(std::move(*html));
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
