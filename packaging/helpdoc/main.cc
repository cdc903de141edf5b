// `lumora_helpdoc`: runs the built `lumora` for `--version`, `--help` and each command's
// `--help`, and writes lumora(1) and the bash and zsh completions from what it prints.
//
// lumora_helpdoc LUMORA CLI_DOC MAN_EXTRA BASH_TEMPLATE ZSH_TEMPLATE OUT_DIR
// writes OUT_DIR/lumora.1, OUT_DIR/lumora.bash and OUT_DIR/_lumora.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Documents.h"

namespace {

using lumora::helpdoc::CommandHelp;
using lumora::helpdoc::ProgramHelp;

// What `argv` prints on standard output, its standard input empty; throws unless it exits 0.
std::string output(const std::vector<std::string>& argv) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) throw std::runtime_error("pipe failed");
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    const int devNull = open("/dev/null", O_RDONLY);
    dup2(devNull, STDIN_FILENO);
    dup2(pipeFds[1], STDOUT_FILENO);
    close(pipeFds[0]);
    close(pipeFds[1]);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  close(pipeFds[1]);
  std::string out;
  char buffer[4096];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof buffer)) != 0;) {
    if (n > 0)
      out.append(buffer, static_cast<size_t>(n));
    else if (errno != EINTR)
      break;
  }
  close(pipeFds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  std::string call;
  for (const std::string& a : argv) call += (call.empty() ? "" : " ") + a;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw std::runtime_error("'" + call + "' did not exit with status 0");
  return out;
}

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

ProgramHelp programHelp(const std::string& lumora) {
  ProgramHelp program;
  const std::string version = output({lumora, "--version"});  // "lumora 0.1.0\n"
  program.version = version.substr(version.find(' ') + 1);
  while (!program.version.empty() && program.version.back() == '\n') program.version.pop_back();
  program.help = lumora::helpdoc::parseHelp(output({lumora, "--help"}));
  for (const auto& entry : lumora::helpdoc::commandList(program.help)) {
    CommandHelp command{entry.term, entry.text,
                        lumora::helpdoc::parseHelp(output({lumora, entry.term, "--help"}))};
    if (!command.help.usage.starts_with("lumora " + command.name))
      throw std::runtime_error("'lumora " + command.name + " --help' prints no usage line");
    program.commands.push_back(std::move(command));
  }
  if (program.commands.empty()) throw std::runtime_error("'lumora --help' lists no commands");
  return program;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    std::fprintf(stderr,
                 "Usage: lumora_helpdoc LUMORA CLI_DOC MAN_EXTRA BASH_TEMPLATE ZSH_TEMPLATE "
                 "OUT_DIR\n");
    return 2;
  }
  try {
    const ProgramHelp program = programHelp(argv[1]);
    const std::filesystem::path out = argv[6];
    std::filesystem::create_directories(out);
    writeFile(out / "lumora.1",
              lumora::helpdoc::manPage(program, readFile(argv[2]), readFile(argv[3])));
    writeFile(out / "lumora.bash",
              lumora::helpdoc::fillTemplate(readFile(argv[4]),
                                            lumora::helpdoc::bashCompletionData(program)));
    writeFile(out / "_lumora", lumora::helpdoc::fillTemplate(
                                   readFile(argv[5]), lumora::helpdoc::zshCompletionData(program)));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "lumora_helpdoc: %s\n", e.what());
    return 1;
  }
  return 0;
}
