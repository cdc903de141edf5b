// `lumora settings`: reads and writes the two defaults stores as the companion application does.
//
// Output forms: `get` prints a string as it is and every other type as compact JSON, so that
// scripts can take a string's value with $(...); `list` prints one "KEY = VALUE" line per key in
// the registry's order with VALUE always in JSON, so that every line stays one line and empty
// text shows as "". A credential is printed only as redact::masked() (an empty one as empty).
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Commands.h"
#include "Support.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/Redact.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/Features.h"
#include "lumora/store/SettingsKeys.h"

namespace lumora::cli {
namespace {

constexpr const char* kHelp =
    "Usage: lumora settings list | get KEY | set KEY VALUE | unset KEY | path\n"
    "\n"
    "Reads and writes the settings exactly as the companion chat application does; the key\n"
    "decides which of the two settings files holds it.\n"
    "\n"
    "  list           every key with the value the system reads, one 'KEY = VALUE' line each,\n"
    "                 VALUE in JSON; credentials are shown as '…' and their last four characters\n"
    "  get KEY        the value the system reads for KEY, its default when KEY is not set: text\n"
    "                 as it is, other types in JSON; a credential masked as in 'list'\n"
    "  set KEY VALUE  stores VALUE, read by the key's type: true or false, a number, a JSON\n"
    "                 object of strings for azureModels, the JSON text of a list of strings for\n"
    "                 openAICompatibleModels (stored as given), text for the others\n"
    "  unset KEY      removes KEY, so that its default applies again\n"
    "  path           the file of the shared suite, then the command's own file, one a line\n"
    "\n"
    "Put -- before a VALUE that begins with '--'.\n"
    "Exit status: 0 done, 1 a settings file could not be read or written, 2 usage error.\n";

std::string dumpJson(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// The read value of `entry` as shown: credentials masked, and registered so that anything else
// printed later is scrubbed of them.
nlohmann::json shownValue(const SettingKey& entry, bool inChina) {
  DefaultsStore& store = storeOf(entry, sharedDefaults(), ownDefaults());
  nlohmann::json value = readSetting(entry, store.value(entry.key), inChina);
  if (entry.credential && value.is_string()) {
    const std::string& secret = value.get_ref<const std::string&>();
    if (secret.empty()) return value;
    redact::registerSecret(secret);
    return redact::masked(secret);
  }
  return value;
}

int unknownKey(const std::string& key) {
  return usageError("unknown setting \"" + key + "\"; 'lumora settings list' shows every key",
                    kHelp);
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

int set(const std::string& key, const std::string& text) {
  const SettingKey* entry = findSettingKey(key);
  if (!entry) return unknownKey(key);
  if (entry->credential) redact::registerSecret(text);
  nlohmann::json value;
  try {
    value = parseSettingText(*entry, text);
  } catch (const DecodingError& e) {
    return usageError(e.what(), kHelp);
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
  return usageError("'" + command + "' takes " + shape, kHelp);
}

}  // namespace

int settingsCommand(const Args& args) {
  std::vector<std::string> words;
  bool options = true;
  for (const std::string& arg : args) {
    if (options && arg == "--") {
      options = false;
    } else if (options && (arg == "--help" || arg == "-h")) {
      std::fputs(kHelp, stdout);
      return kExitOk;
    } else if (options && arg.size() > 2 && arg.starts_with("--")) {
      return usageError("unknown option '" + arg + "'", kHelp);
    } else {
      words.push_back(arg);
    }
  }
  if (words.empty()) return usageError("missing command", kHelp);
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
      return operands == 2 ? set(words[1], words[2]) : wrongCount(command, "a KEY and a VALUE");
    }
  } catch (const Error& e) {
    std::fprintf(stderr, "lumora: %s\n", redact::scrub(e.what()).c_str());
    return kExitFailed;
  }
  return usageError("unknown command '" + command + "'", kHelp);
}

}  // namespace lumora::cli
