#include "lumora/mailcontent/MailParser.h"

namespace lumora {

std::vector<std::string> MailParser::quotedTexts(const std::string&) { return {}; }

}  // namespace lumora
