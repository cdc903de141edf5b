// `lumora integrate CLIENT`: the lines a user adds to a terminal mail client's configuration
// so that the panel opens on the draft of a reply (and, as a second way, on the message being
// read); with --mail-rules also the sendmail wrapper and the subject colour. The documentation
// of each client holds the same text, and a test keeps the two equal. For Thunderbird it
// installs the native messaging manifest that lets the add-on reach `lumora-native-host`.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "AddOn.h"
#include "CommandLine.h"
#include "Commands.h"
#include "Support.h"
#include "lumora/store/DefaultsStore.h"

namespace lumora::cli {
namespace {

// The editor that opens after the panel: the user's own, as VISUAL or EDITOR name it now,
// unless they already name lumora; quoted for the shell that runs it.
std::string userEditor() {
  for (const char* name : {"VISUAL", "EDITOR"}) {
    const char* value = std::getenv(name);
    if (!value || !*value) continue;
    const std::string_view command(value);
    if (runsLumora(command)) continue;
    std::string quoted = "'";
    for (const char c : command) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
  }
  return "'vi'";
}

// neomutt runs $editor through /bin/sh with the draft's path appended, and pipes the raw
// message to a <pipe-message> command, handing it the terminal. $sendmail gets "--" and the
// recipients appended; "-oem -oi" are neomutt's own defaults. "Esc l" is neomutt's show-limit
// in the index, so the key is Esc a, which nothing uses.
std::string neomuttLines(bool mailRules) {
  std::string s = R"(# Lumora in neomutt: add these lines to your neomuttrc.
# Replying opens Lumora's panel on your draft: Ctrl-G writes a reply from the message you
# answer, i puts it into the draft above the quoted message, then your editor opens on the
# draft as before (Ctrl-Q leaves the panel without inserting).
set editor="lumora compose --editor )" + userEditor() + R"("
# The message you answer is quoted in the draft without a question, for the panel to read.
set include=yes
# A second way: Alt-a (Esc a) in the index or the pager opens the panel on the message being
# read, reading all of it; Copy takes the reply from there.
macro index,pager \ea "<pipe-message>lumora panel --read message -<enter>" "Lumora: write a reply"
# The panel reads that message as it arrived, not decoded (this is neomutt's default).
unset pipe_decode
)";
  if (mailRules) {
    s += R"(# The mail rules (--mail-rules): every outgoing mail passes Lumora's recipient check
# (mail to example.com is refused) and gets an extra header, then the real sendmail.
set sendmail="lumora sendmail -oem -oi"
# Messages whose subject contains "Mars" are red in the index.
color index red default "~s Mars"
)";
  }
  return s;
}

// aerc runs its editor in the compose tab's terminal with the draft's path appended, and
// ":pipe" commands in a new terminal tab with the message on standard input; it splits
// "outgoing" into words, appending the recipients. It cannot ask a program for a colour; a
// subject section that switches the styleset for matching rows is what it has.
std::string aercLines(bool mailRules) {
  std::string s = R"(# Lumora in aerc: each part goes in the file named above it, in ~/.config/aerc/.

# aerc.conf: replying with the quoted message (Rq, rq) opens Lumora's panel on your draft:
# Ctrl-G writes a reply, i puts it into the draft above the quoted message, then your editor
# opens on the draft as before (Ctrl-Q leaves the panel without inserting).
[compose]
editor = lumora compose --editor )" + userEditor() + R"(

# binds.conf: a second way. Alt-l opens the panel on the message being read, reading all
# of it, in a new terminal tab; Copy takes the reply from there. aerc reads only your
# binds.conf once it exists: start it from /usr/share/aerc/binds.conf. The key goes in
# the message list and the viewer, where :pipe has a message to work on.
[messages]
<A-l> = :pipe -m lumora panel --read message -<Enter>

[view]
<A-l> = :pipe -m lumora panel --read message -<Enter>
)";
  if (mailRules) {
    s += R"(
# accounts.conf, in your account's section (--mail-rules): every outgoing mail passes
# Lumora's recipient check (mail to example.com is refused) and gets an extra header, then
# the real sendmail.
outgoing = lumora sendmail

# aerc.conf, again: messages whose subject contains "Mars" use the styleset lumora-mars.
[ui:subject~Mars]
styleset-name=lumora-mars

# stylesets/lumora-mars: that styleset draws them red in the message list.
msglist_*.fg = red
)";
  }
  return s;
}

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

// The Thunderbird profiles of this user that hold the add-on.
std::vector<std::string> profilesWithAddOn() {
  std::vector<std::string> found;
  std::error_code ec;
  const fs::path root = homeDirectory() / ".thunderbird";
  for (const auto& profile : fs::directory_iterator(root, ec)) {
    const fs::path extensions = profile.path() / "extensions";
    const std::string id(frontend::kAddOnId);
    if (fs::exists(extensions / (id + ".xpi"), ec) || fs::is_directory(extensions / id, ec))
      found.push_back(profile.path().filename().string());
  }
  std::sort(found.begin(), found.end());
  return found;
}

int failed(const std::string& message) {
  std::fprintf(stderr, "lumora: %s\n", message.c_str());
  return kExitFailed;
}

