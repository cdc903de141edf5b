#include "lumora/panel/SessionHandlers.h"

#include "lumora/platform/Debug.h"

namespace lumora {
namespace {

// The test is on the end of the text as written: a subdomain, another letter case or anything
// behind the domain (a closing ">") passes.
bool inReservedDomain(std::string_view address) {
  return address.size() > kReservedDomain.size() && address.ends_with(kReservedDomain) &&
         address[address.size() - kReservedDomain.size() - 1] == '@';
}

}  // namespace

MessageActionHandler& MessageActionHandler::shared() {
  static MessageActionHandler handler;
  return handler;
}

void MessageActionHandler::decideAction(
    std::string_view subject,
    const std::function<void(std::optional<MessageActionDecision>)>& completion) {
  if (subject.find("Mars") != std::string_view::npos) {
    completion(MessageActionDecision{MessageColor::red});
  } else {
    completion(std::nullopt);
  }
}

void ComposeSessionHandler::mailComposeSessionDidBegin(const ComposeSession&) {
  debug::line({"[debug] mail session begin"});
}

void ComposeSessionHandler::mailComposeSessionDidEnd(const ComposeSession&) {
  debug::line({"[debug] mail session end"});
}

std::map<std::string, std::vector<std::string>> ComposeSessionHandler::additionalHeaders(
    const ComposeSession&) const {
  return {{"X-CustomHeader", {"This ia a custom header."}}};
}

ComposeSessionHandler::Annotations ComposeSessionHandler::annotations(
    const std::vector<std::string>& addresses) {
  Annotations out;
  for (const std::string& address : addresses)
    if (inReservedDomain(address))
      out[address] = std::string(kReservedDomain) + " is not a valid domain";
  return out;
}

std::optional<ComposeSessionHandler::ComposeSessionError> ComposeSessionHandler::refusal(
    const std::vector<std::string>& addresses) {
  for (const std::string& address : addresses)
    if (inReservedDomain(address)) return ComposeSessionError::invalidRecipientDomain();
  return std::nullopt;
}

void ComposeSessionHandler::annotateAddresses(const ComposeSession& session,
                                              MainExecutor& executor,
                                              std::function<void(Annotations)> completion) const {
  executor.post([addresses = session.allRecipientAddresses(),
                 completion = std::move(completion)] { completion(annotations(addresses)); });
}

void ComposeSessionHandler::canSendMessage(
    const ComposeSession& session,
    const std::function<void(std::optional<ComposeSessionError>)>& completion) const {
  completion(refusal(session.allRecipientAddresses()));
}

}  // namespace lumora
