// Where a reply goes in a draft: the shapes neomutt and aerc hand their editor, with and without
// a header block, typed text, a quotation, a signature; every byte of the draft stays.
#include <gtest/gtest.h>

#include "lumora/mailcontent/DraftText.h"

namespace lumora {
namespace {

TEST(DraftText, TheReplyGoesAfterTheUsersTextAndBeforeTheQuotation) {
  struct Case {
    const char* name;
    std::string draft;
    std::string expected;
  };
  const std::string quote = "On Tue, Nov 03, 2026 at 09:12:44AM +0100, Carla Mendes wrote:\n"
                            "> Shall I sign?\n>\n> Carla\n";
  const Case cases[] = {
      {"only the quotation", quote, "REPLY\n\n" + quote},
      {"typed lines above", "Hi Carla,\nThursday works.\n\n" + quote,
       "Hi Carla,\nThursday works.\n\nREPLY\n\n" + quote},
      {"typed lines with no empty line before the attribution", "Hi Carla,\n" + quote,
       "Hi Carla,\n\nREPLY\n\n" + quote},
      {"a header block, as edit_headers writes it",
       "From: Tomasz <t@example.com>\nTo: Carla <c@example.org>\nBcc: \nSubject: Re: lease\n\n" +
           quote,
       "From: Tomasz <t@example.com>\nTo: Carla <c@example.org>\nBcc: \nSubject: Re: lease\n\n"
       "REPLY\n\n" + quote},
      {"a signature below the quotation", "Hi,\n\n" + quote + "-- \nTomasz\n",
       "Hi,\n\nREPLY\n\n" + quote + "-- \nTomasz\n"},
      {"typed below the quotation: at the end of that text", quote + "\nAgreed.\n",
       quote + "\nAgreed.\n\nREPLY\n"},
      {"nothing quoted, a signature", "Hello\n\n-- \nTomasz\n", "Hello\n\nREPLY\n\n-- \nTomasz\n"},
      {"nothing quoted, no line end at the end", "Hello", "Hello\n\nREPLY\n"},
      {"an empty draft", "", "REPLY\n"},
      {"CR LF line ends", "Hi\r\n\r\n> q\r\n", "Hi\r\n\r\nREPLY\r\nsecond\r\n\r\n> q\r\n"},
      {"an Outlook-style quotation", "Hi\n\n-----Original Message-----\nFrom: C\n\nold\n",
       "Hi\n\nREPLY\n\n-----Original Message-----\nFrom: C\n\nold\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string reply = std::string(c.name) == "CR LF line ends" ? "REPLY\nsecond\n" : "REPLY";
    EXPECT_EQ(draftWithReply(c.draft, reply), c.expected);
  }
}

}  // namespace
}  // namespace lumora
