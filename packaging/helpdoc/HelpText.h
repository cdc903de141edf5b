// The `--help` texts of `lumora` and its commands, read back into their parts so that the
// manual page and the shell completions are made from them and cannot say anything else.
//
// A help text is laid out for a terminal: a "Usage:" line (continued on indented lines), then
// paragraphs, and two-column lists whose entries start two spaces in and whose descriptions
// line up in one column. A list that does not line up (a key table with its own layout) is
// kept as it is printed.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lumora::helpdoc {

struct Entry {
  std::string term;  // "--model NAME"; a term without description stands alone
  std::string text;  // the description, its lines joined by single spaces
};

struct Block {
  enum class Kind {
    paragraph,  // `text`: lines joined by single spaces
    list,       // `entries`
    verbatim,   // `lines`, exactly as printed
  };
  Kind kind = Kind::paragraph;
  std::string text;
  std::vector<Entry> entries;
  std::vector<std::string> lines;
};

struct HelpText {
  std::string usage;  // what follows "Usage: ", continuation lines joined by single spaces
  std::vector<Block> blocks;
};

HelpText parseHelp(std::string_view text);

// An option of a command and the placeholder of its value ("" when it takes none).
struct Option {
  std::string name;
  std::string value;
  bool operator==(const Option&) const = default;
};

// What a command accepts, as its help text says.
struct CommandSyntax {
  std::string name;
  // The positional words of each form of the command, after the command's name: {"get",
  // "KEY"} for `settings get KEY`, {"MESSAGE"} for `reply [MESSAGE]`. An upper-case word
  // stands for a value; one ending in "..." may repeat. Forms without positional words are
  // left out.
  std::vector<std::vector<std::string>> forms;
  // Every option the help names, in order of first mention, --help included.
  std::vector<Option> options;
};

// `help` is the parsed help of `lumora NAME`.
CommandSyntax syntaxOf(const std::string& name, const HelpText& help);

// The entries of the command list in `lumora --help`: each command and its summary.
std::vector<Entry> commandList(const HelpText& mainHelp);

// True for a word that stands for a value: MESSAGE, KEY, ADDRESS...
bool isPlaceholder(std::string_view word);

// A short description for a completion menu: `text` up to its first ';', ',', ':' or '('.
std::string shortDescription(std::string_view text);

}  // namespace lumora::helpdoc
