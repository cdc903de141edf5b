// A response body read as lines, the way every client reads its answer: the lines of a stream,
// one at a time, into chunks on the stream's own thread; or the whole (bounded) body of an
// answer that is not a stream, to be judged as an error.
//
// Lines end at LF, CR or CR LF, and empty lines are never delivered.
#pragma once

#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "lumora/chat/ChatEnvironment.h"
#include "lumora/chat/ChunkStream.h"
#include "lumora/platform/Http.h"

namespace lumora {

// A client's rule for the lines of one stream. One reader per stream, used by its producer
// thread only, so it keeps the stream's state (the text so far) without a lock.
class LineReader {
 public:
  virtual ~LineReader() = default;
  // The chunk for one line, or nullopt for a line that yields nothing. Throws to fail the
  // stream; the chunks before stand.
  virtual std::optional<StreamChunk> line(std::string_view line) = 0;
  // line() written over `chunk`, the way the stream reads its lines: `chunk` is a new chunk, or
  // the one made for an earlier line that a newer one replaces. False, `chunk` untouched, for a
  // line that yields nothing. Throws, `chunk` untouched, to fail the stream, and with
  // TransportError(replyTooLong) (failReplyTooLong()) for a chunk whose reply passes `maxReply`
  // bytes. Through line() unless a reader writes in place what changed from record to record.
  virtual bool update(std::string_view line, StreamChunk& chunk, size_t maxReply);
  // After the last line of a body that the server ended normally. Throws to fail the stream.
  virtual void end() {}
};

// Fails a stream whose reply passed `maxReply` bytes, the limit of the setting "maxReplyMiB".
[[noreturn]] void failReplyTooLong(size_t maxReply);

// Throws RequestTooLargeError when the body of `request` passes the environment's
// maxRequestBytes: every chat request is measured here before it goes out.
void checkRequestSize(const ChatEnvironment& environment, const HttpRequest& request);

// Sends `request` through the session of the settings (the proxy setting applies) and waits
// for the response head. Throws TransportError, or CancellationError for a stop before the head;
// RequestTooLargeError, sending nothing, for a body past the budget (checkRequestSize).
std::unique_ptr<HttpResponse> sendRequest(const ChatEnvironment& environment,
                                          const HttpRequest& request, std::stop_token stop);

// Every line of the body, each followed by `after`, joined. An error body is only read for its
// text, so at most 1 MiB is kept and the rest is read and dropped; a line beyond that limit
// ends the reading without a failure.
std::string readJoinedLines(HttpResponse& response, std::stop_token stop,
                            std::string_view after = {});

// The stream of a response whose head said it is one: its body's lines go through `reader` on
// the stream's own thread. A chunk whose reply passes `maxReply` bytes fails the stream with
// TransportError(replyTooLong); the chunks before it stand.
ChunkStream readChunks(std::unique_ptr<HttpResponse> response, std::unique_ptr<LineReader> reader,
                       size_t maxReply);

}  // namespace lumora
