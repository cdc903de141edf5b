#include "lumora/platform/Executor.h"

namespace lumora {

void MainExecutor::post(Task task) {
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(std::move(task));
  }
  ready_.notify_one();
}

bool MainExecutor::runOne(std::unique_lock<std::mutex>& lock) {
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
    if (ready_.wait_until(lock, deadline, [&] { return !queue_.empty(); })) continue;
    lock.unlock();
    return done();
  }
}

}  // namespace lumora
