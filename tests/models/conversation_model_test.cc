// The model catalogue: ids, the sets the route and the picker use, and the model records.
#include <gtest/gtest.h>

#include <set>

#include "lumora/models/ConversationModel.h"
#include "lumora/models/ModelService.h"
#include "lumora/platform/Errors.h"

namespace lumora {
namespace {

using C = ConversationModel::Case;

TEST(ConversationModel, CatalogueFacts) {
  struct Case {
    std::string raw;
    bool known;
    bool deprecated;
    bool cloudOnly;
    std::string family;
  };
  const Case cases[] = {
      {"gpt-4", true, true, false, "gpt"},
      {"GPT-4", false},
      {"ERNIE-Bot", true, false, true, "ERNIE"},
      {"ernie-bot", false},
      {"gpt-4-turbo", true, false, false, "gpt"},
      {"gpt-4-turbo-preview", true, true, false, "gpt"},
      {"gpt-3.5-turbo", true, false, false, "gpt"},
      {"gpt-3.5-turbo-16k", true, true, false, "gpt"},
      {"gpt-3.5-turbo-16k-0613", true, true, false, "gpt"},
      {"claude-2", true, true, false, "claude"},
      {"claude-instant-v1-100k", true, true, false, "claude"},
      {"claude-3-5-sonnet-20240620", true, false, false, "claude"},
      {"SparkDesk-V3.0", true, false, true, "SparkDesk"},
      {"ERNIE-Bot-4", true, false, true, "ERNIE"},
      {"qwen-plus", true, false, true, "qwen"},
      {"glm-4", true, false, false, "glm"},
      {"glm-4v", true, false, false, "glm"},
      {"gemini-1.5-pro-latest", true, false, false, "gemini"},
      {"gemini15", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.raw);
    const auto model = ConversationModel::fromRawValue(c.raw);
    ASSERT_EQ(model.has_value(), c.known);
    if (!model) continue;
    EXPECT_EQ(model->rawValue(), c.raw);
    EXPECT_EQ(model->isDeprecated(), c.deprecated);
    EXPECT_EQ(model->isCloudOnlyModel(), c.cloudOnly);
    EXPECT_EQ(model->family(), c.family);
  }
}

TEST(ConversationModel, ListsAndNames) {
  const auto all = ConversationModel::allCases();
  ASSERT_EQ(all.size(), 49u);
  EXPECT_EQ(all.front(), C::gpt35Turbo);
  EXPECT_EQ(all.back(), C::reka_core);
  std::set<std::string_view> ids;
  size_t deprecated = 0;
  for (const ConversationModel m : all) {
    ids.insert(m.rawValue());
    deprecated += m.isDeprecated();
  }
  EXPECT_EQ(ids.size(), 49u) << "ids are unique";
  EXPECT_EQ(deprecated, 20u);
  const auto region = ConversationModel::regionModels();
  ASSERT_EQ(region.size(), 11u);
  EXPECT_EQ(region.front(), C::ernieBot);
  EXPECT_EQ(region.back(), C::glm4v);
  EXPECT_EQ(ConversationModel::pickerModels(true).size(), 11u);
  EXPECT_EQ(ConversationModel::pickerModels(false).size(), 49u);
  EXPECT_EQ(ConversationModel(C::gpt4TurboPreview).displayName(), "GPT4 Turbo Preview");
  EXPECT_EQ(ConversationModel(C::gpt4o).displayName(), "gpt-4o");
}

TEST(LLMModel, RecordsAndTheirStrictJSON) {
  const LLMModel opus = LLMModel::of(C::claude3Opus);
  EXPECT_EQ(opus, (LLMModel{"claude-3-opus-20240229", "claude", false}));
  EXPECT_EQ(LLMModel::fromJSON(opus.toJSON()), opus);
  // Same identity, different records.
  EXPECT_EQ(opus.id(), (LLMModel{"claude-3-opus-20240229", "other", false}).id());
  EXPECT_NE(opus, (LLMModel{"claude-3-opus-20240229", "other", false}));
  for (const char* bad : {R"({"model":"m","family":"f"})", R"({"model":"m","family":"f","isDeprecated":"no"})",
                          R"({"model":1,"family":"f","isDeprecated":false})", "not json"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(LLMModel::fromJSON(bad), DecodingError);
  }
}

}  // namespace
}  // namespace lumora
