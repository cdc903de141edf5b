// `lumora_helpdoc`: writes lumora(1) and the bash and zsh completions from the declarations of
// lumora's commands (apps/lumora/CommandLine.h): the same help texts that `--help` prints and
// the same options that the commands read.
//
// lumora_helpdoc CLI_DOC MAN_EXTRA BASH_TEMPLATE ZSH_TEMPLATE OUT_DIR
// writes OUT_DIR/lumora.1, OUT_DIR/lumora.bash and OUT_DIR/_lumora.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "CommandLine.h"
#include "Documents.h"

namespace {

using lumora::helpdoc::CommandHelp;
using lumora::helpdoc::ProgramHelp;

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path.string());
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}

// The options as the completions offer them: a value's placeholder, or the values it takes.
std::vector<lumora::helpdoc::Option> options(const lumora::cli::Command& command) {
  std::vector<lumora::helpdoc::Option> out;
  for (const lumora::cli::Option& option : command.options) {
    std::string value(option.value);
    for (size_t i = 0; i < option.choices.size(); ++i)
      value += (i == 0 ? "" : "|") + std::string(option.choices[i]);
    out.push_back({std::string(option.name), value});
  }
  return out;
}

ProgramHelp programHelp() {
  ProgramHelp program;
  program.version = LUMORA_VERSION;
  program.help = lumora::helpdoc::parseHelp(lumora::cli::programHelp());
  std::string problems;
  for (const lumora::cli::Command* declared : lumora::cli::commands()) {
    CommandHelp command{std::string(declared->name), std::string(declared->summary),
                        lumora::helpdoc::parseHelp(lumora::cli::helpText(*declared)),
                        options(*declared)};
    problems += lumora::helpdoc::undeclaredOptions(command);
    program.commands.push_back(std::move(command));
  }
  if (!problems.empty()) throw std::runtime_error("\n" + problems);
  return program;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr,
                 "Usage: lumora_helpdoc CLI_DOC MAN_EXTRA BASH_TEMPLATE ZSH_TEMPLATE OUT_DIR\n");
    return 2;
  }
  try {
    const ProgramHelp program = programHelp();
    const std::filesystem::path out = argv[5];
    std::filesystem::create_directories(out);
    writeFile(out / "lumora.1",
              lumora::helpdoc::manPage(program, readFile(argv[1]), readFile(argv[2])));
    writeFile(out / "lumora.bash",
              lumora::helpdoc::fillTemplate(readFile(argv[3]),
                                            lumora::helpdoc::bashCompletionData(program)));
    writeFile(out / "_lumora", lumora::helpdoc::fillTemplate(
                                   readFile(argv[4]), lumora::helpdoc::zshCompletionData(program)));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumora_helpdoc: %s\n", e.what());
    return 1;
  }
  return 0;
}
