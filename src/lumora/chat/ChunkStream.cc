#include "lumora/chat/ChunkStream.h"

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace lumora {

// The producer appends batches to `queue`; the consumer takes the whole queue at once into
// `taken` and hands it out without the lock. The producer wakes the consumer only when it
// waits.
struct ChunkSink::Target {
  std::mutex mutex;
  std::condition_variable_any ready;
  std::vector<StreamChunk> queue;
  bool waiting = false;
  bool finished = false;
  std::exception_ptr failure;
  std::vector<StreamChunk> taken;  // consumer only
  size_t next = 0;                 // consumer only
  std::jthread producer;           // last: joined first when the state goes
};

void ChunkSink::publish() {
  if (kept_.empty()) return;
  bool wake;
  {
    std::lock_guard lock(target_.mutex);
    if (target_.queue.empty()) {
      std::swap(target_.queue, kept_);
    } else {
      for (StreamChunk& chunk : kept_) target_.queue.push_back(std::move(chunk));
    }
    kept_.clear();
    wake = target_.waiting;
  }
  if (wake) target_.ready.notify_one();
}

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
    ChunkSink sink(*s);
    try {
      producer(sink, stop);
    } catch (...) {
      failure = std::current_exception();
    }
    sink.publish();
    {
      std::lock_guard lock(s->mutex);
      s->finished = true;
      s->failure = failure;
    }
    s->ready.notify_one();
  });
  return ChunkStream(std::move(state));
}

std::optional<StreamChunk> ChunkStream::next(std::stop_token stop) {
  State& s = *state_;
  if (stop.stop_requested()) return std::nullopt;
  if (s.next < s.taken.size()) return std::move(s.taken[s.next++]);
  s.taken.clear();
  s.next = 0;
  std::unique_lock lock(s.mutex);
  s.waiting = true;
  s.ready.wait(lock, stop, [&] { return !s.queue.empty() || s.finished; });
  s.waiting = false;
  if (stop.stop_requested()) return std::nullopt;
  if (!s.queue.empty()) {
    std::swap(s.taken, s.queue);
    return std::move(s.taken[s.next++]);
  }
  if (s.failure) std::rethrow_exception(std::exchange(s.failure, nullptr));
  return std::nullopt;
}

}  // namespace lumora
