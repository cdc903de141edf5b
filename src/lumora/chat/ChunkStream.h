// The sequence of chunks that a streaming call returns.
//
// A producer (the reader of one response body) runs on a thread of its own and feeds an
// unbounded queue, so the body is read as fast as the network gives it whatever the consumer
// does. The consumer pulls with next(). Failures cross from the producer to the consumer as
// exceptions: the next pull after the last chunk rethrows the producer's failure.
//
// When the consumer is gone (the stream is destroyed), the producer is asked to stop and its
// transfer is aborted, so a reply that nobody reads stops costing the user tokens.
//
// Thread-safety: one consumer thread calls next(); the producer runs on its own thread.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

#include "lumora/chat/ChatMessage.h"

namespace lumora {

class ChunkStream;

// Where a producer puts its chunks. Chunks are kept until publish(), which hands them to the
// consumer together: a reader publishes whenever it has caught up with the network, so a fast
// stream wakes its consumer once per burst of data, not once per chunk. A long burst is
// published every kMaxKept chunks, and what is kept when the producer returns or fails is
// published then.
class ChunkSink {
 public:
  static constexpr size_t kMaxKept = 1024;

  void emit(StreamChunk&& chunk) {
    slot() = std::move(chunk);
    commit();
  }

  // emit() in two steps, for a producer that writes a chunk in place: slot() is the chunk to
  // write, then commit() emits it, or drop() takes it back when the producer has nothing to
  // emit after all. A consumer of the newest chunk only would drop every older one kept here,
  // so for it the slot is the chunk kept last, if there is one: the newest replaces it, and
  // nothing is made, handed over or freed for each record. The producer writes the slot only
  // once it knows the chunk stands, since a kept chunk is still to be published as it was.
  StreamChunk& slot() {
    fresh_ = kept_.empty() || !newestOnly();
    if (fresh_) kept_.emplace_back();
    return kept_.back();
  }
  void commit() {
    if (kept_.size() >= kMaxKept) publish();
  }
  void drop() {
    if (fresh_) kept_.pop_back();
  }

  void publish();

 private:
  friend class ChunkStream;
  struct Target;
  explicit ChunkSink(Target& target);
  bool newestOnly() const { return newestOnly_.load(std::memory_order_relaxed); }
  Target& target_;
  const std::atomic<bool>& newestOnly_;  // the target's: set by the consumer's first newest()
  std::vector<StreamChunk> kept_;
  bool fresh_ = false;  // the slot was made by the last slot()
};

class ChunkStream {
 public:
  // Produces the chunks into `sink`, returns at the end of the stream, throws on failure, and
  // returns early when `stop` is requested.
  using Producer = std::function<void(ChunkSink& sink, std::stop_token stop)>;

  // Starts `producer` on its own thread.
  static ChunkStream start(Producer producer);


  ChunkStream(ChunkStream&&) noexcept;
  ChunkStream& operator=(ChunkStream&&) noexcept;
  ~ChunkStream();

  // The next chunk. Blocks until there is one. nullopt when the stream has ended, or when
  // `stop` is requested: the iteration then ends at once and what was taken so far stands.
  // Throws the producer's failure once every chunk before it has been taken.
  std::optional<StreamChunk> next(std::stop_token stop = {});

  // The newest chunk published so far, every older one not yet taken being dropped; blocks as
  // next() does when there is none. Since each chunk carries the whole reply so far, a consumer
  // that only shows the reply loses nothing, and a fast stream costs it one call per burst.
  // Ends and fails as next() does. From the first call on, the producer keeps only its newest
  // chunk between publishes, so a consumer calls this or next(), not both.
  std::optional<StreamChunk> newest(std::stop_token stop = {});

 private:
  using State = ChunkSink::Target;
  explicit ChunkStream(std::shared_ptr<State> state);
  // Moves the published batches behind what the consumer holds; waits for one when `wait` and
  // there is none. False when nothing new came.
  bool take(std::stop_token stop, bool wait);
  std::shared_ptr<State> state_;
};

}  // namespace lumora
