// The manual page and the shell completions of `lumora`, made from its help texts.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "HelpText.h"

namespace lumora::helpdoc {

struct CommandHelp {
  std::string name;
  std::string summary;  // from the command list of `lumora --help`
  HelpText help;        // `lumora NAME --help`
};

struct ProgramHelp {
  std::string version;  // "0.1.0", from `lumora --version`
  HelpText help;        // `lumora --help`
  std::vector<CommandHelp> commands;
};

// lumora(1) in man(7) markup. `cliDoc` is docs/cli.md, whose "Files and environment" section
// becomes ENVIRONMENT; `extraSections` is man(7) markup put at the end as it is.
std::string manPage(const ProgramHelp& program, std::string_view cliDoc,
                    std::string_view extraSections);

// The data a completion template works from: the commands, the positional words of each form
// of each command and each command's options, as shell variable assignments.
std::string bashCompletionData(const ProgramHelp& program);
std::string zshCompletionData(const ProgramHelp& program);

// `templateText` with its line "@LUMORA_COMPLETION_DATA@" replaced by `data`; throws
// std::runtime_error when there is no such line.
std::string fillTemplate(std::string_view templateText, std::string_view data);

}  // namespace lumora::helpdoc
