// The platform's error families. Every failure that reaches a user is one of these or one of
// the chat layer's typed errors; describeFailure (chat/Errors.h) is the one place that turns
// them into words.
#pragma once

#include <stdexcept>
#include <string>

namespace lumora {

// Base of every error the system raises itself. `what()` is the user's text.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A failure of the HTTP transport: the connection, a timeout, a broken body.
class TransportError : public Error {
 public:
  enum class Code {
    cannotConnect,     // refused, unreachable
    cannotFindHost,    // name resolution failed
    timedOut,          // no byte for the idle timeout
    connectionLost,    // the body broke off
    secureConnection,  // TLS failed
    badURL,            // libcurl refused the URL
    badServerResponse, // what came back is not HTTP that libcurl can read
    lineTooLong,       // a single line exceeded the line limit
    replyTooLong,      // the reply passed the reply size limit
    cancelled,         // the request was cancelled by its owner
    other,
  };
  TransportError(Code code, std::string description) : Error(std::move(description)), code_(code) {}
  Code code() const { return code_; }

 private:
  Code code_;
};

// Data that did not decode: a stream record, a settings value.
class DecodingError : public Error {
 public:
  using Error::Error;
};

// The owner of a task asked it to stop before it produced its result.
class CancellationError : public Error {
 public:
  CancellationError() : Error("The operation was cancelled.") {}
};

// A settings or data file that exists but cannot be read as what it should be.
class FileError : public Error {
 public:
  using Error::Error;
};

// Copy found no way to reach the user's clipboard. The text names what was tried and what to
// install or set.
class PasteboardError : public Error {
 public:
  using Error::Error;
};

}  // namespace lumora
