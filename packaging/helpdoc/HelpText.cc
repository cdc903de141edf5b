#include "HelpText.h"

#include <algorithm>

namespace lumora::helpdoc {
namespace {

std::string trimmed(std::string_view s) {
  const size_t first = s.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return std::string(s.substr(first, s.find_last_not_of(' ') - first + 1));
}

size_t leadingSpaces(std::string_view line) {
  const size_t first = line.find_first_not_of(' ');
  return first == std::string_view::npos ? line.size() : first;
}

void appendWords(std::string& to, std::string_view line) {
  const std::string words = trimmed(line);
  if (words.empty()) return;
  if (!to.empty()) to += ' ';
  to += words;
}

// "Exit status: ...", "Input page:": a line that opens a paragraph of its own even when no
// empty line comes before it.
bool opensParagraph(const std::string& line) {
  const auto lower = [](char c) { return c >= 'a' && c <= 'z'; };
  if (line.empty() || line[0] < 'A' || line[0] > 'Z') return false;
  size_t i = 1;
  while (i < line.size() && lower(line[i])) ++i;
  // Up to two more lowercase words, then the colon, then a space or the end.
  for (int words = 0; words < 2 && i + 1 < line.size() && line[i] == ' ' && lower(line[i + 1]);
       ++words) {
    ++i;
    while (i < line.size() && lower(line[i])) ++i;
  }
  return i < line.size() && line[i] == ':' && (i + 1 == line.size() || line[i + 1] == ' ');
}

// The indented lines of one run, as a list when every entry's description starts in one
// column and every continuation line is indented to it; otherwise kept as printed.
Block listOrVerbatim(const std::vector<std::string>& run) {
  Block verbatim;
  verbatim.kind = Block::Kind::verbatim;
  verbatim.lines = run;
  // The first gap of two or more spaces after the term, and the column the description
  // starts in.
  auto split = [](const std::string& line) -> std::pair<size_t, size_t> {
    const size_t gap = line.find("  ", 2);
    if (gap == std::string::npos) return {std::string::npos, std::string::npos};
    return {gap, line.find_first_not_of(' ', gap)};
  };
  size_t column = std::string::npos;
  for (const std::string& line : run) {
    if (leadingSpaces(line) == 2 && split(line).second != std::string::npos) {
      column = split(line).second;
      break;
    }
  }
  if (column == std::string::npos) return verbatim;  // nothing has a description

  Block list;
  list.kind = Block::Kind::list;
  for (const std::string& line : run) {
    const size_t indent = leadingSpaces(line);
    if (indent == 2) {
      const auto [gap, start] = split(line);
      if (gap == std::string::npos) {
        list.entries.push_back({trimmed(line), ""});
      } else if (start == column) {
        list.entries.push_back({trimmed(line.substr(0, gap)), trimmed(line.substr(start))});
      } else {
        return verbatim;
      }
    } else if (indent == column && !list.entries.empty()) {
      appendWords(list.entries.back().text, line);
    } else {
      return verbatim;
    }
  }
  return list;
}

// Splits `s` at each of `separators` outside square brackets; empty pieces are dropped.
std::vector<std::string> splitOutsideBrackets(std::string_view s, std::string_view separators) {
  std::vector<std::string> pieces;
  std::string piece;
  int depth = 0;
  for (char c : s) {
    if (c == '[') ++depth;
    if (c == ']' && depth > 0) --depth;
    if (depth == 0 && separators.find(c) != std::string_view::npos) {
      if (!trimmed(piece).empty()) pieces.push_back(trimmed(piece));
      piece.clear();
    } else {
      piece += c;
    }
  }
  if (!trimmed(piece).empty()) pieces.push_back(trimmed(piece));
  return pieces;
}

void addOption(std::vector<Option>& options, const Option& option) {
  auto known = std::find_if(options.begin(), options.end(),
                            [&](const Option& o) { return o.name == option.name; });
  if (known == options.end())
    options.push_back(option);
  else if (known->value.empty())
    known->value = option.value;
}

// Options named in running text: "--title TEXT", "--debug".
void scanOptions(const std::string& text, std::vector<Option>& options) {
  const auto word = [](char c) {
    return c == '-' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
  };
  const auto upper = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'; };
  for (size_t at = text.find("--"); at != std::string::npos; at = text.find("--", at + 2)) {
    if (at > 0 && word(text[at - 1])) continue;
    size_t end = at + 2;
    if (end >= text.size() || text[end] < 'a' || text[end] > 'z') continue;
    while (end < text.size() && ((text[end] >= 'a' && text[end] <= 'z') ||
                                 (text[end] >= '0' && text[end] <= '9') || text[end] == '-'))
      ++end;
    Option option{text.substr(at, end - at), {}};
    // An argument in capitals right after one space, as a whole word: "--title TEXT".
    if (end + 1 < text.size() && text[end] == ' ' && text[end + 1] >= 'A' && text[end + 1] <= 'Z') {
      size_t stop = end + 1;
      while (stop < text.size() && upper(text[stop])) ++stop;
      if (stop == text.size() || !word(text[stop]) || text[stop] == '-')
        option.value = text.substr(end + 1, stop - end - 1);
    }
    addOption(options, option);
    at = end - 2;
  }
}

}  // namespace

HelpText parseHelp(std::string_view text) {
  std::vector<std::string> lines;
  for (size_t pos = 0; pos < text.size();) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    lines.emplace_back(text.substr(pos, end - pos));
    pos = end + 1;
  }

