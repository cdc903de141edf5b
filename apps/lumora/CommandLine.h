// The commands of `lumora` as declared once: each command's name, its --help and the options
// and operands it reads. main.cc dispatches by these declarations, each command reads its
// arguments by its own, and the manual page and the shell completions are made from them
// (packaging/helpdoc), so that none of these can fall behind the others.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Options.h"

namespace lumora::cli {

// A line of a two-column list in --help: an operand or a subcommand with its description,
// or, with a term of "--name" alone, the declared option of that name with its own.
struct HelpEntry {
  std::string_view term;
  std::string_view text = {};  // its lines as printed, without the indent
};

// A part of a command's --help: text printed as it is, then a list whose descriptions start
// in `column`. Parts are set apart by an empty line. A text (and the usage) may begin with a
// line end that is not printed, so that a raw string's lines stand as they are printed.
struct HelpPart {
  std::string_view text = {};
  int column = 0;
  std::vector<HelpEntry> entries = {};
};

struct Command {
  std::string_view name;
  std::string_view summary = {};  // its line in `lumora --help`
  std::string_view usage = {};    // what follows "Usage: ", its lines as printed
  std::vector<HelpPart> help = {};
  std::vector<Option> options = {};
  Rules rules = {};  // how the command reads its words; subcommands may read the rest by their own
  int (*run)(const Args& args) = nullptr;
};

// Every command, in the order `lumora --help` lists them.
const std::vector<const Command*>& commands();

// `lumora --help`.
std::string programHelp();

// `lumora NAME --help`; throws std::logic_error when a list names an option not declared.
std::string helpText(const Command& command);

// Reads `args` by the command's declarations and `rules`. Returns the exit status when the
// command is done: 0 once --help is printed, 2 once a mistake is written with the usage.
std::optional<int> readArguments(const Args& args, const Command& command, const Rules& rules,
                                 const std::vector<Option>& options, Parsed& parsed);
std::optional<int> readArguments(const Args& args, const Command& command, Parsed& parsed);

// Writes "lumora: MESSAGE" and the command's help to standard error; returns kExitUsage.
int usageError(const std::string& message, const Command& command);

// The declarations of each command, beside the command.
const Command& replyDeclaration();
const Command& panelDeclaration();
const Command& composeDeclaration();
const Command& settingsDeclaration();
const Command& conversationsDeclaration();
const Command& teamsDeclaration();
const Command& modelsDeclaration();
const Command& routeDeclaration();
const Command& voicesDeclaration();
const Command& checkRecipientsDeclaration();
const Command& headersDeclaration();
const Command& colourDeclaration();
const Command& sendmailDeclaration();
const Command& integrateDeclaration();

}  // namespace lumora::cli
