#include "lumora/store/Features.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "lumora/platform/Locale.h"

namespace lumora {

Features::Features(MainExecutor* executor, const std::optional<std::string>& region,
                   std::vector<std::string> arguments)
    : state_(std::make_shared<State>()), arguments_(std::move(arguments)) {
  state_->inChina.store(regionIsChina(region));
  if (executor) startRegionTest(*executor);
}

void Features::startRegionTest(MainExecutor& executor) {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->testPosted) return;
    state_->testPosted = true;
  }
  // The task holds the state, not the object, so it is safe to run after the object is gone.
  executor.post(
      [state = state_, arguments = arguments_] { state->inChina.store(regionTest(arguments)); });
}

bool Features::regionIsChina(const std::optional<std::string>& region) {
  if (!region || region->size() != 2) return false;
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return lower((*region)[0]) == 'c' && lower((*region)[1]) == 'n';
}

bool Features::regionTest(const std::vector<std::string>& arguments) {
  if (std::find(arguments.begin(), arguments.end(), "UITEST") != arguments.end()) return false;
  // An application store front would answer here with its country code; Linux has none.
  return false;
}

Features& Features::shared(MainExecutor* executor) {
  static Features instance(nullptr, localeRegion(), processArguments());
  if (executor) instance.startRegionTest(*executor);
  return instance;
}

std::vector<std::string> processArguments() {
  // Read with read(2): every command asks for these at its start, and a stream would build the
  // C++ locale first, which costs a command about a millisecond.
  constexpr size_t kLimit = 1 << 20;
  std::string bytes;
  if (const int fd = ::open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC); fd >= 0) {
    char buffer[4096];
    while (bytes.size() < kLimit) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      bytes.append(buffer, std::min(static_cast<size_t>(n), kLimit - bytes.size()));
    }
    ::close(fd);
  }
  std::vector<std::string> arguments;
  for (size_t start = 0; start < bytes.size();) {
    const size_t end = std::min(bytes.find('\0', start), bytes.size());
    arguments.emplace_back(bytes, start, end - start);
    start = end + 1;
  }
  return arguments;
}

}  // namespace lumora
