#include "lumora/chat/ResponseLines.h"

#include "lumora/chat/Errors.h"
#include "lumora/chat/HttpSession.h"
#include "lumora/platform/Errors.h"
#include "lumora/platform/LineSplitter.h"
#include "lumora/platform/Text.h"

namespace lumora {
namespace {

constexpr size_t kMaxErrorBody = size_t{1} << 20;

}  // namespace

bool LineReader::update(std::string_view text, StreamChunk& chunk, size_t maxReply) {
  std::optional<StreamChunk> made = line(text);
  if (!made) return false;
  if (made->completed.size() > maxReply) failReplyTooLong(maxReply);
  chunk = std::move(*made);
  return true;
}

void failReplyTooLong(size_t maxReply) {
  throw TransportError(TransportError::Code::replyTooLong,
                       "The reply passed " + text::sizeText(maxReply) +
                           ", the limit of the setting \"maxReplyMiB\"; it was cut off there.");
}

void checkRequestSize(const ChatEnvironment& environment, const HttpRequest& request) {
  if (request.body.size() > environment.maxRequestBytes)
    throw RequestTooLargeError(request.body.size(), environment.maxRequestBytes);
}

std::unique_ptr<HttpResponse> sendRequest(const ChatEnvironment& environment,
                                          const HttpRequest& request, std::stop_token stop) {
  checkRequestSize(environment, request);
  return environment.transport.send(request, makeSession(environment), stop);
}

std::string readJoinedLines(HttpResponse& response, std::stop_token stop, std::string_view after) {
  std::string joined;
  LineSplitter splitter(kMaxErrorBody);
  auto onLine = [&](std::string_view line) {
    if (joined.size() + line.size() + after.size() > kMaxErrorBody) return;
    joined.append(line);
    joined.append(after);
  };
  try {
    response.readBody([&](std::string_view bytes) { splitter.feed(bytes, onLine); }, stop);
    splitter.finish(onLine);
  } catch (const TransportError& e) {
    if (e.code() != TransportError::Code::lineTooLong) throw;
  }
  return joined;
}

ChunkStream readChunks(std::unique_ptr<HttpResponse> response, std::unique_ptr<LineReader> reader,
                       size_t maxReply) {
  std::shared_ptr<HttpResponse> body(std::move(response));
  std::shared_ptr<LineReader> lines(std::move(reader));
  return ChunkStream::start([body, lines, maxReply](ChunkSink& sink, std::stop_token stop) {
    LineSplitter splitter;
    auto onLine = [&](std::string_view line) {
      StreamChunk& chunk = sink.slot();
      bool made;
      try {
        made = lines->update(line, chunk, maxReply);
      } catch (...) {
        sink.drop();
        throw;
      }
      if (made) {
        sink.commit();
      } else {
        sink.drop();
      }
    };
    body->readBody([&](std::string_view bytes) { splitter.feed(bytes, onLine); }, stop,
                   [&] { sink.publish(); });
    if (stop.stop_requested()) return;
    splitter.finish(onLine);
    lines->end();
  });
}

}  // namespace lumora
