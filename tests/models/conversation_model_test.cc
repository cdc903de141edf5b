// The model catalogue: ids and the facts the route reads, and the model records.
#include <gtest/gtest.h>

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
      {"gpt-3.5-turbo", true, false, false, "gpt"},
      {"claude-3-5-sonnet-20240620", true, false, false, "claude"},
      {"qwen-plus", true, false, true, "qwen"},
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
