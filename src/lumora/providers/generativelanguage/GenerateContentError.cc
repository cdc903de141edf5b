#include "lumora/providers/generativelanguage/GenerateContentError.h"

#include "lumora/chat/Errors.h"

namespace lumora::generativelanguage {
namespace {

// The service's message for a country it does not serve; only the exact text counts.
constexpr std::string_view kUnsupportedLocation = "User location is not supported for the API use.";

std::string withReason(std::string_view what, std::string_view raw) {
  return std::string(what) + " (" + std::string(raw) + ").";
}

}  // namespace

RPCError::RPCError(int64_t httpResponseCode, std::string message, RPCStatus status,
                   std::vector<ErrorDetails> details)
    : Error(message),
      httpResponseCode_(httpResponseCode),
      message_(std::move(message)),
      status_(status),
      details_(std::move(details)) {}

std::optional<std::string_view> RPCError::errorInfoReason() const {
  for (const ErrorDetails& d : details_)
    if (d.type == kErrorInfoType) return d.reason;
  return std::nullopt;
}

InvalidCandidateError InvalidCandidateError::emptyContent(std::exception_ptr underlyingError) {
  return InvalidCandidateError(
      Kind::emptyContent, "The server's reply could not be read: a candidate's content is empty.",
      std::move(underlyingError));
}

InvalidCandidateError InvalidCandidateError::malformedContent(std::exception_ptr underlyingError) {
  // What was wrong inside the content says more than that it was wrong.
  std::string text = describeFailure(underlyingError);
  return InvalidCandidateError(Kind::malformedContent, std::move(text), std::move(underlyingError));
}

GenerateContentError GenerateContentError::internalError(std::exception_ptr underlying) {
  GenerateContentError error(Kind::internalError, describeFailure(underlying));
  error.underlying_ = std::move(underlying);
  return error;
}

GenerateContentError GenerateContentError::promptBlocked(GenerateContentResponse response) {
  std::string_view reason = "BLOCK_REASON_UNSPECIFIED";
  if (response.promptFeedback && response.promptFeedback->blockReason)
    reason = rawValue(*response.promptFeedback->blockReason);
  GenerateContentError error(Kind::promptBlocked, withReason("The prompt was blocked", reason));
  error.response_ = std::make_shared<const GenerateContentResponse>(std::move(response));
  return error;
}

GenerateContentError GenerateContentError::responseStoppedEarly(FinishReason reason,
                                                                GenerateContentResponse response) {
  GenerateContentError error(Kind::responseStoppedEarly,
                             withReason("The response stopped early", rawValue(reason)));
  error.reason_ = reason;
  error.response_ = std::make_shared<const GenerateContentResponse>(std::move(response));
  return error;
}

GenerateContentError GenerateContentError::invalidAPIKey() {
  return GenerateContentError(Kind::invalidAPIKey, "The API key is not valid.");
}

GenerateContentError GenerateContentError::unsupportedUserLocation() {
  return GenerateContentError(Kind::unsupportedUserLocation,
                              "The service is not offered in the user's location.");
}

GenerateContentError contentError(std::exception_ptr failure) {
  if (!failure) return GenerateContentError::internalError(failure);
  try {
    std::rethrow_exception(failure);
  } catch (const GenerateContentError& e) {
    return e;
  } catch (const RPCError& e) {
    if (e.errorInfoReason() == "API_KEY_INVALID") return GenerateContentError::invalidAPIKey();
    if (e.message() == kUnsupportedLocation) return GenerateContentError::unsupportedUserLocation();
  } catch (...) {
  }
  return GenerateContentError::internalError(failure);
}

}  // namespace lumora::generativelanguage
