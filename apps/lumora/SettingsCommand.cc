// `lumora settings`: reads and writes the two defaults stores as the companion application does.
//
// Output forms: `get` prints a string as it is and every other type as compact JSON, so that
// scripts can take a string's value with $(...); `list` prints one "KEY = VALUE" line per key in
// the registry's order with VALUE always in JSON, so that every line stays one line and empty
// text shows as "". A credential is printed only as redact::masked() (an empty one as empty).
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "Support.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/Redact.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/Features.h"
#include "lumora/store/SettingsKeys.h"

namespace lumora::cli {
namespace {

std::string dumpJson(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// The read value of `entry` as shown: credentials and the credentials inside URLs masked, and
// registered so that anything else printed later is scrubbed of them.
nlohmann::json shownValue(const SettingKey& entry, bool inChina) {
  DefaultsStore& store = storeOf(entry, sharedDefaults(), ownDefaults());
  nlohmann::json value = readSetting(entry, store.value(entry.key), inChina);
  if (!value.is_string()) return value;
  const std::string& text = value.get_ref<const std::string&>();
  if (text.empty()) return value;
  if (entry.credential) {
    redact::registerSecret(text);
    return redact::masked(text);
  }
  // A URL's password or key shows masked, the rest of it as it is.
  redact::registerUrlSecrets(text);
  return redact::scrub(text);
}

// The edit distance of two short texts, letter case aside.
size_t distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      const bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(b[j - 1]));
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// The known key nearest to a mistyped one ("claudeApiKey" for "claudeApikey"), if one is near.
std::optional<std::string_view> nearestKey(std::string_view key) {
  constexpr size_t kLongestTypo = 3;
  if (key.empty() || key.size() > 64) return std::nullopt;
  std::optional<std::string_view> best;
  size_t bestDistance = kLongestTypo + 1;
  for (const SettingKey& entry : settingKeys()) {
    const size_t d = distance(key, entry.key);
    if (d < bestDistance) {
      best = entry.key;
      bestDistance = d;
    }
  }
  return best;
}

int unknownKey(const std::string& key) {
  const auto near = nearestKey(key);
  return usageError("unknown setting \"" + key + "\"; " +
                        (near ? "did you mean \"" + std::string(*near) + "\"? " : "") +
                        "'lumora settings list' shows every key",
                    settingsDeclaration());
}

int list() {
  const bool inChina = Features::shared().inChina();
  std::string out;  // all or nothing: a bad file stops the listing before anything is printed
  for (const SettingKey& entry : settingKeys()) {
    out += std::string(entry.key) + " = " + dumpJson(shownValue(entry, inChina)) + "\n";
  }
  std::fputs(out.c_str(), stdout);
  return kExitOk;
}

int get(const std::string& key) {
  const SettingKey* entry = findSettingKey(key);
  if (!entry) return unknownKey(key);
  const nlohmann::json value = shownValue(*entry, Features::shared().inChina());
  const std::string text = value.is_string() ? value.get<std::string>() : dumpJson(value);
  std::fputs((text + "\n").c_str(), stdout);
  return kExitOk;
}

// The most a value read from standard input or the terminal may be: far more than any key or
// URL, and a bound on what a wrong pipe can make the command hold.
constexpr size_t kLongestValue = 1 << 20;

// One line of `fd`, its line end ("\n" or "\r\n") dropped; nullopt when nothing came before
// the end of the input or the line is longer than kLongestValue.
std::optional<std::string> readLine(int fd) {
  std::string line;
  char c = 0;
  while (true) {
    const ssize_t got = ::read(fd, &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (line.empty()) return std::nullopt;
      break;
    }
    if (c == '\n') break;
    if (line.size() == kLongestValue) return std::nullopt;
    line += c;
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

// The terminal's settings while a hidden value is typed, put back however the prompt ends.
struct termios savedTerminal {};
volatile sig_atomic_t echoOff = 0;

void restoreTerminal(int signal) {
  if (echoOff) tcsetattr(STDIN_FILENO, TCSAFLUSH, &savedTerminal);
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

// Asks for `key`'s value on the terminal, with echo off: nothing of a credential shows on the
// screen, in the shell's history or in the process list.
std::optional<std::string> promptHidden(std::string_view key) {
  const std::string prompt = "Value for " + std::string(key) + " (not shown): ";
  std::fputs(prompt.c_str(), stderr);
  std::fflush(stderr);
  const bool hidden = tcgetattr(STDIN_FILENO, &savedTerminal) == 0;
  if (hidden) {
    struct termios quiet = savedTerminal;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) ::signal(s, restoreTerminal);
    echoOff = tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
  }
  std::optional<std::string> line = readLine(STDIN_FILENO);
  if (echoOff) tcsetattr(STDIN_FILENO, TCSAFLUSH, &savedTerminal);
  echoOff = 0;
  if (hidden) {
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) ::signal(s, SIG_DFL);
  }
  if (!line) std::fputc('\n', stderr);
  return line;
}

int set(const std::string& key, std::optional<std::string> given) {
  const SettingKey* entry = findSettingKey(key);
  if (!entry) return unknownKey(key);
  if (!given && isatty(STDIN_FILENO) != 1) {
    return usageError("'set " + key +
                          "' without a VALUE asks on the terminal, and standard input is not "
                          "one; give '-' to read the value from standard input",
                      settingsDeclaration());
  }
  if (!given) given = promptHidden(key);
  else if (*given == "-") given = readLine(STDIN_FILENO);
  if (!given) {
    return usageError("no value for " + key + " was read: the input was empty, or its line " +
                          "longer than 1 MiB",
                      settingsDeclaration());
  }
  const std::string& text = *given;
  if (entry->credential) redact::registerSecret(text);
  nlohmann::json value;
  try {
    value = parseSettingText(*entry, text);
  } catch (const DecodingError& e) {
    return usageError(e.what(), settingsDeclaration());
  }
  storeOf(*entry, sharedDefaults(), ownDefaults()).set(entry->key, value);
  return kExitOk;
}

int unset(const std::string& key) {
  const SettingKey* entry = findSettingKey(key);
  if (!entry) return unknownKey(key);
  storeOf(*entry, sharedDefaults(), ownDefaults()).remove(entry->key);
  return kExitOk;
}

int path() {
  const std::string out =
      sharedDefaults().path().string() + "\n" + ownDefaults().path().string() + "\n";
  std::fputs(out.c_str(), stdout);
  return kExitOk;
}

int wrongCount(const std::string& command, const char* shape) {
  return usageError("'" + command + "' takes " + shape, settingsDeclaration());
}

}  // namespace

const Command& settingsDeclaration() {
  static const Command command{
      .name = "settings",
      .summary = "read and write the settings",
      .usage = R"(
lumora settings list | get KEY | set KEY - | set KEY | set KEY VALUE | unset KEY |
         path
)",
      .help =
          {
              {.text = R"(
Reads and writes the settings exactly as the companion chat application does; the key
decides which of the two settings files holds it.
)"},
              {.column = 17,
               .entries =
                   {
                       {"set KEY -",
                        "stores the first line of standard input (its line end dropped): the way\n"
                        "to store a key from a file or a password manager, e.g.\n"
                        "pass show openai | lumora settings set apiKey -"},
                       {"set KEY",
                        "asks for the value on the terminal, without showing what is typed\n"
                        "(use these two for credentials: a VALUE on the command line stays in the\n"
                        "shell's history and shows in the process list)"},
                       {"set KEY VALUE",
                        "stores VALUE, read by the key's type: true or false, a number, a JSON\n"
                        "object of strings for azureModels, the JSON text of a list of strings "
                        "for\n"
                        "openAICompatibleModels (stored as given), text for the others"},
                       {"list",
                        "every key with the value the system reads, one 'KEY = VALUE' line each,\n"
                        "VALUE in JSON; credentials, and the password or key inside a URL, are\n"
                        "shown as '…' and their last four characters"},
                       {"get KEY",
                        "the value the system reads for KEY, its default when KEY is not set: "
                        "text\n"
                        "as it is, other types in JSON; a credential masked as in 'list'"},
                       {"unset KEY", "removes KEY, so that its default applies again"},
                       {"path",
                        "the file of the shared suite, then the command's own file, one a line"},
                   }},
              {.text = R"(
Put -- before a VALUE that begins with '--'. A VALUE of - always means standard input.
Exit status: 0 done, 1 a settings file could not be read or written, 2 usage error.
)"},
          },
      // The words are the subcommand's; "--" lets a VALUE begin with "--".
      .rules = {.operands = {.least = 1, .tooFew = "missing command"},
                .optionWords = OptionWords::doubleDash,
                .endMark = true},
      .run = settingsCommand,
  };
  return command;
}

int settingsCommand(const Args& args) {
  Parsed parsed;
  if (const auto end = readArguments(args, settingsDeclaration(), parsed)) return *end;
  const std::vector<std::string>& words = parsed.operands;
  const std::string& command = words[0];
  const size_t operands = words.size() - 1;
  try {
    if (command == "list") return operands == 0 ? list() : wrongCount(command, "no arguments");
    if (command == "path") return operands == 0 ? path() : wrongCount(command, "no arguments");
    if (command == "get") return operands == 1 ? get(words[1]) : wrongCount(command, "one KEY");
    if (command == "unset") {
      return operands == 1 ? unset(words[1]) : wrongCount(command, "one KEY");
    }
    if (command == "set") {
      if (operands == 1) return set(words[1], std::nullopt);
      return operands == 2 ? set(words[1], words[2]) : wrongCount(command, "a KEY and a VALUE");
    }
  } catch (const Error& e) {
    std::fprintf(stderr, "lumora: %s\n", redact::scrub(e.what()).c_str());
    return kExitFailed;
  }
  return usageError("unknown command '" + command + "'", settingsDeclaration());
}

}  // namespace lumora::cli
