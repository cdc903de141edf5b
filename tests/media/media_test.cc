// The media pieces: the speech service's voice list and the image wire shapes.
#include <gtest/gtest.h>

#include "lumora/chat/Errors.h"
#include "lumora/media/AzureTTSClient.h"
#include "lumora/media/ImageGeneration.h"
#include "lumora/providers/AzureOpenAIClient.h"
#include "lumora/store/DefaultsStore.h"
#include "support/FakeTransport.h"
#include "support/TempDir.h"

namespace lumora {
namespace {

using testing::FakeAnswer;

class Media : public ::testing::Test {
 protected:
  Media() : settings_(dir_ / "shared.json") {
    unsetenv("LUMORA_AZURE_SPEECH_BASE_URL");
    unsetenv("LUMORA_CLOUD_BASE_URL");
  }
  testing::TempDir dir_;
  DefaultsStore settings_;
  testing::FakeTransport transport_;
  ChatEnvironment environment_{.sharedDefaults = settings_, .transport = transport_};
};

TEST_F(Media, TheVoiceListRequestDirectOrThroughTheCloud) {
  const HttpRequest direct =
      AzureTTSClient("westeurope", "speech-key-0001", false, environment_)
          .makeRequest("/cognitiveservices/voices/list");
  EXPECT_EQ(direct.url,
            "https://westeurope.tts.speech.microsoft.com/cognitiveservices/voices/list");
  EXPECT_EQ(direct.method, "GET");
  EXPECT_EQ(direct.headers, (HttpHeaders{{"Ocp-Apim-Subscription-Key", "speech-key-0001"}}));

  const HttpRequest cloud = AzureTTSClient("westeurope", "cloud-0001", true, environment_)
                                .makeRequest("/cognitiveservices/voices/list");
  EXPECT_EQ(cloud.url, "https://api.lumora.zorvel.tech/cognitiveservices/voices/list");
  EXPECT_EQ(cloud.headers, (HttpHeaders{{"X-Region", "westeurope"},
                                        {"Authorization", "Bearer cloud-0001"}}));

  setenv("LUMORA_AZURE_SPEECH_BASE_URL", "http://127.0.0.1:9", 1);
  EXPECT_EQ(AzureTTSClient("westeurope", "k-0001", false, environment_).makeRequest("/x").url,
            "http://127.0.0.1:9/x");
}

TEST_F(Media, TheVoiceListAndItsFailures) {
  const std::string list =
      R"([{"Name":"n","LocalName":"Jenny","ShortName":"en-US-JennyNeural","Gender":"Female",)"
      R"("Locale":"en-US","VoiceType":"Neural"}])";
  struct Case {
    int status;
    std::string body;
    size_t voices;
    std::string failure;
  };
  const Case cases[] = {
      {200, list, 1, ""},
      // A success status with nothing behind it fails at the reading, not at the status.
      {204, "", 0, "The server's reply could not be read: the voice list is not JSON."},
      {401, R"({"error":"denied"})", 0,
       "The operation couldn't be completed. (Invalid status code! error 401.)"},
      {200, R"([{"LocalName":"Jenny","ShortName":"s","Locale":"en-US"}])", 0,
       "The server's reply could not be read: the key \"Gender\" is missing."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    transport_.enqueue(FakeAnswer{.status = c.status, .pieces = {c.body}});
    try {
      const auto voices = AzureTTSClient("westeurope", "k-0001", false, environment_).listVoices();
      EXPECT_EQ(voices.size(), c.voices);
      EXPECT_EQ(c.failure, "");
    } catch (const std::exception& e) {
      EXPECT_EQ(describeFailure(e), c.failure);
    }
  }
  EXPECT_FALSE(transport_.sessions().back().httpsProxy) << "the chat proxy is not used";
}

TEST_F(Media, AVoiceIsKnownByItsShortNameAndEqualByAllItsFields) {
  const AzureTTSClient::Voice a{"Jenny", "en-US-JennyNeural", "Female", "en-US"};
  AzureTTSClient::Voice b = a;
  b.gender = "Male";
  EXPECT_EQ(a.id(), b.id());
  EXPECT_NE(a, b);
  EXPECT_EQ(std::hash<AzureTTSClient::Voice>{}(a), std::hash<AzureTTSClient::Voice>{}(a));
}

TEST_F(Media, ImageShapesAndTheirAzureUrl) {
  const CreateImagePayload payload{"a cat", 1, "dall-e-3", "1024x1024", "hd", "vivid",
                                   "b64_json"};
  EXPECT_EQ(payload.toJSON(),
            R"({"prompt":"a cat","n":1,"model":"dall-e-3","size":"1024x1024","quality":"hd",)"
            R"("style":"vivid","response_format":"b64_json"})");
  EXPECT_EQ(CreateImageResponse::decode(R"({"created":1,"data":[{"b64_json":"AAAA"}]})")
                .data.at(0)
                .b64Json,
            "AAAA");
  EXPECT_THROW(CreateImageResponse::decode(R"({"data":[{"url":"https://x"}]})"), DecodingError);

  const AzureOpenAIClient azure("k-0001", "https://corp.openai.azure.com",
                                {{"dall-e-3", "images-prod"}}, environment_);
  EXPECT_EQ(azure.requestURL("dall-e-3").text(),
            "https://corp.openai.azure.com/openai/deployments/images-prod/images/generations"
            "?api-version=2024-02-01");
  EXPECT_EQ(azure.requestURL("whisper").text(),
            "https://corp.openai.azure.com/openai/deployments/whisper/audio/transcriptions"
            "?api-version=2024-02-01");
}

}  // namespace
}  // namespace lumora
