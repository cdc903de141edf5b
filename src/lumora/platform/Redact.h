// Credentials never leave the process in clear text. Every credential read from the settings
// is registered here, and every text that goes out (debug lines, error texts, dry runs,
// settings listings) is scrubbed: each registered secret is replaced by its masked form.
// Thread-safe.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lumora::redact {

// "…" followed by the secret's last four characters. A secret of fewer than eight characters
// would give away half of itself that way, so it is shown as "…" alone.
std::string masked(std::string_view secret);

// Remembers `secret` for scrub(), together with the forms it takes when a server or a URL
// carries it: JSON-escaped ("\/", "\"", "\\") and percent-encoded (either case of hex digits).
// Values shorter than four bytes are not registered: they would match ordinary text and cannot
// be meaningful credentials.
void registerSecret(std::string_view secret);

// The credentials a URL carries: its user information ("user:password" whole, and the password
// alone) and the values of query parameters whose names say they hold one ("key", "api-key",
// "token", "sig", "code", "secret", "password", …), as written and percent-decoded. Text without
// a URL's shape gives none. Linear in the text.
std::vector<std::string> urlSecrets(std::string_view url);

// registerSecret() of each of urlSecrets(url).
void registerUrlSecrets(std::string_view url);

// `text` with every registered secret replaced by masked(secret), longest secrets first.
std::string scrub(std::string_view text);

// Forgets every registered secret (tests).
void clearSecrets();

}  // namespace lumora::redact
