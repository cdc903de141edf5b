// What the panel needs of the mail host: the compose session and the message being answered.
// Each front-end implements these; the command builds them from a message file.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lumora {

// A message of the host.
class Message {
 public:
  virtual ~Message() = default;
  // The message's raw RFC 5322 bytes, if the host has them: a view, valid while the message
  // is, since a message may be tens of MB.
  virtual std::optional<std::string_view> rawData() const = 0;
};

// One compose window.
class ComposeSession {
 public:
  virtual ~ComposeSession() = default;
  // The message being answered or forwarded; nullptr for a new mail.
  virtual const Message* originalMessage() const = 0;
  // Every recipient of the mail being written, each address as the user wrote it.
  virtual std::vector<std::string> allRecipientAddresses() const { return {}; }
};

// A message whose bytes are known up front.
class BytesMessage final : public Message {
 public:
  explicit BytesMessage(std::optional<std::string> bytes) : bytes_(std::move(bytes)) {}
  std::optional<std::string_view> rawData() const override {
    return bytes_ ? std::optional<std::string_view>(*bytes_) : std::nullopt;
  }

 private:
  std::optional<std::string> bytes_;
};

// A compose session answering `message`, or a new mail when there is none.
class SimpleComposeSession final : public ComposeSession {
 public:
  SimpleComposeSession() = default;
  explicit SimpleComposeSession(std::optional<std::string> rawMessage)
      : message_(std::move(rawMessage)), hasMessage_(true) {}
  const Message* originalMessage() const override { return hasMessage_ ? &message_ : nullptr; }

 private:
  BytesMessage message_{std::nullopt};
  bool hasMessage_ = false;
};

}  // namespace lumora
