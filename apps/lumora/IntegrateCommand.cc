// `lumora integrate CLIENT`: the lines a user adds to a terminal mail client's configuration
// so that a key opens the panel on the message being read, outgoing mail passes through the
// sendmail wrapper, and the subject rule colours the message list. The documentation of each
// client holds the same text, and a test keeps the two equal.
#include <cstdio>
#include <string_view>

#include "Commands.h"
#include "Support.h"

namespace lumora::cli {
namespace {

constexpr const char* kHelp =
    "Usage: lumora integrate neomutt|aerc\n"
    "\n"
    "Prints the lines to add to the mail client's configuration: a key that opens the panel on\n"
    "the message being read, the sendmail wrapper for outgoing mail, and the subject colour.\n";

// neomutt pipes the raw message to the command through /bin/sh and hands it the terminal.
// $sendmail gets "--" and the recipients appended; "-oem -oi" are neomutt's own defaults.
// "Esc l" is neomutt's show-limit in the index, so the key is Esc a, which nothing uses.
constexpr std::string_view kNeomutt =
    R"(# Lumora in neomutt: add these lines to your neomuttrc.
# Alt-a (Esc a) in the index or the pager opens Lumora's panel on the message being read.
macro index,pager \ea "<pipe-message>lumora panel -<enter>" "Lumora: write a reply"
# The panel reads the message as it arrived, not decoded (this is neomutt's default).
unset pipe_decode
# Mail goes out through Lumora's recipient check and extra header, then the real sendmail.
set sendmail="lumora sendmail -oem -oi"
# Messages whose subject contains "Mars" are red in the index.
color index red default "~s Mars"
)";

// aerc runs ":pipe" commands in a new terminal tab with the message on standard input, and
// splits "outgoing" into words, appending the recipients. It cannot ask a program for a
// colour; a subject section that switches the styleset for matching rows is what it has.
constexpr std::string_view kAerc =
    R"(# Lumora in aerc: each part goes in the file named above it, in ~/.config/aerc/.

# binds.conf: Alt-l opens Lumora's panel on the whole message, in a new terminal tab.
# aerc reads only your binds.conf once it exists: start it from /usr/share/aerc/binds.conf.
# :pipe works on messages, so the key goes in the message list and the viewer, not in the
# [compose] contexts, which do not inherit keys.
[messages]
<A-l> = :pipe -m lumora panel -<Enter>

[view]
<A-l> = :pipe -m lumora panel -<Enter>

# accounts.conf, in your account's section: mail goes out through Lumora's recipient check
# and extra header, then the real sendmail.
outgoing = lumora sendmail

# aerc.conf: messages whose subject contains "Mars" use the styleset lumora-mars.
[ui:subject~Mars]
styleset-name=lumora-mars

# stylesets/lumora-mars: that styleset draws them red in the message list.
msglist_*.fg = red
)";

struct Client {
  std::string_view name;
  std::string_view snippet;
};

constexpr Client kClients[] = {{"neomutt", kNeomutt}, {"aerc", kAerc}};

}  // namespace

int integrateCommand(const Args& args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::fputs(kHelp, stdout);
    return kExitOk;
  }
  if (args.size() != 1) return usageError("integrate takes one mail client", kHelp);
  for (const Client& client : kClients) {
    if (args[0] == client.name) {
      std::fwrite(client.snippet.data(), 1, client.snippet.size(), stdout);
      return kExitOk;
    }
  }
  return usageError("no integration for '" + args[0] + "'", kHelp);
}

}  // namespace lumora::cli
