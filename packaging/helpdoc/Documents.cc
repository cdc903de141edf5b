#include "Documents.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <stdexcept>

namespace lumora::helpdoc {
namespace {

// ---- man(7) ----

// Text safe in man(7) markup: backslashes and hyphens escaped, so that options print as the
// ASCII hyphens a reader types, and other characters than ASCII ('…') named by code point,
// as troff reads its input byte by byte.
std::string escaped(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte == '\\') {
      out += "\\e";
    } else if (byte == '-') {
      out += "\\-";
    } else if (byte < 0x80) {
      out += text[i];
    } else {
      const int length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
      char32_t code = length == 1 ? 0xFFFD : byte & (0x7F >> length);
      for (int k = 1; k < length && i + 1 < text.size(); ++k)
        code = (code << 6) | (static_cast<unsigned char>(text[++i]) & 0x3F);
      char name[16];
      std::snprintf(name, sizeof name, "\\[u%04X]", static_cast<unsigned>(code));
      out += name;
    }
  }
  return out;
}

// A line of text that is never taken for a request.
std::string textLine(std::string markup) {
  if (!markup.empty() && (markup[0] == '.' || markup[0] == '\'')) markup.insert(0, "\\&");
  return markup;
}

std::string roff(std::string_view text) { return textLine(escaped(text)); }

bool isWordChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
}

// A synopsis or a list term with its words set apart: what is typed as it is in bold, a
// placeholder in italics, punctuation ([ ] | , ...) in roman.
std::string syntax(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    size_t end = i;
    while (end < text.size() && isWordChar(text[end])) ++end;
    if (end == i) {
      out += escaped(text.substr(i, 1));
      ++i;
      continue;
    }
    const std::string_view word = text.substr(i, end - i);
    out += (isPlaceholder(word) ? "\\fI" : "\\fB") + escaped(word) + "\\fR";
    i = end;
  }
  return textLine(out);
}

// Writes man(7) markup, starting a paragraph only where one is needed: not right after a
// heading, and not between a "Keys:" line and the table it introduces.
class ManWriter {
 public:
  // Comments, .TH, .br: markup that leaves the paragraph as it is.
  void request(std::string_view line) { add(line); }
  void heading(std::string_view macro, std::string_view title) {
    add(std::string(macro) + " " + std::string(title));
    paragraphNeeded_ = false;
    last_ = Last::heading;
  }
  void paragraph(const std::string& markup) {
    if (paragraphNeeded_) add(".PP");
    add(markup);
    paragraphNeeded_ = true;
    last_ = Last::paragraph;
  }
  void entry(const std::string& termMarkup, const std::string& textMarkup) {
    add(".TP");
    add(termMarkup);
    if (!textMarkup.empty()) add(textMarkup);
    paragraphNeeded_ = true;
    last_ = Last::list;
  }
  void verbatim(const std::vector<std::string>& lines) {
    if (paragraphNeeded_ && last_ != Last::paragraph) add(".PP");
    add(".nf");
    for (const std::string& line : lines) add(escaped(line));
    add(".fi");
    paragraphNeeded_ = true;
    last_ = Last::verbatim;
  }
  void block(const Block& block) {
    switch (block.kind) {
      case Block::Kind::paragraph:
        paragraph(roff(block.text));
        break;
      case Block::Kind::list:
        for (const Entry& entry : block.entries) this->entry(syntax(entry.term), roff(entry.text));
        break;
      case Block::Kind::verbatim:
        verbatim(block.lines);
        break;
    }
  }
  std::string take() { return std::move(out_); }

 private:
  enum class Last { heading, paragraph, list, verbatim };
  void add(std::string_view line) {
    out_ += line;
    out_ += '\n';
  }
  std::string out_;
  bool paragraphNeeded_ = false;
  Last last_ = Last::heading;
};

// Markdown's inline code as bold; the rest as text.
std::string markdownInline(std::string_view text) {
  std::string out;
  bool code = false;
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == '`') {
      const std::string piece = escaped(text.substr(start, i - start));
      out += code ? "\\fB" + piece + "\\fR" : piece;
      if (i < text.size()) code = !code;
      start = i + 1;
    }
  }
  return out;
}

std::string trimmed(std::string_view s) {
  const size_t first = s.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return std::string(s.substr(first, s.find_last_not_of(" \t") - first + 1));
}

