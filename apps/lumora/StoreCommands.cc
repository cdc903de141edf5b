// `lumora conversations` and `lumora teams`: the stored presets and team servers, written here
// in the companion application's place.
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

#include "Commands.h"
#include "Support.h"
#include "lumora/chat/Errors.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"
#include "lumora/platform/Uuid.h"
#include "lumora/store/ConversationStore.h"

namespace lumora::cli {
namespace {

constexpr const char* kConversationsHelp =
    "Usage: lumora conversations list | show ID | add | edit ID | archive ID | unarchive ID |\n"
    "                            pin ID | unpin ID | rm ID\n"
    "\n"
    "The stored conversations, the presets of instruction and model that the panel offers.\n"
    "\n"
    "  list        one a line, fields separated by tabs: id, title, model (or -), pinned or -,\n"
    "              archived or -; pinned first, then the most recently updated\n"
    "  show ID     every field, one 'name: value' line each, the instruction last\n"
    "  add         a new conversation from --title TEXT, --instruction TEXT and --model NAME;\n"
    "              prints its id\n"
    "  edit ID     changes the fields given with --title, --instruction and --model\n"
    "  archive ID, unarchive ID, pin ID, unpin ID, rm ID\n"
    "\n"
    "Exit status: 0 done, 1 the store could not be used or no conversation has that id,\n"
    "2 usage error.\n";

constexpr const char* kTeamsHelp =
    "Usage: lumora teams list | add DOMAIN TOKEN [--name NAME] | rm ID\n"
    "\n"
    "The self-hosted team servers; the newest team answers first.\n"
    "\n"
    "  list                         one a line, separated by tabs: id, name (or -), domain,\n"
    "                               and the token masked\n"
    "  add DOMAIN TOKEN [--name N]  stores a team; prints its id\n"
    "  rm ID                        removes the team\n"
    "\n"
    "Exit status: 0 done, 1 the store could not be used or no team has that id, 2 usage error.\n";

int failed(const std::string& text) {
  std::fprintf(stderr, "lumora: %s\n", redact::scrub(text).c_str());
  return kExitFailed;
}

// A time in seconds since 1970 as people and scripts read it: ISO 8601 in local time with its
// offset ("2026-11-25T22:47:22+01:00"); "-" for none.
std::string localTime(int64_t seconds) {
  if (seconds <= 0) return "-";
  const time_t time = static_cast<time_t>(seconds);
  struct tm local {};
  char date[32];
  if (!localtime_r(&time, &local) ||
      std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local) == 0)
    return std::to_string(seconds);
  const long offset = local.tm_gmtoff;
  const long minutes = (offset < 0 ? -offset : offset) / 60;
  char zone[40];
  std::snprintf(zone, sizeof zone, "%c%02ld:%02ld", offset < 0 ? '-' : '+', minutes / 60,
                minutes % 60);
  return std::string(date) + zone;
}

std::string orDash(const std::optional<std::string>& value) {
  return value && !value->empty() ? *value : "-";
}

// --title, --instruction and --model from `args` starting at `from`; nullopt on a usage error.
struct FieldOptions {
  std::optional<std::string> title, instruction, model;
};
std::optional<FieldOptions> fieldOptions(const Args& args, size_t from) {
  FieldOptions options;
  for (size_t i = from; i < args.size(); i += 2) {
    if (i + 1 >= args.size()) return std::nullopt;
    if (args[i] == "--title")
      options.title = args[i + 1];
    else if (args[i] == "--instruction")
      options.instruction = args[i + 1];
    else if (args[i] == "--model")
      options.model = args[i + 1];
    else
      return std::nullopt;
  }
  return options;
}

int conversations(const Args& args) {
  if (args.empty()) return usageError("conversations needs a subcommand", kConversationsHelp);
  const std::string& verb = args[0];
  if (verb == "--help" || verb == "-h") {
    std::fputs(kConversationsHelp, stdout);
    return kExitOk;
  }
  StoreContext& store = *sharedStoreContext();
  if (verb == "list" && args.size() == 1) {
    for (const auto& c : store.allConversations()) {
      const auto& f = c.fields;
      std::printf("%s\t%s\t%s\t%s\t%s\n", orDash(f.id).c_str(),
                  f.title ? f.title->c_str() : "New Chat", orDash(f.model).c_str(),
                  f.isPinned ? "pinned" : "-", f.isArchived ? "archived" : "-");
    }
    return kExitOk;
  }
  if (verb == "add") {
    const auto options = fieldOptions(args, 1);
    if (!options) return usageError("add takes --title, --instruction and --model", kConversationsHelp);
    std::printf("%s\n",
                store.addConversation(options->title, options->instruction, options->model).c_str());
    return kExitOk;
  }
  if (args.size() < 2) return usageError(verb + " needs an ID", kConversationsHelp);
  const std::string& id = args[1];
  auto found = store.conversation(id);
  if (!found) return failed("No conversation has the id " + id + ".");
  CDConversation::Fields fields = found->fields;
  if (verb == "show" && args.size() == 2) {
    std::printf("id: %s\ntitle: %s\nmodel: %s\npinned: %s\narchived: %s\nupdatedAt: %s\n"
                "instruction: %s\n",
                orDash(fields.id).c_str(), orDash(fields.title).c_str(),
                orDash(fields.model).c_str(), fields.isPinned ? "yes" : "no",
                fields.isArchived ? "yes" : "no", localTime(fields.updatedAt).c_str(),
                fields.systemPrompt.value_or("").c_str());
    return kExitOk;
  }
  if (verb == "rm" && args.size() == 2) {
    store.removeConversation(id);
    return kExitOk;
  }
  if (verb == "edit") {
    const auto options = fieldOptions(args, 2);
    if (!options) return usageError("edit takes --title, --instruction and --model", kConversationsHelp);
    if (options->title) fields.title = options->title;
    if (options->instruction) fields.systemPrompt = options->instruction;
    if (options->model) fields.model = options->model;
  } else if (args.size() != 2) {
    return usageError(verb + " takes one ID", kConversationsHelp);
  } else if (verb == "archive" || verb == "unarchive") {
    fields.isArchived = verb == "archive";
  } else if (verb == "pin" || verb == "unpin") {
    fields.isPinned = verb == "pin";
  } else {
    return usageError("unknown subcommand '" + verb + "'", kConversationsHelp);
  }
  store.updateConversation(id, fields);
  return kExitOk;
}

int teams(const Args& args) {
  if (args.empty()) return usageError("teams needs a subcommand", kTeamsHelp);
  const std::string& verb = args[0];
  if (verb == "--help" || verb == "-h") {
    std::fputs(kTeamsHelp, stdout);
    return kExitOk;
  }
  if (verb == "list" && args.size() == 1) {
    for (const auto& t : sharedStoreContext()->allTeams()) {
      const std::string token = t.team.token.value_or("");
      if (!token.empty()) redact::registerSecret(token);
      // A server's URL may hold a password or a key of its own: shown masked like the token.
      if (t.team.domain) redact::registerUrlSecrets(*t.team.domain);
      std::printf("%lld\t%s\t%s\t%s\n", static_cast<long long>(t.row), orDash(t.team.name).c_str(),
                  redact::scrub(orDash(t.team.domain)).c_str(),
                  token.empty() ? "-" : redact::masked(token).c_str());
    }
    return kExitOk;
  }
  if (verb == "add" && (args.size() == 3 || (args.size() == 5 && args[3] == "--name"))) {
    const std::string domain(text::trimmed(args[1]));
    const std::string token(text::trimmed(args[2]));
    if (domain.empty() || token.empty())
      return usageError("a team needs a DOMAIN and a TOKEN", kTeamsHelp);
    redact::registerSecret(token);
    redact::registerUrlSecrets(domain);
    std::optional<std::string> name;
    if (args.size() == 5) name = args[4];
    std::printf("%lld\n", static_cast<long long>(sharedStoreContext()->addTeam(name, domain, token)));
    return kExitOk;
  }
  if (verb == "rm" && args.size() == 2) {
    char* end = nullptr;
    const long long row = std::strtoll(args[1].c_str(), &end, 10);
    if (args[1].empty() || *end != '\0') return usageError("ID is a number from 'teams list'", kTeamsHelp);
    if (!sharedStoreContext()->removeTeam(row)) return failed("No team has the id " + args[1] + ".");
    return kExitOk;
  }
  return usageError("unknown or incomplete subcommand", kTeamsHelp);
}

template <typename Command>
int guarded(Command command, const Args& args) {
  try {
    return command(args);
  } catch (const std::exception& e) {
    return failed(describeFailure(e));
  }
}

}  // namespace

int conversationsCommand(const Args& args) { return guarded(conversations, args); }
int teamsCommand(const Args& args) { return guarded(teams, args); }

}  // namespace lumora::cli
