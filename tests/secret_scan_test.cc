// Every debug line written while the suite runs is kept and scanned after each test: no
// credential of the tests (they all begin "sk-test-") may appear in clear.
#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "lumora/platform/Debug.h"

namespace lumora {
namespace {

struct DebugLines {
  std::mutex mutex;
  std::vector<std::string> lines;
};

DebugLines& captured() {
  static DebugLines d;
  return d;
}

class SecretScan : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override {
    debug::setSink([](std::string_view line) {
      std::lock_guard lock(captured().mutex);
      captured().lines.emplace_back(line);
    });
  }
  void OnTestEnd(const ::testing::TestInfo& test) override {
    std::lock_guard lock(captured().mutex);
    for (const std::string& line : captured().lines) {
      if (line.find("sk-test-") != std::string::npos)
        ADD_FAILURE() << test.name() << " wrote a credential in a debug line: " << line;
    }
    captured().lines.clear();
  }
};

const bool kRegistered = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new SecretScan);
  return true;
}();

TEST(SecretScan, DebugLinesOfTheSuiteAreScanned) {
  EXPECT_TRUE(kRegistered);
  debug::line({"[debug] visible", "…0000"});
  std::lock_guard lock(captured().mutex);
  EXPECT_EQ(captured().lines.back(), "[debug] visible …0000");
}

}  // namespace
}  // namespace lumora
