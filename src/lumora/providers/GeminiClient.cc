#include "lumora/providers/GeminiClient.h"

#include <memory>

#include "lumora/chat/Errors.h"
#include "lumora/chat/ResponseLines.h"
#include "lumora/platform/Redact.h"
#include "lumora/providers/generativelanguage/GenerativeModel.h"

namespace lumora {
namespace {

using generativelanguage::contentError;
using generativelanguage::GenerateContentError;
using generativelanguage::GenerateContentResponse;
using generativelanguage::GenerativeModel;
using generativelanguage::ModelContent;
using generativelanguage::RPCError;

// Images of a chat are JPEG by declaration.
constexpr std::string_view kImageType = "image/jpeg";

// "assistant" speaks for the model; "user" and "system" both speak for the user.
bool isModelSide(std::string_view role) { return role == "assistant"; }

// The service wants turns that alternate between the user and the model, while a compose
// request puts a system and a user message one behind the other. Neighbours on the same side
// become one turn with the role of the first, their texts joined by a blank line (also when one
// is empty) and their images in order.
std::vector<ChatMessage> folded(const std::vector<ChatMessage>& messages) {
  std::vector<ChatMessage> out;
  for (const ChatMessage& message : messages) {
    if (out.empty() || isModelSide(out.back().role) != isModelSide(message.role)) {
      out.push_back(message);
      continue;
    }
    ChatMessage& last = out.back();
    last.content += "\n\n";
    last.content += message.content;
    if (!message.images) continue;
    if (!last.images) last.images.emplace();
    last.images->insert(last.images->end(), message.images->begin(), message.images->end());
  }
  return out;
}

std::vector<ModelContent> modelContents(const std::vector<ChatMessage>& messages) {
  std::vector<ModelContent> out;
  for (const ChatMessage& message : folded(messages)) {
    ModelContent content;
    content.role = isModelSide(message.role) ? "model" : "user";
    content.parts.push_back(ModelContent::Part::text(message.content));
    if (message.images)
      for (const std::string& image : *message.images)
        content.parts.push_back(ModelContent::Part::data(std::string(kImageType), image));
    out.push_back(std::move(content));
  }
  return out;
}

// What the user reads for a failed generation.
AppError chatError(const GenerateContentError& error) {
  using Kind = GenerateContentError::Kind;
  switch (error.kind()) {
    case Kind::internalError:
      if (error.underlying()) {
        try {
          std::rethrow_exception(error.underlying());
        } catch (const RPCError& rpc) {
          return AppError::apiError(rpc.message());
        } catch (...) {
        }
      }
      return AppError::apiError(describeFailure(error.underlying()));
    case Kind::promptBlocked: {
      const GenerateContentResponse* response = error.response();
      const auto text = response ? response->text() : std::nullopt;
      return AppError::apiError(text ? std::string(*text) : std::string(error.what()));
    }
    case Kind::responseStoppedEarly:
      return AppError::apiError(std::string(rawValue(error.reason())));
    case Kind::invalidAPIKey:
      return AppError::apiError("Invalid api key");
    case Kind::unsupportedUserLocation:
      return AppError::apiError("Unsupported user location");
  }
  return AppError::apiError(error.what());
}

// The body's own failures (a broken connection, a line beyond the limit) end the stream the
// way a failure of its records does.
class ChatFailures final : public HttpResponse {
 public:
  explicit ChatFailures(std::unique_ptr<HttpResponse> inner) : inner_(std::move(inner)) {}
  int status() const override { return inner_->status(); }
  const HttpHeaders& headers() const override { return inner_->headers(); }
  void readBody(const std::function<void(std::string_view)>& onBytes, std::stop_token stop,
                const std::function<void()>& onCaughtUp) override {
    try {
      inner_->readBody(onBytes, stop, onCaughtUp);
    } catch (const AppError&) {
      throw;
    } catch (...) {
      throw chatError(contentError(std::current_exception()));
    }
  }

 private:
  std::unique_ptr<HttpResponse> inner_;
};

// The responses of one stream as chunks: each response with text adds it to the reply so far.
class ReplyLines final : public LineReader {
 public:
  explicit ReplyLines(std::string_view model)
      : model_(model), text_(std::make_shared<ReplyBuffer>()) {}

  std::optional<StreamChunk> line(std::string_view line) override {
    std::optional<GenerateContentResponse> response;
    try {
      response = responses_.line(line);
    } catch (const GenerateContentError& e) {
      throw chatError(e);
    }
    if (!response) return std::nullopt;
    const std::optional<std::string_view> text = response->text();
    if (!text) return std::nullopt;
    text_->append(*text);
    return StreamChunk{model_, ReplyText(text_, text_->size()), std::nullopt};
  }

  void end() override {
    try {
      responses_.end();
    } catch (const GenerateContentError& e) {
      throw chatError(e);
    }
  }

 private:
  generativelanguage::ResponseLineReader responses_;
  ModelName model_;
  std::shared_ptr<ReplyBuffer> text_;
};

GenerativeModel generativeModel(const std::string& model, const std::string& apikey,
                                const ChatEnvironment& environment) {
  return GenerativeModel(
      model, apikey,
      {.timeout = std::nullopt, .apiVersion = std::string(GeminiClient::apiVersion(model))},
      environment);
}

}  // namespace

GeminiClient::GeminiClient(std::string apikey, const ChatEnvironment& environment)
    : apikey_(std::move(apikey)), environment_(environment) {
  redact::registerSecret(apikey_);
}

std::string_view GeminiClient::apiVersion(std::string_view model) {
  if (model == "gemini-1.5-pro-latest" || model == "gemini-1.5-flash-latest") return "v1beta";
  return "v1";
}

HttpRequest GeminiClient::chatRequest(const std::string& model,
                                      const std::vector<ChatMessage>& messages,
                                      double /*temperature*/) const {
  return generativeModel(model, apikey_, environment_).streamRequest(modelContents(messages));
}

ChunkStream GeminiClient::streamChat(const std::string& model,
                                     const std::vector<ChatMessage>& messages,
                                     double /*temperature*/, std::stop_token stop) {
  const GenerativeModel generative = generativeModel(model, apikey_, environment_);
  std::unique_ptr<HttpResponse> response;
  try {
    response = generative.generateContentStream(modelContents(messages), stop);
  } catch (const GenerateContentError& e) {
    throw chatError(e);
  }
  return readChunks(std::make_unique<ChatFailures>(std::move(response)),
                    std::make_unique<ReplyLines>(model), environment_.maxReplyBytes);
}

}  // namespace lumora
