// The main executor: one serial queue that owns every panel field and every store object.
//
// Any thread may post work; only the thread that runs the executor (a front-end's main loop, or
// a test that drains it) executes it, one task at a time, in the order posted. Nothing posted
// runs concurrently with anything else posted, which is what lets the panel's state go without
// locks.
//
// Timed tasks wait on the executor's clock. The clock is steady time unless the executor is made
// with another one: tests move a clock of their own and drain(), so that nothing in them waits
// for real time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace lumora {

class MainExecutor {
 public:
  using Task = std::function<void()>;
  using Clock = std::chrono::steady_clock;

  MainExecutor() = default;
  // An executor whose timed tasks follow `now` instead of steady time.
  explicit MainExecutor(std::function<Clock::time_point()> now) : now_(std::move(now)) {}

  // Queues `task`. Thread-safe; never runs the task inline.
  void post(Task task);
  // Queues `task` to run once `delay` has passed on the executor's clock. Thread-safe. Tasks due
  // at the same moment run in the order posted.
  void postAfter(Clock::duration delay, Task task);

  Clock::time_point now() const { return now_ ? now_() : Clock::now(); }

  // Runs queued tasks, and timed tasks that are due, until none is left, including tasks they
  // post. Timed tasks not yet due stay queued. Returns the number run.
  size_t drain();

  // Runs tasks as they arrive, timed ones when due, until `done()` is true (checked before each
  // wait and after each task) or `timeout` of real time has passed. Returns done().
  bool runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds timeout = std::chrono::hours(24 * 365));

  // True on the thread currently running this executor's tasks.
  bool isCurrent() const { return running_ == std::this_thread::get_id(); }

 private:
  bool runOne(std::unique_lock<std::mutex>& lock);

  std::function<Clock::time_point()> now_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Task> queue_;
  // Timed tasks by due time, then by the order they were posted in.
  std::map<std::pair<Clock::time_point, uint64_t>, Task> timed_;
  uint64_t timedCount_ = 0;
  std::thread::id running_;
};

}  // namespace lumora
