// A one-line picture of a parsed message, for pinning tree shapes in tests.
#pragma once

#include <string>

#include "lumora/mailcontent/mime/Mime.h"

namespace lumora::testing {

// A leaf is its media type and transfer encoding, "text/plain:quoted-printable" ("-" for no Content-Type);
// a multipart is its subtype with its parts, "alternative[text/plain:7bit,text/html:quoted-printable]".
// Walks with a work list, so a deep tree is fine.
std::string shapeOf(const Mime& mime);

// How deep the tree goes: 0 for a leaf.
size_t depthOf(const Mime& mime);

}  // namespace lumora::testing
