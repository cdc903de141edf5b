#include "Support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Commands.h"
#include "lumora/panel/MailExtensionView.h"
#include "lumora/platform/Text.h"
#include "lumora/store/UserSettings.h"

namespace lumora::cli {

Operands optionalMessage() {
  return {.name = "MESSAGE", .most = 1, .tooMany = "only one MESSAGE can be given"};
}

std::vector<std::string_view> readingNames() {
  using Reading = MailExtensionView::Reading;
  return {MailExtensionView::readingName(Reading::quoted),
          MailExtensionView::readingName(Reading::message)};
}

bool runsLumora(std::string_view command) {
  const size_t start = command.find_first_not_of(" \t");
  if (start == std::string_view::npos) return true;
  std::string_view program = command.substr(start);
  program = program.substr(0, program.find_first_of(" \t"));
  const size_t slash = program.rfind('/');
  if (slash != std::string_view::npos) program.remove_prefix(slash + 1);
  return program == "lumora";
}

std::optional<std::string> readMessage(const std::string& path) {
  const size_t limit = UserSettings::shared().maxMessageBytes();
  const bool standardInput = path == "-";
  const int fd = standardInput ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const auto failed = [&] {
    std::fprintf(stderr, "lumora: cannot read %s: %s\n",
                 standardInput ? "standard input" : path.c_str(), std::strerror(errno));
    if (!standardInput && fd >= 0) close(fd);
    return std::nullopt;
  };
  if (fd < 0) return failed();
  // A file says its size, so it is read into one piece of that size; a pipe's grows by halves.
  struct stat info {};
  size_t capacity = 65536;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode))
    capacity = static_cast<size_t>(std::min<uintmax_t>(info.st_size, limit)) + 1;
  std::string bytes(std::min(capacity, limit + 1), '\0');
  size_t size = 0;
  while (size <= limit) {
    if (size == bytes.size()) bytes.resize(std::min(size + size / 2, limit + 1));
    const ssize_t got = read(fd, bytes.data() + size, bytes.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return failed();
    if (got == 0) break;
    size += static_cast<size_t>(got);
  }
  if (!standardInput) close(fd);
  if (size > limit) {
    std::fprintf(stderr,
                 "lumora: the message is larger than %s, the limit of the setting "
                 "\"maxMessageMiB\" (lumora settings set maxMessageMiB N)\n",
                 text::sizeText(limit).c_str());
    return std::nullopt;
  }
  bytes.resize(size);  // a pipe's slack stays: copying it away would take twice the memory
  return bytes;
}

}  // namespace lumora::cli
