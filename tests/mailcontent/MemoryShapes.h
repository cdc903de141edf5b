// Messages whose shape costs the readers the most memory per byte, made to a size: shared by
// the memory test and bench_memory.
#pragma once

#include <string>
#include <string_view>

namespace lumora::testing {

inline std::string memoryShapeHeader(std::string_view contentType,
                                     std::string_view encoding = "7bit") {
  std::string h =
      "From: Carla Mendes <carla.mendes@example.org>\n"
      "To: Team <team@example.org>\n"
      "Subject: Re: plan\n"
      "Date: Mon, 3 Nov 2025 10:04:00 +0100\n"
      "Message-ID: <memory@example.org>\n"
      "MIME-Version: 1.0\n"
      "Content-Transfer-Encoding: ";
  h += encoding;
  h += "\nContent-Type: ";
  h += contentType;
  h += "\n\n";
  return h;
}

// `start`, then `piece` until the text has `bytes` bytes or a little more.
inline std::string repeatedTo(std::string start, std::string_view piece, size_t bytes) {
  start.reserve(bytes + piece.size() + 64);
  while (start.size() < bytes) start += piece;
  return start;
}

// A quoted-printable HTML part at the top, the part the quoted reading reads.
inline std::string htmlShape(std::string_view piece, size_t bytes) {
  return repeatedTo(memoryShapeHeader("text/html; charset=utf-8", "quoted-printable"), piece,
                    bytes) +
         "\n";
}

// Bare parts of 10 bytes.
inline std::string siblingParts(size_t bytes) {
  return repeatedTo(memoryShapeHeader("multipart/mixed; boundary=b"), "--b\n\nhi!\n", bytes) +
         "--b--\n";
}

// Parts of 36 bytes, each with a header field.
inline std::string siblingPartsWithHeaders(size_t bytes) {
  return repeatedTo(memoryShapeHeader("multipart/mixed; boundary=b"),
                    "--b\nContent-Type: text/plain\n\nhi!\n", bytes) +
         "--b--\n";
}

// A multipart in every part, each with a boundary of its own (none the beginning of another),
// all closed at the end.
inline std::string nestedMultiparts(size_t bytes) {
  const auto boundary = [](size_t level) { return "n" + std::to_string(level) + "z"; };
  std::string m = memoryShapeHeader("multipart/mixed; boundary=\"n0z\"");
  m.reserve(bytes + 64);
  size_t level = 0;
  // Each level: its delimiter and the next level's header; its closing delimiter comes last.
  for (; m.size() + 12 * level < bytes; ++level) {
    m += "--" + boundary(level) + "\nContent-Type: multipart/mixed; boundary=\"" +
         boundary(level + 1) + "\"\n\n";
  }
  m += "--" + boundary(level) + "\n\nThe innermost part.\n";
  for (size_t l = level + 1; l-- > 0;) m += "--" + boundary(l) + "--\n";
  return m;
}

inline constexpr std::string_view kQuotedHtmlBody =
    "Content-Type: text/html; charset=utf-8\nContent-Transfer-Encoding: quoted-printable\n\n"
    "<blockquote>The quoted line.</blockquote>\n";

// A header of short lines, each a field of its own.
inline std::string headerLines(size_t bytes) {
  return repeatedTo("From: Carla Mendes <carla.mendes@example.org>\n", "X-Tag: a\n", bytes) +
         std::string(kQuotedHtmlBody);
}

// One header field as long as the message.
inline std::string longHeader(size_t bytes) {
  return repeatedTo("From: Carla Mendes <carla.mendes@example.org>\nX-Long: ", "abcdefgh", bytes) +
         "\n" + std::string(kQuotedHtmlBody);
}

// A Content-Type of a parameter for every few bytes.
inline std::string manyParameters(size_t bytes) {
  return repeatedTo("From: Carla Mendes <carla.mendes@example.org>\nContent-Type: text/html",
                    "; a=b", bytes) +
         "\nContent-Transfer-Encoding: quoted-printable\n\n<blockquote>The quoted "
         "line.</blockquote>\n";
}

}  // namespace lumora::testing
