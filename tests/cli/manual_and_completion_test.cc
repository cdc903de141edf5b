// lumora(1) and the bash and zsh completions, which the build makes from the commands'
// declarations, the same that print --help: how a help text is read, and that what the built
// page and completions offer is what the built command's --help says, so that neither can fall
// behind a new command or option.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "Documents.h"
#include "HelpText.h"
#include "support/Fixtures.h"
#include "support/LumoraHome.h"

namespace lumora {
namespace {

using helpdoc::Block;
using Words = std::set<std::string>;

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// ---- reading help texts ----

TEST(HelpText, ListsParagraphsAndKeyTables) {
  struct Case {
    const char* name;
    std::string help;
    std::vector<Block::Kind> kinds;
    std::vector<helpdoc::Entry> entries;  // of the first list, if any
  };
  using K = Block::Kind;
  const Case cases[] = {
      {"aligned list, a description continued on the next line",
       "Usage: x\n\n  --model NAME  the model\n                for this run\n  --debug       "
       "debug\n",
       {K::list},
       {{"--model NAME", "the model for this run"}, {"--debug", "debug"}}},
      {"a term standing alone in a list",
       "Usage: x\n\n  list    one a line\n  archive ID, pin ID, rm ID\n",
       {K::list},
       {{"list", "one a line"}, {"archive ID, pin ID, rm ID", ""}}},
      {"a key table whose columns do not line up stays as printed",
       "Usage: x\n\nKeys:\n  Tab, Shift-Tab   next field\n  Enter           a new line\n",
       {K::paragraph, K::verbatim},
       {}},
      {"a continuation line that is not in the description column",
       "Usage: x\n\n  get KEY  the value\n     of KEY\n",
       {K::verbatim},
       {}},
      {"indented lines without descriptions stay as printed",
       "Usage: x\n\n  lumora reply --dry-run message.eml\n",
       {K::verbatim},
       {}},
      {"'Exit status:' opens a paragraph of its own; other lines join the one before",
       "Usage: x\n\nWrites a reply and\nstreams it.\nExit status: 0 done.\n",
       {K::paragraph, K::paragraph},
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const helpdoc::HelpText help = helpdoc::parseHelp(c.help);
    std::vector<K> kinds;
    for (const Block& b : help.blocks) kinds.push_back(b.kind);
    EXPECT_EQ(kinds, c.kinds);
    for (const Block& b : help.blocks) {
      if (b.kind == K::verbatim) {
        std::string printed;
        for (const std::string& line : b.lines) printed += line + "\n";
        EXPECT_NE(c.help.find(printed), std::string::npos) << "not as printed: " << printed;
      }
      if (b.kind != K::list) continue;
      ASSERT_EQ(b.entries.size(), c.entries.size());
      for (size_t i = 0; i < c.entries.size(); ++i) {
        EXPECT_EQ(b.entries[i].term, c.entries[i].term);
        EXPECT_EQ(b.entries[i].text, c.entries[i].text);
      }
    }
  }
  const helpdoc::HelpText joined =
      helpdoc::parseHelp("Writes a reply and\nstreams it.\nExit status: 0 done.\n");
  ASSERT_EQ(joined.blocks.size(), 2u);
  EXPECT_EQ(joined.blocks[0].text, "Writes a reply and streams it.");
  EXPECT_EQ(helpdoc::parseHelp("Usage: lumora c a | b |\n           c D\n\nText.\n").usage,
            "lumora c a | b | c D");
}

TEST(HelpText, FormsAndOptionsOfACommand) {
  struct Case {
    const char* name;
    std::string command;
    std::string help;
    std::vector<std::vector<std::string>> forms;
    std::vector<helpdoc::Option> options;
  };
  const Case cases[] = {
      {"subcommands",
       "settings",
       "Usage: lumora settings list | get KEY | set KEY VALUE\n",
       {{"list"}, {"get", "KEY"}, {"set", "KEY", "VALUE"}},
       {{"--help", ""}}},
      {"alternatives without spaces",
       "integrate",
       "Usage: lumora integrate neomutt|aerc\n",
       {{"neomutt"}, {"aerc"}},
       {{"--help", ""}}},
      {"an option in brackets inside a form",
       "teams",
       "Usage: lumora teams list | add DOMAIN TOKEN [--name NAME] | rm ID\n",
       {{"list"}, {"add", "DOMAIN", "TOKEN"}, {"rm", "ID"}},
       {{"--name", "NAME"}, {"--help", ""}}},
      {"an option whose value is a word of its own, no positional words",
       "voices",
       "Usage: lumora voices --region REGION [--cloud]\n",
       {},
       {{"--region", "REGION"}, {"--cloud", ""}, {"--help", ""}}},
      {"options named only in the text, the value taken from any mention",
       "conversations",
       "Usage: lumora conversations add | edit ID\n\n"
       "  add   from --title TEXT and --model NAME\n"
       "  edit  changes --title and --model\n"
       "Put -- before a VALUE. Also LUMORA_DEBUG=1 or --debug.\n",
       {{"add"}, {"edit", "ID"}},
       {{"--title", "TEXT"}, {"--model", "NAME"}, {"--debug", ""}, {"--help", ""}}},
      {"an optional positional word",
       "reply",
       "Usage: lumora reply [MESSAGE] [--model NAME]\n",
       {{"MESSAGE"}},
       {{"--model", "NAME"}, {"--help", ""}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const helpdoc::CommandSyntax syntax = helpdoc::syntaxOf(c.command, helpdoc::parseHelp(c.help));
    EXPECT_EQ(syntax.forms, c.forms);
    EXPECT_EQ(syntax.options, c.options);
  }
  EXPECT_TRUE(helpdoc::isPlaceholder("ADDRESS..."));
  EXPECT_FALSE(helpdoc::isPlaceholder("neomutt"));
  EXPECT_FALSE(helpdoc::isPlaceholder("--model"));
}

// ---- the built page and completions against the built command ----

struct Command {
  std::string name;
  std::string help;
};

// The commands `lumora --help` lists, each with its --help.
std::vector<Command> builtCommands(const testing::LumoraHome& home) {
  const auto main = home.run({"--help"});
  EXPECT_EQ(main.status, 0);
  std::vector<Command> commands;
  bool inList = false;
  for (const std::string& line : lines(main.out)) {
    if (line == "Commands:")
      inList = true;
    else if (line.empty())
      inList = false;
    else if (inList && line.starts_with("  ")) {
      const std::string name = line.substr(2, line.find(' ', 2) - 2);
      const auto help = home.run({name, "--help"});
      EXPECT_EQ(help.status, 0) << name;
      EXPECT_TRUE(help.out.starts_with("Usage: lumora " + name)) << name << ": " << help.out;
      commands.push_back({name, help.out});
    }
  }
  EXPECT_GE(commands.size(), 10u);
  return commands;
}

// Every option a help text names, --help included.
Words optionsIn(const std::string& help) {
  Words options{"--help"};
  static const std::regex kOption("(^|[^-A-Za-z0-9])(--[a-z][a-z0-9-]*)");
  for (auto it = std::sregex_iterator(help.begin(), help.end(), kOption);
       it != std::sregex_iterator(); ++it)
    options.insert((*it)[2].str());
  return options;
}

// `text` with each run of white space made one space.
std::string squeezed(const std::string& text) {
  std::string out;
  for (char c : text) {
    const bool space = c == ' ' || c == '\n' || c == '\t';
    if (space && (out.empty() || out.back() == ' ')) continue;
    out += space ? ' ' : c;
  }
  return out;
}

// Where `program` is on PATH; empty when it is not installed.
std::string installed(const char* program) {
  const auto r = testing::runProcess({"/bin/sh", "-c", "command -v \"$0\"", program});
  return r.status == 0 ? r.out.substr(0, r.out.find('\n')) : "";
}

TEST(ManualPage, IsValidAndSaysEverythingTheHelpTextsSay) {
  if (installed("groff").empty())
    GTEST_SKIP() << "groff is not installed (scripts/deps.sh installs it)";
  const testing::LumoraHome home;
  const std::string page = testing::readFile(LUMORA_MAN_PAGE);

  const auto lint = testing::runProcess(
      {"/bin/sh", "-c", "groff -man -Tutf8 -z -ww \"$0\" 2>&1", LUMORA_MAN_PAGE});
  EXPECT_EQ(lint.out, "") << "groff's warnings on the page";
  // One long line a paragraph, without hyphenation or adjusting, so that the texts compare.
  const auto rendered = testing::runProcess(
      {"/bin/sh", "-c", "groff -man -Tutf8 -P-cbou -rLL=2000n -rHY=0 -dAD=l \"$0\"",
       LUMORA_MAN_PAGE});
  ASSERT_EQ(rendered.status, 0);
  const std::string text = squeezed(rendered.out);

  std::vector<Command> commands = builtCommands(home);
  commands.push_back({"", home.run({"--help"}).out});
  for (const Command& command : commands) {
    SCOPED_TRACE(command.name);
    if (!command.name.empty()) {
      EXPECT_NE(
          page.find("\n.SS " + std::regex_replace(command.name, std::regex("-"), "\\-") + "\n"),
          std::string::npos);
    }
    // Each paragraph of the help, and each line of a list or table, as words in order.
    std::string paragraph;
    auto expectShown = [&](const std::string& words) {
      if (!words.empty()) {
        EXPECT_NE(text.find(words), std::string::npos) << "not in the page: " << words;
      }
    };
    for (std::string line : lines(command.help)) {
      if (line.starts_with("Usage: ")) line.erase(0, 7);  // the page's synopsis has no label
      if (line.empty() || line.starts_with(" ") ||
          std::regex_search(line, std::regex("^[A-Z][a-z]*( [a-z]+){0,2}:( |$)"))) {
        expectShown(squeezed(paragraph));
        paragraph.clear();
      }
      if (line.starts_with(" ")) {
        // A list's term and the start of its description; a table line as it is.
        const std::string words = squeezed(line.substr(line.find_first_not_of(' ')));
        expectShown(words.substr(0, words.find(' ', words.find(' ') + 1)));
      } else {
        paragraph += " " + line;
      }
    }
    expectShown(squeezed(paragraph));
    for (const std::string& option : optionsIn(command.help))
      EXPECT_NE(text.find(option), std::string::npos) << option;
  }
  for (const char* section : {"NAME", "SYNOPSIS", "DESCRIPTION", "COMMANDS", "ENVIRONMENT", "FILES",
                              "EXIT STATUS", "SEE ALSO"})
    EXPECT_NE(page.find(std::string("\n.SH ") + section + "\n"), std::string::npos) << section;
  // Every variable of docs/cli.md's "Files and environment" table.
  const std::string cli =
      testing::readFile(std::filesystem::path(LUMORA_SOURCE_DIR) / "docs" / "cli.md");
  const std::string table = cli.substr(cli.find("\n## Files and environment\n"));
  int variables = 0;
  for (const std::string& row : lines(table.substr(0, table.find("\n## ", 1)))) {
    if (!row.starts_with("| `")) continue;
    const std::string variable = row.substr(3, row.find('`', 3) - 3);
    EXPECT_NE(text.find(variable), std::string::npos) << variable;
    ++variables;
  }
  EXPECT_GE(variables, 5);
}

// Runs a completion the way a shell does for `words` (the last one being completed) and
// returns what it offers. The command word is the built binary, so that the values the
// completion asks it for come from this build.
class Completion : public ::testing::Test {
 protected:
  Completion() {
    // File names are completed in a directory of their own: the command's settings and
    // store are made beside it.
    std::filesystem::create_directory(dir_ / "mail");
    std::ofstream(dir_ / "mail" / "meeting.eml") << "Subject: x\n\nHi\n";
    std::ofstream(dir_ / "mail" / "minutes.txt") << "";
  }

  Words bash(std::vector<std::string> words) const {
    return run({"/bin/bash", "--norc", "--noprofile", "-c",
                "cd \"$HOME/mail\" && source " + std::string(LUMORA_BASH_COMPLETION) +
                    " && COMP_WORDS=(\"$@\") && COMP_CWORD=$(($# - 1)) && _lumora && "
                    "printf '%s\\n' \"${COMPREPLY[@]}\"",
                "bash"},
               words);
  }

  // The completion functions that zsh's completion system would give are stand-ins that print
  // what they are asked to offer; zsh runs the file on first use with `words` and CURRENT set.
  Words zsh(std::vector<std::string> words) const {
    return run({installed("zsh"), "-f", "-c",
                "cd \"$HOME/mail\"\n"
                "compadd() { [[ $1 == -- ]] && shift; print -rl -- \"$@\" }\n"
                "_describe() { local name=${@[-1]}; print -rl -- ${${(P)name}%%:*} }\n"
                "_files() { print -r -- '(files)' }\n"
                "words=(\"$@\"); CURRENT=$#\n"
                "source " +
                    std::string(LUMORA_ZSH_COMPLETION),
                "zsh"},
               words);
  }

  Words run(std::vector<std::string> argv, std::vector<std::string> words) const {
    words.insert(words.begin(), LUMORA_BINARY);
    argv.insert(argv.end(), words.begin(), words.end());
    testing::ProcessOptions options;
    options.setEnv["HOME"] = dir_.path().string();
    options.setEnv["XDG_CONFIG_HOME"] = (dir_ / "config").string();
    options.setEnv["XDG_DATA_HOME"] = (dir_ / "data").string();
    const auto r = testing::runProcess(argv, options);
    EXPECT_EQ(r.err, "");
    Words offered;
    for (const std::string& line : lines(r.out))
      if (!line.empty()) offered.insert(line);
    return offered;
  }

  testing::TempDir dir_;
};

Words modelIds(const testing::LumoraHome& home) {
  Words ids;
  for (const std::string& line : lines(home.run({"models"}).out))
    ids.insert(line.substr(0, line.find('\t')));
  return ids;
}

Words settingsKeys(const testing::LumoraHome& home) {
  Words keys;
  for (const std::string& line : lines(home.run({"settings", "list"}).out))
    keys.insert(line.substr(0, line.find(" = ")));
  return keys;
}

TEST_F(Completion, BothShellsOfferEveryCommandAndEachCommandsOptions) {
  if (installed("zsh").empty())
    GTEST_SKIP() << "zsh is not installed (scripts/deps.sh installs it)";
  const testing::LumoraHome home;
  const std::vector<Command> commands = builtCommands(home);
  Words names{"--help", "--version"};
  for (const Command& c : commands) names.insert(c.name);
  EXPECT_EQ(bash({""}), names);
  EXPECT_EQ(zsh({""}), names);
  for (const Command& c : commands) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(bash({c.name, "-"}), optionsIn(c.help));
    EXPECT_EQ(zsh({c.name, "-"}), optionsIn(c.help));
  }
}

TEST_F(Completion, BothShellsOfferSubcommandsAndValues) {
  if (installed("zsh").empty())
    GTEST_SKIP() << "zsh is not installed (scripts/deps.sh installs it)";
  const testing::LumoraHome home;
  const Words models = modelIds(home);
  const Words keys = settingsKeys(home);
  ASSERT_TRUE(models.contains("gpt-4o"));
  ASSERT_TRUE(keys.contains("apiKey"));
  struct Case {
    std::vector<std::string> words;
    Words bash;  // zsh: the same, with "(files)" for the file names
  };
  const Words files{"meeting.eml", "minutes.txt"};
  const Case cases[] = {
      {{"settings", ""}, {"list", "get", "set", "unset", "path"}},
      {{"settings", "get", ""}, keys},
      {{"settings", "set", ""}, keys},
      {{"settings", "set", "apiKey", ""}, {"-"}},  // VALUE: anything, or - for standard input
      {{"settings", "list", ""}, {}},
      {{"conversations", ""},
       {"list", "show", "add", "edit", "archive", "unarchive", "pin", "unpin", "rm"}},
      {{"teams", ""}, {"list", "add", "rm"}},
      {{"teams", "add", "example.org", "token", "--name", ""}, {}},
      {{"integrate", ""}, {"neomutt", "aerc", "thunderbird"}},
      {{"integrate", "aerc", ""}, {}},
      {{"reply", ""}, files},
      {{"reply", "--model", ""}, models},
      {{"reply", "--model", "gpt-4o", "--dry-run", ""}, files},
      {{"reply", "--instruction", ""}, {}},
      {{"reply", "meeting.eml", ""}, {}},
      {{"panel", "--no-mouse", ""}, files},
      {{"route", ""}, models},
      {{"conversations", "add", "--model", ""}, models},
      {{"check-recipients", "ann@example.org", ""}, {}},
      {{"models", ""}, {}},
  };
  for (const Case& c : cases) {
    std::string line;
    for (const std::string& w : c.words) line += " " + w;
    SCOPED_TRACE("lumora" + line);
    EXPECT_EQ(bash(c.words), c.bash);
    Words zshWords = c.bash;
    if (c.bash == files) zshWords = {"(files)"};
    EXPECT_EQ(zsh(c.words), zshWords);
  }
}

// An option whose values are a fixed set offers them, and what follows its value is read as
// the next word of the command, not as the option's value.
TEST_F(Completion, BothShellsOfferTheValuesAnOptionTakes) {
  if (installed("zsh").empty())
    GTEST_SKIP() << "zsh is not installed (scripts/deps.sh installs it)";
  const Words readings{"quoted", "message"};
  const Words files{"meeting.eml", "minutes.txt"};
  const struct {
    std::vector<std::string> words;
    Words bash;  // zsh: the same, with "(files)" for the file names
  } cases[] = {
      {{"reply", "--read", ""}, readings},
      {{"panel", "--read", ""}, readings},
      {{"compose", "--read", ""}, readings},
      {{"reply", "--read", "message", ""}, files},
      {{"panel", "--no-mouse", "--read", "quoted", ""}, files},
  };
  for (const auto& c : cases) {
    std::string line;
    for (const std::string& w : c.words) line += " " + w;
    SCOPED_TRACE("lumora" + line);
    EXPECT_EQ(bash(c.words), c.bash);
    EXPECT_EQ(zsh(c.words), c.bash == files ? Words{"(files)"} : c.bash);
  }
  EXPECT_EQ(bash({"reply", "--read", "m"}), Words{"message"});
}

TEST_F(Completion, BashCompletesThePartOfAWordTyped) {
  const struct {
    std::vector<std::string> words;
    Words offered;
  } cases[] = {
      {{"se"}, {"settings", "sendmail"}},
      {{"--v"}, {"--version"}},
      {{"settings", "u"}, {"unset"}},
      {{"reply", "--d"}, {"--dry-run", "--debug"}},
      {{"reply", "me"}, {"meeting.eml"}},
      {{"reply", "--model", "gpt-4o-m"}, {"gpt-4o-mini"}},
      {{"settings", "get", "apiK"}, {"apiKey"}},
      {{"nosuchcommand", ""}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words.front() + " " + c.words.back());
    EXPECT_EQ(bash(c.words), c.offered);
  }
}

}  // namespace
}  // namespace lumora