// The words after the client's name, read by the options that client takes, each value a word
// of its own; `saying` words every mistake. Returns the exit status when they are not right.
std::optional<int> readClientOptions(const Args& args,
                                     std::initializer_list<std::string_view> names,
                                     std::function<std::string(const Mistake&)> saying,
                                     Parsed& parsed) {
  const Command& command = integrateDeclaration();
  const std::vector<Option> options = pick(command.options, names);
  return readArguments(Args(args.begin() + 1, args.end()), command,
                       trailingOptions(std::move(saying)), options, parsed);
}

int integrateThunderbird(const Args& args) {
  Parsed parsed;
  const auto unknown = [](const Mistake& m) { return "unknown option '" + m.word + "'"; };
  if (const auto end = readClientOptions(args, {"--print", "--host"}, unknown, parsed)) return *end;
  const bool print = parsed.has("--print");
  std::optional<fs::path> host;
  if (const auto given = parsed.value("--host")) host = fs::absolute(*given);
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
  bool changed = true;
  fs::path file;
  try {
    // Thunderbird looks where Firefox does: this folder, then /usr/lib/mozilla/.
    const fs::path directory = homeDirectory() / ".mozilla" / "native-messaging-hosts";
    fs::create_directories(directory);
    file = directory / (std::string(frontend::kNativeHostName) + ".json");
    std::error_code ec;
    if (fs::is_regular_file(file, ec)) {
      std::ifstream in(file);
      const std::string present((std::istreambuf_iterator<char>(in)), {});
      changed = present != text;
    }
    if (changed) {
      // Written aside and renamed, so that Thunderbird never reads half a manifest.
      const fs::path temporary = fs::path(file).concat(".new");
      {
        std::ofstream out(temporary, std::ios::trunc);
        out << text;
        if (!out.flush()) return failed("cannot write " + temporary.string());
      }
      fs::rename(temporary, file);
    }
  } catch (const std::exception& e) {
    return failed(std::string("cannot install the manifest: ") + e.what());
  }
  std::printf(changed ? "Installed the manifest of Lumora's native host for Thunderbird:\n  %s\n"
                      : "The manifest of Lumora's native host for Thunderbird is in place:\n  %s\n",
              file.c_str());
  const auto xpi = installedAddOn();
  const auto profiles = profilesWithAddOn();
  if (!profiles.empty()) {
    std::printf("The add-on is installed in Thunderbird (profile %s).\n", profiles.front().c_str());
    if (changed) std::printf("Restart Thunderbird if it is running, so that it finds the host.\n");
    return kExitOk;
  }
  std::printf(
      "The add-on:\n  %s\n"
      "Install it in Thunderbird: Tools > Add-ons and Themes, the gear menu, Install Add-on From\n"
      "File..., choose the file above; then restart Thunderbird.\n",
      xpi ? xpi->c_str() : "lumora.xpi (built by: cmake --build build --target thunderbird-xpi)");
  return kExitOk;
}

}  // namespace

const Command& integrateDeclaration() {
  static const Command command{
      .name = "integrate",
      .summary = "print the configuration lines for neomutt or aerc",
      .usage = R"(
lumora integrate neomutt|aerc|thunderbird [--mail-rules] [--print] [--host PATH]
)",
      .help =
          {
              {.text = R"(
neomutt, aerc: prints the lines to add to the mail client's configuration: Lumora as the
editor of a reply (the panel opens on the draft, Insert puts the reply into it, then your
editor opens), and a key that opens the panel on the message being read.
)",
               .column = 16,
               .entries = {{"--mail-rules"}}},
              {.text = R"(
thunderbird: installs, for the current user, the manifest through which Lumora's
Thunderbird add-on starts lumora-native-host
(~/.mozilla/native-messaging-hosts/tech.zorvel.lumora.json), says where the add-on is,
and what is left to do.
)",
               .column = 15,
               .entries = {{"--print"}, {"--host"}}},
          },
      .options =
          {
              {.name = "--mail-rules",
               .help = "(neomutt, aerc) also the sendmail wrapper (the recipient check and the\n"
                       "extra header on every outgoing mail) and the subject colour"},
              {.name = "--print",
               .help = "(thunderbird) print the manifest instead of installing it"},
              {.name = "--host",
               .value = "PATH",
               .help = "(thunderbird) the native host program (default: lumora-native-host\n"
                       "beside lumora)"},
          },
      // The first word is the client; the options after it are that client's.
      .rules =
          operandsOnly({.least = 1, .tooFew = "integrate takes one mail client"}, HelpAt::alone),
      .run = integrateCommand,
  };
  return command;
}

int integrateCommand(const Args& args) {
  const Command& command = integrateDeclaration();
  Parsed parsed;
  if (const auto end = readArguments(args, command, parsed)) return *end;
  if (args[0] == "thunderbird") return integrateThunderbird(args);
  const auto oneClient = [](const Mistake&) { return "integrate takes one mail client"; };
  if (const auto end = readClientOptions(args, {"--mail-rules"}, oneClient, parsed)) return *end;
  const bool mailRules = parsed.has("--mail-rules");
  std::string lines;
  if (args[0] == "neomutt") {
    lines = neomuttLines(mailRules);
  } else if (args[0] == "aerc") {
    lines = aercLines(mailRules);
  } else {
    return usageError("no integration for '" + args[0] + "'", command);
  }
  std::fwrite(lines.data(), 1, lines.size(), stdout);
  return kExitOk;
}

}  // namespace lumora::cli
