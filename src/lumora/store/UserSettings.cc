#include "lumora/store/UserSettings.h"

#include "lumora/platform/Errors.h"
#include "lumora/platform/Redact.h"
#include "lumora/store/Features.h"

namespace lumora {

namespace detail {

void noteRead(const SettingKey& entry, const nlohmann::json& value) {
  if (!value.is_string()) return;
  const auto& text = value.get_ref<const std::string&>();
  if (entry.credential) {
    redact::registerSecret(text);
  } else {
    redact::registerUrlSecrets(text);
  }
}

SettingBinding SettingBinder::bind(SettingName name) const {
  const SettingKey& entry = settingKey(name);
  return {&entry, &storeOf(entry, shared_, own_), inChina_};
}

}  // namespace detail

UserSettings& UserSettings::shared() {
  // The region flag is read here, once; the stores come first, as the fields need them.
  static UserSettings instance = [] {
    DefaultsStore& shared = sharedDefaults();
    DefaultsStore& own = ownDefaults();
    return UserSettings(shared, own, Features::shared().inChina());
  }();
  return instance;
}

}  // namespace lumora

namespace lumora {

size_t UserSettings::bytesOf(const DoubleSetting& mebibytes) {
  constexpr double kMiB = 1 << 20;
  constexpr double kMostMiB = 1 << 20;  // 1 TiB
  // A settings file that cannot be read does not stop a message from being read or sent.
  double value = 0;
  try {
    value = mebibytes.get();
  } catch (const Error&) {
  }
  if (!(value > 0 && value <= kMostMiB)) value = mebibytes.defaultValue();
  return static_cast<size_t>(value * kMiB);
}

}  // namespace lumora
