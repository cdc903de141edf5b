// The DOCTYPEs that put a document in quirks mode, as tables: public identifiers whole or by
// their start, and system identifiers.
#include "lumora/mailcontent/html/TreeBuilder.h"
#include "lumora/platform/Text.h"

namespace lumora::html {
namespace {

// Public identifiers that make quirks mode, compared whole and ignoring case.
constexpr std::string_view kQuirksPublicIdentifiers[] = {
    "-//W3O//DTD W3 HTML Strict 3.0//EN//",
    "-/W3C/DTD HTML 4.0 Transitional/EN",
    "HTML",
};

// System identifiers that make quirks mode, likewise.
constexpr std::string_view kQuirksSystemIdentifiers[] = {
    "http://www.ibm.com/data/dtd/v11/ibmxhtml1-transitional.dtd",
};

// Starts of public identifiers that make quirks mode, ignoring case.
constexpr std::string_view kQuirksPublicPrefixes[] = {
    "+//Silmaril//dtd html Pro v0r11 19970101//",
    "-//AS//DTD HTML 3.0 asWedit + extensions//",
    "-//AdvaSoft Ltd//DTD HTML 3.0 asWedit + extensions//",
    "-//IETF//DTD HTML 2.0 Level 1//",
    "-//IETF//DTD HTML 2.0 Level 2//",
    "-//IETF//DTD HTML 2.0 Strict Level 1//",
    "-//IETF//DTD HTML 2.0 Strict Level 2//",
    "-//IETF//DTD HTML 2.0 Strict//",
    "-//IETF//DTD HTML 2.0//",
    "-//IETF//DTD HTML 2.1E//",
    "-//IETF//DTD HTML 3.0//",
    "-//IETF//DTD HTML 3.2 Final//",
    "-//IETF//DTD HTML 3.2//",
    "-//IETF//DTD HTML 3//",
    "-//IETF//DTD HTML Level 0//",
    "-//IETF//DTD HTML Level 1//",
    "-//IETF//DTD HTML Level 2//",
    "-//IETF//DTD HTML Level 3//",
    "-//IETF//DTD HTML Strict Level 0//",
    "-//IETF//DTD HTML Strict Level 1//",
    "-//IETF//DTD HTML Strict Level 2//",
    "-//IETF//DTD HTML Strict Level 3//",
    "-//IETF//DTD HTML Strict//",
    "-//IETF//DTD HTML//",
    "-//Metrius//DTD Metrius Presentational//",
    "-//Microsoft//DTD Internet Explorer 2.0 HTML Strict//",
    "-//Microsoft//DTD Internet Explorer 2.0 HTML//",
    "-//Microsoft//DTD Internet Explorer 2.0 Tables//",
    "-//Microsoft//DTD Internet Explorer 3.0 HTML Strict//",
    "-//Microsoft//DTD Internet Explorer 3.0 HTML//",
    "-//Microsoft//DTD Internet Explorer 3.0 Tables//",
    "-//Netscape Comm. Corp.//DTD HTML//",
    "-//Netscape Comm. Corp.//DTD Strict HTML//",
    "-//O'Reilly and Associates//DTD HTML 2.0//",
    "-//O'Reilly and Associates//DTD HTML Extended 1.0//",
    "-//O'Reilly and Associates//DTD HTML Extended Relaxed 1.0//",
    "-//SQ//DTD HTML 2.0 HoTMetaL + extensions//",
    "-//SoftQuad Software//DTD HoTMetaL PRO 6.0::19990601::extensions to HTML 4.0//",
    "-//SoftQuad//DTD HoTMetaL PRO 4.0::19971010::extensions to HTML 4.0//",
    "-//Spyglass//DTD HTML 2.0 Extended//",
    "-//Sun Microsystems Corp.//DTD HotJava HTML//",
    "-//Sun Microsystems Corp.//DTD HotJava Strict HTML//",
    "-//W3C//DTD HTML 3 1995-03-24//",
    "-//W3C//DTD HTML 3.2 Draft//",
    "-//W3C//DTD HTML 3.2 Final//",
    "-//W3C//DTD HTML 3.2//",
    "-//W3C//DTD HTML 3.2S Draft//",
    "-//W3C//DTD HTML 4.0 Frameset//",
    "-//W3C//DTD HTML 4.0 Transitional//",
    "-//W3C//DTD HTML Experimental 19960712//",
    "-//W3C//DTD HTML Experimental 970421//",
    "-//W3C//DTD W3 HTML//",
    "-//W3O//DTD W3 HTML 3.0//",
    "-//WebTechs//DTD Mozilla HTML 2.0//",
    "-//WebTechs//DTD Mozilla HTML//",
};

// Starts of public identifiers that make quirks mode when the DOCTYPE has no system identifier.
constexpr std::string_view kQuirksPublicPrefixesWithoutSystem[] = {
    "-//W3C//DTD HTML 4.01 Frameset//",
    "-//W3C//DTD HTML 4.01 Transitional//",
};

template <size_t N, typename Match>
bool anyOf(const std::string_view (&table)[N], Match match) {
  for (const std::string_view entry : table)
    if (match(entry)) return true;
  return false;
}

}  // namespace

bool isQuirksDoctype(const Token& t) {
  if (t.forceQuirks || t.name != "html") return true;
  const auto systemIs = [&](std::string_view id) {
    return text::equalsIgnoringCase(t.systemIdentifier, id);
  };
  if (t.hasSystemIdentifier && anyOf(kQuirksSystemIdentifiers, systemIs)) return true;
  if (!t.hasPublicIdentifier) return false;
  const std::string_view publicId = t.publicIdentifier;
  const auto publicIs = [&](std::string_view id) { return text::equalsIgnoringCase(publicId, id); };
  const auto publicStartsWith = [&](std::string_view prefix) {
    return text::startsWithIgnoringCase(publicId, prefix);
  };
  return anyOf(kQuirksPublicIdentifiers, publicIs) ||
         anyOf(kQuirksPublicPrefixes, publicStartsWith) ||
         (!t.hasSystemIdentifier && anyOf(kQuirksPublicPrefixesWithoutSystem, publicStartsWith));
}

}  // namespace lumora::html
