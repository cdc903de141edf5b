// The streaming generation of the generative-language service: the request that
// GenerativeModel sends, and the reading of its answer's lines into checked responses.
//
// A model is made for one generation. It talks to the service through the environment's
// transport with a plain session: the user's HTTPS proxy setting is not applied here, only the
// idle timeout and the caller's stop.
#pragma once

#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/platform/Http.h"
#include "lumora/providers/generativelanguage/GenerateContentError.h"
#include "lumora/providers/generativelanguage/GenerateContentResponse.h"
#include "lumora/providers/generativelanguage/ModelContent.h"

namespace lumora::generativelanguage {

// Sent in "x-goog-api-client" as "genai-<language>/<version>".
inline constexpr std::string_view kClientVersion = "0.4.8";

struct RequestOptions {
  std::optional<double> timeout;  // seconds without a byte; absent: the environment's
  std::string apiVersion;         // "v1", "v1beta"
};

// One generation as it goes out. Only `contents` is written into the body: this system sends
// neither a generation configuration nor safety settings, so the server's defaults hold.
struct GenerateContentRequest {
  std::string model;  // the resource name, "models/..."
  std::vector<ModelContent> contents;
  bool isStreaming = true;
  RequestOptions options;

  // {"contents":[{"role":..., "parts":[{"text":...} | {"inline_data":{"mime_type", "data"}}]}]}
  std::string body() const;
};

// The service's endpoint and credentials.
class GenerativeAIService {
 public:
  // Registers the key for masking.
  GenerativeAIService(std::string apiKey, const ChatEnvironment& environment);

  // The request for `request`, without sending it.
  HttpRequest urlRequest(const GenerateContentRequest& request) const;

  // Sends `request` and waits for the head. Status 200 gives the response with its body
  // unread. Any other status reads the body and throws the RPCError it holds, or the
  // DecodingError when it holds none. Throws TransportError when the request cannot be made,
  // and CancellationError when `stop` comes first.
  std::unique_ptr<HttpResponse> loadRequestStream(const GenerateContentRequest& request,
                                                  std::stop_token stop) const;

 private:
  std::string apiKey_;
  const ChatEnvironment& environment_;
};

// The lines of one streamed answer whose status was 200, read into responses. One per stream,
// used by its reader only.
class ResponseLineReader {
 public:
  // The response of a "data:" line that passes the check, or nullopt for any other line, which
  // is kept for end(). Throws GenerateContentError: a line that does not decode is
  // internalError; a response whose prompt was blocked is promptBlocked; one whose first
  // candidate finished for any reason but STOP is responseStoppedEarly.
  std::optional<GenerateContentResponse> line(std::string_view line);

  // After the last line: lines that were not data are joined and read as the service's error
  // object, which fails the stream (contentError of the RPCError or of the DecodingError).
  void end();

 private:
  ResponseDecoder decoder_;
  std::string extraLines_;
};

class GenerativeModel {
 public:
  // `name` becomes "models/" + name unless it holds a "/" already.
  GenerativeModel(std::string_view name, std::string apiKey, RequestOptions requestOptions,
                  const ChatEnvironment& environment);

  const std::string& modelResourceName() const { return modelResourceName_; }
  const RequestOptions& requestOptions() const { return requestOptions_; }

  // The streaming request for `contents`, without sending it.
  HttpRequest streamRequest(const std::vector<ModelContent>& contents) const;

  // Sends the streaming request and waits for the head: the response, with its body unread, to
  // be read line by line through a ResponseLineReader. Throws GenerateContentError (through
  // contentError) for every failure up to there except a stop, which throws
  // CancellationError.
  std::unique_ptr<HttpResponse> generateContentStream(const std::vector<ModelContent>& contents,
                                                      std::stop_token stop) const;

 private:
  GenerateContentRequest request(const std::vector<ModelContent>& contents) const;

  std::string modelResourceName_;
  GenerativeAIService generativeAIService_;
  RequestOptions requestOptions_;
};

}  // namespace lumora::generativelanguage
