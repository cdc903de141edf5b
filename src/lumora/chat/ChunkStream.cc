#include "lumora/chat/ChunkStream.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace lumora {

namespace {
using Batch = std::vector<StreamChunk>;
// Emptied batches kept for the producer to fill again, so that a long stream allocates its
// batches once.
constexpr size_t kMaxSpares = 4;
}  // namespace

// The producer publishes whole batches: a publish moves one vector, not each chunk again. The
// consumer takes every published batch at once and hands the chunks out without the lock; the
// batches it has emptied go back to the producer as spares. The producer wakes the consumer
// only when it waits.
struct ChunkSink::Target {
  std::mutex mutex;
  std::condition_variable_any ready;
  std::vector<Batch> published;
  std::vector<Batch> spares;
  bool waiting = false;
  bool finished = false;
  std::atomic<bool> newestOnly{false};  // set by the consumer's first newest()
  std::exception_ptr failure;
  std::vector<Batch> taken;  // consumer only: taken[batch][next] is the next chunk
  size_t batch = 0;          // consumer only
  size_t next = 0;           // consumer only
  std::jthread producer;     // last: joined first when the state goes
};

ChunkSink::ChunkSink(Target& target) : target_(target), newestOnly_(target.newestOnly) {}

void ChunkSink::publish() {
  if (kept_.empty()) return;
  bool wake;
  {
    std::lock_guard lock(target_.mutex);
    target_.published.push_back(std::move(kept_));
    kept_.clear();  // a moved-from vector is valid but unspecified
    if (!target_.spares.empty()) {
      kept_ = std::move(target_.spares.back());
      target_.spares.pop_back();
    }
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
      s->failure = std::move(failure);  // this thread keeps no hold on the error it hands over
    }
    s->ready.notify_one();
  });
  return ChunkStream(std::move(state));
}

bool ChunkStream::take(std::stop_token stop, bool wait) {
  State& s = *state_;
  std::unique_lock lock(s.mutex);
  if (wait && s.published.empty() && !s.finished) {
    s.waiting = true;
    s.ready.wait(lock, stop, [&] { return !s.published.empty() || s.finished; });
    s.waiting = false;
  }
  // The batches handed out entirely go back as spares (their chunks were moved out, or dropped
  // by newest()); the one being handed out stays in front.
  size_t done = s.batch;
  if (done < s.taken.size() && s.next >= s.taken[done].size()) ++done;
  for (size_t i = 0; i < done; ++i) {
    s.taken[i].clear();
    if (s.spares.size() < kMaxSpares) s.spares.push_back(std::move(s.taken[i]));
  }
  s.taken.erase(s.taken.begin(), s.taken.begin() + static_cast<std::ptrdiff_t>(done));
  if (done > s.batch) s.next = 0;
  s.batch = 0;
  if (s.published.empty()) return false;
  for (Batch& b : s.published) s.taken.push_back(std::move(b));
  s.published.clear();
  return true;
}

std::optional<StreamChunk> ChunkStream::next(std::stop_token stop) {
  State& s = *state_;
  if (stop.stop_requested()) return std::nullopt;
  while (true) {
    while (s.batch < s.taken.size()) {
      Batch& b = s.taken[s.batch];
      if (s.next < b.size()) return std::move(b[s.next++]);
      ++s.batch;
      s.next = 0;
    }
    if (!take(stop, /*wait=*/true)) break;
  }
  if (stop.stop_requested()) return std::nullopt;
  std::lock_guard lock(s.mutex);
  if (s.failure) std::rethrow_exception(std::exchange(s.failure, nullptr));
  return std::nullopt;
}

std::optional<StreamChunk> ChunkStream::newest(std::stop_token stop) {
  State& s = *state_;
  s.newestOnly.store(true, std::memory_order_relaxed);
  if (stop.stop_requested()) return std::nullopt;
  // What is published already comes along; only when nothing is left unread is it waited for.
  // Published batches are never empty, so the last one holds the newest chunk.
  take(stop, /*wait=*/false);
  const auto unread = [&] {
    return s.batch + 1 < s.taken.size() ||
           (s.batch < s.taken.size() && s.next < s.taken[s.batch].size());
  };
  if (unread() || take(stop, /*wait=*/true)) {
    Batch& last = s.taken.back();
    s.batch = s.taken.size() - 1;
    s.next = last.size();
    return std::move(last.back());
  }
  if (stop.stop_requested()) return std::nullopt;
  std::lock_guard lock(s.mutex);
  if (s.failure) std::rethrow_exception(std::exchange(s.failure, nullptr));
  return std::nullopt;
}

}  // namespace lumora
