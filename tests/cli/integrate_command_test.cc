// `lumora integrate`: the configuration lines for each mail client, which the client's page in
// docs/integrations/ must hold unchanged.
#include <gtest/gtest.h>

#include "support/Fixtures.h"
#include "support/LumoraHome.h"

namespace lumora {
namespace {

TEST(IntegrateCommand, EachClientsLinesAreThoseItsDocumentationShows) {
  const testing::LumoraHome home;
  for (const char* client : {"neomutt", "aerc"}) {
    SCOPED_TRACE(client);
    const auto r = home.run({"integrate", client});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    ASSERT_FALSE(r.out.empty());
    const std::string page = testing::readFile(std::filesystem::path(LUMORA_SOURCE_DIR) / "docs" /
                                               "integrations" / (std::string(client) + ".md"));
    EXPECT_NE(page.find("```\n" + r.out + "```\n"), std::string::npos)
        << "docs/integrations/" << client << ".md does not show the printed lines as they are";
  }
}

TEST(IntegrateCommand, AnotherClientOrNoneIsAUsageError) {
  const testing::LumoraHome home;
  const std::vector<std::vector<std::string>> calls = {
      {"integrate"}, {"integrate", "mutt"}, {"integrate", "neomutt", "aerc"}};
  for (const auto& args : calls) {
    SCOPED_TRACE(args.size());
    const auto r = home.run(args);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("Usage: lumora integrate neomutt|aerc"), std::string::npos);
  }
  EXPECT_EQ(home.run({"integrate", "--help"}).status, 0);
}

}  // namespace
}  // namespace lumora
