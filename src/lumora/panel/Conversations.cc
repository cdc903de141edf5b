#include "lumora/panel/Conversations.h"

#include "lumora/platform/Uuid.h"
#include "lumora/store/ConversationStore.h"

namespace lumora {

std::vector<ConversationPreset> StoreConversations::fetchConversations() {
  std::vector<ConversationPreset> presets;
  for (const auto& conversation : context_()->fetchConversations()) {
    std::optional<std::string> id = conversation->id();
    // Ids are compared as canonical upper-case text; one that is no UUID stays as written.
    if (id) {
      if (auto canonical = uuid::canonical(*id)) id = std::move(canonical);
    }
    presets.push_back({std::move(id), conversation->systemPrompt(), conversation->model()});
  }
  return presets;
}

}  // namespace lumora
