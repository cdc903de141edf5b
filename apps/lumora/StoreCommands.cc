// `lumora conversations` and `lumora teams`: the stored presets and team servers, written here
// in the companion application's place.
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

#include "CommandLine.h"
#include "Commands.h"
#include "Support.h"
#include "lumora/chat/Errors.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"
#include "lumora/platform/Uuid.h"
#include "lumora/store/ConversationStore.h"

namespace lumora::cli {
namespace {

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

// The fields that `add` and `edit` set, read from the words after the subcommand (and its ID):
// only "--title TEXT", "--instruction TEXT" and "--model NAME", each value a word of its own.
// Returns the exit status when the words are not those, said with the usage.
struct Fields {
  std::optional<std::string> title, instruction, model;
};
std::optional<int> readFields(const Args& args, size_t from, Fields& fields) {
  const Command& command = conversationsDeclaration();
  const std::string& verb = args[0];
  const Rules rules = trailingOptions(
      [&verb](const Mistake&) { return verb + " takes --title, --instruction and --model"; });
  Parsed parsed;
  const Args words(args.begin() + static_cast<std::ptrdiff_t>(from), args.end());
  if (const auto end = readArguments(words, command, rules, command.options, parsed)) return end;
  fields = {parsed.value("--title"), parsed.value("--instruction"), parsed.value("--model")};
  return std::nullopt;
}

int conversations(const Args& args) {
  const Command& command = conversationsDeclaration();
  Parsed parsed;
  if (const auto end = readArguments(args, command, parsed)) return *end;
  const std::string& verb = args[0];
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
    Fields given;
    if (const auto end = readFields(args, 1, given)) return *end;
    std::printf("%s\n", store.addConversation(given.title, given.instruction, given.model).c_str());
    return kExitOk;
  }
  if (args.size() < 2) return usageError(verb + " needs an ID", command);
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
    Fields given;
    if (const auto end = readFields(args, 2, given)) return *end;
    if (given.title) fields.title = given.title;
    if (given.instruction) fields.systemPrompt = given.instruction;
    if (given.model) fields.model = given.model;
  } else if (args.size() != 2) {
    return usageError(verb + " takes one ID", command);
  } else if (verb == "archive" || verb == "unarchive") {
    fields.isArchived = verb == "archive";
  } else if (verb == "pin" || verb == "unpin") {
    fields.isPinned = verb == "pin";
  } else {
    return usageError("unknown subcommand '" + verb + "'", command);
  }
  store.updateConversation(id, fields);
  return kExitOk;
}

int teams(const Args& args) {
  const Command& command = teamsDeclaration();
  Parsed parsed;
  if (const auto end = readArguments(args, command, parsed)) return *end;
  const std::string& verb = args[0];
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
  // DOMAIN and TOKEN come first, and --name NAME, if given, once after them.
  if (verb == "add" && (args.size() == 3 || args.size() == 5)) {
    Parsed named;
    const Rules rules =
        trailingOptions([](const Mistake&) { return "unknown or incomplete subcommand"; });
    if (const auto end = readArguments(Args(args.begin() + 3, args.end()), command, rules,
                                       command.options, named))
      return *end;
    const std::string domain(text::trimmed(args[1]));
    const std::string token(text::trimmed(args[2]));
    if (domain.empty() || token.empty())
      return usageError("a team needs a DOMAIN and a TOKEN", command);
    redact::registerSecret(token);
    redact::registerUrlSecrets(domain);
    const std::optional<std::string> name = named.value("--name");
    std::printf("%lld\n", static_cast<long long>(sharedStoreContext()->addTeam(name, domain, token)));
    return kExitOk;
  }
  if (verb == "rm" && args.size() == 2) {
    char* end = nullptr;
    const long long row = std::strtoll(args[1].c_str(), &end, 10);
    if (args[1].empty() || *end != '\0')
      return usageError("ID is a number from 'teams list'", command);
    if (!sharedStoreContext()->removeTeam(row)) return failed("No team has the id " + args[1] + ".");
    return kExitOk;
  }
  return usageError("unknown or incomplete subcommand", command);
}

template <typename Run>
int guarded(Run run, const Args& args) {
  try {
    return run(args);
  } catch (const std::exception& e) {
    return failed(describeFailure(e));
  }
}

}  // namespace

const Command& conversationsDeclaration() {
  static const Command command{
      .name = "conversations",
      .summary = "the stored presets of instruction and model",
      .usage = R"(
lumora conversations list | show ID | add | edit ID | archive ID | unarchive ID |
                            pin ID | unpin ID | rm ID
)",
      .help =
          {
              {.text = R"(
The stored conversations, the presets of instruction and model that the panel offers.
)"},
              {.column = 14,
               .entries =
                   {
                       {"list",
                        "one a line, fields separated by tabs: id, title, model (or -), pinned or "
                        "-,\n"
                        "archived or -; pinned first, then the most recently updated"},
                       {"show ID",
                        "every field, one 'name: value' line each, the instruction last"},
                       {"add",
                        "a new conversation from --title TEXT, --instruction TEXT and --model "
                        "NAME;\n"
                        "prints its id"},
                       {"edit ID",
                        "changes the fields given with --title, --instruction and --model"},
                       {"archive ID, unarchive ID, pin ID, unpin ID, rm ID"},
                   }},
              {.text = R"(
Exit status: 0 done, 1 the store could not be used or no conversation has that id,
2 usage error.
)"},
          },
      // Only for add and edit, which read them (readFields).
      .options = {{.name = "--title", .value = "TEXT"},
                  {.name = "--instruction", .value = "TEXT"},
                  {.name = "--model", .value = "NAME"}},
      // The first word is the subcommand; each reads the rest by itself.
      .rules =
          operandsOnly({.least = 1, .tooFew = "conversations needs a subcommand"}, HelpAt::first),
      .run = conversationsCommand,
  };
  return command;
}

const Command& teamsDeclaration() {
  static const Command command{
      .name = "teams",
      .summary = "the self-hosted team servers",
      .usage = "lumora teams list | add DOMAIN TOKEN [--name NAME] | rm ID\n",
      .help =
          {
              {.text = "The self-hosted team servers; the newest team answers first.\n"},
              {.column = 31,
               .entries = {{"list",
                            "one a line, separated by tabs: id, name (or -), domain,\n"
                            "and the token masked"},
                           {"add DOMAIN TOKEN [--name N]", "stores a team; prints its id"},
                           {"rm ID", "removes the team"}}},
              {.text = R"(
Exit status: 0 done, 1 the store could not be used or no team has that id, 2 usage error.
)"},
          },
      .options = {{.name = "--name", .value = "NAME"}},
      .rules = operandsOnly({.least = 1, .tooFew = "teams needs a subcommand"}, HelpAt::first),
      .run = teamsCommand,
  };
  return command;
}

int conversationsCommand(const Args& args) { return guarded(conversations, args); }
int teamsCommand(const Args& args) { return guarded(teams, args); }

}  // namespace lumora::cli
