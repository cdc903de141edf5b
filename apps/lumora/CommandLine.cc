#include "CommandLine.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "Commands.h"

namespace lumora::cli {
namespace {

// A text as printed: a raw string's first line end, which lets its lines stand in the
// declaration as they are printed, is not part of it.
std::string_view printed(std::string_view text) {
  if (text.starts_with('\n')) text.remove_prefix(1);
  return text;
}

// `text` with each line after the first indented by `indent` spaces.
std::string indented(std::string_view text, size_t indent) {
  std::string out;
  for (size_t start = 0; start <= text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    if (start > 0) out += "\n" + std::string(indent, ' ');
    out += text.substr(start, end - start);
    start = end + 1;
  }
  return out;
}

const Option& declared(const Command& command, std::string_view name) {
  for (const Option& option : command.options)
    if (option.name == name) return option;
  throw std::logic_error("lumora " + std::string(command.name) + " --help lists " +
                         std::string(name) + ", which it does not declare");
}

// A list entry: the term, then its description in `column`, on the term's line when the term
// leaves room for it and on the next line when it does not.
std::string entryLines(const Command& command, const HelpEntry& entry, size_t column) {
  std::string term(entry.term);
  std::string_view text = entry.text;
  if (entry.term.starts_with("--") && entry.text.empty()) {
    const Option& option = declared(command, entry.term);
    term = option.term();
    text = option.help;
  }
  std::string out = "  " + term;
  if (text.empty()) return out + "\n";
  if (out.size() + 2 <= column)
    out += std::string(column - out.size(), ' ');
  else
    out += "\n" + std::string(column, ' ');
  return out + indented(text, column) + "\n";
}

}  // namespace

const std::vector<const Command*>& commands() {
  static const std::vector<const Command*> all = {
      &replyDeclaration(),           &panelDeclaration(),         &composeDeclaration(),
      &settingsDeclaration(),        &conversationsDeclaration(), &teamsDeclaration(),
      &modelsDeclaration(),          &routeDeclaration(),         &voicesDeclaration(),
      &checkRecipientsDeclaration(), &headersDeclaration(),       &colourDeclaration(),
      &sendmailDeclaration(),        &integrateDeclaration(),
  };
  return all;
}

std::string programHelp() {
  std::string out =
      "Usage: lumora COMMAND [ARGS...]\n"
      "\n"
      "Lumora writes replies to e-mail with the language model of your choice.\n"
      "\n"
      "Commands:\n";
  size_t width = 0;
  for (const Command* c : commands()) width = std::max(width, c->name.size());
  for (const Command* c : commands()) {
    out += "  " + std::string(c->name) + std::string(width - c->name.size() + 2, ' ') +
           std::string(c->summary) + "\n";
  }
  return out +
         "\n"
         "Run 'lumora COMMAND --help' for a command's options.\n"
         "Options: --help, --version\n";
}

std::string helpText(const Command& command) {
  std::string out = "Usage: " + std::string(printed(command.usage));
  for (const HelpPart& part : command.help) {
    out += "\n";
    out += printed(part.text);
    for (const HelpEntry& entry : part.entries)
      out += entryLines(command, entry, static_cast<size_t>(part.column));
  }
  return out;
}

std::optional<int> readArguments(const Args& args, const Command& command, const Rules& rules,
                                 const std::vector<Option>& options, Parsed& parsed) {
  parsed = parseArguments(args, options, rules);
  if (parsed.mistake) return usageError(mistakeText(*parsed.mistake, rules), command);
  if (parsed.helpAsked) {
    std::fputs(helpText(command).c_str(), stdout);
    return kExitOk;
  }
  return std::nullopt;
}

std::optional<int> readArguments(const Args& args, const Command& command, Parsed& parsed) {
  return readArguments(args, command, command.rules, command.options, parsed);
}

int usageError(const std::string& message, const Command& command) {
  std::fprintf(stderr, "lumora: %s\n\n%s", message.c_str(), helpText(command).c_str());
  return kExitUsage;
}

}  // namespace lumora::cli
