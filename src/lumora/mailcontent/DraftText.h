// Where a finished reply goes in a draft, as a mail client hands the draft to an editor: after
// a header block (kept as it is), after what the user has typed, and before the quoted message
// with its attribution line ("On ... wrote:"). When the user typed below the quotation, or the
// draft quotes nothing, the reply goes at the end of the user's text, before a "-- " signature.
#pragma once

#include <string>
#include <string_view>

namespace lumora {

// `draft` with `reply` put in, an empty line around it, its line ends those of the draft (CR LF
// when the draft has them). Every byte of the draft stays, in its order.
std::string draftWithReply(std::string_view draft, std::string_view reply);

}  // namespace lumora
