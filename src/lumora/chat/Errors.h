// The chat layer's error families, with the texts the user reads, and describeFailure: the one
// place that turns any failure into words.
#pragma once

#include <exception>
#include <optional>
#include <string>

#include "lumora/platform/Errors.h"

namespace lumora {

// The error body of an OpenAI-style server: {"error": {"message": ..., "code": ..., "type": ...}}.
struct OpenAIErrorResponse {
  struct Error {
    std::optional<std::string> code;
    std::optional<std::string> type;
    std::string message;
    bool operator==(const Error&) const = default;
  };
  Error error;
  bool operator==(const OpenAIErrorResponse&) const = default;
};

// Raised by the OpenAI family of clients. The texts are fixed, not translated.
class OpenAIError : public Error {
 public:
  enum class Kind { httpError, apiError, urlError };

  static OpenAIError httpError(int status);
  static OpenAIError apiError(OpenAIErrorResponse response);
  static OpenAIError urlError();

  Kind kind() const { return kind_; }
  int status() const { return status_; }
  const OpenAIErrorResponse& response() const { return response_; }

 private:
  OpenAIError(Kind kind, std::string text, int status, OpenAIErrorResponse response)
      : Error(std::move(text)), kind_(kind), status_(status), response_(std::move(response)) {}

  Kind kind_;
  int status_ = 0;
  OpenAIErrorResponse response_;
};

// Raised by the provider clients with formats of their own.
class AppError : public Error {
 public:
  enum class Kind { httpError, apiError, unknown, insufficientQuota, noServiceFound };

  static AppError httpError(int status);
  static AppError apiError(std::string message);
  static AppError unknown(std::string message);
  static AppError insufficientQuota();
  static AppError noServiceFound();

  Kind kind() const { return kind_; }

 private:
  AppError(Kind kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Kind kind_;
};

// A request past the budget of the setting "maxRequestMiB": the run fails before sending.
class RequestTooLargeError : public Error {
 public:
  // `size` is the request's size in bytes; none when the gathering of its text stopped as soon
  // as the text alone passed `limit`, before the whole was made.
  RequestTooLargeError(std::optional<size_t> size, size_t limit);
  std::optional<size_t> size() const { return size_; }
  size_t limit() const { return limit_; }

 private:
  std::optional<size_t> size_;
  size_t limit_;
};

// The user's text for any failure, with credentials masked. Never throws.
std::string describeFailure(std::exception_ptr failure);
std::string describeFailure(const std::exception& failure);

}  // namespace lumora
