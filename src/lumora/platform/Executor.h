// The main executor: one serial queue that owns every panel field and every store object.
//
// Any thread may post work; only the thread that runs the executor (a front-end's main loop, or
// a test that drains it) executes it, one task at a time, in the order posted. Nothing posted
// runs concurrently with anything else posted, which is what lets the panel's state go without
// locks.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace lumora {

class MainExecutor {
 public:
  using Task = std::function<void()>;

  // Queues `task`. Thread-safe; never runs the task inline.
  void post(Task task);

  // Runs queued tasks until none is left, including tasks they post. Returns the number run.
  size_t drain();

  // Runs tasks as they arrive until `done()` is true (checked before each wait and after each
  // task) or `timeout` has passed. Returns done().
  bool runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds timeout = std::chrono::hours(24 * 365));

  // True on the thread currently running this executor's tasks.
  bool isCurrent() const { return running_ == std::this_thread::get_id(); }

 private:
  bool runOne(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Task> queue_;
  std::thread::id running_;
};

}  // namespace lumora
