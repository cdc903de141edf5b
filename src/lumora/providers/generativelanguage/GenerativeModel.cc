#include "lumora/providers/generativelanguage/GenerativeModel.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "lumora/chat/Endpoints.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Base64.h"
#include "lumora/platform/Debug.h"
#include "lumora/platform/KeyCase.h"
#include "lumora/platform/Redact.h"
#include "lumora/platform/Text.h"

namespace lumora::generativelanguage {
namespace {

// The client token names the language the client is written in. The service's own libraries
// send their language's short name there ("genai-<language>/<version>"); this one is C++.
constexpr std::string_view kClientLanguage = "cpp";
constexpr std::string_view kDataPrefix = "data:";
// Lines of a 200 answer that are not data can only be an error object, which is small; beyond
// this they are dropped, so a server that sends no data lines cannot fill the memory.
constexpr size_t kMaxExtraLines = size_t{1} << 20;
constexpr double kMaxTimeoutSeconds = 24 * 60 * 60;

void log(std::string_view text) { debug::line({"[GoogleGenerativeAI] " + std::string(text)}); }

// A line as a debug line can show it: the bytes a server sends need not be UTF-8.
std::string shown(std::string_view line) {
  return text::isValidUtf8(line) ? std::string(line) : text::repairedUtf8(line);
}

}  // namespace

std::string GenerateContentRequest::body() const {
  using nlohmann::ordered_json;
  ordered_json wireContents = ordered_json::array();
  for (const ModelContent& content : contents) {
    ordered_json wire = ordered_json::object();
    if (content.role) wire["role"] = *content.role;
    ordered_json parts = ordered_json::array();
    for (const ModelContent::Part& part : content.parts) {
      ordered_json wirePart = ordered_json::object();
      if (const std::string* text = part.textValue()) {
        wirePart["text"] = *text;
      } else if (const ModelContent::Part::Data* data = part.dataValue()) {
        ordered_json inline_ = ordered_json::object();
        inline_["mime_type"] = data->mimetype;
        inline_["data"] = base64::encode(data->bytes);
        wirePart[keycase::toSnakeCase("inlineData")] = std::move(inline_);
      }
      parts.push_back(std::move(wirePart));
    }
    wire["parts"] = std::move(parts);
    wireContents.push_back(std::move(wire));
  }
  ordered_json body = ordered_json::object();
  body["contents"] = std::move(wireContents);
  // Ill-formed UTF-8 in a message goes out as U+FFFD rather than failing the request.
  return body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

GenerativeAIService::GenerativeAIService(std::string apiKey, const ChatEnvironment& environment)
    : apiKey_(std::move(apiKey)), environment_(environment) {
  redact::registerSecret(apiKey_);
}

HttpRequest GenerativeAIService::urlRequest(const GenerateContentRequest& request) const {
  HttpRequest out;
  out.method = "POST";
  out.url = endpointBase(FixedEndpoint::gemini) + "/" + request.options.apiVersion + "/" +
            request.model +
            (request.isStreaming ? ":streamGenerateContent?alt=sse" : ":generateContent");
  out.headers = {
      {"x-goog-api-key", apiKey_},
      {"x-goog-api-client",
       "genai-" + std::string(kClientLanguage) + "/" + std::string(kClientVersion)},
      {"Content-Type", "application/json"},
  };
  out.body = request.body();
  return out;
}

std::unique_ptr<HttpResponse> GenerativeAIService::loadRequestStream(
    const GenerateContentRequest& request, std::stop_token stop) const {
  // The plain session: the idle timeout and nothing of the user's proxy setting.
  SessionConfiguration session;
  session.idleTimeout = environment_.idleTimeout;
  if (const auto seconds = request.options.timeout;
      seconds && *seconds > 0 && *seconds <= kMaxTimeoutSeconds) {
    session.idleTimeout = std::chrono::milliseconds(std::llround(*seconds * 1000));
  }
  const HttpRequest out = urlRequest(request);
  checkRequestSize(environment_, out);
  std::unique_ptr<HttpResponse> response = environment_.transport.send(out, session, stop);
  if (response->status() == 200) return response;

  log("The server responded with an error: HTTP " + std::to_string(response->status()));
  const std::string body = readJoinedLines(*response, stop, "\n");
  if (stop.stop_requested()) throw CancellationError();
  log("Response payload: " + shown(body));
  throw decodeRPCError(body);
}

std::optional<GenerateContentResponse> ResponseLineReader::line(std::string_view line) {
  if (debug::enabled()) log("Stream response: " + shown(line));
  if (!line.starts_with(kDataPrefix)) {
    if (extraLines_.size() + line.size() <= kMaxExtraLines) extraLines_.append(line);
    return std::nullopt;
  }
  const std::string_view text = line.substr(kDataPrefix.size());
  GenerateContentResponse response;
  try {
    response = decoder_.decode(text);
  } catch (const DecodingError& e) {
    log("JSON response: " + shown(text));
    log("Error decoding server JSON: " + std::string(e.what()));
    throw contentError(std::current_exception());
  }
  // A blocked or stopped response never reaches the caller as a response.
  if (response.promptFeedback && response.promptFeedback->blockReason)
    throw GenerateContentError::promptBlocked(std::move(response));
  if (!response.candidates.empty()) {
    const std::optional<FinishReason> reason = response.candidates.front().finishReason;
    if (reason && *reason != FinishReason::stop)
      throw GenerateContentError::responseStoppedEarly(*reason, std::move(response));
  }
  return response;
}

void ResponseLineReader::end() {
  if (extraLines_.empty()) return;
  std::exception_ptr failure;
  try {
    failure = std::make_exception_ptr(decodeRPCError(extraLines_));
  } catch (const DecodingError&) {
    failure = std::current_exception();
  }
  throw contentError(failure);
}

GenerativeModel::GenerativeModel(std::string_view name, std::string apiKey,
                                 RequestOptions requestOptions, const ChatEnvironment& environment)
    : modelResourceName_(name.find('/') != std::string_view::npos ? std::string(name)
                                                                  : "models/" + std::string(name)),
      generativeAIService_(std::move(apiKey), environment),
      requestOptions_(std::move(requestOptions)) {}

GenerateContentRequest GenerativeModel::request(const std::vector<ModelContent>& contents) const {
  return GenerateContentRequest{modelResourceName_, contents, true, requestOptions_};
}

HttpRequest GenerativeModel::streamRequest(const std::vector<ModelContent>& contents) const {
  return generativeAIService_.urlRequest(request(contents));
}

std::unique_ptr<HttpResponse> GenerativeModel::generateContentStream(
    const std::vector<ModelContent>& contents, std::stop_token stop) const {
  try {
    return generativeAIService_.loadRequestStream(request(contents), stop);
  } catch (const CancellationError&) {
    throw;
  } catch (...) {
    throw contentError(std::current_exception());
  }
}

}  // namespace lumora::generativelanguage
