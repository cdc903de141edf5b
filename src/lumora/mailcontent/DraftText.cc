#include "lumora/mailcontent/DraftText.h"

#include <vector>

#include "lumora/mailcontent/reading/BodyText.h"
#include "lumora/mailcontent/reading/MessageTree.h"
#include "lumora/mailcontent/reading/TextLines.h"
#include "lumora/mailcontent/reading/ThreadSplit.h"
#include "lumora/platform/Text.h"

namespace lumora {
namespace {

// Where each line of `body` begins, and behind the last one its end.
std::vector<size_t> lineStarts(std::string_view body) {
  std::vector<size_t> starts;
  size_t at = 0;
  while (at < body.size()) {
    starts.push_back(at);
    const size_t lf = body.find('\n', at);
    at = lf == std::string_view::npos ? body.size() : lf + 1;
  }
  starts.push_back(body.size());
  return starts;
}

bool isSignatureMark(std::string_view line) {
  while (!line.empty() &&
         (line.back() == ' ' || line.back() == '\t' || line.back() == '\r' || line.back() == '\n'))
    line.remove_suffix(1);
  return line == "--";
}

// The reply with its line ends made `eol`.
std::string withLineEnds(std::string_view reply, std::string_view eol) {
  std::string out;
  out.reserve(reply.size() + reply.size() / 16);
  for (size_t i = 0; i < reply.size(); ++i) {
    if (reply[i] == '\r' && i + 1 < reply.size() && reply[i + 1] == '\n') continue;
    if (reply[i] == '\n') {
      out += eol;
    } else {
      out += reply[i];
    }
  }
  // Trailing line ends are the draft's to give.
  size_t end = out.size();
  while (!eol.empty() && std::string_view(out).substr(0, end).ends_with(eol)) end -= eol.size();
  out.erase(end);
  return out;
}

}  // namespace

std::string draftWithReply(std::string_view draft, std::string_view reply) {
  const size_t bodyAt = reading::bodyStart(draft);
  const std::string_view body = draft.substr(bodyAt);
  const std::vector<size_t> starts = lineStarts(body);
  const size_t count = starts.size() - 1;
  // The body's lines, one for each line of the text, with their quotation depths.
  reading::TextLines lines;
  reading::addPlainLines(body, false, false, lines);
  const auto depth = [&](size_t i) { return i < lines.size() ? lines.depth(i) : 0; };
  const auto text = [&](size_t i) { return body.substr(starts[i], starts[i + 1] - starts[i]); };

  const auto quotation = reading::firstQuotation(lines);
  // The user's own signature: the last "-- " line with no quotation after it.
  size_t signature = count;
  for (size_t i = 0; i < count; ++i) {
    if (depth(i) > 0) signature = count;
    else if (signature == count && isSignatureMark(text(i))) signature = i;
  }
  size_t line = signature;  // where the reply goes: before this line
  if (quotation) {
    bool typedAfter = false;
    for (size_t i = quotation->second; i < signature && !typedAfter; ++i)
      typedAfter = depth(i) == 0 && !text::trimmed(text(i)).empty();
    if (!typedAfter) line = std::min(quotation->first, signature);
  }
  // Back over the empty lines before that line: the reply follows the text, not the gap.
  while (line > 0 && text::trimmed(text(line - 1)).empty() && depth(line - 1) == 0) --line;

  const std::string_view eol = draft.find("\r\n") != std::string_view::npos ? "\r\n" : "\n";
  const size_t at = bodyAt + starts[line];
  std::string out(draft.substr(0, at));
  // A text that ends without a line end gets one before the reply.
  if (at > bodyAt && !out.ends_with('\n')) out += eol;
  // An empty line between the user's text and the reply.
  if (at > bodyAt) out += eol;
  out += withLineEnds(reply, eol);
  out += eol;
  const std::string_view after = draft.substr(at);
  // An empty line between the reply and what follows, unless it begins with one.
  if (!after.empty() && !after.starts_with(eol)) out += eol;
  out += after;
  return out;
}

}  // namespace lumora
