// The client of Reka's chat API. The conversation goes out cut down to a strict alternation of
// the user's and the assistant's turns, starting and ending with the user's; plain turns use
// Reka's own form ("human" and "model"); and each stream record carries the whole text so far,
// which replaces the text shown rather than adding to it.
//
// Made anew for each request; holds nothing that changes.
#pragma once

#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/LLMClient.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Http.h"

namespace lumora {

class RekaClient final : public LLMClient {
 public:
  static constexpr std::string_view kPath = "/chat";

  // A plain turn of the history.
  struct RekaTextMessage {
    std::string type;  // "human" for the user's turns, "model" for the assistant's
    std::string text;
  };

  struct RekaChatRequestPayload {
    std::string modelName;
    std::vector<ChatMessage> conversationHistory;  // already cut
    bool stream = true;
    double temperature = 1.0;             // already limited to 0...2
    std::optional<int> requestOutputLen;  // left out when absent

    // The JSON text, keys in field order and in snake case. The history goes in the plain form,
    // or, when any of its turns has an image, every turn in the OpenAI image form.
    std::string toJSON() const;
  };

  // One stream record. The views point into the reader's parser and live until its next line.
  struct RekaResponse {
    std::string_view type;
    std::optional<std::string_view> text;          // the whole reply so far
    std::optional<std::string_view> finishReason;  // the key "finish_reason"
  };

  // Registers `apiKey` for masking.
  RekaClient(std::string apiKey, const ChatEnvironment& environment);

  // The names Reka's service answers: those starting "reka".
  static bool claims(std::string_view model) { return model.starts_with("reka"); }
  bool supportsModel(std::string_view model) const override { return claims(model); }

  // Builds the request, sends it and judges the head: 200 gives the stream; any other status
  // fails with the OpenAIError that checkErrorBody makes of the body.
  ChunkStream streamChat(const std::string& model, const std::vector<ChatMessage>& messages,
                         double temperature, std::stop_token stop) override;

  // The request this client would send, without sending it. A conversation without a single
  // turn of the user's leaves nothing to answer; that throws AppError::unknown, before anything
  // is sent, rather than sending an empty history.
  HttpRequest chatRequest(const std::string& model, const std::vector<ChatMessage>& messages,
                          double temperature) const;

  // The endpoint's base (which the environment may override) with the chat path.
  static std::string chatURL();

  // The turns that go out, in one pass: the expected role starts as "user" and flips with
  // each turn taken; a turn of another role (every system turn among them) is dropped. A last
  // turn that is not the user's goes too. Of two user turns in a row the first stays.
  static std::vector<ChatMessage> conversationHistory(const std::vector<ChatMessage>& messages);

  // The line rule of one stream; its chunks carry `model`.
  static std::unique_ptr<LineReader> lineReader(std::string model);

 private:
  std::string apiKey_;
  const ChatEnvironment& environment_;
};

}  // namespace lumora
