// An HTTP transport in memory: each request takes the next scripted answer, and the test can
// hold a body open until it lets it go. Records every request.
#pragma once

#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "lumora/platform/Errors.h"
#include "lumora/platform/Http.h"

namespace lumora::testing {

// Opens once; waiting on it also ends when the waiter's stop is requested.
class Gate {
 public:
  void open() {
    {
      std::lock_guard lock(mutex_);
      open_ = true;
    }
    cv_.notify_all();
  }
  // True when opened, false when stopped first.
  bool wait(std::stop_token stop) {
    std::unique_lock lock(mutex_);
    waited_ = true;
    cv_.notify_all();
    return cv_.wait(lock, stop, [&] { return open_; });
  }
  // Returns once something has begun to wait (a body gate: once every piece before it is out).
  void awaitWaiter() {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [&] { return waited_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable_any cv_;
  bool open_ = false;
  bool waited_ = false;
};

struct FakeAnswer {
  int status = 200;
  std::vector<std::string> pieces;  // the body
  std::shared_ptr<Gate> headGate;   // the head waits for this, if set
  std::shared_ptr<Gate> bodyGate;   // after the pieces, the body waits for this
  std::exception_ptr sendFailure;   // thrown instead of a head
  std::exception_ptr bodyFailure;   // thrown after the pieces
};

class FakeTransport final : public HttpTransport {
 public:
  void enqueue(FakeAnswer answer) {
    std::lock_guard lock(mutex_);
    answers_.push_back(std::move(answer));
  }
  std::vector<HttpRequest> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  std::vector<SessionConfiguration> sessions() const {
    std::lock_guard lock(mutex_);
    return sessions_;
  }

  std::unique_ptr<HttpResponse> send(const HttpRequest& request,
                                     const SessionConfiguration& session,
                                     std::stop_token stop) override {
    FakeAnswer answer;
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(request);
      sessions_.push_back(session);
      if (!answers_.empty()) {
        answer = std::move(answers_.front());
        answers_.pop_front();
      }
    }
    if (answer.headGate && !answer.headGate->wait(stop)) throw CancellationError();
    if (stop.stop_requested()) throw CancellationError();
    if (answer.sendFailure) std::rethrow_exception(answer.sendFailure);
    return std::make_unique<Response>(std::move(answer));
  }

 private:
  class Response final : public HttpResponse {
   public:
    explicit Response(FakeAnswer answer) : answer_(std::move(answer)) {}
    int status() const override { return answer_.status; }
    const HttpHeaders& headers() const override { return headers_; }
    void readBody(const std::function<void(std::string_view)>& onBytes, std::stop_token stop,
                  const std::function<void()>& onCaughtUp) override {
      for (const std::string& piece : answer_.pieces) {
        if (stop.stop_requested()) return;
        onBytes(piece);
        if (onCaughtUp) onCaughtUp();
      }
      if (answer_.bodyGate && !answer_.bodyGate->wait(stop)) return;
      if (answer_.bodyFailure) std::rethrow_exception(answer_.bodyFailure);
    }

   private:
    FakeAnswer answer_;
    HttpHeaders headers_;
  };

  mutable std::mutex mutex_;
  std::deque<FakeAnswer> answers_;
  std::vector<HttpRequest> requests_;
  std::vector<SessionConfiguration> sessions_;
};

// One OpenAI-style stream record carrying `content`.
inline std::string sseRecord(const std::string& content, const std::string& finish = "") {
  std::string record =
      R"(data: {"id":"c1","object":"chat.completion.chunk","created":1,"model":"gpt-test","choices":[{"index":0,"delta":{"content":)";
  std::string escaped;
  for (char c : content) {
    if (c == '"' || c == '\\') escaped += '\\';
    if (c == '\n') {
      escaped += "\\n";
      continue;
    }
    escaped += c;
  }
  record += "\"" + escaped + "\"}";
  record +=
      finish.empty() ? R"(,"finish_reason":null}]})" : R"(,"finish_reason":")" + finish + R"("}]})";
  return record + "\n\n";
}

}  // namespace lumora::testing
