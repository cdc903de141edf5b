// How a generation fails: the service's own error object (RPCError), a candidate that does not
// decode (InvalidCandidateError), and GenerateContentError, which every failure of a stream is
// turned into by contentError() before the caller sees it.
#pragma once

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/platform/Errors.h"
#include "lumora/providers/generativelanguage/GenerateContentResponse.h"

namespace lumora::generativelanguage {

enum class RPCStatus {
  ok,
  cancelled,
  unknown,
  invalidArgument,
  deadlineExceeded,
  notFound,
  alreadyExists,
  permissionDenied,
  unauthenticated,
  resourceExhausted,
  failedPrecondition,
  aborted,
  outOfRange,
  unimplemented,
  internalError,
  unavailable,
  dataLoss,
};

std::string_view rawValue(RPCStatus value);

// One entry of an error's "details": its "@type" (a type URL) and, for an ErrorInfo, why and
// where.
struct ErrorDetails {
  std::string type;
  std::optional<std::string> reason;
  std::optional<std::string> domain;
  bool operator==(const ErrorDetails&) const = default;
};

// The type URL of the details entry that carries the machine-readable reason of an error.
inline constexpr std::string_view kErrorInfoType = "type.googleapis.com/google.rpc.ErrorInfo";

// The service's error object: {"error": {"code", "message", "status", "details"}}. Its text is
// the message.
class RPCError : public Error {
 public:
  RPCError(int64_t httpResponseCode, std::string message, RPCStatus status,
           std::vector<ErrorDetails> details);

  int64_t httpResponseCode() const { return httpResponseCode_; }
  const std::string& message() const { return message_; }
  RPCStatus status() const { return status_; }
  const std::vector<ErrorDetails>& details() const { return details_; }

  // The reason of the first details entry of type ErrorInfo, if there is one.
  std::optional<std::string_view> errorInfoReason() const;

 private:
  int64_t httpResponseCode_;
  std::string message_;
  RPCStatus status_;
  std::vector<ErrorDetails> details_;
};

// Reads an error object. "code" is -1, "message" "Unknown error." and "status" `unknown` when
// absent; a status this client does not know counts as absent. Throws DecodingError when the
// text is no error object.
RPCError decodeRPCError(std::string_view json);

// A candidate whose "content" is there but is no content object.
class InvalidCandidateError : public DecodingError {
 public:
  enum class Kind { emptyContent, malformedContent };

  static InvalidCandidateError emptyContent(std::exception_ptr underlyingError);
  static InvalidCandidateError malformedContent(std::exception_ptr underlyingError);

  Kind kind() const { return kind_; }
  std::exception_ptr underlyingError() const { return underlying_; }

 private:
  InvalidCandidateError(Kind kind, std::string text, std::exception_ptr underlying)
      : DecodingError(std::move(text)), kind_(kind), underlying_(std::move(underlying)) {}
  Kind kind_;
  std::exception_ptr underlying_;
};

class GenerateContentError : public Error {
 public:
  enum class Kind {
    internalError,  // any other failure, kept in underlying()
    promptBlocked,
    responseStoppedEarly,
    invalidAPIKey,
    unsupportedUserLocation,
  };

  static GenerateContentError internalError(std::exception_ptr underlying);
  static GenerateContentError promptBlocked(GenerateContentResponse response);
  static GenerateContentError responseStoppedEarly(FinishReason reason,
                                                   GenerateContentResponse response);
  static GenerateContentError invalidAPIKey();
  static GenerateContentError unsupportedUserLocation();

  Kind kind() const { return kind_; }
  // internalError only.
  std::exception_ptr underlying() const { return underlying_; }
  // promptBlocked and responseStoppedEarly only.
  const GenerateContentResponse* response() const { return response_.get(); }
  // responseStoppedEarly only.
  FinishReason reason() const { return reason_; }

 private:
  GenerateContentError(Kind kind, std::string text) : Error(std::move(text)), kind_(kind) {}

  Kind kind_;
  std::exception_ptr underlying_;
  // Shared: exceptions are copied as they travel, a response need not be.
  std::shared_ptr<const GenerateContentResponse> response_;
  FinishReason reason_ = FinishReason::unknown;
};

// Any failure of a generation as a GenerateContentError: one stays as it is; an RPCError whose
// ErrorInfo says "API_KEY_INVALID" is invalidAPIKey; one whose message is exactly the service's
// unsupported-location text is unsupportedUserLocation; everything else is internalError.
GenerateContentError contentError(std::exception_ptr failure);

}  // namespace lumora::generativelanguage
