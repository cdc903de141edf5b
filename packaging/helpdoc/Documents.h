// The manual page and the shell completions of `lumora`, made from its commands' declarations:
// their help texts, and the options they read.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "HelpText.h"

namespace lumora::helpdoc {

struct CommandHelp {
  std::string name;
  std::string summary;  // its line in the command list of `lumora --help`
  HelpText help;        // `lumora NAME --help`
  // The options the command reads, --help aside; an option whose values are a fixed set has
  // them as its value, separated by '|' ("quoted|message").
  std::vector<Option> options;
};

struct ProgramHelp {
  std::string version;  // "0.1.0"
  HelpText help;        // `lumora --help`
  std::vector<CommandHelp> commands;
};

// lumora(1) in man(7) markup. `cliDoc` is docs/cli.md, whose "Files and environment" section
// becomes ENVIRONMENT; `extraSections` is man(7) markup put at the end as it is.
std::string manPage(const ProgramHelp& program, std::string_view cliDoc,
                    std::string_view extraSections);

// Empty when the options that the command's help names are the ones it reads; else what
// differs, in words, so that the build stops before a help text that promises an option the
// command does not take, or hides one it does.
std::string undeclaredOptions(const CommandHelp& command);

// The data a completion template works from: the commands, the positional words of each form
// of each command and each command's options, as shell variable assignments.
std::string bashCompletionData(const ProgramHelp& program);
std::string zshCompletionData(const ProgramHelp& program);

// `templateText` with its line "@LUMORA_COMPLETION_DATA@" replaced by `data`; throws
// std::runtime_error when there is no such line.
std::string fillTemplate(std::string_view templateText, std::string_view data);

}  // namespace lumora::helpdoc
