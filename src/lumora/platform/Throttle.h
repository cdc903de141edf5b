// At most one delivery per interval, on the main executor: the first event of a quiet spell is
// delivered at once, and the events that follow within the interval are delivered once, at its
// end. Events carry no value, so "the latest" is simply "one more delivery".
//
// Belongs to the executor's thread: send(), flush() and destruction happen there, and so does
// every delivery. A delivery still waiting when the throttle is destroyed is dropped.
#pragma once

#include <functional>
#include <memory>

#include "lumora/platform/Executor.h"

namespace lumora {

class Throttle {
 public:
  Throttle(MainExecutor& executor, MainExecutor::Clock::duration interval,
           std::function<void()> deliver);
  ~Throttle();
  Throttle(const Throttle&) = delete;
  Throttle& operator=(const Throttle&) = delete;

  void send();
  // True while a delivery waits for the end of the interval.
  bool pending() const;
  // Delivers a waiting event now instead of at the end of the interval.
  void flush();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace lumora
