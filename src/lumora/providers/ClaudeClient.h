// The client of Anthropic's messages API. Its wire format is its own: the system text travels
// beside the messages, the turns are normalised first (blank ones dropped, neighbours of one
// role merged), and every message is a list of typed content blocks. The stream is read laxly:
// a line it cannot read is passed over, and only an error record ends it early.
//
// Made anew for each request. The running text belongs to each stream's reader, not to the
// client, so one client may serve several streams without mixing their texts.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/LLMClient.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Http.h"

namespace lumora {

class ClaudeClient final : public LLMClient {
 public:
  static constexpr std::string_view kMessagesPath = "/v1/messages";
  static constexpr std::string_view kAnthropicVersion = "2023-06-01";
  static constexpr int kMaxTokens = 4096;

  // ---- the request body ----

  // Every image goes out declared as JPEG, whatever its bytes are.
  struct ClaudeImageSource {
    std::string type = "base64";
    std::string mediaType = "image/jpeg";  // the key "media_type"
    std::string data;                      // standard Base64, no line breaks
  };
  struct ClaudeTextContent {
    std::string text;
  };
  struct ClaudeImageContent {
    ClaudeImageSource source;
  };
  // One block of a message, written as the bare object of its case: {"type":"text","text":..}
  // or {"type":"image","source":{..}}.
  using ClaudeContentType = std::variant<ClaudeTextContent, ClaudeImageContent>;

  struct ClaudeMessage {
    std::string role;  // "user" or "assistant", as the turn had it
    std::vector<ClaudeContentType> content;
  };

  struct ClaudeMessagesRequestPayload {
    std::string model;
    std::vector<ClaudeMessage> messages;
    std::optional<std::string> system;  // left out when absent
    int maxTokens = kMaxTokens;
    bool stream = true;
    double temperature = 1.0;  // the caller's, unclamped

    // The JSON text, keys in field order and in snake case. Throws Error when the temperature
    // is not a finite number, which JSON cannot hold.
    std::string toJSON() const;
  };

  // ---- the stream record ----

  // A record that carries text. Real streams send it as "content_block_delta"; every other
  // kind of record lacks one of these keys and is passed over. The views point into the
  // reader's parser and live until its next line.
  struct ResultChunk {
    struct Delta {
      std::string_view type;
      std::string_view text;
    };
    std::string_view type;
    int64_t index = 0;
    Delta delta;
  };

  // Registers `apikey` for masking. `useCloud` says that the key is the hosted service's token;
  // the request is the same either way.
  ClaudeClient(std::string apikey, bool useCloud, const ChatEnvironment& environment);

  bool useCloud() const { return useCloud_; }

  // The names Claude's service answers: those starting "claude". The route sends them here
  // before any service is asked, and OpenRouter and the hosted cloud forward them.
  static bool claims(std::string_view model) { return model.starts_with("claude"); }
  // Claude's own dated names ("claude-3-opus-…"): the ones a Claude key or the hosted cloud's
  // token takes to Claude's API when the OpenAI client was chosen for them.
  static bool claimsByApiName(std::string_view model) { return model.starts_with("claude-"); }
  bool supportsModel(std::string_view model) const override { return claims(model); }

  // Builds the request, sends it and judges the head: 200 gives the stream; any other status
  // fails with the OpenAIError that checkErrorBody makes of the body.
  ChunkStream streamChat(const std::string& model, const std::vector<ChatMessage>& messages,
                         double temperature, std::stop_token stop) override;

  // The request this client would send, without sending it. Throws Error for a temperature
  // that is not finite.
  HttpRequest chatRequest(const std::string& model, const std::vector<ChatMessage>& messages,
                          double temperature) const;

  // The endpoint's base (which the environment may override) with the messages path.
  static std::string messagesURL();

  // The turns as the API takes them: turns whose text is blank are dropped, images and all;
  // then each turn with the role of the one before it is merged into that one (texts joined by
  // a blank line, images appended). System turns take part in merging like any other.
  static std::vector<ChatMessage> normalized(const std::vector<ChatMessage>& messages);

  // The body for `messages`: the first system turn's text as `system`, the normalised turns
  // without system turns as `messages`.
  static ClaudeMessagesRequestPayload payload(const std::string& model,
                                              const std::vector<ChatMessage>& messages,
                                              double temperature);

  // The line rule of one stream; its chunks carry `model`.
  static std::unique_ptr<LineReader> lineReader(std::string model);

 private:
  std::string apikey_;
  bool useCloud_;
  const ChatEnvironment& environment_;
};

}  // namespace lumora
