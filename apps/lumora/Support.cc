#include "Support.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "Commands.h"
#include "lumora/mailcontent/MailParser.h"
#include "lumora/store/ConversationStore.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/UserSettings.h"

extern char** environ;

namespace lumora::cli {

StoreContext* sharedStoreContext() { return &PersistentContainer::shared().viewContext(); }

int usageError(const std::string& message, const char* help) {
  std::fprintf(stderr, "lumora: %s\n\n%s", message.c_str(), help);
  return kExitUsage;
}

std::optional<std::string> readMessage(const std::string& path) {
  if (path == "-") {
    std::ostringstream buffer;
    buffer << std::cin.rdbuf();
    return buffer.str();
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "lumora: cannot read %s: %s\n", path.c_str(), std::strerror(errno));
    return std::nullopt;
  }
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

int runWithInput(const std::string& program, const std::vector<std::string>& args,
                 const std::string& input, bool quiet) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[0], STDIN_FILENO);
  if (quiet) {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  }
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[0]);
  if (rc != 0) {
    close(pipeFds[1]);
    errno = rc;
    return -1;
  }
  std::signal(SIGPIPE, SIG_IGN);
  for (size_t done = 0; done < input.size();) {
    const ssize_t n = write(pipeFds[1], input.data() + done, input.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  close(pipeFds[1]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

MailExtensionView::Dependencies panelDependencies(MainExecutor& executor,
                                                  const ComposeSession& session,
                                                  HttpTransport& transport,
                                                  Pasteboard& pasteboard) {
  // One source for the process: the store it reads is opened once, on first use.
  static StoreConversations conversations(sharedStoreContext);
  return MailExtensionView::Dependencies{
      .executor = executor,
      .session = session,
      .ownDefaults = ownDefaults(),
      .environment = ChatEnvironment{.sharedDefaults = sharedDefaults(),
                                     .transport = transport,
                                     .store = sharedStoreContext},
      .pasteboard = pasteboard,
      .conversations = conversations,
      .defaultModel = [] { return UserSettings::shared().defaultModel.get(); },
      .quotedTexts = [](const std::string& message) { return MailParser::quotedTexts(message); },
      .overrides = {},
      .onServiceChosen = {},
  };
}

}  // namespace lumora::cli
