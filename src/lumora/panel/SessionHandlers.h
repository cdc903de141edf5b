// What the mail host asks of Lumora besides the panel: a rule on recipients (no mail to the
// reserved documentation domain), one extra header on outgoing mail, and a colour for
// incoming messages whose subject names Mars. Each is a function of plain strings; the
// front-ends (the `lumora` host commands, the Thunderbird add-on) adapt their host to them.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/panel/ComposeSession.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/Executor.h"

namespace lumora {

// The domain that no mail may go to.
inline constexpr std::string_view kReservedDomain = "example.com";

// The host's message colours, in the host's numbering.
enum class MessageColor { none = 0, red = 4 };

struct MessageActionDecision {
  MessageColor backgroundColor;
};

// Looks at incoming messages. One shared instance; it keeps nothing.
class MessageActionHandler {
 public:
  static MessageActionHandler& shared();
  // A red background for a subject that holds "Mars" (exactly so written); none otherwise.
  // Calls `completion` once, before returning.
  void decideAction(std::string_view subject,
                    const std::function<void(std::optional<MessageActionDecision>)>& completion);
};

// One compose window's rules. Keeps nothing between calls.
class ComposeSessionHandler {
 public:
  // Why a mail may not be sent.
  class ComposeSessionError : public Error {
   public:
    enum class Kind { invalidRecipientDomain };
    static ComposeSessionError invalidRecipientDomain() {
      return ComposeSessionError(std::string(kReservedDomain) +
                                 " is not a valid recipient domain");
    }
    Kind kind() const { return Kind::invalidRecipientDomain; }

   private:
    using Error::Error;
  };

  using Annotations = std::map<std::string, std::string>;

  // Mark the limits of a compose session in the debug output.
  void mailComposeSessionDidBegin(const ComposeSession& session);
  void mailComposeSessionDidEnd(const ComposeSession& session);

  // "X-CustomHeader": "This ia a custom header." on every mail.
  std::map<std::string, std::vector<std::string>> additionalHeaders(
      const ComposeSession& session) const;

  // Each recipient in the reserved domain, with the text that marks it. Returns at once; the
  // work and `completion` run on `executor`.
  void annotateAddresses(const ComposeSession& session, MainExecutor& executor,
                         std::function<void(Annotations)> completion) const;

  // The refusal for the first recipient in the reserved domain, or none to allow sending.
  // Calls `completion` once, before returning.
  void canSendMessage(
      const ComposeSession& session,
      const std::function<void(std::optional<ComposeSessionError>)>& completion) const;

  // The rules over plain address lists, for hosts that have no session.
  static Annotations annotations(const std::vector<std::string>& addresses);
  static std::optional<ComposeSessionError> refusal(const std::vector<std::string>& addresses);
};

// The host's entry: hands out the two handlers.
class MailExtension {
 public:
  MessageActionHandler& handlerForMessageActions() { return MessageActionHandler::shared(); }
  ComposeSessionHandler handlerForComposeSession(const ComposeSession&) { return {}; }
};

}  // namespace lumora
