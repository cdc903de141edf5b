#include "lumora/chat/ChunkStream.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace lumora {

struct ChunkStream::State {
  std::mutex mutex;
  std::condition_variable_any ready;
  std::deque<StreamChunk> queue;
  bool finished = false;
  std::exception_ptr failure;
  std::jthread producer;  // last: joined first when the state goes
};

ChunkStream::ChunkStream(std::shared_ptr<State> state) : state_(std::move(state)) {}
ChunkStream::ChunkStream(ChunkStream&&) noexcept = default;
ChunkStream& ChunkStream::operator=(ChunkStream&&) noexcept = default;

ChunkStream::~ChunkStream() {
  if (!state_) return;
  // The consumer is gone: stop reading and wait for the reader, which drops the connection.
  if (state_->producer.joinable()) {
    state_->producer.request_stop();
    state_->producer.join();
  }
}

ChunkStream ChunkStream::start(Producer producer) {
  auto state = std::make_shared<State>();
  State* s = state.get();
  s->producer = std::jthread([s, producer = std::move(producer)](std::stop_token stop) {
    std::exception_ptr failure;
    try {
      producer(
          [s](StreamChunk chunk) {
            {
              std::lock_guard lock(s->mutex);
              s->queue.push_back(std::move(chunk));
            }
            s->ready.notify_one();
          },
          stop);
    } catch (...) {
      failure = std::current_exception();
    }
    {
      std::lock_guard lock(s->mutex);
      s->finished = true;
      s->failure = failure;
    }
    s->ready.notify_one();
  });
  return ChunkStream(std::move(state));
}

ChunkStream ChunkStream::empty() {
  auto state = std::make_shared<State>();
  state->finished = true;
  return ChunkStream(std::move(state));
}

std::optional<StreamChunk> ChunkStream::next(std::stop_token stop) {
  State& s = *state_;
  std::unique_lock lock(s.mutex);
  s.ready.wait(lock, stop, [&] { return !s.queue.empty() || s.finished; });
  if (stop.stop_requested()) return std::nullopt;
  if (!s.queue.empty()) {
    StreamChunk chunk = std::move(s.queue.front());
    s.queue.pop_front();
    return chunk;
  }
  if (s.failure) std::rethrow_exception(std::exchange(s.failure, nullptr));
  return std::nullopt;
}

}  // namespace lumora
