#include "lumora/store/Features.h"

#include <gtest/gtest.h>

#include "lumora/platform/Locale.h"

namespace lumora {
namespace {

TEST(LocaleTest, RegionOfTheFirstNonEmptyVariable) {
  struct Row {
    const char* lcAll;
    const char* lcMessages;
    const char* lang;
    std::optional<std::string> region;
  };
  const Row rows[] = {
      {"", "", "", std::nullopt},
      {"zh_CN.UTF-8@stroke", "", "", "CN"},
      {"", "en_US.UTF-8", "zh_CN.UTF-8", "US"},
      {"", "", "de_DE", "DE"},
      {"C", "", "zh_CN.UTF-8", std::nullopt},  // the first non-empty wins even without a region
      {"en", "", "", std::nullopt},
      {"en_", "", "", std::nullopt},
      {"en_USA", "", "", std::nullopt},
      {"es_419.UTF-8", "", "", "419"},
      {"sr_RS@latin", "", "", "RS"},
      {"sr_Latn_RS", "", "", "RS"},
      {"zh-Hans-CN", "", "", "CN"},
      {"zh_cn", "", "", "cn"},
      {"@_CN", "", "", std::nullopt},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.lcAll) + "|" + r.lcMessages + "|" + r.lang);
    EXPECT_EQ(localeRegion(r.lcAll, r.lcMessages, r.lang), r.region);
  }
}

TEST(FeaturesTest, RegionIsChinaOnlyForCnInAnyCase) {
  for (const char* yes : {"CN", "cn", "cN"}) EXPECT_TRUE(Features::regionIsChina(yes)) << yes;
  for (const char* no : {"CH", "CNN", "C", "TW", ""})
    EXPECT_FALSE(Features::regionIsChina(no)) << no;
  EXPECT_FALSE(Features::regionIsChina(std::nullopt));
}

TEST(FeaturesTest, TheRegionTestRunsOnTheExecutorAndAnswersFalse) {
  for (const auto& arguments :
       {std::vector<std::string>{"lumora"}, std::vector<std::string>{"lumora", "UITEST"}}) {
    MainExecutor executor;
    Features features(&executor, "CN", arguments);
    EXPECT_TRUE(features.inChina());  // usable at once, with the locale's answer
    EXPECT_EQ(executor.drain(), 1u);
    EXPECT_FALSE(features.inChina());
  }
}

TEST(FeaturesTest, TheRegionTestIsPostedOnceAndOutlivesNothing) {
  MainExecutor executor;
  {
    Features features(nullptr, "CN", {});
    EXPECT_EQ(executor.drain(), 0u);
    features.startRegionTest(executor);
    features.startRegionTest(executor);
  }
  EXPECT_EQ(executor.drain(), 1u);  // runs after the object is gone, touching only its state
}

// The arguments of this test program, whatever started it: the first is the program itself.
TEST(FeaturesTest, TheProcessArgumentsAreThoseTheProgramWasStartedWith) {
  const std::vector<std::string> arguments = processArguments();
  ASSERT_FALSE(arguments.empty());
  EXPECT_TRUE(arguments.front().ends_with("lumora_tests")) << arguments.front();
  for (const std::string& argument : arguments) EXPECT_EQ(argument.find('\0'), std::string::npos);
}

}  // namespace
}  // namespace lumora
