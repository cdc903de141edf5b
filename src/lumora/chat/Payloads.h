// The OpenAI-style wire records: the request body, the stream record and the error body.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/chat/ChatMessage.h"
#include "lumora/chat/Errors.h"

namespace lumora {

// The body of every OpenAI-style chat request.
struct ChatRequestPayload {
  std::string model;
  std::vector<ChatMessage> messages;
  bool stream = true;
  double temperature = 1.0;
  std::optional<int> maxTokens;

  // The JSON text, keys in field order and in snake case ("max_tokens", "image_url"). All
  // messages go in the text form unless one of them has images, then all in the image form.
  std::string toJSON() const;
};

// One decoded stream record. The string views point into the decoder that produced it and are
// valid until its next decode.
struct ChatDelta {
  struct Delta {
    std::optional<std::string_view> role;
    std::optional<std::string_view> content;
  };
  struct Choice {
    std::optional<Delta> delta;
    std::optional<std::string_view> finishReason;
  };
  std::string_view id;
  std::string_view object;
  int64_t created = 0;
  std::string_view model;
  std::vector<Choice> choices;
};

// Decodes the JSON of one stream line or error body. Strict where the records are strict:
// required keys are required and types are exact; unknown keys are ignored; null counts as
// absent for optional fields. Reuses its buffers from line to line, so make one per stream.
// Not thread-safe.
class WireDecoder {
 public:
  WireDecoder();
  ~WireDecoder();
  WireDecoder(const WireDecoder&) = delete;
  WireDecoder& operator=(const WireDecoder&) = delete;

  // Parses `json`; false when it is not well-formed JSON (error() tells why).
  bool parse(std::string_view json);

  // After a successful parse: the error body, read without key conversion, if the document is
  // one (a top-level "error" object with a string "message"; "code" and "type" strings or
  // absent).
  std::optional<OpenAIErrorResponse> errorResponse() const;

  // After a successful parse: the stream record, its keys read with snake-case conversion.
  // Throws DecodingError naming what is missing or of the wrong type.
  const ChatDelta& chatDelta();

  // After a successful parse, what one stream line holds, walking the document once: the
  // stream record as chatDelta() reads it, unless the document is an error body
  // (errorResponse()), which throws OpenAIError::apiError instead. Throws DecodingError when it
  // is neither.
  const ChatDelta& streamRecord();

  // parse() and streamRecord() of one stream line together: nullptr when `json` is not
  // well-formed JSON (error() tells why); otherwise the record, or the throw, of streamRecord().
  // A record of the common shape is read without building the document's tree, and a record
  // that repeats the one before but for its text is read as that text alone; the outcome is
  // the same as the tree's. The decoder keeps the last such line (at most 64 KiB) for that.
  const ChatDelta* streamLine(std::string_view json);

  // Why the last parse failed.
  const std::string& error() const { return error_; }

 private:
  struct Impl;
  // chatDelta()'s walk; sets `sawErrorKey` when the record has a top-level "error" key.
  const ChatDelta& decodeDelta(bool& sawErrorKey);
  // Copies `json` into the padded buffer simdjson reads; parsePadded() parses what it holds.
  void pad(std::string_view json);
  bool parsePadded(size_t length);
  std::unique_ptr<Impl> impl_;
  std::string error_;
};

// An error body decoded on its own. nullopt when `body` is not one.
std::optional<OpenAIErrorResponse> decodeOpenAIErrorResponse(std::string_view body);

}  // namespace lumora
