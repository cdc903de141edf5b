// The reader of the command line and the declarations it reads by: how each form of an option
// and its value is taken, how a mistake is found and worded, how --help is laid out from the
// declarations, and that every command's help names exactly the options it reads.
#include "Options.h"

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

#include "CommandLine.h"
#include "Documents.h"
#include "lumora/panel/MailExtensionView.h"

namespace lumora::cli {
namespace {

const std::vector<Option> kOptions = {
    {.name = "--model", .value = "NAME", .needs = "a model name"},
    {.name = "--region", .value = "REGION"},
    {.name = "--read", .choices = {"quoted", "message"}},
    {.name = "--tone", .choices = {"warm", "plain", "curt"}},
    {.name = "--editor", .value = "CMD", .needs = "a command", .takesEmpty = false},
    {.name = "--dry-run"},
};

using Given = std::vector<std::pair<std::string, std::string>>;  // option, value ("" a flag)

// What `parsed` holds of kOptions, in their order.
Given given(const Parsed& parsed) {
  Given out;
  for (const Option& option : kOptions)
    if (const auto value = parsed.value(option.name)) out.emplace_back(option.name, *value);
  return out;
}

TEST(ParseArguments, TakesValuesInEachForm) {
  struct Case {
    Args args;
    Given given;
    std::vector<std::string> operands;
  };
  const Case cases[] = {
      {{"--model", "gpt-4o"}, {{"--model", "gpt-4o"}}, {}},
      {{"--model=gpt-4o"}, {{"--model", "gpt-4o"}}, {}},
      {{"--model=a=b"}, {{"--model", "a=b"}}, {}},
      {{"--model="}, {{"--model", ""}}, {}},
      // A value of its own is the next word, whatever it looks like.
      {{"--model", "--dry-run"}, {{"--model", "--dry-run"}}, {}},
      {{"--model", "--help"}, {{"--model", "--help"}}, {}},
      {{"--model", "-"}, {{"--model", "-"}}, {}},
      // Given twice, the last one holds.
      {{"--model", "a", "--model=b"}, {{"--model", "b"}}, {}},
      {{"--dry-run", "--dry-run"}, {{"--dry-run", ""}}, {}},
      {{"m.eml", "--read", "message", "--dry-run"},
       {{"--read", "message"}, {"--dry-run", ""}},
       {"m.eml"}},
      // "-" alone is standard input, not an option.
      {{"-"}, {}, {"-"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const Parsed parsed = parseArguments(c.args, kOptions, {});
    ASSERT_FALSE(parsed.mistake) << mistakeText(*parsed.mistake, {});
    EXPECT_FALSE(parsed.helpAsked);
    EXPECT_EQ(given(parsed), c.given);
    EXPECT_EQ(parsed.operands, c.operands);
  }
}

TEST(ParseArguments, FindsMistakesInOrderAndWordsThem) {
  using K = Mistake::Kind;
  struct Case {
    Args args;
    Rules rules;
    K kind;
    std::string word;
    std::string text;
  };
  const Operands one{.name = "FILE",
                     .least = 1,
                     .most = 1,
                     .tooFew = "FILE is missing",
                     .tooMany = "only one FILE can be given"};
  const Case cases[] = {
      {{"--frob"}, {}, K::unknownOption, "--frob", "unknown option '--frob'"},
      {{"-x"}, {}, K::unknownOption, "-x", "unknown option '-x'"},
      {{"--"}, {}, K::unknownOption, "--", "unknown option '--'"},
      // A name is matched whole, not by its start, and in its own letter case.
      {{"--mod", "x"}, {}, K::unknownOption, "--mod", "unknown option '--mod'"},
      {{"--modelx"}, {}, K::unknownOption, "--modelx", "unknown option '--modelx'"},
      {{"--Model", "x"}, {}, K::unknownOption, "--Model", "unknown option '--Model'"},
      // A flag takes no value, and a value is attached only where the rules say so.
      {{"--dry-run=1"}, {}, K::unknownOption, "--dry-run=1", "unknown option '--dry-run=1'"},
      {{"--model=x"},
       {.attachedValues = false},
       K::unknownOption,
       "--model=x",
       "unknown option '--model=x'"},
      {{"--model"}, {}, K::missingValue, "--model", "--model needs a model name"},
      {{"--region"}, {}, K::missingValue, "--region", "--region needs REGION"},
      {{"--read"}, {}, K::missingValue, "--read", "--read takes quoted or message"},
      {{"--read", "all"}, {}, K::badValue, "--read", "--read takes quoted or message"},
      {{"--read="}, {}, K::badValue, "--read=", "--read takes quoted or message"},
      {{"--read", "Quoted"}, {}, K::badValue, "--read", "--read takes quoted or message"},
      {{"--tone", "loud"}, {}, K::badValue, "--tone", "--tone takes warm, plain or curt"},
      {{"--editor", ""}, {}, K::badValue, "--editor", "--editor needs a command"},
      {{"--editor="}, {}, K::badValue, "--editor=", "--editor needs a command"},
      {{}, {.operands = one}, K::tooFewOperands, "", "FILE is missing"},
      {{"--dry-run"}, {.operands = one}, K::tooFewOperands, "", "FILE is missing"},
      {{"a", "b"}, {.operands = one}, K::tooManyOperands, "b", "only one FILE can be given"},
      // The first mistake is the one said, even with --help after it.
      {{"a", "b", "--help"},
       {.operands = one},
       K::tooManyOperands,
       "b",
       "only one FILE can be given"},
      {{"--frob", "--model"}, {}, K::unknownOption, "--frob", "unknown option '--frob'"},
      {{"--read", "all", "--frob"}, {}, K::badValue, "--read", "--read takes quoted or message"},
      // Rules that word every mistake alike.
      {{"x"},
       {.operands = {.most = 0},
        .saying = [](const Mistake& m) { return "unknown argument " + m.word; }},
       K::tooManyOperands,
       "x",
       "unknown argument x"},
      {{"--region"},
       {.saying = [](const Mistake& m) { return "unknown argument " + m.word; }},
       K::missingValue,
       "--region",
       "unknown argument --region"},
      {{"--help"},
       {.help = HelpAt::nowhere, .saying = [](const Mistake&) { return "add takes --model"; }},
       K::unknownOption,
       "--help",
       "add takes --model"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const Parsed parsed = parseArguments(c.args, kOptions, c.rules);
    ASSERT_TRUE(parsed.mistake);
    EXPECT_FALSE(parsed.helpAsked);
    EXPECT_EQ(parsed.mistake->kind, c.kind);
    EXPECT_EQ(parsed.mistake->word, c.word);
    EXPECT_EQ(mistakeText(*parsed.mistake, c.rules), c.text);
  }
}

TEST(ParseArguments, WhichWordsAreOptionsAndWhereHelpCounts) {
  struct Case {
    const char* name;
    Args args;
    Rules rules;
    bool help;
    std::vector<std::string> operands;  // when neither help nor a mistake
  };
  const Rules settings{.optionWords = OptionWords::doubleDash, .endMark = true};
  const Rules words{.help = HelpAt::first, .optionWords = OptionWords::none};
  const Rules alone{.help = HelpAt::alone, .optionWords = OptionWords::none};
  const Case cases[] = {
      {"help anywhere", {"m.eml", "--help"}, {}, true, {}},
      {"-h anywhere", {"--dry-run", "-h"}, {}, true, {}},
      {"-h only where the rules take it",
       {"-h"},
       {.shortHelp = false, .optionWords = OptionWords::none},
       false,
       {"-h"}},
      {"-- ends the options", {"--", "--frob", "-"}, settings, false, {"--frob", "-"}},
      {"-- once: a second is a word", {"--", "--", "a"}, settings, false, {"--", "a"}},
      {"no help after --", {"--", "--help"}, settings, false, {"--help"}},
      {"help before --", {"--help", "--"}, settings, true, {}},
      {"one dash is a word when options need two", {"-x", "list"}, settings, false, {"-x", "list"}},
      {"help as the first word", {"-h", "x"}, words, true, {}},
      {"help later is a word", {"x", "--help"}, words, false, {"x", "--help"}},
      {"every word a word", {"--frob", "-"}, words, false, {"--frob", "-"}},
      {"help alone", {"--help"}, alone, true, {}},
      {"help among others is a word", {"--help", "x"}, alone, false, {"--help", "x"}},
      {"--help=1 is not help", {"--help=1"}, alone, false, {"--help=1"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Parsed parsed = parseArguments(c.args, kOptions, c.rules);
    ASSERT_FALSE(parsed.mistake) << mistakeText(*parsed.mistake, c.rules);
    EXPECT_EQ(parsed.helpAsked, c.help);
    if (!c.help) {
      EXPECT_EQ(parsed.operands, c.operands);
    }
  }
}

TEST(ParseArguments, AnOptionNotDeclaredCannotBeAskedFor) {
  const Parsed parsed = parseArguments({"--model", "x"}, kOptions, {});
  EXPECT_THROW(parsed.value("--modle"), std::logic_error);
  EXPECT_THROW(pick(kOptions, {"--model", "--modle"}), std::logic_error);
  EXPECT_EQ(pick(kOptions, {"--dry-run", "--model"}).front().name, "--dry-run");
}

// ---- --help, laid out from the declarations ----

TEST(HelpText, ListsOptionsFromTheirDeclarations) {
  const Command command{
      .name = "demo",
      .usage = "lumora demo [FILE] [--read quoted|message]\n",
      .help = {{.text = "Does a thing.\n"},
               {.column = 16,
                .entries = {{"FILE", "the file,\nread whole"},
                            {"--read"},
                            {"--long-option-name"},
                            {"list ID, rm ID"}}},
               {.text = "Exit status: 0.\n"}},
      .options = {{.name = "--read", .choices = {"quoted", "message"}, .help = "what is read"},
                  {.name = "--long-option-name",
                   .value = "VALUE",
                   .help = "a term too long\nfor its column"}},
  };
  EXPECT_EQ(helpText(command),
            "Usage: lumora demo [FILE] [--read quoted|message]\n"
            "\n"
            "Does a thing.\n"
            "\n"
            "  FILE          the file,\n"
            "                read whole\n"
            "  --read quoted|message\n"
            "                what is read\n"
            "  --long-option-name VALUE\n"
            "                a term too long\n"
            "                for its column\n"
            "  list ID, rm ID\n"
            "\n"
            "Exit status: 0.\n");

  Command undeclared = command;
  undeclared.options.pop_back();
  EXPECT_THROW(helpText(undeclared), std::logic_error);
}

// The completions and the manual page are made from the declarations, and the build stops when
// a help text and the options a command reads part ways.
TEST(HelpText, NamesExactlyTheOptionsACommandReads) {
  helpdoc::CommandHelp command{"demo",
                               "",
                               helpdoc::parseHelp("Usage: lumora demo [--cloud]\n\n"
                                                  "With --region REGION.\n"),
                               {{"--cloud", ""}, {"--region", "REGION"}}};
  EXPECT_EQ(helpdoc::undeclaredOptions(command), "");
  command.options.pop_back();
  EXPECT_EQ(helpdoc::undeclaredOptions(command),
            "'lumora demo --help' names --region, which it does not read\n");
  command.options.push_back({"--debug", ""});
  EXPECT_EQ(helpdoc::undeclaredOptions(command),
            "'lumora demo --help' names --region, which it does not read\n"
            "'lumora demo' reads --debug, which its --help does not name\n");
}

TEST(CommandDeclarations, AgreeWithTheirHelpAndWithThePanel) {
  std::set<std::string_view> names;
  for (const Command* command : commands()) {
    SCOPED_TRACE(std::string(command->name));
    EXPECT_TRUE(names.insert(command->name).second) << "declared twice";
    EXPECT_NE(command->run, nullptr);
    const std::string help = helpText(*command);
    EXPECT_TRUE(help.starts_with("Usage: lumora " + std::string(command->name))) << help;
    EXPECT_TRUE(help.ends_with("\n"));
    std::vector<helpdoc::Option> declared;
    for (const Option& option : command->options)
      declared.push_back({std::string(option.name), ""});
    EXPECT_EQ(helpdoc::undeclaredOptions(
                  {std::string(command->name), "", helpdoc::parseHelp(help), declared}),
              "");
    for (const Option& option : command->options) {
      SCOPED_TRACE(std::string(option.name));
      EXPECT_TRUE(option.name.starts_with("--"));
      // What the model reads is the panel's to know: every reading offered is one it has.
      if (option.name == "--read") {
        ASSERT_FALSE(option.choices.empty());
        for (std::string_view choice : option.choices)
          EXPECT_TRUE(MailExtensionView::readingNamed(choice)) << choice;
      }
    }
  }
  EXPECT_GE(names.size(), 14u);
}

}  // namespace
}  // namespace lumora::cli
