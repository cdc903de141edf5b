#include "lumora/providers/LumoraCloudClient.h"

#include <nlohmann/json.hpp>

#include "lumora/chat/ChatRequest.h"
#include "lumora/chat/Endpoints.h"
#include "lumora/chat/Errors.h"
#include "lumora/chat/JsonRecord.h"
#include "lumora/models/ConversationModel.h"
#include "lumora/platform/Base64.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"

namespace lumora {
namespace {

constexpr std::string_view kDataPrefix = "data:";
// The service's answers hold no sampling choice: replies are made at temperature 0.
constexpr double kTemperature = 0;
constexpr int kMaxTokens = 4096;

std::optional<LumoraCloudClient::ErrorResponse> errorResponse(simdjson::dom::element root) {
  try {
    const json::Record record(root, json::Keys::asWritten);
    return LumoraCloudClient::ErrorResponse{record.optionalInteger("code"),
                                            std::string(record.string("error"))};
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

std::optional<LumoraCloudClient::OpenAIErrorResponse> openAIErrorResponse(
    simdjson::dom::element root) {
  try {
    const json::Record error = json::Record(root, json::Keys::asWritten).object("error");
    std::optional<std::string> code;
    if (auto c = error.optionalString("code")) code = std::string(*c);
    return LumoraCloudClient::OpenAIErrorResponse{{code, std::string(error.string("message"))}};
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

}  // namespace


namespace {

class Lines final : public json::RecordLines {
 public:
  std::optional<StreamChunk> line(std::string_view raw) override;
};

}  // namespace

std::unique_ptr<LineReader> LumoraCloudClient::makeLines() { return std::make_unique<Lines>(); }

std::optional<StreamChunk> Lines::line(std::string_view raw) {
  std::string_view line = text::trimmed(raw);
  if (debug::enabled()) debug::line({"line: '" + std::string(line) + "'"});
  if (line.ends_with("[DONE]")) {
    debug::line({"return nil"});
    return std::nullopt;
  }
  if (line.starts_with(kDataPrefix)) line.remove_prefix(kDataPrefix.size());
  if (!parser_.parse(line)) json::failNotJson(line);
  if (auto error = errorResponse(parser_.root())) throw AppError::apiError(error->error);

  const json::Record record(parser_.root(), json::Keys::fromSnakeCase);
  const std::string_view model = record.string("model");
  const std::optional<std::string_view> delta = record.optionalString("delta");
  const std::optional<std::string_view> finishReason = record.optionalString("finishReason");
  if (delta) text_->append(*delta);
  return chunk(model, finishReason);
}

LumoraCloudClient::LumoraCloudClient(std::optional<std::string> token,
                                     const ChatEnvironment& environment)
    : token_(std::move(token)), environment_(environment) {
  if (token_) redact::registerSecret(*token_);
}

bool LumoraCloudClient::supportsModel(std::string_view model) const {
  return isCatalogueModel(model);
}

bool LumoraCloudClient::claimsAlone(std::string_view model) {
  const auto catalogued = ConversationModel::fromRawValue(model);
  return catalogued && catalogued->isCloudOnlyModel();
}

HttpRequest LumoraCloudClient::chatRequest(const std::string& model,
                                           const std::vector<ChatMessage>& messages,
                                           double) const {
  HttpRequest request;
  request.url = requestUrl(endpointBase(FixedEndpoint::cloud)).appendingPath("/1/chat").text();
  if (token_) request.headers.emplace_back("Authorization", "Bearer " + *token_);
  request.method = "POST";
  request.headers.emplace_back("Content-Type", "application/json");
  request.headers.emplace_back("Accept", "text/event-stream");

  // Keys as written, "maxTokens" included: the service reads camel case.
  nlohmann::ordered_json wire = nlohmann::ordered_json::array();
  for (const ChatMessage& m : messages) {
    nlohmann::ordered_json message{{"role", m.role}, {"content", m.content}};
    if (m.images) {
      nlohmann::ordered_json images = nlohmann::ordered_json::array();
      for (const std::string& image : *m.images)
        images.push_back("data:image/jpeg;base64," + base64::encode(image));
      message["images"] = std::move(images);
    }
    wire.push_back(std::move(message));
  }
  const nlohmann::ordered_json body{{"model", model},
                                    {"messages", std::move(wire)},
                                    {"stream", true},
                                    {"temperature", kTemperature},
                                    {"maxTokens", kMaxTokens}};
  request.body = body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return request;
}

std::exception_ptr LumoraCloudClient::errorFromBody(std::string_view body, int status) {
  json::Parser parser;
  if (parser.parse(body)) {
    if (auto error = errorResponse(parser.root())) {
      debug::line({"[debug] ERROR", error->error,
                   error->code ? std::to_string(*error->code) : std::string("nil")});
      return std::make_exception_ptr(AppError::apiError(
          error->code ? std::to_string(*error->code) + ": " + error->error : error->error));
    }
    if (auto error = openAIErrorResponse(parser.root())) {
      if (error->error.code == "cloud_insufficient_quota")
        return std::make_exception_ptr(AppError::insufficientQuota());
      return std::make_exception_ptr(AppError::apiError(error->error.message));
    }
  }
  return std::make_exception_ptr(AppError::httpError(status));
}

ChunkStream LumoraCloudClient::streamChat(const std::string& model,
                                          const std::vector<ChatMessage>& messages, double,
                                          std::stop_token stop) {
  HttpRequest request = chatRequest(model, messages, kTemperature);
  debug::line({"[debug] cloud request model:", model, "temperature", formatDouble(kTemperature),
               request.url});
  std::unique_ptr<HttpResponse> response = sendRequest(environment_, request, stop);
  if (response->status() != 200) {
    const std::string joined = readJoinedLines(*response, stop);
    debug::line({"[debug][api error]", joined});
    std::rethrow_exception(errorFromBody(joined, response->status()));
  }
  return readChunks(std::move(response), makeLines(), environment_.maxReplyBytes);
}

}  // namespace lumora
