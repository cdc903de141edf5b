// Fuzzes what Lumora reads that other programs write. The first byte picks the case:
//   even: the rest is a value given to `lumora settings set` for one of the keys (the second
//         byte picks which), parsed, stored in a settings file, read back and decoded;
//   odd:  the rest is the settings file itself, read through every key;
// and every input is also a conversation store file, opened and read as the panel and the
// route read it. Foreign data may be refused with a typed error, never crash or hang.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "Scratch.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Errors.h"
#include "lumora/store/ConversationStore.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/SettingsKeys.h"

namespace {

using lumora::fuzzing::scratch;

void write(const std::filesystem::path& file, std::string_view bytes) {
  std::ofstream(file, std::ios::binary | std::ios::trunc).write(bytes.data(),
                                                                static_cast<std::streamsize>(bytes.size()));
}

void settings(std::string_view input) {
  const auto keys = lumora::settingKeys();
  const auto file = scratch() / "settings.json";
  try {
    if (!input.empty() && (static_cast<unsigned char>(input[0]) & 1) == 0 && input.size() >= 2) {
      const lumora::SettingKey& key = keys[static_cast<unsigned char>(input[1]) % keys.size()];
      std::filesystem::remove(file);
      lumora::DefaultsStore store(file);
      store.set(key.key, lumora::parseSettingText(key, input.substr(2)));
      (void)lumora::readSetting(key, store.value(key.key), false);
      return;
    }
    write(file, input.empty() ? input : input.substr(1));
    lumora::DefaultsStore store(file);
    for (const lumora::SettingKey& key : keys)
      (void)lumora::readSetting(key, store.value(key.key), true);
  } catch (const lumora::Error&) {
  }
}

void conversationStore(std::string_view input) {
  lumora::PersistentContainer::Environment environment;
  environment.arguments = {"fuzz"};
  environment.dataDirectory = scratch() / "data";
  environment.replaceStore = [](const std::filesystem::path&, const std::filesystem::path&) {
    throw lumora::StoreError("no copies while fuzzing");
  };
  const auto file = lumora::PersistentContainer::appGroupUrl(environment);
  std::filesystem::create_directories(file.parent_path());
  for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(file.string() + suffix);
  write(file, input);
  try {
    auto container = lumora::PersistentContainer::make(false, environment);
    auto& context = container->viewContext();
    for (const auto& conversation : context.fetchConversations()) {
      (void)conversation->displayTitle();
      conversation->setModel("gpt-4o");
    }
    (void)context.fetchTeams();
    context.save();
  } catch (const lumora::Error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  settings(input);
  conversationStore(input);
  return 0;
}
