// What the generative-language service streams back: one GenerateContentResponse per "data:"
// line, with its candidates, their safety ratings and citations, and the feedback on the
// prompt. The wire enumerations keep the server's strings as raw values; a string this client
// does not know decodes as `unknown` (with a debug line), so a new value on the server does not
// fail a reply.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/providers/generativelanguage/ModelContent.h"

namespace lumora::json {
class Parser;
}

namespace lumora::generativelanguage {

enum class FinishReason { unknown, unspecified, stop, maxTokens, safety, recitation, other };

struct SafetySetting {
  enum class HarmCategory {
    unknown,
    unspecified,
    harassment,
    hateSpeech,
    sexuallyExplicit,
    dangerousContent,
  };
};

struct SafetyRating {
  enum class HarmProbability { unknown, unspecified, negligible, low, medium, high };

  SafetySetting::HarmCategory category = SafetySetting::HarmCategory::unknown;
  HarmProbability probability = HarmProbability::unknown;
  bool operator==(const SafetyRating&) const = default;
};

// The wire string of each value ("STOP", "HARM_CATEGORY_HATE_SPEECH", ...).
std::string_view rawValue(FinishReason value);
std::string_view rawValue(SafetySetting::HarmCategory value);
std::string_view rawValue(SafetyRating::HarmProbability value);

struct Citation {
  int64_t startIndex = 0;
  int64_t endIndex = 0;
  std::string uri;
  std::string license;
  bool operator==(const Citation&) const = default;
};

struct CitationMetadata {
  std::vector<Citation> citationSources;
  bool operator==(const CitationMetadata&) const = default;
};

struct PromptFeedback {
  enum class BlockReason { unknown, unspecified, safety, other };

  std::optional<BlockReason> blockReason;
  std::vector<SafetyRating> safetyRatings;
  bool operator==(const PromptFeedback&) const = default;
};

std::string_view rawValue(PromptFeedback::BlockReason value);

struct CandidateResponse {
  ModelContent content;  // a candidate without "content" has an empty one with the role "user"
  std::vector<SafetyRating> safetyRatings;
  std::optional<FinishReason> finishReason;
  std::optional<CitationMetadata> citationMetadata;
  bool operator==(const CandidateResponse&) const = default;
};

struct GenerateContentResponse {
  std::vector<CandidateResponse> candidates;
  std::optional<PromptFeedback> promptFeedback;

  // The first part of the first candidate, when that is text. Parts behind it are not looked
  // at. Without one, a debug line says why.
  std::optional<std::string_view> text() const;

  bool operator==(const GenerateContentResponse&) const = default;
};

// Reads responses from their JSON, keys as written. One per stream: it keeps its parser's
// buffers from line to line. Not thread-safe.
class ResponseDecoder {
 public:
  ResponseDecoder();
  ~ResponseDecoder();
  ResponseDecoder(const ResponseDecoder&) = delete;
  ResponseDecoder& operator=(const ResponseDecoder&) = delete;

  // Throws DecodingError when `json` is not a response (InvalidCandidateError, a kind of
  // DecodingError, when only a candidate's content is wrong).
  GenerateContentResponse decode(std::string_view json);

 private:
  std::unique_ptr<json::Parser> parser_;
};

}  // namespace lumora::generativelanguage
