// The reader of a command's arguments. A command declares its options and operands once
// (CommandLine.h): the same declarations read the arguments here, lay out --help, and make
// the manual page and the shell completions, so none of them can say what the others do not.
//
// The commands grew up with dialects of their own (whether "--" ends the options, whether
// "--name=VALUE" is taken, where --help counts, how a mistake is worded), which scripts and
// mail-client recipes now rely on; Rules holds each of those choices, so that every command
// keeps reading its arguments exactly as it always has.
#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace lumora::cli {

using Args = std::vector<std::string>;

// An option: a flag ("--dry-run") or one that takes a value ("--model NAME").
struct Option {
  std::string_view name;
  // What the value stands for in --help ("NAME"); empty for a flag, unless `choices` is set.
  std::string_view value = {};
  // The only values taken, when they are a fixed set.
  std::vector<std::string_view> choices = {};
  // What a missing value is said to be: "a model name" for "--model needs a model name".
  std::string_view needs = {};
  // False when an empty value counts as none.
  bool takesEmpty = true;
  // The description in --help's list, its lines as printed; empty when the command's text
  // speaks of the option itself.
  std::string_view help = {};

  bool takesValue() const { return !value.empty() || !choices.empty(); }
  // "--model NAME", "--read quoted|message", "--dry-run": the option as --help names it.
  std::string term() const;
  // "--model needs a model name", "--read takes quoted or message".
  std::string valueMistake() const;
};

// The words of a command that are neither options nor their values.
struct Operands {
  std::string_view name = {};  // "MESSAGE"
  size_t least = 0;
  size_t most = std::numeric_limits<size_t>::max();
  std::string_view tooFew = {};   // "FILE is missing: the draft to open"
  std::string_view tooMany = {};  // "only one MESSAGE can be given"
};

// Where --help (and -h) asks for the help rather than being an argument.
enum class HelpAt {
  anywhere,  // any word among the options
  first,     // the first word, whatever follows
  alone,     // the only word
  nowhere,
};

// Which words are options; the others are operands.
enum class OptionWords {
  dash,        // a word of two or more characters that starts with '-' ("-" alone is one)
  doubleDash,  // a word of three or more characters that starts with "--"
  none,        // no word: every word is an operand
};

struct Mistake {
  enum class Kind { unknownOption, missingValue, badValue, tooFewOperands, tooManyOperands };
  Kind kind = Kind::unknownOption;
  std::string word;                // the argument at fault: for a value, the option as typed
  const Option* option = nullptr;  // for missingValue and badValue
};

struct Rules {
  Operands operands = {};
  HelpAt help = HelpAt::anywhere;
  bool shortHelp = true;  // -h as well as --help
  OptionWords optionWords = OptionWords::dash;
  bool endMark = false;        // "--" ends the options; the words after it are operands
  bool attachedValues = true;  // "--name=VALUE" as well as "--name VALUE"
  // When set, every mistake is said in these words rather than in its own.
  std::function<std::string(const Mistake&)> saying = {};
};

// What a command line says. A value given twice is the last one given.
class Parsed {
 public:
  bool helpAsked = false;
  std::optional<Mistake> mistake;
  std::vector<std::string> operands;

  // Whether the option was given; throws std::logic_error for a name that was not declared.
  bool has(std::string_view name) const;
  std::optional<std::string> value(std::string_view name) const;

 private:
  friend Parsed parseArguments(const Args&, const std::vector<Option>&, const Rules&);
  std::vector<std::string_view> declared_;
  std::vector<std::pair<std::string_view, std::string>> given_;
};

// Reads `args` by `options` and `rules`. The words are read in order, and the first mistake
// or request for help ends the reading; too few operands is found at the end.
Parsed parseArguments(const Args& args, const std::vector<Option>& options, const Rules& rules);

// The words of a mistake: the rules' own, else the mistake's.
std::string mistakeText(const Mistake& mistake, const Rules& rules);

// One operand, no more and no fewer; `complaint` says so.
Operands exactlyOne(std::string_view name, std::string_view complaint);

// The rules of a command whose every word is an operand (a subcommand and its words, or values
// that may begin with '-'), --help aside where `help` says.
Rules operandsOnly(Operands operands, HelpAt help);

// The rules of the options that follow a subcommand and its words: no more operands, no
// --help, each value a word of its own, every mistake said by `saying`.
Rules trailingOptions(std::function<std::string(const Mistake&)> saying);

// The declared options named in `names`, in that order; throws std::logic_error for a name
// that is not among them.
std::vector<Option> pick(const std::vector<Option>& options,
                         std::initializer_list<std::string_view> names);

}  // namespace lumora::cli
