// From the body of one part to its text: the transfer encoding undone, the character set
// turned into UTF-8, and plain text split into quoted lines (format=flowed joined). Lenient:
// a reader of the mail takes what can be read, so nothing here fails and what cannot be
// decoded becomes U+FFFD.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "lumora/mailcontent/reading/TextLines.h"

namespace lumora::reading {

enum class TransferEncoding { identity, quotedPrintable, base64 };

// The encoding a Content-Transfer-Encoding value names; 7bit, 8bit, binary and any unknown
// word leave the body as it is.
TransferEncoding transferEncodingOf(std::string_view value);

// The bytes of `body` with the encoding undone. Quoted-printable keeps an "=" that starts no
// escape as it is; Base64 passes over every character outside its alphabet.
std::string transferDecoded(std::string_view body, TransferEncoding encoding);

// `bytes` in the character set `charset` as UTF-8, never failing: with no charset, an unknown
// one or "us-ascii", bytes that are UTF-8 stay so and others are read as windows-1252 (what
// senders that do not say mostly write); ISO-8859-1 is read as windows-1252, its superset in
// practice; undecodable bytes become U+FFFD.
std::string decodedText(std::string_view bytes, std::string_view charset);

// The same, for a reader that can use the bytes where they stand: nullopt when they already are
// that text (ASCII, or valid UTF-8 where UTF-8 or nothing is named), so no copy is made.
std::optional<std::string> convertedText(std::string_view bytes, std::string_view charset);

// Adds the lines of plain text to `out`, each with its quotation depth ("> > text" and
// ">> text" are both two deep) and the markers taken off. With `flowed` (RFC 3676), a line
// ending in a blank goes on in the next one of the same depth, its blank dropped with
// `delSp`, and one space-stuffing blank is removed.
void addPlainLines(std::string_view text, bool flowed, bool delSp, TextLines& out);

}  // namespace lumora::reading
