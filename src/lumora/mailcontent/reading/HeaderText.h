// Header fields as a reader of mail shows them: unfolded, with RFC 2047 encoded words decoded,
// addresses split into display name and address, and parameters with their RFC 2231
// continuations joined and decoded. Lenient throughout: nothing here fails, a field that does
// not parse gives what could be read of it.
//
// Everything is linear in the length of the text; nothing recurses.
#pragma once

#include <array>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace lumora::reading {

// One field of a header: its name and its body as written, folding line ends included.
struct HeaderField {
  std::string_view name;
  std::string_view body;
};

// The fields of `header` in order. A line that is neither a field ("name:" with a name of
// printable characters) nor a continuation (beginning with a blank) is passed over.
std::vector<HeaderField> headerFields(std::string_view header);

// The first field of `fields` named `name` (ASCII letters in any case), or nullptr.
const HeaderField* findField(const std::vector<HeaderField>& fields, std::string_view name);

// The first field of each of a few names, found in one pass over the header that keeps no other
// field: a header of a million lines costs what one of ten does. The same fields as findField
// over headerFields.
class HeaderLookup {
 public:
  static constexpr size_t kMostNames = 8;
  // Looks for the first kMostNames of `names`.
  HeaderLookup(std::string_view header, std::initializer_list<std::string_view> names);
  // The first field named `name` (ASCII letters in any case), which must be one of the names
  // given; nullptr when the header has none.
  const HeaderField* find(std::string_view name) const;

 private:
  // Held in place: a reader looks up every part's header, and a million parts must not cost
  // an allocation each.
  std::array<std::string_view, kMostNames> names_;
  std::array<HeaderField, kMostNames> fields_;  // for names_[i]; an empty name where none
  size_t count_ = 0;
};

// The body with its folding undone (each line end removed, the blank after it kept) and
// trimmed of blanks at both ends.
std::string unfolded(std::string_view body);

// Bytes of a header as text: UTF-8 kept, anything else read as windows-1252, so a Latin-1
// header written without encoding reads right.
std::string headerBytesAsText(std::string_view bytes);

// Unstructured text (a subject, a display name) with its RFC 2047 encoded words decoded and the
// blanks between two adjacent encoded words dropped. Always valid UTF-8.
std::string decodedWords(std::string_view text);

// A Content-Type or Content-Disposition value: the leading value ("text/plain", "attachment")
// in lower case, and the parameters with lower-case names, their values unquoted and RFC 2231
// continuations and charsets undone. Comments are skipped.
struct StructuredValue {
  std::string value;
  std::vector<std::pair<std::string, std::string>> parameters;
  // The value of the parameter `name` (lower case), if present.
  std::optional<std::string> parameter(std::string_view name) const;
};
// Only the parameters named in `wanted` (lower case) are kept, all when it is empty: a reader
// names the few it asks for, so that a field of a million parameters holds none of them.
StructuredValue parseStructuredValue(std::string_view body,
                                     std::initializer_list<std::string_view> wanted = {});

// The first mailbox of an address field ("From"): its display name (decoded, unquoted; a
// comment stands in for a missing one) and its address. Either may be empty.
struct Mailbox {
  std::string name;
  std::string address;
};
Mailbox firstMailbox(std::string_view body);

}  // namespace lumora::reading
