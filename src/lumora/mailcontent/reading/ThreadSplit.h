// Tells the new text of a reply from the earlier thread under it, on the reply's lines.
//
// The thread is what runs to the end of the text from the first of these: a quotation ("> "
// lines, or blockquotes) with the attribution line before it ("On ... wrote:"), when nothing
// but further quotations and attributions follows it; an Outlook-style block ("-----Original
// Message-----", or "From: ... Sent: ..." header lines, often after a rule); a line that a
// mail program marked as the start of the earlier thread. A quotation that the sender answers
// below (a bottom-posted or interleaved reply) stays in the new text, quoted, since the answers
// refer to it. The signature after a "-- " line is left out of both.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "lumora/mailcontent/reading/TextLines.h"

namespace lumora::reading {

struct SplitText {
  std::string newText;         // the sender's own lines; quoted ones keep "> " marks
  std::string thread;          // the earlier messages, "> " marks for their depth
  size_t earlierMessages = 0;  // how many earlier messages the thread appears to hold
};

SplitText splitThread(const TextLines& lines);

// The first quotation of `lines`: the lines [first, second) of its attribution, its quoted lines
// and the empty lines between them; or, when an Outlook-style block or a thread a mail program
// marked comes first, the lines from there to the end; none when the text quotes nothing.
std::optional<std::pair<size_t, size_t>> firstQuotation(const TextLines& lines);

// The lines [begin, end) as text: each line trimmed at its end and quoted lines marked with one
// "> " per level (at most kMostQuoteMarks), runs of empty lines made one, no empty line at
// either end.
inline constexpr uint32_t kMostQuoteMarks = 8;
std::string renderLines(const TextLines& lines, size_t begin, size_t end);

// True when `line` introduces a quotation: "On Tue, 3 Nov 2026, Carla wrote:" and its kind.
bool looksLikeAttribution(std::string_view line);

}  // namespace lumora::reading
