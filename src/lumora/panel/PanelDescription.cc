#include "lumora/panel/PanelDescription.h"

#include "lumora/models/ConversationModel.h"
#include "lumora/panel/MailExtensionView.h"
#include "lumora/platform/Uuid.h"

namespace lumora {

PanelDescription PanelDescription::describe(const MailExtensionView& panel, bool inChina,
                                           Language language) {
  const auto word = [language](std::string_view english) { return localized(english, language); };
  PanelDescription d;
  const bool result = panel.showsResult();
  d.page = result ? Page::result : Page::input;
  d.header = result ? Header{PanelOperation::leaveResult, "chevron.left", ""}
                    : Header{PanelOperation::none, "wand.and.stars", ""};
  d.header.title = word(panel.generating() ? "Writing..." : "Lumora");
  if (!panel.errorMessage().empty()) d.errorLine = panel.errorMessage();

  if (!result) {
    d.instruction = panel.instruction();

    d.conversationPicker.operation = PanelOperation::selectConversation;
    d.conversationPicker.entries.push_back({word("Prompt"), "", false});
    d.conversationPicker.entries.push_back({"", "", true});
    for (const auto& conversation : panel.conversations()) {
      std::string value;
      if (conversation->id()) value = uuid::canonical(*conversation->id()).value_or("");
      const auto& title = conversation->title();
      d.conversationPicker.entries.push_back({title ? *title : word("New Chat"), value, false});
    }
    d.conversationPicker.selection = panel.selectedConversationId();

    d.modelPicker.operation = panel.selectedConversation() ? PanelOperation::setConversationModel
                                                           : PanelOperation::selectModel;
    for (const ConversationModel model : ConversationModel::pickerModels(inChina))
      d.modelPicker.entries.push_back({model.displayName(), std::string(model.rawValue()), false});
    d.modelPicker.selection = panel.pickedModel();

    d.generate = {word("Generate"), "", PanelOperation::startGeneration};
  } else {
    d.output = panel.output();
    d.buttons.push_back({word("Copy"), "rectangle.portrait.on.rectangle.portrait",
                         PanelOperation::copyOutput});
    if (panel.generating()) {
      d.buttons.push_back({word("Stop"), "stop", PanelOperation::stopGeneration});
    } else {
      d.buttons.push_back(
          {word("Regenerate"), "arrow.clockwise", PanelOperation::startGeneration});
    }
  }
  d.copyBounces = panel.copyBounces();
  d.copying = panel.copying();
  return d;
}

}  // namespace lumora
