#include "Options.h"

#include <algorithm>
#include <stdexcept>

namespace lumora::cli {

std::string Option::term() const {
  std::string out(name);
  if (!choices.empty()) {
    for (size_t i = 0; i < choices.size(); ++i)
      out += (i == 0 ? " " : "|") + std::string(choices[i]);
  } else if (!value.empty()) {
    out += " " + std::string(value);
  }
  return out;
}

std::string Option::valueMistake() const {
  if (choices.empty())
    return std::string(name) + " needs " + std::string(needs.empty() ? value : needs);
  std::string out = std::string(name) + " takes ";
  for (size_t i = 0; i < choices.size(); ++i) {
    if (i > 0) out += i + 1 == choices.size() ? " or " : ", ";
    out += choices[i];
  }
  return out;
}

bool Parsed::has(std::string_view name) const { return value(name).has_value(); }

std::optional<std::string> Parsed::value(std::string_view name) const {
  if (std::find(declared_.begin(), declared_.end(), name) == declared_.end())
    throw std::logic_error("no option " + std::string(name) + " was declared");
  for (auto it = given_.rbegin(); it != given_.rend(); ++it)
    if (it->first == name) return it->second;
  return std::nullopt;
}

namespace {

bool isHelp(std::string_view word, const Rules& rules) {
  return word == "--help" || (rules.shortHelp && word == "-h");
}

bool looksLikeOption(std::string_view word, OptionWords kind) {
  switch (kind) {
    case OptionWords::dash:
      return word.size() > 1 && word[0] == '-';
    case OptionWords::doubleDash:
      return word.size() > 2 && word.starts_with("--");
    case OptionWords::none:
      return false;
  }
  return false;
}

// The declared option that `word` names, with the value attached to it after '=' if any.
std::pair<const Option*, std::optional<std::string>> named(std::string_view word,
                                                           const std::vector<Option>& options,
                                                           const Rules& rules) {
  for (const Option& option : options) {
    if (word == option.name) return {&option, std::nullopt};
    if (option.takesValue() && rules.attachedValues && word.size() > option.name.size() &&
        word.starts_with(option.name) && word[option.name.size()] == '=')
      return {&option, std::string(word.substr(option.name.size() + 1))};
  }
  return {nullptr, std::nullopt};
}

bool acceptable(const Option& option, const std::string& value) {
  if (!option.takesEmpty && value.empty()) return false;
  return option.choices.empty() ||
         std::find(option.choices.begin(), option.choices.end(), value) != option.choices.end();
}

}  // namespace

Parsed parseArguments(const Args& args, const std::vector<Option>& options, const Rules& rules) {
  Parsed parsed;
  for (const Option& option : options) parsed.declared_.push_back(option.name);
  const auto fail = [&](Mistake::Kind kind, std::string word, const Option* option = nullptr) {
    parsed.mistake = Mistake{kind, std::move(word), option};
    return parsed;
  };
  if (!args.empty() && isHelp(args[0], rules) &&
      (rules.help == HelpAt::first || (rules.help == HelpAt::alone && args.size() == 1))) {
    parsed.helpAsked = true;
    return parsed;
  }
  bool optionsOpen = true;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (optionsOpen && rules.endMark && word == "--") {
      optionsOpen = false;
      continue;
    }
    if (optionsOpen && rules.help == HelpAt::anywhere && isHelp(word, rules)) {
      parsed.helpAsked = true;
      return parsed;
    }
    if (optionsOpen && looksLikeOption(word, rules.optionWords)) {
      const auto [option, attached] = named(word, options, rules);
      if (!option) return fail(Mistake::Kind::unknownOption, word);
      if (!option->takesValue()) {
        parsed.given_.emplace_back(option->name, "");
        continue;
      }
      // A value of its own is the next word, whatever it looks like.
      if (!attached && i + 1 >= args.size()) return fail(Mistake::Kind::missingValue, word, option);
      std::string value = attached ? *attached : args[++i];
      if (!acceptable(*option, value)) return fail(Mistake::Kind::badValue, word, option);
      parsed.given_.emplace_back(option->name, std::move(value));
      continue;
    }
    if (parsed.operands.size() == rules.operands.most)
      return fail(Mistake::Kind::tooManyOperands, word);
    parsed.operands.push_back(word);
  }
  if (parsed.operands.size() < rules.operands.least) return fail(Mistake::Kind::tooFewOperands, "");
  return parsed;
}

std::string mistakeText(const Mistake& mistake, const Rules& rules) {
  if (rules.saying) return rules.saying(mistake);
  switch (mistake.kind) {
    case Mistake::Kind::unknownOption:
      return "unknown option '" + mistake.word + "'";
    case Mistake::Kind::missingValue:
    case Mistake::Kind::badValue:
      return mistake.option->valueMistake();
    case Mistake::Kind::tooFewOperands:
      return std::string(rules.operands.tooFew);
    case Mistake::Kind::tooManyOperands:
      return std::string(rules.operands.tooMany);
  }
  return {};
}

Operands exactlyOne(std::string_view name, std::string_view complaint) {
  return {.name = name, .least = 1, .most = 1, .tooFew = complaint, .tooMany = complaint};
}

Rules operandsOnly(Operands operands, HelpAt help) {
  return {.operands = std::move(operands), .help = help, .optionWords = OptionWords::none};
}

Rules trailingOptions(std::function<std::string(const Mistake&)> saying) {
  return {.operands = {.most = 0},
          .help = HelpAt::nowhere,
          .attachedValues = false,
          .saying = std::move(saying)};
}

std::vector<Option> pick(const std::vector<Option>& options,
                         std::initializer_list<std::string_view> names) {
  std::vector<Option> out;
  for (std::string_view name : names) {
    const auto it = std::find_if(options.begin(), options.end(),
                                 [&](const Option& o) { return o.name == name; });
    if (it == options.end())
      throw std::logic_error("no option " + std::string(name) + " was declared");
    out.push_back(*it);
  }
  return out;
}

}  // namespace lumora::cli
