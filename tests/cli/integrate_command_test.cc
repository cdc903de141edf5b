// `lumora integrate`: the configuration lines for each mail client, which the client's page in
// docs/integrations/ must hold unchanged.
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "support/Fixtures.h"
#include "support/LumoraHome.h"

namespace lumora {
namespace {

// The compose road comes first and alone; the mail rules come only when asked for, after it.
TEST(IntegrateCommand, EachClientsLinesAreThoseItsDocumentationShows) {
  const testing::LumoraHome home;
  // The editor named after --editor is the user's: none here, so vi.
  const std::map<std::string, std::string> noEditor = {{"VISUAL", ""}, {"EDITOR", ""}};
  for (const char* client : {"neomutt", "aerc"}) {
    SCOPED_TRACE(client);
    const auto plain = home.run({"integrate", client}, noEditor);
    const auto rules = home.run({"integrate", client, "--mail-rules"}, noEditor);
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.err, "");
    EXPECT_NE(plain.out.find("lumora compose --editor 'vi'"), std::string::npos) << plain.out;
    EXPECT_EQ(plain.out.find("sendmail"), std::string::npos) << plain.out;
    ASSERT_TRUE(rules.out.starts_with(plain.out)) << rules.out;
    const std::string added = rules.out.substr(plain.out.size());
    EXPECT_NE(added.find("lumora sendmail"), std::string::npos) << added;
    const std::string page = testing::readFile(std::filesystem::path(LUMORA_SOURCE_DIR) / "docs" /
                                               "integrations" / (std::string(client) + ".md"));
    EXPECT_NE(page.find("```\n" + plain.out + "```\n"), std::string::npos)
        << "docs/integrations/" << client << ".md does not show the printed lines as they are";
    EXPECT_NE(page.find("```\n" + added + "```\n"), std::string::npos)
        << "docs/integrations/" << client << ".md does not show the mail rules as printed";
  }
  // A user's editor is kept, quoted for the shell; one that is lumora itself is passed over.
  const auto nano = home.run({"integrate", "neomutt"}, {{"VISUAL", ""}, {"EDITOR", "nano -w"}});
  EXPECT_NE(nano.out.find("--editor 'nano -w'"), std::string::npos) << nano.out;
  const auto self = home.run({"integrate", "aerc"},
                             {{"VISUAL", "/usr/bin/lumora compose"}, {"EDITOR", "it's"}});
  EXPECT_NE(self.out.find("--editor 'it'\\''s'"), std::string::npos) << self.out;
}

// Thunderbird finds the native host through a manifest in the user's home: installing it twice
// leaves one good file, --print shows the same manifest, and a host that cannot run is refused.
TEST(IntegrateCommand, ThunderbirdGetsTheNativeHostsManifest) {
  const testing::LumoraHome home;
  const std::map<std::string, std::string> env = {{"HOME", home.path().string()}};
  const auto manifestFile =
      home.path() / ".mozilla" / "native-messaging-hosts" / "tech.zorvel.lumora.json";
  // Only what is left to do is said: the manifest once, the add-on's steps until it is in a
  // profile.
  const std::string installed = "Installed the manifest of Lumora's native host for Thunderbird";
  const std::string inPlace = "The manifest of Lumora's native host for Thunderbird is in place";
  for (int i = 0; i < 2; ++i) {
    const auto r = home.run({"integrate", "thunderbird"}, env);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find(manifestFile.string()), std::string::npos);
    EXPECT_TRUE(r.out.starts_with(i == 0 ? installed : inPlace)) << r.out;
    EXPECT_NE(r.out.find("Install Add-on From\nFile"), std::string::npos) << r.out;
  }
  const auto extensions = home.path() / ".thunderbird" / "x1y2.default-esr" / "extensions";
  std::filesystem::create_directories(extensions);
  std::ofstream(extensions / "lumora@zorvel.tech.xpi") << "PK";
  const auto done = home.run({"integrate", "thunderbird"}, env);
  EXPECT_EQ(done.out, inPlace + ":\n  " + manifestFile.string() +
                          "\nThe add-on is installed in Thunderbird (profile x1y2.default-esr).\n");
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
      {"integrate"}, {"integrate", "mutt"}, {"integrate", "neomutt", "aerc"},
      {"integrate", "aerc", "--mail-rule"}};
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
