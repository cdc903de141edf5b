// Stored conversations as the panel sees them: presets of instruction and model.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace lumora {

class StoreContext;

struct ConversationPreset {
  std::optional<std::string> id;  // canonical upper-case UUID text
  std::optional<std::string> systemPrompt;
  std::optional<std::string> model;
};

// The source of the presets offered to the user.
class ConversationSource {
 public:
  virtual ~ConversationSource() = default;
  // The conversations that are not archived, pinned ones first, then the most recently
  // updated first. Throws on a store failure.
  virtual std::vector<ConversationPreset> fetchConversations() = 0;
};

// The conversations of the shared store, through a context opened on first use.
class StoreConversations final : public ConversationSource {
 public:
  // `context` opens the store (or throws StoreError); called at the first fetch.
  explicit StoreConversations(std::function<StoreContext*()> context)
      : context_(std::move(context)) {}
  std::vector<ConversationPreset> fetchConversations() override;

 private:
  std::function<StoreContext*()> context_;
};

// No stored conversations at all.
class NoConversations final : public ConversationSource {
 public:
  std::vector<ConversationPreset> fetchConversations() override { return {}; }
};

}  // namespace lumora
