// The main executor's timed tasks and the throttle built on them.
#include <gtest/gtest.h>

#include <string>

#include "lumora/platform/Executor.h"
#include "lumora/platform/Throttle.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;

TEST(Executor, TimedTasksRunWhenDueInDueThenPostedOrder) {
  MainExecutor::Clock::time_point clock{};
  MainExecutor executor([&] { return clock; });
  std::string order;
  executor.postAfter(2s, [&] { order += 'c'; });
  executor.postAfter(1s, [&] { order += 'a'; });
  executor.postAfter(1s, [&] { order += 'b'; });
  executor.post([&] { order += '0'; });
  executor.drain();
  EXPECT_EQ(order, "0");
  clock += 1s;
  executor.drain();
  EXPECT_EQ(order, "0ab");
  clock += 5s;
  executor.drain();
  EXPECT_EQ(order, "0abc");
}

TEST(Executor, RunUntilWakesForATimedTaskOnTheSteadyClock) {
  MainExecutor executor;
  bool ran = false;
  executor.postAfter(10ms, [&] { ran = true; });
  EXPECT_TRUE(executor.runUntil([&] { return ran; }, 10s));
}

// Each row: the moments (in ms) at which events are sent, and the moments of the deliveries.
TEST(Throttle, FirstAtOnceThenTheLatestAtTheEndOfTheInterval) {
  struct Case {
    const char* name;
    std::vector<int> sends;
    std::vector<int> deliveries;
  };
  const Case cases[] = {
      {"one event", {0}, {0}},
      {"a burst", {0, 100, 200, 900}, {0, 1000}},
      {"a second burst after a quiet spell", {0, 100, 3000, 3100}, {0, 1000, 3000, 4000}},
      {"steady events every 300 ms", {0, 300, 600, 900, 1200, 1500}, {0, 1000, 2000}},
      {"an event exactly one interval on", {0, 1000}, {0, 1000}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    MainExecutor::Clock::time_point start{}, clock = start;
    MainExecutor executor([&] { return clock; });
    std::vector<int> delivered;
    Throttle throttle(executor, 1s, [&] {
      delivered.push_back(int(std::chrono::duration_cast<std::chrono::milliseconds>(clock - start)
                                  .count()));
    });
    size_t next = 0;
    for (int ms = 0; ms <= 10'000; ms += 50) {
      clock = start + std::chrono::milliseconds(ms);
      executor.drain();
      while (next < c.sends.size() && c.sends[next] == ms) {
        throttle.send();
        ++next;
      }
    }
    EXPECT_EQ(delivered, c.deliveries);
  }
}

TEST(Throttle, FlushDeliversAWaitingEventAndDestructionDropsIt) {
  MainExecutor::Clock::time_point clock{};
  MainExecutor executor([&] { return clock; });
  int delivered = 0;
  {
    Throttle throttle(executor, 1s, [&] { ++delivered; });
    throttle.send();
    throttle.send();
    EXPECT_TRUE(throttle.pending());
    throttle.flush();
    EXPECT_EQ(delivered, 2);
    EXPECT_FALSE(throttle.pending());
    throttle.send();
  }
  clock += 5s;
  executor.drain();
  EXPECT_EQ(delivered, 2);
}

}  // namespace
}  // namespace lumora
