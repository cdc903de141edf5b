// The provider-neutral chat values that the panel hands in and every client hands back.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lumora/chat/ReplyText.h"

namespace lumora {

// One turn of a conversation.
struct ChatMessage {
  std::string role;     // "system", "user" or "assistant"; not restricted by the type
  std::string content;  // the text of the turn
  // Image bytes, JPEG by declaration; absent on a text-only turn.
  std::optional<std::vector<std::string>> images;

  bool operator==(const ChatMessage&) const = default;
};

// What a client yields for each record of a stream.
struct StreamChunk {
  // The model the server names in its record. Shared: every record of a stream names the
  // same model, and a string per chunk would be an allocation per chunk.
  std::shared_ptr<const std::string> model;
  ReplyText completed;  // the whole reply so far; it replaces what the caller shows
  std::optional<std::string> finishReason;
};

}  // namespace lumora
