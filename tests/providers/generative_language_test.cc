// The generative-language records on their own: what a response and an error object decode to,
// field by field, and how failures are told apart.
#include <gtest/gtest.h>

#include "lumora/providers/generativelanguage/GenerativeModel.h"
#include "support/Fixtures.h"

namespace lumora::generativelanguage {
namespace {

TEST(GenerativeLanguage, AResponseDecodesEveryField) {
  const std::string json = R"({
    "candidates": [
      {"content": {"role": "model", "parts": [
          {"text": "Hi"}, {"inlineData": {"mime_type": "image/png", "data": "/9j/"}}]},
       "safetyRatings": [{"category": "HARM_CATEGORY_HATE_SPEECH", "probability": "LOW",
                          "blocked": false}],
       "finishReason": "STOP",
       "citationMetadata": {"citationSources": [
          {"startIndex": 1, "endIndex": 9, "uri": "https://example.org", "license": "MIT"}]}},
      {"finishReason": "RECITATION", "safetyRatings": null}
    ],
    "promptFeedback": {"safetyRatings": [
        {"category": "HARM_CATEGORY_NEW", "probability": "NEGLIGIBLE"}]},
    "usageMetadata": {"totalTokenCount": 3}
  })";
  GenerateContentResponse expected;
  expected.candidates.push_back(
      {{"model",
        {ModelContent::Part::text("Hi"), ModelContent::Part::data("image/png", "\xff\xd8\xff")}},
       {{SafetySetting::HarmCategory::hateSpeech, SafetyRating::HarmProbability::low}},
       FinishReason::stop,
       CitationMetadata{{{1, 9, "https://example.org", "MIT"}}}});
  expected.candidates.push_back({{"user", {}}, {}, FinishReason::recitation, std::nullopt});
  expected.promptFeedback = PromptFeedback{
      std::nullopt,
      {{SafetySetting::HarmCategory::unknown, SafetyRating::HarmProbability::negligible}}};

  ResponseDecoder decoder;
  const GenerateContentResponse decoded = decoder.decode(json);
  EXPECT_EQ(decoded, expected);
  EXPECT_EQ(decoded.text(), "Hi");
  // The decoder is reused from line to line.
  EXPECT_EQ(decoder.decode(R"({"candidates":[]})"), GenerateContentResponse{});
}

TEST(GenerativeLanguage, ErrorObjectsAndTheirConversion) {
  using Kind = GenerateContentError::Kind;
  struct Case {
    std::string body;  // a fixture under providers/gemini, or the body itself
    int64_t code;
    std::string message;
    RPCStatus status;
    size_t details;
    Kind kind;
  };
  const Case cases[] = {
      {"error-400-api-key-invalid.json", 400, "API key not valid. Please pass a valid API key.",
       RPCStatus::invalidArgument, 3, Kind::invalidAPIKey},
      {R"({"error":{}})", -1, "Unknown error.", RPCStatus::unknown, 0, Kind::internalError},
      {R"({"error":{"code":499,"status":"CANCELLED","details":[]}, "other": 1})", 499,
       "Unknown error.", RPCStatus::cancelled, 0, Kind::internalError},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    const std::string body =
        c.body.ends_with(".json")
            ? testing::readFile(testing::fixturesDir() / "providers/gemini" / c.body)
            : c.body;
    const RPCError error = decodeRPCError(body);
    EXPECT_EQ(error.httpResponseCode(), c.code);
    EXPECT_EQ(error.message(), c.message);
    EXPECT_EQ(error.status(), c.status);
    EXPECT_EQ(error.details().size(), c.details);
    const GenerateContentError converted = contentError(std::make_exception_ptr(error));
    EXPECT_EQ(converted.kind(), c.kind);
    // A conversion keeps an error that is converted already.
    EXPECT_EQ(contentError(std::make_exception_ptr(converted)).kind(), c.kind);
  }
  const GenerateContentError decoding = contentError(std::make_exception_ptr(DecodingError("bad")));
  EXPECT_EQ(decoding.kind(), Kind::internalError);
  EXPECT_STREQ(decoding.what(), "bad");
}

TEST(GenerativeLanguage, RequestBodyLeavesAbsentRolesOut) {
  GenerateContentRequest request{"models/m", {{std::nullopt, {ModelContent::Part::text("x")}}}};
  EXPECT_EQ(request.body(), R"({"contents":[{"parts":[{"text":"x"}]}]})");
  request.contents.clear();
  EXPECT_EQ(request.body(), R"({"contents":[]})");
}

}  // namespace
}  // namespace lumora::generativelanguage
