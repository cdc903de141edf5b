#include "lumora/chat/HttpSession.h"

#include "lumora/platform/Text.h"
#include "lumora/platform/Url.h"
#include "lumora/store/DefaultsStore.h"
#include "lumora/store/SettingsKeys.h"

namespace lumora {

SessionConfiguration makeSession(const ChatEnvironment& environment) {
  SessionConfiguration session;
  session.idleTimeout = environment.idleTimeout;
  const std::optional<std::string> setting = environment.sharedDefaults.string(keyOf(SettingName::httpsProxyUrl));
  if (!setting) return session;
  const auto url = Url::parse(text::trimmed(*setting));
  if (!url) return session;
  const std::string host = url->host();
  const std::optional<int> port = url->port();
  if (host.empty() || !port) return session;
  session.httpsProxy = SessionConfiguration::Proxy{host, *port, url->user(), url->password()};
  return session;
}

void APIRequestDelegate::didSendBodyData(int64_t totalBytesSent, int64_t totalBytesExpectedToSend) {
  progress_ = static_cast<double>(totalBytesSent) / static_cast<double>(totalBytesExpectedToSend);
  for (const auto& observer : observers_) observer(progress_);
}

}  // namespace lumora
