// Stored conversations as the panel sees them: presets of instruction and model, live objects
// whose edits the panel saves.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "lumora/store/ConversationStore.h"

namespace lumora {

// The source of the presets offered to the user.
class ConversationSource {
 public:
  virtual ~ConversationSource() = default;
  // The conversations that are not archived, pinned ones first, then the most recently
  // updated first. Throws on a store failure.
  virtual std::vector<std::shared_ptr<CDConversation>> fetchConversations() = 0;
  // Writes the edits made to conversations handed out. Throws on a store failure; the edits
  // then stay in memory.
  virtual void save() = 0;
};

// The conversations of the shared store, through a context opened on first use.
class StoreConversations final : public ConversationSource {
 public:
  // `context` opens the store (or throws StoreError); called at the first use.
  explicit StoreConversations(std::function<StoreContext*()> context)
      : context_(std::move(context)) {}
  std::vector<std::shared_ptr<CDConversation>> fetchConversations() override {
    return context_()->fetchConversations();
  }
  void save() override { context_()->save(); }

 private:
  std::function<StoreContext*()> context_;
};

// No stored conversations at all.
class NoConversations final : public ConversationSource {
 public:
  std::vector<std::shared_ptr<CDConversation>> fetchConversations() override { return {}; }
  void save() override {}
};

}  // namespace lumora
