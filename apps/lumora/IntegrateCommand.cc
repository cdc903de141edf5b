// `lumora integrate CLIENT`: the lines a user adds to a terminal mail client's configuration
// so that a key opens the panel on the message being read, outgoing mail passes through the
// sendmail wrapper, and the subject rule colours the message list. The documentation of each
// client holds the same text, and a test keeps the two equal. For Thunderbird it installs the
// native messaging manifest that lets the add-on reach `lumora-native-host`.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string_view>

#include "AddOn.h"
#include "Commands.h"
#include "Support.h"
#include "lumora/store/DefaultsStore.h"

namespace lumora::cli {
namespace {

constexpr const char* kHelp =
    "Usage: lumora integrate neomutt|aerc|thunderbird [--print] [--host PATH]\n"
    "\n"
    "neomutt, aerc: prints the lines to add to the mail client's configuration: a key that\n"
    "opens the panel on the message being read, the sendmail wrapper for outgoing mail, and\n"
    "the subject colour.\n"
    "\n"
    "thunderbird: installs, for the current user, the manifest through which Lumora's\n"
    "Thunderbird add-on starts lumora-native-host\n"
    "(~/.mozilla/native-messaging-hosts/tech.zorvel.lumora.json), and says where the\n"
    "add-on is.\n"
    "  --print      (thunderbird) print the manifest instead of installing it\n"
    "  --host PATH  (thunderbird) the native host program (default: lumora-native-host\n"
    "               beside lumora)\n";

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

namespace fs = std::filesystem;

// The directory this program was started from.
fs::path programDirectory() {
  std::error_code ec;
  const fs::path self = fs::read_symlink("/proc/self/exe", ec);
  return ec ? fs::path() : self.parent_path();
}

// Where the add-on lies when Lumora is installed: share/lumora/ beside the program's bin/.
std::optional<fs::path> installedAddOn() {
  std::error_code ec;
  const fs::path xpi = programDirectory().parent_path() / "share" / "lumora" / "lumora.xpi";
  return fs::is_regular_file(xpi, ec) ? std::optional(xpi) : std::nullopt;
}

int failed(const std::string& message) {
  std::fprintf(stderr, "lumora: %s\n", message.c_str());
  return kExitFailed;
}

int integrateThunderbird(const Args& args) {
  bool print = false;
  std::optional<fs::path> host;
  for (size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--print") {
      print = true;
    } else if (args[i] == "--host" && i + 1 < args.size()) {
      host = fs::absolute(args[++i]);
    } else {
      return usageError("unknown option '" + args[i] + "'", kHelp);
    }
  }
  if (!host) host = programDirectory() / frontend::kNativeHostProgram;
  if (::access(host->c_str(), X_OK) != 0) {
    return failed("cannot run the native host " + host->string() + ": " + std::strerror(errno) +
                  " (give its path with --host PATH)");
  }
  const nlohmann::json manifest = {
      {"name", frontend::kNativeHostName},
      {"description", "Lumora: replies to e-mail written with a language model"},
      {"path", host->string()},
      {"type", "stdio"},
      {"allowed_extensions", {frontend::kAddOnId}},
  };
  const std::string text = manifest.dump(2) + "\n";
  if (print) {
    std::fputs(text.c_str(), stdout);
    return kExitOk;
  }
  try {
    // Thunderbird looks where Firefox does: this folder, then /usr/lib/mozilla/.
    const fs::path directory = homeDirectory() / ".mozilla" / "native-messaging-hosts";
    fs::create_directories(directory);
    const fs::path file = directory / (std::string(frontend::kNativeHostName) + ".json");
    // Written aside and renamed, so that Thunderbird never reads half a manifest.
    const fs::path temporary = fs::path(file).concat(".new");
    {
      std::ofstream out(temporary, std::ios::trunc);
      out << text;
      if (!out.flush()) return failed("cannot write " + temporary.string());
    }
    fs::rename(temporary, file);
    std::printf("Installed the manifest of Lumora's native host for Thunderbird:\n  %s\n",
                file.c_str());
  } catch (const std::exception& e) {
    return failed(std::string("cannot install the manifest: ") + e.what());
  }
  const auto xpi = installedAddOn();
  std::printf(
      "Now install the add-on, if it is not installed yet: in Thunderbird, Tools > Add-ons and\n"
      "Themes, the gear menu, Install Add-on From File..., and choose\n  %s\n"
      "Then restart Thunderbird. docs/integrations/thunderbird.md says more.\n",
      xpi ? xpi->c_str() : "lumora.xpi (built by: cmake --build build --target thunderbird-xpi)");
  return kExitOk;
}

}  // namespace

int integrateCommand(const Args& args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::fputs(kHelp, stdout);
    return kExitOk;
  }
  if (!args.empty() && args[0] == "thunderbird") return integrateThunderbird(args);
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