// The cells of a Markdown table row, split at the bars outside inline code.
std::vector<std::string> tableCells(std::string_view row) {
  std::vector<std::string> cells;
  bool code = false;
  std::string cell;
  for (char c : row.substr(1)) {
    if (c == '`') code = !code;
    if (c == '|' && !code) {
      cells.push_back(trimmed(cell));
      cell.clear();
    } else {
      cell += c;
    }
  }
  return cells;
}

// ENVIRONMENT from the "Files and environment" section of docs/cli.md: its table as a list,
// its paragraphs as they are.
void environment(ManWriter& man, std::string_view cliDoc) {
  constexpr std::string_view kSection = "\n## Files and environment\n";
  const size_t start = cliDoc.find(kSection);
  if (start == std::string_view::npos)
    throw std::runtime_error("docs/cli.md has no section \"Files and environment\"");
  std::string_view section = cliDoc.substr(start + kSection.size());
  section = section.substr(0, section.find("\n## "));

  man.heading(".SH", "ENVIRONMENT");
  bool headerRow = true;
  std::string paragraph;
  auto endParagraph = [&] {
    if (paragraph.empty()) return;
    man.paragraph(textLine(markdownInline(paragraph)));
    paragraph.clear();
  };
  for (size_t pos = 0; pos < section.size();) {
    size_t end = section.find('\n', pos);
    if (end == std::string_view::npos) end = section.size();
    const std::string line = trimmed(section.substr(pos, end - pos));
    pos = end + 1;
    if (line.starts_with("|")) {
      endParagraph();
      const std::vector<std::string> cells = tableCells(line);
      const bool separator = line.find_first_not_of("|-: ") == std::string::npos;
      if (!headerRow && !separator && cells.size() >= 2)
        man.entry(textLine(markdownInline(cells[0])), textLine(markdownInline(cells[1])));
      headerRow = false;
    } else if (line.empty()) {
      endParagraph();
      headerRow = true;
    } else {
      if (!paragraph.empty()) paragraph += ' ';
      paragraph += line;
    }
  }
  endParagraph();
}

// "Lumora writes replies ... of your choice." as "lumora \- writes replies ...".
std::string nameLine(const HelpText& help) {
  std::string description;
  for (const Block& block : help.blocks) {
    if (block.kind == Block::Kind::paragraph) {
      description = block.text;
      break;
    }
  }
  constexpr std::string_view kProgram = "Lumora ";
  if (description.starts_with(kProgram)) description.erase(0, kProgram.size());
  if (description.ends_with(".")) description.pop_back();
  return "lumora \\- " + roff(description);
}

// ---- completions ----

// `s` in single quotes for a shell.
std::string quoted(std::string_view s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// A command's forms, from its usage, and the options it reads, from its declaration.
std::vector<std::pair<std::string, CommandSyntax>> syntaxes(const ProgramHelp& program) {
  std::vector<std::pair<std::string, CommandSyntax>> out;
  for (const CommandHelp& command : program.commands) {
    CommandSyntax syntax = syntaxOf(command.name, command.help);
    syntax.options = command.options;
    syntax.options.push_back({"--help", ""});
    out.emplace_back(command.name, std::move(syntax));
  }
  return out;
}

// "--model=NAME --read=quoted|message --dry-run ...": an option that takes a value names it
// after '=', or the values it takes.
std::string optionWords(const CommandSyntax& syntax) {
  std::string words;
  for (const Option& option : syntax.options) {
    if (!words.empty()) words += ' ';
    words += option.name + (option.value.empty() ? "" : "=" + option.value);
  }
  return words;
}

std::string formLine(const std::string& command, const std::vector<std::string>& form) {
  std::string line = command;
  for (const std::string& word : form) line += " " + word;
  return line;
}

// The short descriptions of a command's words: each list entry of its help describes the
// first word of its term ("list", "--model").
std::map<std::string, std::string> wordDescriptions(const CommandHelp& command) {
  std::map<std::string, std::string> out;
  for (const Block& block : command.help.blocks) {
    for (const Entry& entry : block.entries) {
      const std::string word = entry.term.substr(0, entry.term.find_first_of(" ,"));
      if (!entry.text.empty() && !out.contains(word)) out[word] = shortDescription(entry.text);
    }
  }
  return out;
}

}  // namespace

