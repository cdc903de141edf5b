// Which features the user is served: for now whether the user is in China, which restricts the
// model list and picks the default model.
//
// `inChina` has two phases. At construction it is the locale's region; then a region test runs
// as a task on the main executor and replaces it. The test's rules, first fit wins: process
// arguments holding the exact word "UITEST" give false; an application store front would give
// its country (there is none on this platform); otherwise false. So once the executor has run
// the test the flag is false, and a default decided before that (UserSettings' defaultModel)
// keeps the locale's answer.
//
// Thread-safe: inChina() may be read from any thread; the test writes it on the main executor.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "lumora/platform/Executor.h"

namespace lumora {

class Features {
 public:
  // inChina starts as regionIsChina(region); the region test is posted on `executor` with
  // `arguments` (the process arguments) at once. `executor` may be null: the test is then
  // posted by the first startRegionTest(). The object may be destroyed before the test runs;
  // the test then changes nothing.
  Features(MainExecutor* executor, const std::optional<std::string>& region,
           std::vector<std::string> arguments);
  Features(const Features&) = delete;
  Features& operator=(const Features&) = delete;

  bool inChina() const { return state_->inChina.load(); }

  // Posts the region test on `executor` unless it has been posted already (then nothing).
  void startRegionTest(MainExecutor& executor);

  // True when `region`, lower-cased, is "cn".
  static bool regionIsChina(const std::optional<std::string>& region);

  // The answer of the region test for a process with `arguments`.
  static bool regionTest(const std::vector<std::string>& arguments);

  // The process's instance: the region of localeRegion() and the arguments of this process, made
  // on first use (thread-safe) and kept until exit. A front-end with a main loop passes its
  // executor (which must outlive the process's use of the instance), on the first call or on a
  // later one, and the region test is posted there once. Until some call passes one, no test
  // runs and the flag keeps the locale's answer, which is what one-shot commands without a main
  // loop want: they never reach the point where the test would have answered.
  static Features& shared(MainExecutor* executor = nullptr);

 private:
  struct State {
    std::atomic<bool> inChina{false};
    std::mutex mutex;
    bool testPosted = false;
  };
  std::shared_ptr<State> state_;
  const std::vector<std::string> arguments_;
};

// The arguments of the current process as the kernel holds them (/proc/self/cmdline), at most
// 1 MiB of them; empty when they cannot be read.
std::vector<std::string> processArguments();

}  // namespace lumora
