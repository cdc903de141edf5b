// The `lumora` binary run in a home of its own: settings and store in a temporary directory,
// no debug output unless a test asks for it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TempDir.h"

namespace lumora::testing {

class LumoraHome {
 public:
  // `environment`: variables set for this run beside the home's own.
  ProcessResult run(std::vector<std::string> args,
                    std::map<std::string, std::string> environment = {},
                    std::string input = {}) const {
    args.insert(args.begin(), LUMORA_BINARY);
    return start(std::move(args), std::move(environment), std::move(input));
  }
  // The command with its standard output redirected by the shell: "> /dev/full", ">&-".
  ProcessResult runRedirected(std::vector<std::string> args, const std::string& redirection) const {
    args.insert(args.begin(), {"/bin/sh", "-c", "exec \"$0\" \"$@\" " + redirection, LUMORA_BINARY});
    return start(std::move(args), {}, {});
  }
  // Where the command keeps its store: $XDG_DATA_HOME/lumora.
  std::filesystem::path dataDirectory() const { return home_.path() / "data" / "lumora"; }
  const std::filesystem::path& path() const { return home_.path(); }

 private:
  ProcessResult start(std::vector<std::string> args, std::map<std::string, std::string> environment,
                      std::string input) const {
    ProcessOptions options;
    options.input = std::move(input);
    options.setEnv = std::move(environment);
    options.setEnv["XDG_CONFIG_HOME"] = (home_.path() / "config").string();
    options.setEnv["XDG_DATA_HOME"] = (home_.path() / "data").string();
    options.unsetEnv = {"LUMORA_DEBUG", "OPENAI_API_KEY"};
    return runProcess(args, options);
  }

  TempDir home_;
};

}  // namespace lumora::testing
