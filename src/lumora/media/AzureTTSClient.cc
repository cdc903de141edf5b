#include "lumora/media/AzureTTSClient.h"

#include "lumora/chat/Endpoints.h"
#include "lumora/chat/JsonRecord.h"
#include "lumora/platform/Redact.h"

namespace lumora {
namespace {

// The list runs to some hundreds of kilobytes; anything far beyond is not a voice list.
constexpr size_t kMaxBody = size_t{64} << 20;

}  // namespace

AzureTTSClient::AzureTTSClient(std::string region, std::string token, bool useCloud,
                               const ChatEnvironment& environment)
    : region_(std::move(region)),
      token_(std::move(token)),
      useCloud_(useCloud),
      environment_(environment) {
  redact::registerSecret(token_);
}

HttpRequest AzureTTSClient::makeRequest(std::string_view path) const {
  std::string base;
  if (useCloud_) {
    base = endpointBase(FixedEndpoint::cloud);
  } else if (endpointOverridden(FixedEndpoint::azureSpeech)) {
    base = endpointBase(FixedEndpoint::azureSpeech);
  } else {
    // Each region has its own host under the service's domain.
    base = "https://" + region_ + ".tts.speech.microsoft.com";
  }
  HttpRequest request;
  request.url = base + std::string(path);
  request.method = "GET";
  if (useCloud_) {
    request.headers = {{"X-Region", region_}, {"Authorization", "Bearer " + token_}};
  } else {
    request.headers = {{"Ocp-Apim-Subscription-Key", token_}};
  }
  return request;
}

std::vector<AzureTTSClient::Voice> AzureTTSClient::decodeVoices(std::string_view text) {
  json::Parser parser;
  if (!parser.parse(text)) json::fail("the voice list is not JSON");
  simdjson::dom::array list;
  if (parser.root().get_array().get(list)) json::fail("the voice list is not a list");
  std::vector<Voice> voices;
  for (simdjson::dom::element item : list) {
    const json::Record voice(item, json::Keys::asWritten, "a voice");
    voices.push_back({std::string(voice.string("LocalName")),
                      std::string(voice.string("ShortName")), std::string(voice.string("Gender")),
                      std::string(voice.string("Locale"))});
  }
  return voices;
}

std::vector<AzureTTSClient::Voice> AzureTTSClient::listVoices(std::stop_token stop) const {
  const HttpRequest request = makeRequest("/cognitiveservices/voices/list");
  // A plain session: the chat proxy setting is for chat requests.
  const SessionConfiguration session{.httpsProxy = std::nullopt,
                                     .idleTimeout = environment_.idleTimeout};
  std::unique_ptr<HttpResponse> response = environment_.transport.send(request, session, stop);
  const int status = response->status();
  if (status < 200 || status > 299) throw StatusCodeError(status);
  std::string body;
  response->readBody(
      [&](std::string_view bytes) {
        if (body.size() + bytes.size() > kMaxBody) json::fail("the voice list is too long");
        body.append(bytes);
      },
      stop);
  return decodeVoices(body);
}

}  // namespace lumora
