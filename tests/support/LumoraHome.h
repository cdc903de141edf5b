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
                    std::map<std::string, std::string> environment = {}) const {
    args.insert(args.begin(), LUMORA_BINARY);
    ProcessOptions options;
    options.setEnv = std::move(environment);
    options.setEnv["XDG_CONFIG_HOME"] = (home_.path() / "config").string();
    options.setEnv["XDG_DATA_HOME"] = (home_.path() / "data").string();
    options.unsetEnv = {"LUMORA_DEBUG", "OPENAI_API_KEY"};
    return runProcess(args, options);
  }
  // Where the command keeps its store: $XDG_DATA_HOME/lumora.
  std::filesystem::path dataDirectory() const { return home_.path() / "data" / "lumora"; }
  const std::filesystem::path& path() const { return home_.path(); }

 private:
  TempDir home_;
};

}  // namespace lumora::testing
