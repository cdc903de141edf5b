// The Azure text-to-speech service, as far as Lumora uses it: the list of its voices for a
// region, directly or through the hosted cloud. Lumora neither speaks nor listens; the list is
// what `lumora voices` shows.
#pragma once

#include <cstddef>
#include <functional>
#include <stop_token>
#include <string>
#include <vector>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/Http.h"

namespace lumora {

// A service answer with a status outside 200 to 299, which has no text of its own.
class StatusCodeError : public Error {
 public:
  explicit StatusCodeError(int status)
      : Error("The operation couldn't be completed. (Invalid status code! error " +
              std::to_string(status) + ".)"),
        status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

class AzureTTSClient {
 public:
  static constexpr std::string_view audioOutputFormat = "riff-24khz-16bit-mono-pcm";

  // One voice of the list, with the service's own key names.
  struct Voice {
    std::string localName;  // "LocalName"
    std::string shortName;  // "ShortName"
    std::string gender;     // "Gender"
    std::string locale;     // "Locale"
    const std::string& id() const { return shortName; }
    bool operator==(const Voice&) const = default;
  };

  // `token`: the subscription key, or the cloud token when `useCloud`.
  AzureTTSClient(std::string region, std::string token, bool useCloud,
                 const ChatEnvironment& environment);

  // The request for `path`: the region's speech host (or the hosted cloud), the path appended
  // as written, and the credentials.
  HttpRequest makeRequest(std::string_view path) const;

  // The voices of the region. Throws StatusCodeError, DecodingError or TransportError.
  std::vector<Voice> listVoices(std::stop_token stop = {}) const;

  // The list from the service's JSON. Throws DecodingError.
  static std::vector<Voice> decodeVoices(std::string_view json);

 private:
  std::string region_;
  std::string token_;
  bool useCloud_;
  const ChatEnvironment& environment_;
};

}  // namespace lumora

template <>
struct std::hash<lumora::AzureTTSClient::Voice> {
  size_t operator()(const lumora::AzureTTSClient::Voice& v) const noexcept {
    size_t h = 0;
    for (const std::string* s : {&v.localName, &v.shortName, &v.gender, &v.locale})
      h = h * 31 + std::hash<std::string>{}(*s);
    return h;
  }
};
