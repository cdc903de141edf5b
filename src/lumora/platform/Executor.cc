#include "lumora/platform/Executor.h"

namespace lumora {

void MainExecutor::post(Task task) {
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(std::move(task));
  }
  ready_.notify_one();
}

void MainExecutor::postAfter(Clock::duration delay, Task task) {
  const Clock::time_point due = now() + delay;
  {
    std::lock_guard lock(mutex_);
    timed_.emplace(std::pair(due, timedCount_++), std::move(task));
  }
  ready_.notify_one();
}

bool MainExecutor::runOne(std::unique_lock<std::mutex>& lock) {
  // Due timed tasks join the queue behind what is already there.
  if (!timed_.empty()) {
    const Clock::time_point current = now();
    while (!timed_.empty() && timed_.begin()->first.first <= current) {
      queue_.push_back(std::move(timed_.begin()->second));
      timed_.erase(timed_.begin());
    }
  }
  if (queue_.empty()) return false;
  Task task = std::move(queue_.front());
  queue_.pop_front();
  lock.unlock();
  const std::thread::id previous = running_;
  running_ = std::this_thread::get_id();
  task();
  running_ = previous;
  lock.lock();
  return true;
}

size_t MainExecutor::drain() {
  std::unique_lock lock(mutex_);
  size_t count = 0;
  while (runOne(lock)) ++count;
  return count;
}

bool MainExecutor::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::unique_lock lock(mutex_);
  while (true) {
    lock.unlock();
    if (done()) return true;
    lock.lock();
    if (runOne(lock)) continue;
    if (std::chrono::steady_clock::now() >= deadline) break;
    // Wake for new work, for the next timed task, or at the deadline. A clock of the caller's
    // own is not real time: its timed tasks are looked at again whenever something arrives.
    auto wake = deadline;
    if (!timed_.empty() && !now_) wake = std::min(wake, timed_.begin()->first.first);
    ready_.wait_until(lock, wake, [&] { return !queue_.empty(); });
  }
  lock.unlock();
  return done();
}

}  // namespace lumora
