#include "lumora/store/Features.h"

#include <algorithm>
#include <fstream>

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
  constexpr size_t kLimit = 1 << 20;
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  std::vector<std::string> arguments;
  std::string argument;
  size_t total = 0;
  for (char c; total < kLimit && in.get(c); ++total) {
    if (c == '\0') {
      arguments.push_back(std::move(argument));
      argument.clear();
    } else {
      argument += c;
    }
  }
  if (!argument.empty()) arguments.push_back(std::move(argument));
  return arguments;
}

}  // namespace lumora