  HelpText help;
  size_t i = 0;
  constexpr std::string_view kUsage = "Usage: ";
  if (!lines.empty() && lines[0].starts_with(kUsage)) {
    help.usage = trimmed(std::string_view(lines[0]).substr(kUsage.size()));
    for (i = 1; i < lines.size() && leadingSpaces(lines[i]) > 0 && !trimmed(lines[i]).empty(); ++i)
      appendWords(help.usage, lines[i]);
  }

  bool paragraphOpen = false;
  while (i < lines.size()) {
    const std::string& line = lines[i];
    if (trimmed(line).empty()) {
      paragraphOpen = false;
      ++i;
    } else if (line[0] == ' ') {
      std::vector<std::string> run;
      for (; i < lines.size() && !trimmed(lines[i]).empty() && lines[i][0] == ' '; ++i)
        run.push_back(lines[i]);
      help.blocks.push_back(listOrVerbatim(run));
      paragraphOpen = false;
    } else {
      if (!paragraphOpen || opensParagraph(line)) help.blocks.push_back({});
      appendWords(help.blocks.back().text, line);
      paragraphOpen = true;
      ++i;
    }
  }
  return help;
}

bool isPlaceholder(std::string_view word) {
  if (word.ends_with("...")) word.remove_suffix(3);
  if (word.empty() || word[0] < 'A' || word[0] > 'Z') return false;
  return std::all_of(word.begin(), word.end(), [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  });
}

CommandSyntax syntaxOf(const std::string& name, const HelpText& help) {
  CommandSyntax syntax;
  const std::string prefix = "lumora " + name;
  std::string_view usage = help.usage;
  if (usage.starts_with(prefix)) usage.remove_prefix(prefix.size());

  for (const std::string& form : splitOutsideBrackets(usage, "|")) {
    std::vector<std::string> words;
    const std::vector<std::string> tokens = splitOutsideBrackets(form, " ");
    for (size_t t = 0; t < tokens.size(); ++t) {
      std::string token = tokens[t];
      if (token.size() > 1 && token.front() == '[' && token.back() == ']')
        token = token.substr(1, token.size() - 2);
      const std::vector<std::string> parts = splitOutsideBrackets(token, " ");
      if (parts.empty()) continue;
      if (parts[0].starts_with("--")) {
        Option option{parts[0], parts.size() > 1 && isPlaceholder(parts[1]) ? parts[1] : ""};
        // "--region REGION": the value as a token of its own.
        if (parts.size() == 1 && t + 1 < tokens.size() && isPlaceholder(tokens[t + 1]))
          option.value = tokens[++t];
        addOption(syntax.options, option);
      } else {
        words.insert(words.end(), parts.begin(), parts.end());
      }
    }
    if (!words.empty()) syntax.forms.push_back(words);
  }

  for (const Block& block : help.blocks) {
    scanOptions(block.text, syntax.options);
    for (const Entry& entry : block.entries) {
      scanOptions(entry.term, syntax.options);
      scanOptions(entry.text, syntax.options);
    }
    for (const std::string& line : block.lines) scanOptions(line, syntax.options);
  }
  addOption(syntax.options, {"--help", ""});
  return syntax;
}

std::vector<Entry> commandList(const HelpText& mainHelp) {
  for (size_t b = 0; b + 1 < mainHelp.blocks.size(); ++b) {
    if (mainHelp.blocks[b].kind == Block::Kind::paragraph &&
        mainHelp.blocks[b].text == "Commands:" && mainHelp.blocks[b + 1].kind == Block::Kind::list)
      return mainHelp.blocks[b + 1].entries;
  }
  return {};
}

std::string shortDescription(std::string_view text) {
  const size_t end = text.find_first_of(";,:(");
  std::string s = trimmed(text.substr(0, end));
  while (!s.empty() && (s.back() == '.' || s.back() == ' ')) s.pop_back();
  return s;
}

}  // namespace lumora::helpdoc
