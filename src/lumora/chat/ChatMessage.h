// The provider-neutral chat values that the panel hands in and every client hands back.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
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

// A model name held inline. Every chunk of a stream carries one, and at stream rates neither
// an allocation per chunk nor a reference count shared between the reader's thread and the
// consumer's is cheap. Names longer than kInline bytes live on the heap.
class ModelName {
 public:
  static constexpr size_t kInline = 47;

  ModelName() = default;
  ModelName(std::string_view name) {  // NOLINT: a name is a model name
    if (name.size() <= kInline) {
      if (!name.empty()) std::memcpy(inline_, name.data(), name.size());
      size_ = static_cast<uint8_t>(name.size());
    } else {
      long_.assign(name);
      size_ = kLong;
    }
  }

  std::string_view view() const {
    return size_ == kLong ? std::string_view(long_) : std::string_view(inline_, size_);
  }
  std::string str() const { return std::string(view()); }
  bool operator==(std::string_view other) const { return view() == other; }

 private:
  static constexpr uint8_t kLong = 0xFF;
  char inline_[kInline] = {};
  uint8_t size_ = 0;
  std::string long_;
};

// What a client yields for each record of a stream.
struct StreamChunk {
  ModelName model;      // the model the server names in its record
  ReplyText completed;  // the whole reply so far; it replaces what the caller shows
  std::optional<std::string> finishReason;
};

}  // namespace lumora
