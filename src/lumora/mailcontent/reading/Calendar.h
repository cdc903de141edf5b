// An iCalendar invitation (text/calendar) as the few lines a reader wants of it: what, when,
// where, who invites, and the description. For a message whose only text is the invitation.
#pragma once

#include <string>
#include <string_view>

namespace lumora::reading {

// The summary of the first event of `ics`; empty when it has none. Lenient and linear: lines
// that do not parse are passed over.
std::string calendarSummary(std::string_view ics);

}  // namespace lumora::reading