std::string undeclaredOptions(const CommandHelp& command) {
  std::vector<std::string> named, declared{"--help"};
  for (const Option& option : syntaxOf(command.name, command.help).options)
    named.push_back(option.name);
  for (const Option& option : command.options) declared.push_back(option.name);
  std::string out;
  for (const std::string& name : named) {
    if (std::find(declared.begin(), declared.end(), name) == declared.end())
      out += "'lumora " + command.name + " --help' names " + name + ", which it does not read\n";
  }
  for (const std::string& name : declared) {
    if (std::find(named.begin(), named.end(), name) == named.end())
      out += "'lumora " + command.name + "' reads " + name + ", which its --help does not name\n";
  }
  return out;
}

std::string manPage(const ProgramHelp& program, std::string_view cliDoc,
                    std::string_view extraSections) {
  ManWriter man;
  man.request(".\\\" Made from the command declarations of lumora " + program.version +
              " (apps/lumora) and docs/cli.md when lumora was built:");
  man.request(".\\\" change those, not this file.");
  man.request(".TH LUMORA 1 \"\" \"lumora " + program.version + "\" \"User Commands\"");
  man.heading(".SH", "NAME");
  man.paragraph(nameLine(program.help));
  man.heading(".SH", "SYNOPSIS");
  man.paragraph(syntax(program.help.usage));
  for (const CommandHelp& command : program.commands) {
    man.request(".br");
    man.request(syntax(command.help.usage));
  }

  man.heading(".SH", "DESCRIPTION");
  for (const Block& block : program.help.blocks) man.block(block);

  man.heading(".SH", "COMMANDS");
  for (const CommandHelp& command : program.commands) {
    man.heading(".SS", roff(command.name));
    man.paragraph(syntax(command.help.usage));
    for (const Block& block : command.help.blocks) man.block(block);
  }

  environment(man, cliDoc);
  std::string page = man.take();
  page += extraSections;
  if (!page.ends_with('\n')) page += '\n';
  return page;
}

std::string bashCompletionData(const ProgramHelp& program) {
  std::string commands, forms, options;
  for (const auto& [name, syntax] : syntaxes(program)) {
    commands += (commands.empty() ? "" : " ") + name;
    for (const auto& form : syntax.forms) forms += formLine(name, form) + "\n";
    options += name + " " + optionWords(syntax) + "\n";
  }
  return "_lumora_commands=" + quoted(commands) + "\n_lumora_forms=" + quoted(forms) +
         "\n_lumora_options=" + quoted(options) + "\n";
}

std::string zshCompletionData(const ProgramHelp& program) {
  std::string commands = "typeset -ga _lumora_commands=(\n";
  commands += "  --help\n  --version\n";
  std::string forms = "typeset -ga _lumora_forms=(\n";
  std::string options = "typeset -gA _lumora_options=(\n";
  std::string descriptions = "typeset -gA _lumora_descriptions=(\n";
  const auto all = syntaxes(program);
  for (size_t c = 0; c < all.size(); ++c) {
    const auto& [name, syntax] = all[c];
    commands += "  " + quoted(name + ":" + program.commands[c].summary) + "\n";
    for (const auto& form : syntax.forms) forms += "  " + quoted(formLine(name, form)) + "\n";
    options += "  " + name + " " + quoted(optionWords(syntax)) + "\n";
    for (const auto& [word, text] : wordDescriptions(program.commands[c]))
      descriptions += "  " + quoted(name + " " + word) + " " + quoted(text) + "\n";
  }
  return commands + ")\n" + forms + ")\n" + options + ")\n" + descriptions + ")\n";
}

std::string fillTemplate(std::string_view templateText, std::string_view data) {
  constexpr std::string_view kMark = "@LUMORA_COMPLETION_DATA@\n";
  const size_t at = templateText.find(kMark);
  if (at == std::string_view::npos || (at > 0 && templateText[at - 1] != '\n'))
    throw std::runtime_error("the completion template has no line @LUMORA_COMPLETION_DATA@");
  return std::string(templateText.substr(0, at)) + std::string(data) +
         std::string(templateText.substr(at + kMark.size()));
}

}  // namespace lumora::helpdoc
