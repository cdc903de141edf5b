// A self-hosted team server as the companion application administers it: its domain and root
// token. Lumora itself only chats with team servers (as `team` services, through the OpenAI
// client); it has no operation on a server, so these are plain data.
#pragma once

#include <optional>
#include <string>

#include "lumora/platform/Errors.h"

namespace lumora {

struct LumoraApi {
  std::optional<std::string> domain;
  std::optional<std::string> rootToken;
};

// A team server's refusal. It has no text of its own for the user, only the general one with
// the case named, as any error without a description would.
class LumoraApiError : public Error {
 public:
  enum class Kind { apiError, invalidDomain, superUserExist, unknown };

  static LumoraApiError apiError(std::string message) {
    return LumoraApiError(Kind::apiError, std::move(message));
  }
  static LumoraApiError invalidDomain() { return LumoraApiError(Kind::invalidDomain, {}); }
  static LumoraApiError superUserExist() { return LumoraApiError(Kind::superUserExist, {}); }
  static LumoraApiError unknown() { return LumoraApiError(Kind::unknown, {}); }

  Kind kind() const { return kind_; }
  // The server's message of an apiError; empty for the other cases.
  const std::string& message() const { return message_; }

 private:
  LumoraApiError(Kind kind, std::string message)
      : Error(generalText(kind)), kind_(kind), message_(std::move(message)) {}
  static std::string generalText(Kind kind) {
    const char* names[] = {"apiError", "invalidDomain", "superUserExist", "unknown"};
    return std::string("The operation couldn't be completed. (LumoraApiError.") +
           names[static_cast<int>(kind)] + ")";
  }
  Kind kind_;
  std::string message_;
};

}  // namespace lumora
