// Fuzzes the whole-message reading: arbitrary bytes as a raw message (or a draft), through the
// lenient MIME structure, the decoding of headers and bodies, HTML to lines, the split of the
// new text from the thread and the cut to the budget. Nothing may fail, and what comes out must
// hold: the texts are valid UTF-8, `characters` counts the code points of `text`, and `text`
// keeps to its budget, which is never less than the least one.
//
// The whole input is the message, so that a seed is a message as it is. The first two bytes,
// taken together, also choose the budget and the draft flag: small budgets, where the thread
// and then the new text are cut, come as often as large ones, and a budget below the least is
// raised. The common starts of messages ("From", "Received", "MIME-Version", "Date") give
// budgets from below the least to a few thousand characters.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "lumora/mailcontent/MailReader.h"
#include "lumora/platform/Text.h"

namespace {

struct Choice {
  size_t budget;
  bool draft;
};

Choice choose(const uint8_t* data, size_t size) {
  const uint8_t selector = static_cast<uint8_t>((size > 0 ? data[0] : 0) ^ (size > 1 ? data[1] : 0));
  const bool draft = (selector & 1) != 0;
  const unsigned step = selector >> 1;  // 0 to 127
  if (step == 127) return {SIZE_MAX, draft};
  if (step == 126) return {lumora::MailReader::kDefaultMaxCharacters, draft};
  return {97 * static_cast<size_t>(step), draft};  // 0 to 12,125; below 1,000 up to 10
}

// A broken rule is reported by name, then ends the run for libFuzzer to keep the input.
void check(bool holds, const char* rule) {
  if (holds) return;
  std::fprintf(stderr, "mail_reader: %s\n", rule);
  abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view raw(reinterpret_cast<const char*>(data), size);
  const Choice choice = choose(data, size);
  const lumora::MailReading reading = lumora::MailReader::read(raw, choice.budget, choice.draft);

  using lumora::text::isValidUtf8;
  check(isValidUtf8(reading.text), "text is not UTF-8");
  check(isValidUtf8(reading.newText), "newText is not UTF-8");
  check(isValidUtf8(reading.thread), "thread is not UTF-8");
  check(reading.characters == lumora::text::codePointCount(reading.text),
        "characters is not the code point count of text");
  check(reading.characters <= std::max(choice.budget, lumora::MailReader::kLeastMaxCharacters),
        "text is over its budget");
  // What the panel shows of the message besides the text.
  check(isValidUtf8(reading.senderName), "senderName is not UTF-8");
  check(isValidUtf8(reading.senderAddress), "senderAddress is not UTF-8");
  check(isValidUtf8(reading.recipient), "recipient is not UTF-8");
  check(isValidUtf8(reading.subject), "subject is not UTF-8");
  check(isValidUtf8(reading.date), "date is not UTF-8");
  for (const lumora::MailAttachment& attachment : reading.attachments) {
    check(isValidUtf8(attachment.name), "an attachment's name is not UTF-8");
    check(isValidUtf8(attachment.type), "an attachment's type is not UTF-8");
  }
  check(!choice.draft || reading.draft, "a draft asked for is not read as one");
  return 0;
}
