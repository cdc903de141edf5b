#include "lumora/chat/Errors.h"

#include "lumora/platform/Localization.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"

namespace lumora {

OpenAIError OpenAIError::httpError(int status) {
  return OpenAIError(Kind::httpError, "Unexpected http code " + std::to_string(status), status, {});
}

OpenAIError OpenAIError::apiError(OpenAIErrorResponse response) {
  std::string text = "Error " + response.error.code.value_or("") + ": " + response.error.message;
  return OpenAIError(Kind::apiError, std::move(text), 0, std::move(response));
}

OpenAIError OpenAIError::urlError() { return OpenAIError(Kind::urlError, "Invalid domain", 0, {}); }

AppError AppError::httpError(int status) {
  return AppError(Kind::httpError, "HTTP " + std::to_string(status));
}
AppError AppError::apiError(std::string message) {
  return AppError(Kind::apiError, std::move(message));
}
AppError AppError::unknown(std::string message) {
  return AppError(Kind::unknown, std::move(message));
}
AppError AppError::insufficientQuota() {
  return AppError(Kind::insufficientQuota, localized("Insufficient Quota"));
}
AppError AppError::noServiceFound() {
  return AppError(Kind::noServiceFound, localized("No service found"));
}

RequestTooLargeError::RequestTooLargeError(std::optional<size_t> size, size_t limit)
    : Error((size ? "The request is " + text::groupedCount(*size) + " bytes, more than "
                  : std::string("The request would be more than ")) +
            text::sizeText(limit) +
            ", the limit of the setting \"maxRequestMiB\" (lumora settings set maxRequestMiB "
            "N); nothing was sent."),
      size_(size),
      limit_(limit) {}

std::string describeFailure(const std::exception& failure) {
  // Our own errors carry the user's text as what(); anything else from the standard library
  // has only its own description to offer.
  return redact::scrub(failure.what());
}

std::string describeFailure(std::exception_ptr failure) {
  try {
    if (failure) std::rethrow_exception(failure);
  } catch (const std::exception& e) {
    return describeFailure(e);
  } catch (...) {
  }
  return "The operation couldn't be completed.";
}

}  // namespace lumora
