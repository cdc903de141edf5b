#include "Support.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "Commands.h"
#include "lumora/mailcontent/MailParser.h"
#include "lumora/store/ConversationStore.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/UserSettings.h"

namespace lumora::cli {

StoreContext* sharedStoreContext() { return &PersistentContainer::shared().viewContext(); }

int usageError(const std::string& message, const char* help) {
  std::fprintf(stderr, "lumora: %s\n\n%s", message.c_str(), help);
  return kExitUsage;
}

std::optional<std::string> readMessage(const std::string& path) {
  if (path == "-") {
    std::ostringstream buffer;
    buffer << std::cin.rdbuf();
    return buffer.str();
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "lumora: cannot read %s: %s\n", path.c_str(), std::strerror(errno));
    return std::nullopt;
  }
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}


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
                                     .store = sharedStoreContext},
      .pasteboard = pasteboard,
      .conversations = conversations,
      .defaultModel = [] { return UserSettings::shared().defaultModel.get(); },
      .quotedTexts = [](const std::string& message) { return MailParser::quotedTexts(message); },
      .overrides = {},
      .onServiceChosen = {},
  };
}

}  // namespace lumora::cli
