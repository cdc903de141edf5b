// An open picker: type-to-filter and the highlight.
#include <gtest/gtest.h>

#include "terminal/PickerList.h"

namespace lumora::terminal {
namespace {

const PickerEntries kConversations = {
    {"Prompt", "", false},
    {"", "", true},
    {"Weekly report", "6F9619FF-8B86-D011-B42D-00C04FC964FF", false},
    {"New Chat", "7A1B2C3D-0000-4000-8000-000000000001", false},
    {"回复客户", "8B1B2C3D-0000-4000-8000-000000000002", false},
};

const PickerEntries kModels = {
    {"GPT-4o", "gpt-4o", false},
    {"GPT-4o mini", "gpt-4o-mini", false},
    {"Claude 3.5 Sonnet", "claude-3-5-sonnet-latest", false},
};

TEST(PickerList, FiltersByEveryWordInLabelOrValue) {
  struct Row {
    const PickerEntries* entries;
    std::string filter;
    std::vector<size_t> shown;
  };
  const Row rows[] = {
      {&kConversations, "", {0, 1, 2, 3, 4}},  // the divider too
      {&kConversations, "  ", {0, 1, 2, 3, 4}},
      {&kConversations, "week", {2}},
      {&kConversations, "NEW chat", {3}},
      {&kConversations, "rep week", {2}},  // words in any order
      {&kConversations, "客户", {4}},
      {&kConversations, "6f9619ff", {2}},  // the value, in either case
      {&kConversations, "zzz", {}},
      {&kModels, "gpt", {0, 1}},
      {&kModels, "4o mini", {1}},
      {&kModels, "3-5", {2}},
  };
  for (const Row& row : rows)
    EXPECT_EQ(filterEntries(*row.entries, row.filter), row.shown) << row.filter;
}

TEST(PickerList, TheHighlightFollowsSelectionFilterAndMoves) {
  PickerList list;
  list.open(kModels, "gpt-4o-mini");
  EXPECT_TRUE(list.isOpen());
  EXPECT_EQ(list.highlighted(kModels), 1u);
  list.type(kModels, "g");  // still shown: the highlight stays
  EXPECT_EQ(list.highlighted(kModels), 1u);
  list.type(kModels, "pt-4o ");
  list.move(kModels, 1);
  EXPECT_EQ(list.highlighted(kModels), 1u);  // the last one shown: no further
  list.move(kModels, -5);
  EXPECT_EQ(list.highlighted(kModels), 0u);
  list.type(kModels, "son");  // nothing left
  EXPECT_EQ(list.highlighted(kModels), std::nullopt);
  list.move(kModels, 1);
  EXPECT_EQ(list.highlighted(kModels), std::nullopt);
  for (int i = 0; i < 10; ++i) list.erase(kModels);
  EXPECT_EQ(list.filter(), "");
  list.type(kModels, "Son");
  EXPECT_EQ(list.highlighted(kModels), 2u);  // the first one shown

  // A selection that matches no entry highlights the first; moving passes over the divider.
  list.open(kConversations, "not-there");
  EXPECT_EQ(list.highlighted(kConversations), 0u);
  list.move(kConversations, 1);
  EXPECT_EQ(list.highlighted(kConversations), 2u);
  list.type(kConversations, "回复客");
  EXPECT_EQ(list.highlighted(kConversations), 4u);
  list.erase(kConversations);  // one whole character
  EXPECT_EQ(list.filter(), "回复");
  list.close();
  EXPECT_FALSE(list.isOpen());
}

}  // namespace
}  // namespace lumora::terminal
