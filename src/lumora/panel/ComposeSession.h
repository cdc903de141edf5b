// What the panel needs of the mail host: the compose session and the message being answered.
// Each front-end implements these; the command builds them from a message file.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/platform/Errors.h"

namespace lumora {

// A message of the host.
class Message {
 public:
  virtual ~Message() = default;
  // The message's raw RFC 5322 bytes, if the host has them: a view, valid while the message
  // is, since a message may be tens of MB.
  virtual std::optional<std::string_view> rawData() const = 0;
  // True when the bytes are the draft being written, with the message it answers quoted in it,
  // rather than the message being answered (a mail program that hands its draft to an editor).
  virtual bool isDraft() const { return false; }
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

// Where a finished reply goes when the user inserts it: the mail being written, after what the
// user has typed there and before the quoted original. A front-end that can write into its
// mail program's draft gives the panel one; without one, the panel offers Copy alone.
// Why a reply could not be put into the draft; `what()` is the user's text.
class InsertError : public Error {
 public:
  using Error::Error;
};

class DraftInserter {
 public:
  virtual ~DraftInserter() = default;
  // Puts `reply` into the draft. May take time (it waits for the mail program), so the panel
  // calls it on a thread of its own. Throws an Error whose text is the user's when it could not.
  virtual void insert(const std::string& reply) = 0;
};

// A message whose bytes are known up front.
class BytesMessage final : public Message {
 public:
  explicit BytesMessage(std::optional<std::string> bytes, bool draft = false)
      : bytes_(std::move(bytes)), draft_(draft) {}
  std::optional<std::string_view> rawData() const override {
    return bytes_ ? std::optional<std::string_view>(*bytes_) : std::nullopt;
  }
  bool isDraft() const override { return draft_; }

 private:
  std::optional<std::string> bytes_;
  bool draft_ = false;
};

// A compose session answering `message`, or a new mail when there is none; with `draft`, the
// bytes are the draft itself.
class SimpleComposeSession final : public ComposeSession {
 public:
  SimpleComposeSession() = default;
  explicit SimpleComposeSession(std::optional<std::string> rawMessage, bool draft = false)
      : message_(std::move(rawMessage), draft), hasMessage_(true) {}
  const Message* originalMessage() const override { return hasMessage_ ? &message_ : nullptr; }

 private:
  BytesMessage message_{std::nullopt};
  bool hasMessage_ = false;
};

}  // namespace lumora
