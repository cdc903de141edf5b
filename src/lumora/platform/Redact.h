// Credentials never leave the process in clear text. Every credential read from the settings
// is registered here, and every text that goes out (debug lines, error texts, dry runs,
// settings listings) is scrubbed: each registered secret is replaced by its masked form.
// Thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace lumora::redact {

// "…" followed by the secret's last four characters. A secret of fewer than eight characters
// would give away half of itself that way, so it is shown as "…" alone.
std::string masked(std::string_view secret);

// Remembers `secret` for scrub(). Values shorter than four bytes are not registered: they
// would match ordinary text and cannot be meaningful credentials.
void registerSecret(std::string_view secret);

// `text` with every registered secret replaced by masked(secret), longest secrets first.
std::string scrub(std::string_view text);

// Forgets every registered secret (tests).
void clearSecrets();

}  // namespace lumora::redact
