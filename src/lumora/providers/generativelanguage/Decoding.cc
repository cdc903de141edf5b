// Reading the service's JSON: responses of a stream and error objects, keys as written, with
// the wire enumerations' strings.
#include <array>

#include "lumora/chat/JsonRecord.h"
#include "lumora/platform/Base64.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Text.h"
#include "lumora/providers/generativelanguage/GenerateContentError.h"
#include "lumora/providers/generativelanguage/GenerateContentResponse.h"

namespace lumora::generativelanguage {
namespace {

using json::Keys;
using json::Record;
using simdjson::dom::element;

// Each enumeration's wire strings, in the order of its cases.
constexpr std::array<std::string_view, 7> kFinishReasons = {"FINISH_REASON_UNKNOWN",
                                                            "FINISH_REASON_UNSPECIFIED",
                                                            "STOP",
                                                            "MAX_TOKENS",
                                                            "SAFETY",
                                                            "RECITATION",
                                                            "OTHER"};
constexpr std::array<std::string_view, 4> kBlockReasons = {"UNKNOWN", "BLOCK_REASON_UNSPECIFIED",
                                                           "SAFETY", "OTHER"};
constexpr std::array<std::string_view, 6> kHarmCategories = {
    "HARM_CATEGORY_UNKNOWN",           "HARM_CATEGORY_UNSPECIFIED",
    "HARM_CATEGORY_HARASSMENT",        "HARM_CATEGORY_HATE_SPEECH",
    "HARM_CATEGORY_SEXUALLY_EXPLICIT", "HARM_CATEGORY_DANGEROUS_CONTENT"};
constexpr std::array<std::string_view, 6> kHarmProbabilities = {
    "UNKNOWN", "HARM_PROBABILITY_UNSPECIFIED", "NEGLIGIBLE", "LOW", "MEDIUM", "HIGH"};
constexpr std::array<std::string_view, 17> kRPCStatuses = {"OK",
                                                           "CANCELLED",
                                                           "UNKNOWN",
                                                           "INVALID_ARGUMENT",
                                                           "DEADLINE_EXCEEDED",
                                                           "NOT_FOUND",
                                                           "ALREADY_EXISTS",
                                                           "PERMISSION_DENIED",
                                                           "UNAUTHENTICATED",
                                                           "RESOURCE_EXHAUSTED",
                                                           "FAILED_PRECONDITION",
                                                           "ABORTED",
                                                           "OUT_OF_RANGE",
                                                           "UNIMPLEMENTED",
                                                           "INTERNAL",
                                                           "UNAVAILABLE",
                                                           "DATA_LOSS"};

// A case added to an enumeration needs its string here.
static_assert(kFinishReasons.size() == size_t(FinishReason::other) + 1);
static_assert(kBlockReasons.size() == size_t(PromptFeedback::BlockReason::other) + 1);
static_assert(kHarmCategories.size() == size_t(SafetySetting::HarmCategory::dangerousContent) + 1);
static_assert(kHarmProbabilities.size() == size_t(SafetyRating::HarmProbability::high) + 1);
static_assert(kRPCStatuses.size() == size_t(RPCStatus::dataLoss) + 1);

template <typename E, size_t N>
std::optional<E> lookup(std::string_view raw, const std::array<std::string_view, N>& names) {
  for (size_t i = 0; i < N; ++i)
    if (names[i] == raw) return static_cast<E>(i);
  return std::nullopt;
}

// A value the server added after this client was written is `unknown`, with a debug line.
template <typename E, size_t N>
E decodeEnum(std::string_view raw, const std::array<std::string_view, N>& names,
             std::string_view enumName) {
  if (auto value = lookup<E>(raw, names)) return *value;
  debug::line({"[GoogleGenerativeAI] Unrecognized " + std::string(enumName) + " with value \"" +
               std::string(raw) + "\"."});
  return E::unknown;
}

// Parses `text`, once more with ill-formed UTF-8 replaced when that is why it failed: the
// platform's line reading would have handed over U+FFFD in its place.
bool parseRepairing(json::Parser& parser, std::string_view text) {
  if (parser.parse(text)) return true;
  if (text::isValidUtf8(text)) return false;
  const std::string repaired = text::repairedUtf8(text);
  return parser.parse(repaired);
}

std::vector<SafetyRating> safetyRatings(const Record& record) {
  std::vector<SafetyRating> out;
  const auto list = record.optionalArray("safetyRatings");
  if (!list) return out;
  for (element item : *list) {
    const Record rating(item, Keys::asWritten, "a safety rating");
    out.push_back({decodeEnum<SafetySetting::HarmCategory>(rating.string("category"),
                                                           kHarmCategories, "HarmCategory"),
                   decodeEnum<SafetyRating::HarmProbability>(
                       rating.string("probability"), kHarmProbabilities, "HarmProbability")});
  }
  return out;
}

ModelContent::Part part(element value) {
  const Record record(value, Keys::asWritten, "a part");
  if (auto text = record.find("text")) {
    std::string_view s;
    if (!text->get_string().get(s)) return ModelContent::Part::text(std::string(s));
  }
  if (auto data = record.optionalObject("inlineData")) {
    std::string mimetype(data->string("mime_type"));
    auto bytes = base64::decode(data->string("data"));
    if (!bytes) json::fail("\"data\" is not Base64");
    return ModelContent::Part::data(std::move(mimetype), std::move(*bytes));
  }
  json::fail("Neither text or inline data was found");
}

ModelContent modelContent(element value) {
  const Record record(value, Keys::asWritten, "a content");
  ModelContent content;
  if (auto role = record.optionalString("role")) content.role = std::string(*role);
  for (element item : record.array("parts")) content.parts.push_back(part(item));
  return content;
}

// A content that does not decode says whether it was merely empty ({}), which the service sends
// for a candidate that ended before it had anything to say.
ModelContent candidateContent(element value) {
  try {
    return modelContent(value);
  } catch (const DecodingError&) {
    std::exception_ptr first = std::current_exception();
    simdjson::dom::object object;
    if (!value.get_object().get(object) && object.size() == 0)
      throw InvalidCandidateError::emptyContent(first);
    throw InvalidCandidateError::malformedContent(first);
  }
}

CandidateResponse candidate(element value) {
  const Record record(value, Keys::asWritten, "a candidate");
  CandidateResponse out;
  if (auto content = record.find("content")) {
    out.content = candidateContent(*content);
  } else {
    out.content.role = "user";
  }
  out.safetyRatings = safetyRatings(record);
  if (auto reason = record.optionalString("finishReason"))
    out.finishReason = decodeEnum<FinishReason>(*reason, kFinishReasons, "FinishReason");
  if (auto metadata = record.optionalObject("citationMetadata")) {
    CitationMetadata citations;
    for (element item : metadata->array("citationSources")) {
      const Record source(item, Keys::asWritten, "a citation");
      citations.citationSources.push_back({source.integer("startIndex"), source.integer("endIndex"),
                                           std::string(source.string("uri")),
                                           std::string(source.string("license"))});
    }
    out.citationMetadata = std::move(citations);
  }
  return out;
}

GenerateContentResponse response(element root) {
  const Record record(root, Keys::asWritten, "a response");
  if (!record.find("candidates") && !record.find("promptFeedback"))
    json::fail(
        "Failed to decode GenerateContentResponse; missing keys 'candidates' and "
        "'promptFeedback'");
  GenerateContentResponse out;
  if (auto list = record.optionalArray("candidates"))
    for (element item : *list) out.candidates.push_back(candidate(item));
  if (auto feedback = record.optionalObject("promptFeedback")) {
    PromptFeedback decoded;
    if (auto reason = feedback->optionalString("blockReason"))
      decoded.blockReason =
          decodeEnum<PromptFeedback::BlockReason>(*reason, kBlockReasons, "BlockReason");
    decoded.safetyRatings = safetyRatings(*feedback);
    out.promptFeedback = std::move(decoded);
  }
  return out;
}

}  // namespace

std::string_view rawValue(FinishReason value) { return kFinishReasons.at(size_t(value)); }
std::string_view rawValue(PromptFeedback::BlockReason value) {
  return kBlockReasons.at(size_t(value));
}
std::string_view rawValue(SafetySetting::HarmCategory value) {
  return kHarmCategories.at(size_t(value));
}
std::string_view rawValue(SafetyRating::HarmProbability value) {
  return kHarmProbabilities.at(size_t(value));
}
std::string_view rawValue(RPCStatus value) { return kRPCStatuses.at(size_t(value)); }

std::optional<std::string_view> GenerateContentResponse::text() const {
  if (candidates.empty()) {
    debug::line(
        {"[GoogleGenerativeAI] Could not get text from a response that had no candidates."});
    return std::nullopt;
  }
  const std::vector<ModelContent::Part>& parts = candidates.front().content.parts;
  const std::string* text = parts.empty() ? nullptr : parts.front().textValue();
  if (!text) {
    debug::line({"[GoogleGenerativeAI] Could not get a text part from the first candidate."});
    return std::nullopt;
  }
  return *text;
}

ResponseDecoder::ResponseDecoder() : parser_(std::make_unique<json::Parser>()) {}
ResponseDecoder::~ResponseDecoder() = default;

GenerateContentResponse ResponseDecoder::decode(std::string_view text) {
  if (!parseRepairing(*parser_, text)) json::fail("a record is not JSON");
  return response(parser_->root());
}

RPCError decodeRPCError(std::string_view text) {
  json::Parser parser;
  if (!parseRepairing(parser, text)) json::fail("the error is not JSON");
  const Record root(parser.root(), Keys::asWritten, "the error");
  const Record error = root.object("error");
  RPCStatus status = RPCStatus::unknown;
  if (auto raw = error.optionalString("status"))
    status = lookup<RPCStatus>(*raw, kRPCStatuses).value_or(RPCStatus::unknown);
  std::vector<ErrorDetails> details;
  if (auto list = error.optionalArray("details")) {
    for (element item : *list) {
      const Record entry(item, Keys::asWritten, "an error detail");
      ErrorDetails d{std::string(entry.string("@type")), std::nullopt, std::nullopt};
      if (auto reason = entry.optionalString("reason")) d.reason = std::string(*reason);
      if (auto domain = entry.optionalString("domain")) d.domain = std::string(*domain);
      details.push_back(std::move(d));
    }
  }
  return RPCError(error.optionalInteger("code").value_or(-1),
                  std::string(error.optionalString("message").value_or("Unknown error.")), status,
                  std::move(details));
}

}  // namespace lumora::generativelanguage
