// `lumora integrate`: the configuration lines for each mail client, which the client's page in
// docs/integrations/ must hold unchanged.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

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

// Thunderbird finds the native host through a manifest in the user's home: installing it twice
// leaves one good file, --print shows the same manifest, and a host that cannot run is refused.
TEST(IntegrateCommand, ThunderbirdGetsTheNativeHostsManifest) {
  const testing::LumoraHome home;
  const std::map<std::string, std::string> env = {{"HOME", home.path().string()}};
  const auto manifestFile =
      home.path() / ".mozilla" / "native-messaging-hosts" / "tech.zorvel.lumora.json";
  for (int i = 0; i < 2; ++i) {
    const auto r = home.run({"integrate", "thunderbird"}, env);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find(manifestFile.string()), std::string::npos);
  }
  const auto manifest = nlohmann::json::parse(testing::readFile(manifestFile));
  EXPECT_EQ(manifest["name"], "tech.zorvel.lumora");
  EXPECT_EQ(manifest["type"], "stdio");
  EXPECT_EQ(manifest["allowed_extensions"], nlohmann::json::array({"lumora@zorvel.tech"}));
  EXPECT_TRUE(std::filesystem::equivalent(manifest["path"].get<std::string>(), LUMORA_NATIVE_HOST));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(manifestFile.parent_path()),
                          std::filesystem::directory_iterator()),
            1);

  const auto printed = home.run({"integrate", "thunderbird", "--print"}, env);
  EXPECT_EQ(printed.status, 0);
  EXPECT_EQ(nlohmann::json::parse(printed.out), manifest);

  const auto missing = home.run({"integrate", "thunderbird", "--host", "/nonexistent/host"}, env);
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("cannot run the native host /nonexistent/host"), std::string::npos);
  EXPECT_EQ(home.run({"integrate", "thunderbird", "--verbose"}, env).status, 2);
}

// The add-on asks for the host by the name the manifest gives, and the manifest lets in only the
// add-on's id: the three places must agree.
TEST(IntegrateCommand, TheAddOnNamesTheHostItsManifestNames) {
  const std::filesystem::path addOn =
      std::filesystem::path(LUMORA_SOURCE_DIR) / "extensions" / "thunderbird";
  const auto manifest = nlohmann::json::parse(testing::readFile(addOn / "manifest.json"));
  EXPECT_EQ(manifest["browser_specific_settings"]["gecko"]["id"], "lumora@zorvel.tech");
  EXPECT_NE(testing::readFile(addOn / "common.js").find(R"(NATIVE_HOST = "tech.zorvel.lumora")"),
            std::string::npos);
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
    EXPECT_NE(r.err.find("Usage: lumora integrate neomutt|aerc|thunderbird"), std::string::npos);
  }
  EXPECT_EQ(home.run({"integrate", "--help"}).status, 0);
}

}  // namespace
}  // namespace lumora
