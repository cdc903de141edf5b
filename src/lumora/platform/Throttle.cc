#include "lumora/platform/Throttle.h"

#include <optional>

namespace lumora {

struct Throttle::State {
  MainExecutor& executor;
  MainExecutor::Clock::duration interval;
  std::function<void()> deliver;
  std::optional<MainExecutor::Clock::time_point> lastDelivery;
  bool pending = false;
  bool timerSet = false;

  void deliverNow() {
    pending = false;
    lastDelivery = executor.now();
    deliver();
  }
};

Throttle::Throttle(MainExecutor& executor, MainExecutor::Clock::duration interval,
                   std::function<void()> deliver)
    : state_(std::make_shared<State>(State{executor, interval, std::move(deliver), std::nullopt, false, false})) {}

// The timer holds the state weakly, so it finds nothing to do once the throttle is gone.
Throttle::~Throttle() = default;

bool Throttle::pending() const { return state_->pending; }

void Throttle::send() {
  State& s = *state_;
  const auto now = s.executor.now();
  if (!s.timerSet && (!s.lastDelivery || now - *s.lastDelivery >= s.interval)) {
    s.deliverNow();
    return;
  }
  s.pending = true;
  if (s.timerSet) return;
  s.timerSet = true;
  std::weak_ptr<State> weak = state_;
  s.executor.postAfter(*s.lastDelivery + s.interval - now, [weak] {
    auto state = weak.lock();
    if (!state) return;
    state->timerSet = false;
    if (state->pending) state->deliverNow();
  });
}

void Throttle::flush() {
  if (state_->pending) state_->deliverNow();
}

}  // namespace lumora
