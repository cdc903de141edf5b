// From the raw message being answered to the texts the model is given.
#pragma once

#include <string>
#include <vector>

namespace lumora {

class MailParser {
 public:
  // The quoted passages of `rawMessage`, in document order.
  //
  // This build does not read MIME and HTML yet: every message counts as one without quoted
  // passages, so a reply sends the instruction alone.
  static std::vector<std::string> quotedTexts(const std::string& rawMessage);
};

}  // namespace lumora
